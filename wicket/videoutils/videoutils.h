// Cell access on the local console: writing a string at an absolute position, reading and
// changing single cells, saving and restoring the whole screen, on a fixed grid of 80 columns by
// 25 rows. Writes leave the caller's window, cursor and attribute as they were; reads come from
// the console's shadow buffer and never ask the terminal.
//
// On a console smaller than the grid, positions outside the real screen are treated like
// positions outside the grid (writes do nothing, reads give a blank and attribute 7); on a larger
// console only its top left 80 x 25 cells are reached.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "console/console.h"

// A saved screen: [row - 1][column - 1], rows 1 to 25, columns 1 to 80. Owned by the caller.
using TScreenBuffer = std::array<std::array<TCharInfo, 80>, 25>;

// Writes ALine at column AX, row AY (1-80, 1-25; otherwise nothing happens) in attribute AAttr,
// cut at the right edge of the grid. On row 25 the last column is never written, so that the write
// cannot scroll the screen: 100 bytes at (1, 25) write 79. Bytes go through the console's text
// output (BS, TAB, CR, LF act as there).
void FastWrite(std::string_view ALine, uint8_t AX, uint8_t AY, uint8_t AAttr);
// From the shadow: 7 and a blank (0x20) out of range; a cell never written reads 0 and 0.
uint8_t GetAttrAt(uint8_t AX, uint8_t AY);
uint8_t GetCharAt(uint8_t AX, uint8_t AY);
// Give the cell a new attribute (keeping its character) or a new character (keeping its
// attribute), in the frame of FastWrite but without its bottom-row rule.
void SetAttrAt(uint8_t AAttr, uint8_t AX, uint8_t AY);
void SetCharAt(uint8_t ACh, uint8_t AX, uint8_t AY);
// A cursor position in one word: column - 1 in the low byte, row - 1 in the high byte, relative to
// the current window (through GotoXY, WhereX and WhereY).
void GotoXYAbs(uint16_t AXY);
uint16_t WhereXYAbs();
// Every cell of the grid through GetCharAt/GetAttrAt; back again through FastWrite, one cell at a
// time, so the cell at (80, 25) is not restored.
void ScreenSave(TScreenBuffer& AScreenBuffer);
void ScreenRestore(const TScreenBuffer& AScreenBuffer);
// The grid: 80 and 25, whatever the console's real size.
uint16_t ScreenSizeX();
uint16_t ScreenSizeY();
// CursorOff and CursorOn of the console.
void CursorHide();
void CursorShow();
