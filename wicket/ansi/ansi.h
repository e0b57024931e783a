// ANSI sequence builders: the bytes that move the caller's cursor, clear the screen and set
// colours, and the pipe colour codes ("|1E") of door texts expanded into them. They send
// nothing; the door runtime passes the result to DoorWrite. They hold no state: the colour
// builders read the door's current attribute through GetTextAttr, so a door sets the
// attribute first (SetTextAttr and companions) and builds the sequence after.
//
// Numbers go out in plain decimal without padding. Nothing is clamped and no count is
// skipped: AnsiCursorUp(0) is ESC "[0A", AnsiGotoXY(0, 0) is ESC "[0;0f".
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "console/ansicolours.h"  // ANSI_COLOURS, part of this interface

std::string AnsiClrEol();  // ESC "[K"
std::string AnsiClrScr();  // ESC "[2J" ESC "[1;1f": clear, then home

std::string AnsiCursorUp(uint8_t ACount);     // ESC "[" n "A"
std::string AnsiCursorDown(uint8_t ACount);   // ESC "[" n "B"
std::string AnsiCursorRight(uint8_t ACount);  // ESC "[" n "C"
std::string AnsiCursorLeft(uint8_t ACount);   // ESC "[" n "D"
std::string AnsiCursorSave();                 // ESC "[s"
std::string AnsiCursorRestore();              // ESC "[u"

// ESC "[" AY ";" AX "f": row first on the wire, and "f" rather than "H".
std::string AnsiGotoXY(uint8_t AX, uint8_t AY);
// To a column or row without knowing where the cursor is: run into the left (top) edge with a
// count of 255, then step right (down) AX - 1 (AY - 1) when AX (AY) is above 1.
std::string AnsiGotoX(uint8_t AX);
std::string AnsiGotoY(uint8_t AY);

// Background from a colour 0..7; higher bits (bright, blink) are dropped: ESC "[4" d "m".
std::string AnsiTextBackground(uint8_t AColour);
// Foreground, AColour taken modulo 16 (so the blink offset 16 has no effect here).
// 0..7: ESC "[0;3" d "m", then the background of GetTextAttr() again, because code 0 resets
// the terminal's background too. 8..15: ESC "[1;3" d "m" with no background.
std::string AnsiTextColour(uint8_t AColour);
// The foreground of AAttr, then its background. The blink bit is not sent.
std::string AnsiTextAttr(uint8_t AAttr);
// ABlink: ESC "[5m". Otherwise ESC "[0m" followed by the background and then the foreground of
// GetTextAttr(), which restores the colours that the reset cleared.
std::string AnsiBlink(bool ABlink);

// Every "|" followed by two hex digits (either case) becomes AnsiTextAttr of that value,
// 0x80..0xFF counting as the value less 128. A "|" not followed by two hex digits stays as
// text, and the bytes behind it are read again (so "||07" gives "|" and a colour).
// Depends on the door's current attribute through AnsiTextAttr.
std::string PipeToAnsi(std::string_view AText);
