// Door output: the one way out for text to the caller. DoorWrite turns pipe colour codes and,
// when DoorSession.SethWrite is on, Seth codes into terminal sequences and hands the bytes to
// exactly one destination: the socket link (one send per write, 0xFF doubled) or, in stdio
// mode, the process's standard output. Nothing is ever copied to both, and nothing is
// buffered or joined across calls. The screen operations build an ANSI sequence and pass it
// to DoorWrite; those that change colours update the local attribute record first, so that
// GetTextAttr always tells the colour the caller is seeing. The file displays send a text
// file line by line.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Sends AText to the caller. In order: pipe codes ("|" and two hex digits) become colour
// sequences when DoorSession.PipeWrite is on and the text has at least 3 bytes; then, when
// DoorSession.SethWrite is on and the text has at least 2 bytes, Seth codes (a backtick and
// one byte, or a backtick, "r" and a digit) are carried out in place: colours, clear screen,
// backspace, pauses of 100 or 500 ms, a key pause that waits in DoorReadKey, a spinner.
// Unknown Seth codes and a trailing backtick vanish. While DisplayingSixel is true the text
// goes out untouched. An empty text sends nothing.
void DoorWrite(std::string_view AText);
// DoorWrite of CR LF.
void DoorWriteLn();
// One DoorWrite of AText followed by CR LF.
void DoorWriteLn(std::string_view AText);
// Moves to column (80 - width) / 2 of the current row and writes AText; the width leaves out
// Seth codes when they are on, but counts pipe codes as text. A text wider than 81 starts at
// the left edge.
void DoorWriteCentered(std::string_view AText);

// Screen operations: one DoorWrite each of the matching Ansi... sequence. Positions are
// 1-based and are not clamped (0 goes out as 0). The cursor is tracked nowhere.
void DoorClrScr();
void DoorCursorDown(uint8_t ACount);
void DoorCursorLeft(uint8_t ACount);
void DoorCursorRight(uint8_t ACount);
void DoorCursorUp(uint8_t ACount);
void DoorCursorSave();
void DoorCursorRestore();
void DoorGotoX(uint8_t AX);
void DoorGotoY(uint8_t AY);
void DoorGotoXY(uint8_t AX, uint8_t AY);
// Colour operations: the local record (SetTextAttr, SetTextBackground, SetTextColour) first,
// then the sequence, which is built from the record's new value.
void DoorTextAttr(uint8_t AAttr);
void DoorTextBackground(uint8_t AColour);
void DoorTextColour(uint8_t AColour);
// As DoorTextColour, then a second DoorWrite with the blink on or off (off restores the
// record's colours after the terminal reset).
void DoorTextColourAndBlink(uint8_t AColour, bool ABlink);

// Sends the text file AFileName (opened as given, no search, no extension) line by line
// through DoorWrite, so that its pipe (and Seth) codes take effect. CR, LF and CR LF each end
// a line and go out as CR LF; 0x1A is an ordinary byte; the last line gets no line end. Only
// a regular file is shown, and a line keeps its first 1 MiB (the rest of it is skipped); a
// device, FIFO or socket reads as "File not found", without waiting for a FIFO's writer.
// When the file can't be opened or read, writes "Error reading "NAME": REASON" ("File not
// found", "Access denied", or the system's words) and "Hit a key to continue", waits for a
// key and returns; lines already sent stay on the caller's screen.
void DoorDisplayFile(const std::string& AFileName);
// DoorDisplayFile with DisplayingSixel set for its duration, so that the picture data reach
// the terminal unchanged: no pipe or Seth code is looked at. Line ends are still CR LF.
void DoorDisplaySixel(const std::string& AFileName);
