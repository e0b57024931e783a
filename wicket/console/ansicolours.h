// The one table between the PC's colour order and ANSI's, for everything that turns a text
// attribute into SGR codes or back: the local console's writer and reader and the ANSI
// builders and interpreter above it. A second copy would let the caller's screen and the
// sysop's disagree about a colour.
#pragma once

#include <cstdint>

// PC colour 0..7 -> ANSI colour digit. Swaps blue with red and cyan with brown; the table is
// its own inverse, so it also maps an ANSI digit back to a PC colour.
inline constexpr int32_t ANSI_COLOURS[8] = {0, 4, 2, 6, 1, 5, 3, 7};
