// The main flow's decisions: the settings file an "@" argument names, and what every key byte
// does in the item loop.
#include "flow.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

TEST(ConfigFileFromArgs, Table) {
  // Arguments without the program, and the settings file they name.
  const std::pair<std::vector<const char*>, std::string> Cases[] = {
      {{}, "tamblin.cfg"},
      {{"-S-1", "-N1"}, "tamblin.cfg"},
      {{"@my.cfg"}, "my.cfg"},
      {{"@first.cfg", "-N1", "@second.cfg"}, "second.cfg"},  // the last one wins
      {{"@"}, ""},                                           // "@" alone names the empty path
      {{"@ spaced .cfg "}, " spaced .cfg "},                 // taken as it stands, not trimmed
      {{"@@x"}, "@x"},
      {{"", "x@y", "-@z"}, "tamblin.cfg"},  // only a leading "@" counts; empty arguments pass
  };
  for (const auto& [Args, Name] : Cases) {
    std::vector<const char*> Argv = {"tamblin"};
    Argv.insert(Argv.end(), Args.begin(), Args.end());
    EXPECT_EQ(ConfigFileFromArgs(static_cast<int>(Argv.size()), Argv.data()), Name);
  }
}

TEST(ItemCommandForKey, EveryByte) {
  // Exact bytes only: no folding above 0x7F, so 0xE1 and 0xD1 are no commands. "P" is 0x50, also
  // the Down arrow.
  const std::map<int, TItemCommand> Commands = {{'a', icAbout}, {'A', icAbout},    {'n', icNext},
                                                {'N', icNext},  {'p', icPrevious}, {'P', icPrevious},
                                                {'q', icQuit},  {'Q', icQuit}};
  for (const bool ExitOnEnter : {false, true}) {
    for (int Key = 0; Key < 256; ++Key) {
      TItemCommand Want = Commands.contains(Key) ? Commands.at(Key) : icNone;
      if (Key == '\r' && ExitOnEnter) Want = icQuit;
      EXPECT_EQ(ItemCommandForKey(static_cast<uint8_t>(Key), ExitOnEnter), Want) << Key << " " << ExitOnEnter;
    }
  }
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
