// The named-entity step and the eight pattern steps of the text cleaner one by one, so that tests and fuzz
// targets can hold the plain scans the cleaner runs against PCRE2 running the patterns themselves. Every step
// replaces each leftmost match, continues behind it and never rescans what it put in; no pattern can match
// the empty string.
#pragma once

#include <string>
#include <string_view>

enum TCleanPattern : int {
  cpNumericEntity,    // "&#([0-9]+);"      -> one byte, the value modulo 256 (32 if too big)
  cpTag,              // "<[^>]*>"          -> nothing
  cpLeadingCapitals,  // "^([A-Z]{3,})([a-z])" -> group 1, blank, group 2
  cpStopCapital,      // "\.([A-Z])"        -> full stop, blank, group 1
  cpUtcStamp,         // "Current Date and Time \(UTC.*?\):.+?\n?" -> nothing
  cpLoginLine,        // "Current User's Login:.+?\n?" -> nothing
  cpBlankRun,         // "  +"              -> one blank
  cpLineFeedRun,      // "\n{3,}"           -> CR LF CR LF
  CLEAN_PATTERN_COUNT
};

// The pattern as PCRE2 compiles it (byte mode, dot-all, case-sensitive, no multi-line).
const char* CleanPatternText(TCleanPattern APattern);

// The step run by PCRE2 alone, searching from each offset with no help. Returns false when
// PCRE2 stops at one of its limits (possible on inputs of many kilobytes); AOut is then
// unspecified.
bool ApplyPatternByRegex(TCleanPattern APattern, std::string_view AText, std::string& AOut);

// The step run by a plain scan alone; the same result as the pattern, in linear time.
std::string ApplyPatternByScan(TCleanPattern APattern, std::string_view AText);

// The step as CleanTextForBBS runs it: the plain scan for the simple patterns; PCRE2 for
// the two label patterns, asked only where a scan has found that a match starts, with the
// scan's match standing in when PCRE2 hits a limit.
std::string ApplyCleanerPattern(TCleanPattern APattern, std::string_view AText);

// The named-entity step as the cleaner runs it: one walk that gives what replacing each of
// the thirteen names in turn, over the whole text, gives.
std::string DecodeNamedEntities(std::string_view AText);
