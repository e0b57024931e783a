// The string helpers: Seth-code stripping, time texts, tokens and Base64.
// Every function is a pure pass over its input; none can fail.
#include "stringutils.h"

namespace {

// 0..63 for a character of the standard Base64 alphabet, -1 for anything else.
int Base64Value(char AChar) {
  if (AChar >= 'A' && AChar <= 'Z') return AChar - 'A';
  if (AChar >= 'a' && AChar <= 'z') return AChar - 'a' + 26;
  if (AChar >= '0' && AChar <= '9') return AChar - '0' + 52;
  if (AChar == '+') return 62;
  if (AChar == '/') return 63;
  return -1;
}

// Decimal, padded on the left with "0" to two digits and never cut.
std::string TwoDigits(int64_t AValue) {
  std::string Text = std::to_string(AValue);
  return Text.size() < 2 ? "0" + Text : Text;
}

// Callers pass counts of seconds that are never negative; for any other value the text is
// that of the magnitude with a "-" in front. 64 bits so that -2147483648 has a magnitude.
std::string Sign(int32_t ASec) { return ASec < 0 ? "-" : ""; }
int64_t Magnitude(int32_t ASec) { return ASec < 0 ? -static_cast<int64_t>(ASec) : ASec; }

}  // namespace

std::string SethStrip(std::string_view AText) {
  std::string Result;
  Result.reserve(AText.size());
  size_t I = 0;
  while (I < AText.size()) {
    if (AText[I] != '`') {
      Result += AText[I];
      ++I;
    } else if (I + 1 < AText.size() && AText[I + 1] == 'r') {
      I += 3;
    } else {
      I += 2;  // also steps past a backtick that ends the text
    }
  }
  return Result;
}

std::string SecToDHMS(int32_t ASec) {
  int64_t Rest = Magnitude(ASec);
  const int64_t Days = Rest / 86400;
  Rest %= 86400;
  const int64_t Hours = Rest / 3600;
  Rest %= 3600;
  return Sign(ASec) + std::to_string(Days) + "d " + std::to_string(Hours) + "h " + std::to_string(Rest / 60) +
         "m " + std::to_string(Rest % 60) + "s";
}

std::string SecToHM(int32_t ASec) {
  const int64_t Sec = Magnitude(ASec);
  return Sign(ASec) + TwoDigits(Sec / 3600) + ":" + TwoDigits(Sec % 3600 / 60);
}

std::string SecToHMS(int32_t ASec) {
  const int64_t Sec = Magnitude(ASec);
  return Sign(ASec) + TwoDigits(Sec / 3600) + ":" + TwoDigits(Sec % 3600 / 60) + ":" + TwoDigits(Sec % 60);
}

std::string SecToMS(int32_t ASec) {
  const int64_t Sec = Magnitude(ASec);
  return Sign(ASec) + TwoDigits(Sec / 60) + ":" + TwoDigits(Sec % 60);
}

TTokens StrToTok(std::string_view AText, uint8_t ADelim) {
  TTokens Tokens(1);  // entry 0 stays empty
  size_t Start = 0;
  for (size_t I = 0; I < AText.size(); ++I) {
    if (static_cast<uint8_t>(AText[I]) == ADelim) {
      Tokens.emplace_back(AText.substr(Start, I - Start));
      Start = I + 1;
    }
  }
  Tokens.emplace_back(AText.substr(Start));
  return Tokens;
}

std::string TokToStr(const TTokens& ATokens, uint8_t ADelim, int32_t AStartIndex) {
  const size_t First = AStartIndex < 0 ? 0 : static_cast<size_t>(AStartIndex);
  std::string Result;
  for (size_t I = First; I < ATokens.size(); ++I) {
    if (I > First) Result += static_cast<char>(ADelim);
    Result += ATokens[I];
  }
  return Result;
}

std::string Base64Decode(std::string_view ABase64) {
  std::string Result;
  Result.reserve(ABase64.size() / 4 * 3 + 2);
  uint32_t Bits = 0;  // the low BitCount bits are not yet emitted
  int BitCount = 0;
  for (char C : ABase64) {
    if (C == '=') break;
    const int Value = Base64Value(C);
    if (Value < 0) continue;
    Bits = ((Bits << 6) | static_cast<uint32_t>(Value)) & 0xFFFFFF;
    BitCount += 6;
    if (BitCount >= 8) {
      BitCount -= 8;
      Result += static_cast<char>((Bits >> BitCount) & 0xFF);
    }
  }
  return Result;
}
