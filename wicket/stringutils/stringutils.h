// The door library's pure text helpers: stripping Seth codes, the time texts of the status
// bar, token splitting and joining, and a lenient Base64 decoder. All work on byte strings
// (any byte, zero included), keep no state and report no errors: text that does not form a
// valid code passes through as text.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "strbasics.h"

// Tokens at indexes 1..TokenCount; entry 0 stays empty, so size() is TokenCount + 1.
using TTokens = std::vector<std::string>;

// Drops every Seth code: a backtick with the byte behind it, or a backtick, "r" and one more
// byte. A backtick at the very end is dropped as well.
std::string SethStrip(std::string_view AText);

// Time texts of a number of seconds. Fields are in truncating division; a negative count
// gives the text of its magnitude behind a "-" ("-01:05").
std::string SecToDHMS(int32_t ASec);  // "1d 2h 3m 4s"; no field is ever left out
std::string SecToHM(int32_t ASec);    // "HH:MM", seconds dropped; hours grow past 2 digits
std::string SecToHMS(int32_t ASec);   // "HH:MM:SS"
std::string SecToMS(int32_t ASec);    // "MM:SS"; minutes grow past 2 digits

// Splits at every ADelim, keeping empty tokens: "a,,b" gives "", "a", "", "b" (entry 0 empty).
TTokens StrToTok(std::string_view AText, uint8_t ADelim);
// Joins the tokens from AStartIndex (a negative index counts as 0) to the end with ADelim
// between them; empty when AStartIndex is past the last entry. With the default start,
// TokToStr(StrToTok(X, D), D) == X.
std::string TokToStr(const TTokens& ATokens, uint8_t ADelim, int32_t AStartIndex = 1);

// Standard alphabet ("+" "/"), MIME-lenient: every byte outside the alphabet (line breaks,
// blanks, stray punctuation) is skipped, and the first "=" ends the data. A last group cut
// short yields the whole bytes its characters hold (2 characters: 1 byte, 3: 2 bytes); a
// single trailing character holds no whole byte and yields nothing.
std::string Base64Decode(std::string_view ABase64);
