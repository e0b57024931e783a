// Fuzz target for the item display's word wrap, which every feed title and body goes through.
// The first byte is the width (-128 to 127), the rest the text. Checks what the caller's screen
// relies on: no byte is lost or reordered but the line ends, no line is empty, and a line is
// wider than the width only when it holds a single word (its bytes above 0x20, then blanks).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "display.h"

namespace {

void Fail(const char* AWhat) {
  std::fprintf(stderr, "word wrap invariant broken: %s\n", AWhat);
  std::abort();
}

bool IsLineEnd(char AByte) { return AByte == '\n' || AByte == '\r'; }
bool IsBlank(char AByte) { return static_cast<uint8_t>(AByte) <= 0x20; }

bool IsOneWord(const std::string& ALine) {
  size_t I = 0;
  while (I < ALine.size() && !IsBlank(ALine[I])) ++I;
  while (I < ALine.size() && IsBlank(ALine[I])) ++I;
  return I == ALine.size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  if (ASize == 0) return 0;
  const int32_t Width = static_cast<int8_t>(AData[0]);
  const std::string Text(reinterpret_cast<const char*>(AData) + 1, ASize - 1);

  std::string Kept;
  for (char C : Text) {
    if (!IsLineEnd(C)) Kept += C;
  }
  std::string Joined;
  for (const auto& Line : WordWrapLines(Text, Width)) {
    if (Line.empty()) Fail("empty line");
    for (char C : Line) {
      if (IsLineEnd(C)) Fail("line end inside a line");
    }
    if (static_cast<int64_t>(Line.size()) > Width && !IsOneWord(Line))
      Fail("over-wide line of several words");
    Joined += Line;
  }
  if (Joined != Kept) Fail("bytes lost or reordered");

  std::string Expected;
  for (const auto& Line : WordWrapLines(Text, Width)) Expected += Line + "\n";
  if (WordWrap(Text, Width) != Expected) Fail("WordWrap differs from its lines");
  return 0;
}
