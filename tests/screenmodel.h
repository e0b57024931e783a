// A model of the caller's 80 by 25 ANSI terminal for tests: it takes the bytes a door sent and
// keeps what a terminal would show, so that a test can say "row 25 reads ... from column 22"
// instead of matching every sequence. It knows the sequences the door and the bundled skins
// use: cursor position (H, f; 0 counts as 1), moves (A B C D, stopping at the edges), erase
// (J) and colours (m, in the PC attribute layout), plus CR, LF, BS, and the wrap after column
// 80 that happens when the next character comes. Anything else in a CSI is swallowed.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

struct TScreenCell {
  uint8_t Ch = ' ';
  uint8_t Attr = 0x07;
};

struct TScreenModel {
  static constexpr int WIDTH = 80;
  static constexpr int HEIGHT = 25;
  TScreenCell Cells[HEIGHT][WIDTH];
  int X = 1;  // 1-based cursor
  int Y = 1;
  bool PendingWrap = false;
  uint8_t Attr = 0x07;
  int Scrolls = 0;  // how often the screen moved up a line
  // The parser between two feeds: inside an escape sequence, and its bytes so far.
  int EscState = 0;
  std::string Params;
};

// Shows ABytes on AScreen.
void ScreenFeed(TScreenModel& AScreen, std::string_view ABytes);
// ALength characters of row AY from column AX (1-based), as shown.
std::string ScreenText(const TScreenModel& AScreen, int AX, int AY, int ALength);
// The whole row AY, with its trailing blanks removed.
std::string ScreenRow(const TScreenModel& AScreen, int AY);
uint8_t ScreenAttr(const TScreenModel& AScreen, int AX, int AY);
// All rows, numbered, for failure messages.
std::string ScreenDump(const TScreenModel& AScreen);

// The caller's side of a telnet link: the announcements (FF FB 00, FF FB 01) removed and every
// doubled FF made single again.
std::string TelnetPayload(std::string_view ABytes);
