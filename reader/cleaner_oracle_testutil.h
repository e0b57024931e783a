// The cleaner's pattern steps as PCRE2 runs the patterns themselves: the oracle for tests and
// fuzz targets. Every step replaces each leftmost match, continues behind it and never
// rescans what it put in.
#pragma once

#include <string>
#include <string_view>

#include "cleaner_steps.h"

// The pattern as PCRE2 compiles it (byte mode, dot-all, case-sensitive, no multi-line).
const char* CleanPatternText(TCleanPattern APattern);

// The step run by PCRE2 alone, searching from each offset with no help. Returns false when
// PCRE2 stops at one of its limits (possible on inputs of many kilobytes); AOut is then
// unspecified.
bool ApplyPatternByRegex(TCleanPattern APattern, std::string_view AText, std::string& AOut);
