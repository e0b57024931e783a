// The text cleaner's eight patterns as PCRE2 runs them: the oracle that cleaner_test and
// fuzz_cleaner hold the cleaner's scans against. Only tests and fuzz targets link it; the
// door itself never runs a regular expression (cleaner.cpp says why, with numbers).
#include "cleaner_oracle_testutil.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <cstdint>
#include <memory>
#include <stdexcept>

#include "stringutils/strbasics.h"

namespace {

constexpr const char* PATTERN_TEXTS[CLEAN_PATTERN_COUNT] = {
    "&#([0-9]+);",
    "<[^>]*>",
    "^([A-Z]{3,})([a-z])",
    "\\.([A-Z])",
    "Current Date and Time \\(UTC.*?\\):.+?\\n?",
    "Current User's Login:.+?\\n?",
    "  +",
    "\\n{3,}",
};

// Limits for one search. The patterns hold no nesting, so depth stays tiny; the match limit
// stops the lazy walk of the label patterns after about a megabyte, and the oracle then
// declines to answer. The JIT stack is far more than these patterns use.
constexpr uint32_t MATCH_LIMIT = 1000000;
constexpr uint32_t DEPTH_LIMIT = 1000;
constexpr size_t JIT_STACK_START = 32 * 1024;
constexpr size_t JIT_STACK_MAX = 1024 * 1024;

struct TCodeDeleter {
  void operator()(pcre2_code* ACode) const { pcre2_code_free(ACode); }
};
struct TMatchDataDeleter {
  void operator()(pcre2_match_data* AData) const { pcre2_match_data_free(AData); }
};
struct TMatchContextDeleter {
  void operator()(pcre2_match_context* AContext) const { pcre2_match_context_free(AContext); }
};
struct TJitStackDeleter {
  void operator()(pcre2_jit_stack* AStack) const { pcre2_jit_stack_free(AStack); }
};

struct TCompiledPatterns {
  std::unique_ptr<pcre2_code, TCodeDeleter> Code[CLEAN_PATTERN_COUNT];
  std::unique_ptr<pcre2_match_data, TMatchDataDeleter> MatchData[CLEAN_PATTERN_COUNT];
  std::unique_ptr<pcre2_match_context, TMatchContextDeleter> Context;
  std::unique_ptr<pcre2_jit_stack, TJitStackDeleter> JitStack;
};

TCompiledPatterns CompilePatterns() {
  TCompiledPatterns Set;
  Set.Context.reset(pcre2_match_context_create(nullptr));
  Set.JitStack.reset(pcre2_jit_stack_create(JIT_STACK_START, JIT_STACK_MAX, nullptr));
  if (!Set.Context || !Set.JitStack) throw std::bad_alloc();
  pcre2_set_match_limit(Set.Context.get(), MATCH_LIMIT);
  pcre2_set_depth_limit(Set.Context.get(), DEPTH_LIMIT);
  pcre2_jit_stack_assign(Set.Context.get(), nullptr, Set.JitStack.get());
  for (int I = 0; I < CLEAN_PATTERN_COUNT; ++I) {
    int Error = 0;
    PCRE2_SIZE Offset = 0;
    // Bytes, not characters: no UTF or Unicode properties, even if a pattern asked for them.
    Set.Code[I].reset(pcre2_compile(reinterpret_cast<PCRE2_SPTR>(PATTERN_TEXTS[I]), PCRE2_ZERO_TERMINATED,
                                    PCRE2_DOTALL | PCRE2_NEVER_UTF | PCRE2_NEVER_UCP, &Error, &Offset,
                                    nullptr));
    if (!Set.Code[I])
      throw std::logic_error(std::string("text cleaner pattern does not compile: ") + PATTERN_TEXTS[I]);
    pcre2_jit_compile(Set.Code[I].get(), PCRE2_JIT_COMPLETE);  // without JIT the interpreter runs
    Set.MatchData[I].reset(pcre2_match_data_create_from_pattern(Set.Code[I].get(), nullptr));
    if (!Set.MatchData[I]) throw std::bad_alloc();
  }
  return Set;
}

// Compiled on first use, kept to the end of the process; used from the one program thread.
TCompiledPatterns& Patterns() {
  static TCompiledPatterns Set = CompilePatterns();
  return Set;
}

// One search from AOffset. Returns the PCRE2 result code; on a match the ovector is AOv.
int RegexSearch(TCleanPattern APattern, std::string_view AText, size_t AOffset, const PCRE2_SIZE*& AOv) {
  TCompiledPatterns& Set = Patterns();
  static const char Empty = 0;  // a subject pointer even for an empty text
  const char* Subject = AText.empty() ? &Empty : AText.data();
  const int Rc = pcre2_match(Set.Code[APattern].get(), reinterpret_cast<PCRE2_SPTR>(Subject), AText.size(),
                             AOffset, 0, Set.MatchData[APattern].get(), Set.Context.get());
  AOv = pcre2_get_ovector_pointer(Set.MatchData[APattern].get());
  return Rc;
}

// What replaces one match of APattern, from the groups in AOv.
void AppendReplacement(TCleanPattern APattern, std::string_view AText, const PCRE2_SIZE* AOv,
                       std::string& AOut) {
  auto Group = [&](int AIndex) {
    return AText.substr(AOv[2 * AIndex], AOv[2 * AIndex + 1] - AOv[2 * AIndex]);
  };
  switch (APattern) {
    case cpNumericEntity:
      // The decimal value modulo 256; a run over 255 digits or above 2147483647 is a blank.
      AOut += static_cast<char>(static_cast<uint32_t>(StrToIntDef(Group(1), 32)) & 0xFFu);
      break;
    case cpLeadingCapitals:
      AOut.append(Group(1)).append(" ").append(Group(2));
      break;
    case cpStopCapital:
      AOut.append(". ").append(Group(1));
      break;
    case cpBlankRun:
      AOut += ' ';
      break;
    case cpLineFeedRun:
      AOut += "\r\n\r\n";
      break;
    case cpTag:
    case cpUtcStamp:
    case cpLoginLine:
    case CLEAN_PATTERN_COUNT:
      break;
  }
}

}  // namespace

const char* CleanPatternText(TCleanPattern APattern) { return PATTERN_TEXTS[APattern]; }

bool ApplyPatternByRegex(TCleanPattern APattern, std::string_view AText, std::string& AOut) {
  AOut.clear();
  size_t Pos = 0;
  while (Pos <= AText.size()) {
    const PCRE2_SIZE* Ov = nullptr;
    const int Rc = RegexSearch(APattern, AText, Pos, Ov);
    if (Rc == PCRE2_ERROR_NOMATCH) break;
    if (Rc < 0) return false;
    if (Ov[1] <= Ov[0]) break;  // cannot happen: no pattern matches the empty string
    AOut.append(AText.substr(Pos, Ov[0] - Pos));
    AppendReplacement(APattern, AText, Ov, AOut);
    Pos = Ov[1];
  }
  if (Pos < AText.size()) AOut.append(AText.substr(Pos));
  return true;
}
