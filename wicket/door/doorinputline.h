// The door's two small dialogues: a one-line editor in a coloured field, and a light-bar menu.
// Both are built only from DoorReadKey and DoorWrite, so they behave alike on a socket link and
// in a local run, and both work relative to wherever the caller's cursor stands. The waits in
// them are key waits: the idle and time limits can end the process during them.
#pragma once

#include <cstdint>
#include <string>

// Reads one line in a field of AVisibleLength cells painted in AAttr at the cursor, starting
// with ADefaultText (cut to AMaxLength). Typing appends at the end only: characters found in
// AAllowedCharacters are taken up to AMaxLength; Backspace (08) removes the last one; Ctrl-Y
// (19) empties the field. A text wider than the field shows its last AVisibleLength
// characters. With APasswordCharacter not 0, every character shows as that byte. Enter (0D)
// returns the text, ESC (1B) the default; either way the attribute is put back as it was and
// the cursor goes to the start of the next line. Echo is one character or one erased cell where
// possible; the field is repainted only when the text outgrows it or on Ctrl-Y.
std::string DoorInput(const std::string& ADefaultText, const std::string& AAllowedCharacters,
                      uint8_t APasswordCharacter, uint8_t AVisibleLength, uint8_t AMaxLength, uint8_t AAttr);

// Shows DoorLiteBarOptions, one row under the other from the cursor down, at most APageSize of
// them, with row DoorLiteBarIndex on blue, and lets the caller move the highlight: "8", "4", H,
// K and the up and left arrows move up; "2", "6", M, P and the down and right arrows move down
// (no wrap; rows from APageSize on can't be reached). Enter returns true, Q false; either way
// the cursor goes back to the first row's left end and DoorLiteBarIndex keeps the selected row,
// also for the next call. Each move redraws the two rows concerned.
// On entry DoorLiteBarIndex must lie below both the number of rows and APageSize (or be 0
// with an empty list), and APageSize must not exceed 256, since rows are reached by moving
// the cursor down at most 255 lines.
bool DoorLiteBar(int32_t APageSize);
