// The sequence builders byte for byte, the colour ones against the attribute the door
// holds when it builds them.
#include "ansi.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "crt2/crt2.h"

namespace {

// Writes ESC as "\e" so that failures read like the sequences they are.
std::string Show(const std::string& AText) {
  std::string Out;
  for (char C : AText) Out += C == '\x1b' ? std::string("\\e") : std::string(1, C);
  return Out;
}

}  // namespace

TEST(AnsiBuilders, CursorAndScreenSequencesByteForByte) {
  struct TCase {
    std::string Got;
    std::string Want;
  } Cases[] = {
      {AnsiClrEol(), "\x1b[K"},
      {AnsiClrScr(), "\x1b[2J\x1b[1;1f"},
      {AnsiCursorUp(0), "\x1b[0A"},
      {AnsiCursorUp(5), "\x1b[5A"},
      {AnsiCursorDown(255), "\x1b[255B"},
      {AnsiCursorRight(1), "\x1b[1C"},
      {AnsiCursorLeft(12), "\x1b[12D"},
      {AnsiCursorSave(), "\x1b[s"},
      {AnsiCursorRestore(), "\x1b[u"},
      {AnsiGotoXY(80, 25), "\x1b[25;80f"},
      {AnsiGotoXY(1, 1), "\x1b[1;1f"},
      {AnsiGotoXY(0, 0), "\x1b[0;0f"},
      {AnsiGotoXY(255, 7), "\x1b[7;255f"},
      {AnsiGotoX(0), "\x1b[255D"},
      {AnsiGotoX(1), "\x1b[255D"},
      {AnsiGotoX(2), "\x1b[255D\x1b[1C"},
      {AnsiGotoX(10), "\x1b[255D\x1b[9C"},
      {AnsiGotoX(255), "\x1b[255D\x1b[254C"},
      {AnsiGotoY(0), "\x1b[255A"},
      {AnsiGotoY(1), "\x1b[255A"},
      {AnsiGotoY(5), "\x1b[255A\x1b[4B"},
  };
  for (const auto& C : Cases) EXPECT_EQ(Show(C.Got), Show(C.Want));
}

TEST(AnsiBuilders, ColourTableSwapsBlueRedAndCyanBrownAndIsItsOwnInverse) {
  const std::vector<int32_t> Table(AnsiColours, AnsiColours + 8);
  EXPECT_EQ(Table, (std::vector<int32_t>{0, 4, 2, 6, 1, 5, 3, 7}));
  for (int C = 0; C < 8; ++C) EXPECT_EQ(AnsiColours[AnsiColours[C]], C);
}

TEST(AnsiBuilders, ColourSequencesByteForByte) {
  struct TCase {
    uint8_t Current;  // the door's attribute when the sequence is built
    const char* Call;
    int Arg;
    std::string Want;
  } Cases[] = {
      {0x07, "Colour", 7, "\x1b[0;37m\x1b[40m"},
      {0x1E, "Colour", 7, "\x1b[0;37m\x1b[44m"},  // background from the current attribute
      {0x07, "Colour", 14, "\x1b[1;33m"},
      {0x40, "Colour", 14, "\x1b[1;33m"},
      {0x07, "Colour", 23, "\x1b[0;37m\x1b[40m"},  // 7 + blink offset
      {0x07, "Colour", 30, "\x1b[1;33m"},
      {0x07, "Colour", 255, "\x1b[1;37m"},
      {0x07, "Colour", 1, "\x1b[0;34m\x1b[40m"},
      {0x07, "Colour", 4, "\x1b[0;31m\x1b[40m"},
      {0xF0, "Colour", 3, "\x1b[0;36m\x1b[47m"},  // blink bit of the current one is not bg
      {0x07, "Background", 9, "\x1b[44m"},
      {0x07, "Background", 1, "\x1b[44m"},
      {0x07, "Background", 6, "\x1b[43m"},
      {0x07, "Background", 255, "\x1b[47m"},
      {0x07, "Attr", 0x1E, "\x1b[1;33m\x1b[44m"},
      {0x07, "Attr", 0x9E, "\x1b[1;33m\x1b[44m"},
      {0x17, "Attr", 0x17, "\x1b[0;37m\x1b[44m\x1b[44m"},
      {0x07, "Attr", 0x17, "\x1b[0;37m\x1b[40m\x1b[44m"},
      {0x07, "Attr", 0x00, "\x1b[0;30m\x1b[40m\x1b[40m"},
      {0x1E, "Blink", 0, "\x1b[0m\x1b[44m\x1b[1;33m"},
      {0x07, "Blink", 0, "\x1b[0m\x1b[40m\x1b[0;37m\x1b[40m"},
      {0x07, "Blink", 1, "\x1b[5m"},
  };
  for (const auto& C : Cases) {
    SetTextAttr(C.Current);
    const std::string Call = C.Call;
    const uint8_t Arg = static_cast<uint8_t>(C.Arg);
    std::string Got;
    if (Call == "Colour") Got = AnsiTextColour(Arg);
    if (Call == "Background") Got = AnsiTextBackground(Arg);
    if (Call == "Attr") Got = AnsiTextAttr(Arg);
    if (Call == "Blink") Got = AnsiBlink(C.Arg != 0);
    EXPECT_EQ(Show(Got), Show(C.Want)) << Call << "(" << C.Arg << ") with attribute " << int(C.Current);
  }
}
