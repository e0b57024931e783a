// The two text helpers every part of the system leans on: trimming control bytes and
// blanks from the ends of a byte string, and reading a whole string as a 32-bit integer
// with a fallback. Settings lines, drop-file lines, the command line and ANSI parameters
// all go through StrToIntDef, so a sysop's "$0C" means the same everywhere.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Removes every byte of value 0x20 or below from both ends (zero bytes included).
std::string Trim(std::string_view AText);
// The same at the left end only.
std::string TrimLeft(std::string_view AText);
// The same at the right end only.
std::string TrimRight(std::string_view AText);

// Reads the whole of AText as a signed 32-bit integer, or gives ADefault.
// Leading blanks and tabs are skipped, then an optional "+" or "-", then decimal digits,
// or "$", "x", "0x" (any case) and hex digits, "&" and octal digits, "%" and binary digits.
// Decimal values must fit -2147483648..2147483647; prefixed values may use all 32 bits
// and land in the signed range as two's complement ("$FFFFFFFF" is -1).
// Anything else in the text (a trailing blank too), no digits at all, or a text longer
// than 255 bytes gives ADefault.
int32_t StrToIntDef(std::string_view AText, int32_t ADefault);
