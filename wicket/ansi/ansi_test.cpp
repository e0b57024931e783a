// The sequence builders byte for byte, the colour ones against the attribute the door
// holds when it builds them, and the pipe codes that expand to them.
#include "ansi.h"

#include <gtest/gtest.h>

#include <string>

#include "console/console_testutil.h"
#include "crt2/crt2.h"

using namespace std::string_literals;

namespace {

// AFn(AArg) built while the door's attribute is ACurrent.
std::string With(uint8_t ACurrent, std::string (*AFn)(uint8_t), uint8_t AArg) {
  SetTextAttr(ACurrent);
  return AFn(AArg);
}
std::string Blink(uint8_t AOn) { return AnsiBlink(AOn != 0); }

}  // namespace

TEST(AnsiBuilders, SequencesByteForByte) {
  // Braced lists run in order, so each With sets the attribute just before its own call.
  const struct {
    std::string Got;
    std::string Want;
  } Cases[] = {
      {AnsiClrEol() + AnsiClrScr() + AnsiCursorSave() + AnsiCursorRestore(),
       "\x1b[K\x1b[2J\x1b[1;1f\x1b[s\x1b[u"},
      {AnsiCursorUp(0) + AnsiCursorDown(255) + AnsiCursorRight(1) + AnsiCursorLeft(12),
       "\x1b[0A\x1b[255B\x1b[1C\x1b[12D"},
      {AnsiGotoXY(80, 25) + AnsiGotoXY(0, 0) + AnsiGotoXY(255, 7), "\x1b[25;80f\x1b[0;0f\x1b[7;255f"},
      {AnsiGotoX(0) + "|" + AnsiGotoX(2) + "|" + AnsiGotoX(255),
       "\x1b[255D|\x1b[255D\x1b[1C|\x1b[255D\x1b[254C"},
      {AnsiGotoY(1) + "|" + AnsiGotoY(5), "\x1b[255A|\x1b[255A\x1b[4B"},
      // Colours swap blue/red and cyan/brown between the PC's order and ANSI's.
      {With(0x07, AnsiTextColour, 7), "\x1b[0;37m\x1b[40m"},
      {With(0x1E, AnsiTextColour, 7), "\x1b[0;37m\x1b[44m"},  // background from the current attribute
      {With(0xF0, AnsiTextColour, 3), "\x1b[0;36m\x1b[47m"},  // its blink bit is not background
      {With(0x07, AnsiTextColour, 1), "\x1b[0;34m\x1b[40m"},
      {With(0x07, AnsiTextColour, 23), "\x1b[0;37m\x1b[40m"},  // 7 + blink offset
      {With(0x40, AnsiTextColour, 14), "\x1b[1;33m"},          // bright: no background
      {With(0x07, AnsiTextColour, 255), "\x1b[1;37m"},
      {With(0x07, AnsiTextBackground, 9), "\x1b[44m"},
      {With(0x07, AnsiTextBackground, 6), "\x1b[43m"},
      {With(0x07, AnsiTextBackground, 255), "\x1b[47m"},
      {With(0x07, AnsiTextAttr, 0x9E), "\x1b[1;33m\x1b[44m"},
      {With(0x07, AnsiTextAttr, 0x17), "\x1b[0;37m\x1b[40m\x1b[44m"},
      {With(0x07, AnsiTextAttr, 0x52), "\x1b[0;32m\x1b[40m\x1b[45m"},
      {With(0x07, AnsiTextAttr, 0x4C), "\x1b[1;31m\x1b[41m"},
      {With(0x1E, Blink, 0), "\x1b[0m\x1b[44m\x1b[1;33m"},
      {With(0x07, Blink, 0), "\x1b[0m\x1b[40m\x1b[0;37m\x1b[40m"},
      {With(0x07, Blink, 1), "\x1b[5m"},
  };
  for (const auto& C : Cases) EXPECT_EQ(Visible(C.Got), Visible(C.Want));
}

// Codes are two hex digits of either case, 128 and up lose bit 7; a code needs exactly two hex
// digits after the bar (no blank or sign as a number parser would allow).
TEST(PipeToAnsi, TranslatesCodesAndPassesEverythingElseAsText) {
  SetTextAttr(0x07);
  const std::string Grey = AnsiTextAttr(0x07);
  ASSERT_EQ(Visible(Grey), "\\e[0;37m\\e[40m\\e[40m");  // the table below leans on this
  const std::string White = AnsiTextAttr(0x0F), YellowOnBlue = AnsiTextAttr(0x1E);
  struct TCase {
    std::string Text;
    std::string Want;
  } Cases[] = {{"|07Hi", Grey + "Hi"},
               {"|0f|8F", White + White},
               {"|1E|9e", YellowOnBlue + YellowOnBlue},
               {"|FF", AnsiTextAttr(0x7F)},
               {"", ""},
               {"Hi|0", "Hi|0"},
               {"Hi|", "Hi|"},
               {"|GG|0G|x7", "|GG|0G|x7"},
               {"| 7|-1|+1", "| 7|-1|+1"},
               {"||07", "|" + Grey},
               {"|0|07", "|0" + Grey},
               {"|||", "|||"},
               {"\0|07\xFF"s, "\0"s + Grey + "\xFF"}};
  for (const auto& C : Cases) EXPECT_EQ(Visible(PipeToAnsi(C.Text)), Visible(C.Want)) << Visible(C.Text);
}
