// Fuzz target for the text cleaner. Checks the promise of CleanTextForBBS (trimmed 7-bit
// text, no failure) and holds every pattern step as the cleaner runs it (a plain scan)
// against PCRE2 running the pattern itself, on inputs small enough for PCRE2's searches. Control
// bytes inside the result are the cleaner's to keep ("&#27;" is an ESC); fuzz_scanner checks
// that none of them reaches an item field the display paints.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "cleaner.h"
#include "cleaner_oracle_testutil.h"
#include "cleaner_steps.h"

namespace {

void Fail(const char* AWhat, const char* APattern = "") {
  std::fprintf(stderr, "cleaner check failed: %s %s\n", AWhat, APattern);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  const std::string Text(reinterpret_cast<const char*>(AData), ASize);

  const std::string Clean = CleanTextForBBS(Text);
  for (const char C : Clean)
    if (static_cast<uint8_t>(C) >= 0x80) Fail("a byte at or above 0x80 in the result");
  if (!Clean.empty() &&
      (static_cast<uint8_t>(Clean.front()) <= 0x20 || static_cast<uint8_t>(Clean.back()) <= 0x20))
    Fail("the result is not trimmed");

  if (ASize > 8192) return 0;
  for (int P = 0; P < CLEAN_PATTERN_COUNT; ++P) {
    const auto Pattern = static_cast<TCleanPattern>(P);
    std::string Want;
    if (!ApplyPatternByRegex(Pattern, Text, Want)) continue;  // PCRE2 gave up: nothing to compare
    if (ApplyCleanerPattern(Pattern, Text) != Want)
      Fail("the cleaner's step differs from PCRE2 for", CleanPatternText(Pattern));
  }
  return 0;
}
