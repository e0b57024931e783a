// The main flow's decisions: the settings file an "@" argument names, and what every key byte
// does in the item loop.
#include "flow.h"

#include <gtest/gtest.h>

#include <vector>

TEST(ConfigFileFromArgs, Table) {
  struct TCase {
    std::vector<const char*> Args;  // without the program
    const char* Name;
  } Cases[] = {
      {{}, "tamblin.cfg"},
      {{"-S-1", "-N1"}, "tamblin.cfg"},
      {{"@my.cfg"}, "my.cfg"},
      {{"@first.cfg", "-N1", "@second.cfg"}, "second.cfg"},  // the last one wins
      {{"@"}, ""},                                           // "@" alone names the empty path
      {{"@a", "@"}, ""},
      {{"@ spaced .cfg "}, " spaced .cfg "},  // taken as it stands, not trimmed
      {{"@@x"}, "@x"},
      {{"", "x@y", "-@z"}, "tamblin.cfg"},  // only a leading "@" counts; empty arguments pass
      {{"@/etc/door/t.cfg", ""}, "/etc/door/t.cfg"},
  };
  for (const auto& C : Cases) {
    std::vector<const char*> Argv = {"tamblin"};
    Argv.insert(Argv.end(), C.Args.begin(), C.Args.end());
    EXPECT_EQ(ConfigFileFromArgs(static_cast<int>(Argv.size()), Argv.data()), C.Name);
  }
}

TEST(ItemCommandForKey, EveryByte) {
  for (int Flag = 0; Flag < 2; ++Flag) {
    for (int Key = 0; Key < 256; ++Key) {
      TItemCommand Expected = icNone;
      switch (Key) {
        case 'a':
        case 'A':
          Expected = icAbout;
          break;
        case 'n':
        case 'N':
          Expected = icNext;
          break;
        case 'p':
        case 'P':  // 0x50, also the Down arrow
          Expected = icPrevious;
          break;
        case 'q':
        case 'Q':
          Expected = icQuit;
          break;
        case '\r':
          Expected = Flag ? icQuit : icNone;
          break;
      }
      EXPECT_EQ(ItemCommandForKey(static_cast<uint8_t>(Key), Flag != 0), Expected) << Key << " " << Flag;
    }
  }
  // Bytes whose low seven bits spell a command are no command: no folding above 0x7F.
  EXPECT_EQ(ItemCommandForKey(0xE1, false), icNone);
  EXPECT_EQ(ItemCommandForKey(0xD1, false), icNone);
}

TEST(ItemAfterCommand, StopsAtBothEnds) {
  struct TCase {
    TItemCommand Command;
    int32_t Current, Count, After;
  } Cases[] = {
      {icNext, 0, 3, 1},     {icNext, 1, 3, 2},     {icNext, 2, 3, 2},  // no wrap-around
      {icPrevious, 2, 3, 1}, {icPrevious, 0, 3, 0},                     // no wrap-around
      {icNext, 0, 1, 0},     {icPrevious, 0, 1, 0},                     // one item: it stays
      {icAbout, 1, 3, 1},    {icQuit, 1, 3, 1},     {icNone, 1, 3, 1},
  };
  for (const auto& C : Cases) {
    EXPECT_EQ(ItemAfterCommand(C.Command, C.Current, C.Count), C.After)
        << C.Command << " " << C.Current << "/" << C.Count;
  }
}
