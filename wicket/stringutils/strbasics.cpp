// Trimming, the integer parse with a default and the byte and number helpers; see strbasics.h
// for the rules.
#include "strbasics.h"

#include <limits>

namespace {

bool IsTrimmable(char C) { return static_cast<uint8_t>(C) <= 0x20; }

}  // namespace

std::string TrimLeft(std::string_view AText) {
  size_t First = 0;
  while (First < AText.size() && IsTrimmable(AText[First])) ++First;
  return std::string(AText.substr(First));
}

std::string TrimRight(std::string_view AText) {
  size_t End = AText.size();
  while (End > 0 && IsTrimmable(AText[End - 1])) --End;
  return std::string(AText.substr(0, End));
}

std::string Trim(std::string_view AText) {
  size_t First = 0;
  size_t End = AText.size();
  while (First < End && IsTrimmable(AText[First])) ++First;
  while (End > First && IsTrimmable(AText[End - 1])) --End;
  return std::string(AText.substr(First, End - First));
}

int32_t StrToIntDef(std::string_view AText, int32_t ADefault) {
  if (AText.size() > 255) return ADefault;
  size_t I = 0;
  while (I < AText.size() && (AText[I] == ' ' || AText[I] == '\t')) ++I;
  bool Negative = false;
  if (I < AText.size() && (AText[I] == '+' || AText[I] == '-')) {
    Negative = AText[I] == '-';
    ++I;
  }
  unsigned Base = 10;
  if (I < AText.size()) {
    const char C = AText[I];
    if (C == '$' || C == 'x' || C == 'X') {
      Base = 16;
      ++I;
    } else if (C == '0' && I + 1 < AText.size() && (AText[I + 1] == 'x' || AText[I + 1] == 'X')) {
      Base = 16;
      I += 2;
    } else if (C == '&') {
      Base = 8;
      ++I;
    } else if (C == '%') {
      Base = 2;
      ++I;
    }
  }
  if (I >= AText.size()) return ADefault;  // no digits at all

  // Decimal may reach 2147483648 only when negative; prefixed forms take all 32 bits.
  const uint64_t Limit = Base == 10 ? (Negative ? 2147483648ULL : 2147483647ULL) : 0xFFFFFFFFULL;
  uint64_t Value = 0;
  for (; I < AText.size(); ++I) {
    const int32_t Digit = HexDigitValue(static_cast<uint8_t>(AText[I]));
    if (Digit < 0 || Digit >= static_cast<int32_t>(Base)) return ADefault;
    Value = Value * Base + static_cast<uint64_t>(Digit);
    if (Value > Limit) return ADefault;
  }
  uint32_t Bits = static_cast<uint32_t>(Value);
  if (Negative) Bits = 0U - Bits;
  return static_cast<int32_t>(Bits);
}

int32_t HexDigitValue(uint8_t AByte) {
  if (AByte >= '0' && AByte <= '9') return AByte - '0';
  if (AByte >= 'a' && AByte <= 'f') return AByte - 'a' + 10;
  if (AByte >= 'A' && AByte <= 'F') return AByte - 'A' + 10;
  return -1;
}

uint8_t UpperCaseAscii(uint8_t AByte) {
  return AByte >= 'a' && AByte <= 'z' ? static_cast<uint8_t>(AByte - 'a' + 'A') : AByte;
}

std::string UpperCaseAscii(std::string_view AText) {
  std::string Result(AText);
  for (char& C : Result) C = static_cast<char>(UpperCaseAscii(static_cast<uint8_t>(C)));
  return Result;
}

int32_t SaturateToInt32(int64_t AValue) {
  if (AValue > std::numeric_limits<int32_t>::max()) return std::numeric_limits<int32_t>::max();
  if (AValue < std::numeric_limits<int32_t>::min()) return std::numeric_limits<int32_t>::min();
  return static_cast<int32_t>(AValue);
}

void AppendUtf8(std::string& AOut, uint32_t ACodePoint) {
  if (ACodePoint < 0x80) {
    AOut += static_cast<char>(ACodePoint);
  } else if (ACodePoint < 0x800) {
    AOut += static_cast<char>(0xC0 | (ACodePoint >> 6));
    AOut += static_cast<char>(0x80 | (ACodePoint & 0x3F));
  } else if (ACodePoint < 0x10000) {
    AOut += static_cast<char>(0xE0 | (ACodePoint >> 12));
    AOut += static_cast<char>(0x80 | ((ACodePoint >> 6) & 0x3F));
    AOut += static_cast<char>(0x80 | (ACodePoint & 0x3F));
  } else {
    AOut += static_cast<char>(0xF0 | (ACodePoint >> 18));
    AOut += static_cast<char>(0x80 | ((ACodePoint >> 12) & 0x3F));
    AOut += static_cast<char>(0x80 | ((ACodePoint >> 6) & 0x3F));
    AOut += static_cast<char>(0x80 | (ACodePoint & 0x3F));
  }
}
