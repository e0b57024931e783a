// The line editor and the light bar as the caller sees them: keys typed on a socketpair, every
// send of the door read back as one packet (SOCK_SEQPACKET), and the result reported by the
// door child. Each door runs in a fresh forked child.
#include "doorinputline.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "crt2/crt2.h"
#include "doorlink_testutil.h"

namespace {

// Names for the sequences these dialogues send, so that expectations read as steps.
// Attributes are those reached from the attribute 7 of a fresh process.
std::string Name(const std::string& APacket) {
  static const std::map<std::string, std::string> Names = {
      {"\x1b[1;37m\x1b[40m", "plain"},      // attribute 15
      {"\x1b[44m", "blue"},                 // background 1
      {"\x1b[1;37m\x1b[44m", "field"},      // attribute 0x1F from 7
      {"\x1b[0;37m\x1b[40m\x1b[40m", "7"},  // back to 7 from 0x1F
      {"\x1b[s", "save"},
      {"\x1b[u", "restore"},
      {"\r\n", "crlf"},
      {"\b \b", "erase"},
  };
  const auto Found = Names.find(APacket);
  if (Found != Names.end()) return Found->second;
  if (APacket.size() >= 4 && APacket[0] == '\x1b' && APacket[1] == '[' &&
      (APacket.back() == 'B' || APacket.back() == 'D'))
    return (APacket.back() == 'B' ? "down" : "left") + APacket.substr(2, APacket.size() - 3);
  return "'" + APacket + "'";
}

struct TDialogue {
  std::string Steps;   // the door's sends, named, space-separated
  std::string Result;  // what the door child reported
};

// Runs ADoorSide in a door child with AKeys already typed, and collects its sends.
TDialogue RunDialogue(const std::function<std::string()>& ADoorSide, const std::string& AKeys) {
  TDoorRun Door([&](int) { DoorReport(ADoorSide()); }, {.OnLink = true, .SocketType = SOCK_SEQPACKET});
  Send(Door.Caller, AKeys);
  std::string Steps;
  for (std::string Packet; !(Packet = ReadPacket(Door.Caller)).empty();)
    Steps += (Steps.empty() ? "" : " ") + Name(Packet);
  EXPECT_EQ(FinishDoor(Door), 0);
  return {Steps, Door.Report};
}

TEST(DoorInput, KeysGiveTheseBytesAndThisText) {
  const std::string All = DOOR_INPUT_CHARS_ALL;
  const struct {
    const char* What;
    std::string Default, Allowed;
    uint8_t Password, Visible, Max;
    std::string Keys, Steps, Result;
  } Cases[] = {
      {"the sixth character scrolls, backspace repaints, then erases", "", All, 0, 5, 10, "abcdef\b\b\r",
       "field '     ' left5 'a' 'b' 'c' 'd' 'e' left5 'bcdef' left5 'abcde' erase 7 crlf", "abcd"},
      {"a full field takes no more", "", All, 0, 3, 3, "abcd\r", "field '   ' left3 'a' 'b' 'c' 7 crlf",
       "abc"},
      {"a long default is cut (so the field is full), and ESC returns the cut one", "ABCDEFG", All, 0, 10, 4,
       "xy\b\x1b", "field 'ABCD' '      ' left6 erase 7 crlf", "ABCD"},
      {"ESC after editing drops the edit", "SYSOP", All, 0, 8, 8, "\b\bX\x1b",
       "field 'SYSOP' '   ' left3 erase erase 'X' 7 crlf", "SYSOP"},
      {"the password character hides the default and a long text", "abc", All, '*', 5, 10, "def\r",
       "field '***' '  ' left2 '*' '*' left5 '*****' 7 crlf", "abcdef"},
      {"keys outside the set, and BS and Ctrl-Y on nothing, do nothing", "", DOOR_INPUT_CHARS_NUMERIC, 0, 4,
       4,
       "a\b\x19"
       "1\r",
       "field '    ' left4 '1' 7 crlf", "1"},
      {"an arrow key types its code's letter", "", DOOR_INPUT_CHARS_ALPHA, 0, 4, 4, "\x1b[A\x1b[B\r",
       "field '    ' left4 'H' 'P' 7 crlf", "HP"},
      {"a zero-width field shows nothing but takes the text", "", All, 0, 0, 3, "ab\r", "field 7 crlf", "ab"},
  };
  // Ctrl-Y on a default shows in the login dialogue's tests.
  for (const auto& Case : Cases) {
    const TDialogue Got = RunDialogue(
        [&] {
          const uint8_t Before = GetTextAttr();
          std::string Text =
              DoorInput(Case.Default, Case.Allowed, Case.Password, Case.Visible, Case.Max, 0x1F);
          // The attribute is put back exactly; report a difference through the result.
          return GetTextAttr() == Before ? Text : Text + "<attribute not restored>";
        },
        Case.Keys);
    EXPECT_EQ(Got.Steps, Case.Steps) << Case.What;
    EXPECT_EQ(Got.Result, Case.Result) << Case.What;
  }
}

TEST(DoorLiteBar, KeysMoveTheHighlightRedrawingTwoRows) {
  const std::vector<std::string> Five = {"A", "B", "C", "D", "E"}, Two = {"A", "B"};
  const std::string Draw3 =
      "plain save blue 'A' plain restore down1 'B' plain restore down2 'C' plain restore";
  const struct {
    const char* What;
    std::vector<std::string> Rows;
    int32_t PageSize, StartIndex;
    std::string Keys, Steps;
    std::string Result;  // "true"/"false" and the index afterwards
  } Cases[] = {
      {"keys outside the table do nothing; Enter", Five, 3, 0, "579 x\r", Draw3, "true 0"},
      {"down twice, then stopped by the page size", Five, 3, 0, "22\x1b[B\r",
       Draw3 + " 'A' plain restore down1 blue 'B' plain restore down1 'B' plain restore down2 blue 'C' plain "
               "restore",
       "true 2"},
      {"up from the first row draws nothing", Five, 5, 0, "8hk4\r",
       Draw3 + " down3 'D' plain restore down4 'E' plain restore", "true 0"},
      {"the kept index comes back highlighted; up arrow and lower-case k move up", Five, 3, 2, "\x1b[Ak\r",
       "plain save 'A' plain restore down1 'B' plain restore down2 blue 'C' plain restore down2 'C' plain"
       " restore down1 blue 'B' plain restore down1 'B' plain restore blue 'A' plain restore",
       "true 0"},
      {"right arrow and 6, m and p move down; the last row stops them", Two, 9, 0, "\x1b[C6mp\r",
       "plain save blue 'A' plain restore down1 'B' plain restore 'A' plain restore down1 blue 'B' plain "
       "restore",
       "true 1"},
      {"Q leaves with false, and the index stays", Five, 3, 1, "2q",
       "plain save 'A' plain restore down1 blue 'B' plain restore down2 'C' plain restore down1 'B' plain"
       " restore down2 blue 'C' plain restore",
       "false 2"},
      {"an empty list draws nothing; Q gives false", {}, 5, 0, "2q", "plain save restore", "false 0"},
      {"a page size of no rows shows and reaches nothing", Five, INT32_MIN, 0, "2\r", "plain save restore",
       "true 0"},
      {"rows may carry pipe codes, which override the highlight",
       {"|0Ax"},
       1,
       0,
       "\r",
       "plain save blue '\x1b[1;32m\x1b[40mx' plain restore",
       "true 0"},
  };
  for (const auto& Case : Cases) {
    const TDialogue Got = RunDialogue(
        [&] {
          DoorLiteBarOptions = Case.Rows;
          DoorLiteBarIndex = Case.StartIndex;
          const bool Accepted = DoorLiteBar(Case.PageSize);
          return std::string(Accepted ? "true " : "false ") + std::to_string(DoorLiteBarIndex);
        },
        Case.Keys);
    EXPECT_EQ(Got.Steps, Case.Steps) << Case.What;
    EXPECT_EQ(Got.Result, Case.Result) << Case.What;
  }
}

}  // namespace
