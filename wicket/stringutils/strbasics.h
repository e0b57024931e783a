// The small text and number helpers every part of the system leans on: trimming control
// bytes and blanks from the ends of a byte string, reading a whole string as a 32-bit
// integer with a fallback, ASCII upper-casing, hex digit values and 32-bit saturation.
// Settings lines, drop-file lines, the command line and ANSI parameters all go through
// StrToIntDef, so a sysop's "$0C" means the same everywhere.
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

// 0..15 for a hex digit of either case, -1 for every other byte.
int32_t HexDigitValue(uint8_t AByte);

// "a".."z" become "A".."Z"; every other byte, 0x80 and above included, stays as it is, so
// the result never depends on the locale.
uint8_t UpperCaseAscii(uint8_t AByte);
std::string UpperCaseAscii(std::string_view AText);

// AValue when it fits 32 bits, otherwise the nearer of -2147483648 and 2147483647: limits
// computed in 64 bits land there instead of wrapping round to the opposite sign.
int32_t SaturateToInt32(int64_t AValue);

// Appends the UTF-8 form of ACodePoint (at most 0x10FFFF; surrogates are the caller's to
// keep out): one to four bytes.
void AppendUtf8(std::string& AOut, uint32_t ACodePoint);
