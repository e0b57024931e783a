// Item display: paints one feed item over the skin. The text box (rows 2 to 22, columns 13 to
// 68) is cleared, the title and the date are centred, the body is wrapped and cut to the box,
// and the item counter (row 1 from column 74) and the command line (row 25) are rewritten.
// The word wrap and the centring here serve the About view as well. The module keeps no state
// between calls: every paint is complete, so the caller never has to know what was shown.
//
// All text leaves through DoorWrite as it stands, so pipe codes in feed text take effect and
// every width below counts bytes, code bytes included.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Width to which a body text is wrapped.
inline constexpr int32_t WrapCol = 55;
// Top left corner of the text box, 1-based.
inline constexpr int32_t StartX = 13;
inline constexpr int32_t StartY = 2;

// The command line on row 25; its gaps are three blanks each.
inline constexpr std::string_view COMMAND_LINE = "[A]bout   [N]ext   [P]revious   [Q]uit";

// Paints Items[Index] (0-based, must be a valid index) with the counter "Index+1 / Total".
// Leaves the cursor behind the command line with background 0 and CommandColor set.
void ShowItem(int32_t Index, int32_t Total);

// Blanks the text box on FeedBgColor; that background stays set, the foreground is untouched.
void ClearBox();

// S broken into lines of at most LineWidth bytes where that can be done without splitting a
// word; each line is followed by one LF. A word keeps its trailing blanks (any byte 0x20 or
// below but CR and LF) and they count toward the width; a word longer than LineWidth gets a
// line of its own. Any run of CR and LF makes one line break, so no empty line comes out.
std::string WordWrap(std::string_view S, int32_t LineWidth);
// The same lines without their LF.
std::vector<std::string> WordWrapLines(std::string_view S, int32_t LineWidth);

// S wrapped to LineWidth; its first two lines, trimmed, each centred and ended with CR LF.
// Further lines are dropped; an empty text writes nothing.
void DoorWriteLnCentered2Line(std::string_view S, int32_t LineWidth);

// A body text from the current row: wrapped to WrapCol, at most 16 lines, each with its left
// blanks removed, cut to 54 bytes, ended with CR LF and followed by a move to column 14.
void DoorWriteLnWrapped(std::string_view S);

// S on the current row, centred on 80 columns, with no line end.
void DoorWriteCentered2(std::string_view S);
// The column DoorWriteCentered2 starts a text of ALength bytes at: (82 - ALength) / 2,
// truncated toward zero and reduced to its low eight bits (83 bytes give 0, 84 give 255).
uint8_t CenteredColumn(size_t ALength);

// The item counter: "(03/12)" for the third of twelve, "(10/12)" for the tenth; only the
// first number is padded, to two digits.
std::string ItemCounterText(int32_t Index, int32_t Total);
