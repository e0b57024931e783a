// What the three parts of the console layer (console.cpp: start, output and windows;
// consolekeys.cpp: keyboard; consolestream.cpp: the door's raw stream) share with each other.
// Nothing outside wicket/console includes this.
#pragma once

#include <cstdint>
#include <string_view>

#include "console.h"

// The tracked cursor (absolute) and what the layer knows of the terminal itself: where its cursor
// stands, whether it waits with a pending wrap at the last column, and which attribute it paints
// with (-1: unknown). The terminal part means nothing while `OutputRedir`.
struct TConsoleCore {
  TConsoleCursor Cur;
  bool TermKnown = false;
  int32_t TermX = 1;
  int32_t TermY = 1;
  bool TermPending = false;
  int32_t TermAttr = -1;
};
extern TConsoleCore ConsoleCore;

// Appends bytes for descriptor 1; the buffer goes out when it reaches 1024 bytes and at the end
// of the outermost operation.
void ConsoleEmit(std::string_view ABytes);
// Sends the buffer now, for waits inside an update (ReadKey, Delay).
void ConsoleFlushOutput();
// Sends the SGR sequence for AAttr unless the terminal already paints with it.
void ConsoleSyncTermAttr(uint8_t AAttr);
// Moves the terminal's cursor to the tracked one (pending wrap included) if it is elsewhere.
void ConsoleSyncTermCursor();
// The cell at an absolute position inside the screen.
TCharInfo& ConsoleCell(int32_t AX, int32_t AY);
// Moves the lines of the absolute rectangle up (ACount > 0) or down (ACount < 0) inside it; the
// lines that come free are blanks in AAttr. Shadow only.
void ConsoleShiftLines(int32_t AX1, int32_t AY1, int32_t AX2, int32_t AY2, int32_t ACount, uint8_t AAttr);

// Keyboard side: bytes read from descriptor 0 before the keyboard part was asked (the wait for the
// cursor report), and the end of input found then.
void ConsoleKeepInput(std::string_view ABytes);
void ConsoleMarkInputEnded();
