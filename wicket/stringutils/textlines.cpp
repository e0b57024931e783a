// Line splitting shared by the drop-file readers, the settings reader and the feed scanner;
// see textlines.h.
#include "textlines.h"

#include <cstring>

namespace {

// The first byte AByte at or after AFrom, or AEnd.
const char* FindByte(const char* AFrom, const char* AEnd, char AByte) {
  const void* Hit = std::memchr(AFrom, AByte, static_cast<size_t>(AEnd - AFrom));
  return Hit ? static_cast<const char*>(Hit) : AEnd;
}

}  // namespace

std::vector<std::string> SplitLines(std::string_view AText, size_t AMaxLines) {
  std::vector<std::string> Lines;
  if (AText.empty()) return Lines;
  const char* P = AText.data();
  const char* const End = P + AText.size();
  // The next CR and the next LF are remembered until the walk passes them, so that a text
  // with only one kind of line end is still read in one pass (no rescan to the end per line).
  const char* NextCr = FindByte(P, End, '\r');
  const char* NextLf = FindByte(P, End, '\n');
  while (P < End && Lines.size() < AMaxLines) {
    if (NextCr < P) NextCr = FindByte(P, End, '\r');
    if (NextLf < P) NextLf = FindByte(P, End, '\n');
    const char* LineEnd = NextCr < NextLf ? NextCr : NextLf;
    Lines.emplace_back(P, LineEnd);
    P = LineEnd;
    if (P < End && *P == '\r') ++P;
    if (P < End && *P == '\n') ++P;
  }
  return Lines;
}
