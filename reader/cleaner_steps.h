// The named-entity step and the eight pattern steps of the text cleaner one by one, so that tests and fuzz
// targets can hold the plain scans the cleaner runs against PCRE2 running the patterns themselves. Every step
// replaces each leftmost match, continues behind it and never rescans what it put in; no pattern can match
// the empty string. The cleaner runs the scans alone; why, with the numbers, stands in cleaner.cpp above
// the label scan.
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

// The step as CleanTextForBBS runs it: a plain scan with the pattern's exact result, in linear
// time. The PCRE2 oracle beside the tests (cleaner_oracle_testutil.h) runs the pattern itself.
std::string ApplyCleanerPattern(TCleanPattern APattern, std::string_view AText);

// The named-entity step as the cleaner runs it: one walk that gives what replacing each of
// the thirteen names in turn, over the whole text, gives.
std::string DecodeNamedEntities(std::string_view AText);
