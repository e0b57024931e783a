// The text cleaner: one raw field of a feed item (HTML fragments, entities, punctuation
// damaged by a wrong code-page round trip) turned into plain 7-bit text a BBS terminal can
// show, by a fixed pipeline of literal and pattern replacements and a final byte filter
// that folds accented Latin letters to their plain letter.
#pragma once

#include <string>
#include <string_view>

// The cleaned form of AText. Pure: no state between calls, no failure. The result holds
// only bytes 0x00 to 0x7F and begins and ends with a byte above 0x20 (or is empty); control
// bytes inside it stay (the scanner blanks them before any field is shown). Time and memory are linear in the
// size of AText for any input, megabytes of it included. Runs on the program's one thread.
std::string CleanTextForBBS(std::string_view AText);
