// The text cleaner and its accent folding. It owns nothing: every call starts from its
// argument.
//
// The pipeline works on raw bytes throughout. Most steps are literal replacements; each of
// the eight pattern steps runs as a hand-written scan that gives the pattern's exact result
// in linear time. The patterns themselves live in the test oracle
// (cleaner_oracle_testutil.cpp), where PCRE2 runs them and cleaner_test and fuzz_cleaner hold
// every scan against it. Cheap presence checks (memchr, memmem) skip every step that cannot change the text,
// which is most of them for most fields.
#include "cleaner.h"

#include <cstdint>
#include <cstring>

#include "bytesearch.h"
#include "cleaner_steps.h"
#include "stringutils/strbasics.h"

namespace {

constexpr size_t NOT_FOUND = std::string_view::npos;

// ---------------------------------------------------------------------------------------
// Byte helpers

bool Contains(std::string_view AText, std::string_view ANeedle) {
  return FindBytes(AText, ANeedle, 0) != NOT_FOUND;
}

bool HasHighByte(std::string_view AText) {
  uint64_t Bits = 0;
  size_t I = 0;
  for (; I + 8 <= AText.size(); I += 8) {
    uint64_t Word;
    std::memcpy(&Word, AText.data() + I, 8);
    Bits |= Word;
  }
  for (; I < AText.size(); ++I) Bits |= static_cast<uint8_t>(AText[I]);
  return (Bits & 0x8080808080808080ULL) != 0;
}

bool IsUpper(char AByte) { return AByte >= 'A' && AByte <= 'Z'; }
bool IsLower(char AByte) { return AByte >= 'a' && AByte <= 'z'; }
bool IsDigit(char AByte) { return AByte >= '0' && AByte <= '9'; }

// Every non-overlapping occurrence of AFrom, left to right, replaced by ATo; what was put in
// is not searched again. Returns false, leaving AOut alone, when there is no occurrence.
bool ReplaceLiteral(std::string_view AText, std::string_view AFrom, std::string_view ATo, std::string& AOut) {
  size_t Hit = FindBytes(AText, AFrom, 0);
  if (Hit == NOT_FOUND) return false;
  AOut.clear();
  AOut.reserve(AText.size() + 16);
  size_t Pos = 0;
  do {
    AOut.append(AText.substr(Pos, Hit - Pos)).append(ATo);
    Pos = Hit + AFrom.size();
    Hit = FindBytes(AText, AFrom, Pos);
  } while (Hit != NOT_FOUND);
  AOut.append(AText.substr(Pos));
  return true;
}

struct TLiteralRow {
  std::string_view From;
  std::string_view To;
};

// Runs the rows in order, each over the result of the one before.
void ReplaceRows(std::string& AText, std::string& AScratch, const TLiteralRow* ARows, size_t ACount) {
  for (size_t I = 0; I < ACount; ++I)
    if (ReplaceLiteral(AText, ARows[I].From, ARows[I].To, AScratch)) AText.swap(AScratch);
}

template <size_t N>
void ReplaceRows(std::string& AText, std::string& AScratch, const TLiteralRow (&ARows)[N]) {
  ReplaceRows(AText, AScratch, ARows, N);
}

using namespace std::string_view_literals;

// Named entities, in the order their replacements are made. "&amp;" comes third on purpose:
// "&amp;lt;" ends as "<" and "&amp;#233;" goes on as a numeric entity, while "&amp;quot;"
// stays the text "&quot;".
constexpr TLiteralRow NAMED_ENTITIES[] = {
    {"&quot;", "\""},  {"&apos;", "'"},   {"&amp;", "&"},     {"&lt;", "<"},    {"&gt;", ">"},
    {"&ndash;", "-"},  {"&mdash;", "--"}, {"&rsquo;", "'"},   {"&lsquo;", "'"}, {"&ldquo;", "\""},
    {"&rdquo;", "\""}, {"&#39;", "'"},    {"&#8230;", "..."},
};
constexpr size_t AMP_ROW = 2;

// UTF-8 punctuation E2 80 xx that went through CP437 and back to UTF-8: E2 became U+0393
// (CE 93), 80 became U+00C7 (C3 87), and xx whatever CP437 or Windows-1252 shows for it.
constexpr std::string_view DAMAGED_PUNCTUATION_PREFIX = "\xCE\x93\xC3\x87";
constexpr TLiteralRow DAMAGED_PUNCTUATION[] = {
    {"\xCE\x93\xC3\x87\xC2\xA3"sv, "\""},   // left double quote
    {"\xCE\x93\xC3\x87\xC2\xA5"sv, "\""},   // right double quote
    {"\xCE\x93\xC3\x87\xC5\x93"sv, "\""},   // left double quote, 9C read as Windows-1252
    {"\xCE\x93\xC3\x87\xC2\x9D"sv, "\""},   // right double quote, 9D left as U+009D
    {"\xCE\x93\xC3\x87\xC3\xBF"sv, "'"},    // left single quote
    {"\xCE\x93\xC3\x87\xC3\x96"sv, "'"},    // right single quote
    {"\xCE\x93\xC3\x87\xC3\xB4"sv, "-"},    // en dash
    {"\xCE\x93\xC3\x87\xC3\xB6"sv, "-"},    // em dash: one hyphen
    {"\xCE\x93\xC3\x87\xC3\xB3"sv, "*"},    // bullet
    {"\xCE\x93\xC3\x87\xC2\xAA"sv, "..."},  // ellipsis
    {"\xCE\x93\xC3\x87\xC2\xAB"sv, "\""},   // followed by a left guillemet
    {"\xCE\x93\xC3\x87\xC2\xBB"sv, "\""},   // followed by a right guillemet
};

// Two-byte UTF-8 that went through CP437 the same way: C2 became U+252C (E2 94 AC), C3 became
// U+251C (E2 94 9C). Every row starts with E2 94.
constexpr std::string_view DAMAGED_LATIN_PREFIX = "\xE2\x94";
constexpr TLiteralRow DAMAGED_LATIN[] = {
    {"\xE2\x94\xAC\xE2\x8C\x90"sv, "(c)"},        // copyright sign, both bytes damaged
    {"\xE2\x94\xAC\xC2\xA9"sv, "(c)"},            // copyright sign, second byte intact
    {"\xE2\x94\xAC\xC2\xAB"sv, "(R)"},            // registered sign
    {"\xE2\x94\xAC\xC2\xBB"sv, ">>"},             // right guillemet
    {"Rene\xE2\x94\x9C\xE2\x8C\x90"sv, "Renee"},  // the one e-acute this repair knows
    {"\xE2\x94\xAC\xC3\xA1"sv, " "},              // no-break space
};

constexpr TLiteralRow PARAGRAPHS[] = {{"<p>", "\r\n\r\n"}, {"</p>", ""}};

// A double-quoted asterisk whose quotes went through Windows-1252 and back to UTF-8:
// C3 A2 E2 82 AC C5 93 is the damaged left quote, C3 A2 E2 82 AC the start of the right one.
constexpr std::string_view DAMAGED_QUOTE_PREFIX = "\xC3\xA2\xE2\x82\xAC";
constexpr TLiteralRow DAMAGED_QUOTED_STAR[] = {
    {"\xC3\xA2\xE2\x82\xAC\xC5\x93*\xC3\xA2\xE2\x82\xAC"sv, "*"},
    {"\xC3\xA2\xE2\x82\xAC\xC5\x93*"sv, "*"},
    {"*\xC3\xA2\xE2\x82\xAC"sv, "*"},
};
constexpr TLiteralRow QUOTED_STAR_AND_ELLIPSIS[] = {{"\"*\"", "*"}, {"\xE2\x80\xA6"sv, "..."}};

// Blog footers "[...] The post X appeared first on Y." set apart, with Y on a line of its own.
constexpr TLiteralRow FOOTER[] = {{"] The post", "]\r\n\r\nThe post"},
                                  {"appeared first on", "appeared first on\r\n"}};

constexpr TLiteralRow REPLACEMENT_CHARACTER[] = {{"\xEF\xBF\xBD"sv, ""}};

constexpr std::string_view UTC_LABEL = "Current Date and Time (UTC";
constexpr std::string_view LOGIN_LABEL = "Current User's Login:";

// ---------------------------------------------------------------------------------------
// Accent folding: the two-byte UTF-8 forms of accented Latin letters and the plain letter
// each folds to. Everything but U+0178 (C5 B8) has the lead byte C3; the second bytes 80 to
// BF index this row. Zero marks a pair that is not folded (eth, thorn, sharp s, the
// multiplication and division signs), whose bytes the final filter drops.
constexpr char C3_FOLDED[64] = {
    'A', 'A', 'A', 'A', 'A', 'A', 'A', 'C', 'E', 'E', 'E', 'E', 'I', 'I', 'I', 'I',  // 80-8F
    0,   'N', 'O', 'O', 'O', 'O', 'O', 0,   'O', 'U', 'U', 'U', 'U', 'Y', 0,   0,    // 90-9F
    'a', 'a', 'a', 'a', 'a', 'a', 'a', 'c', 'e', 'e', 'e', 'e', 'i', 'i', 'i', 'i',  // A0-AF
    0,   'n', 'o', 'o', 'o', 'o', 'o', 0,   'o', 'u', 'u', 'u', 'u', 'y', 0,   'y',  // B0-BF
};

// The plain letter for the pair ALead ATrail, or 0 when the pair is no accented letter.
char FoldedLetter(uint8_t ALead, uint8_t ATrail) {
  if (ALead == 0xC3 && ATrail >= 0x80 && ATrail <= 0xBF) return C3_FOLDED[ATrail - 0x80];
  if (ALead == 0xC5 && ATrail == 0xB8) return 'Y';
  return 0;
}

bool IsAccent(uint8_t ALead, uint8_t ATrail) { return FoldedLetter(ALead, ATrail) != 0; }

char ConvertAccent(uint8_t ALead, uint8_t ATrail) {
  const char Letter = FoldedLetter(ALead, ATrail);
  return Letter ? Letter : '?';
}

// Keeps every byte below 0x80, folds each accented pair to its letter and drops every
// other byte at or above 0x80, one at a time (so C3 C3 A9 gives "e"). Works in place.
void FilterTo7Bit(std::string& AText) {
  const size_t Size = AText.size();
  size_t Out = 0;
  for (size_t In = 0; In < Size; ++In) {
    const auto Byte = static_cast<uint8_t>(AText[In]);
    if (Byte < 0x80) {
      AText[Out++] = static_cast<char>(Byte);
    } else if (In + 1 < Size && IsAccent(Byte, static_cast<uint8_t>(AText[In + 1]))) {
      AText[Out++] = ConvertAccent(Byte, static_cast<uint8_t>(AText[In + 1]));
      ++In;
    }
  }
  AText.resize(Out);
}

// The same trim as Trim(): every byte of 0x20 or below off both ends, but in place.
void TrimInPlace(std::string& AText) {
  size_t End = AText.size();
  while (End > 0 && static_cast<uint8_t>(AText[End - 1]) <= 0x20) --End;
  AText.resize(End);
  size_t Begin = 0;
  while (Begin < End && static_cast<uint8_t>(AText[Begin]) <= 0x20) ++Begin;
  AText.erase(0, Begin);
}

// ---------------------------------------------------------------------------------------
// The pattern steps as plain scans. Each returns false, leaving AOut alone, when the pattern
// has no match; otherwise AOut holds the text with every match replaced.

// A scan writes AOut only from its first replacement on: until then AOut is left alone and the
// text stands as it was, so a field with nothing to replace costs no copy.
inline void StartCopyOnce(std::string& AOut, bool& AChanged, size_t ACapacity) {
  if (AChanged) return;
  AOut.clear();
  AOut.reserve(ACapacity);
  AChanged = true;
}

// The named-entity rows in one walk over the "&"s, with the result of running each row over
// the whole text in turn. Each entity holds exactly one "&", its first byte, and one ";",
// its last, so no two occurrences in the text overlap and each "&" starts at most one. The
// only replacement that holds an "&" is that of "&amp;", and the "&" it leaves can start an
// entity of a later row with the bytes behind it ("&amp;lt;" gives "<"), never one of the
// rows before it, which have run by then ("&amp;quot;" gives "&quot;").
bool DecodeEntityNames(std::string_view AText, std::string& AOut) {
  // The first entity of the rows from AFirstRow on whose name, less its first ASkip bytes,
  // stands at APos.
  auto EntityAt = [&](size_t APos, size_t AFirstRow, size_t ASkip) -> const TLiteralRow* {
    const size_t Left = AText.size() - APos;
    for (size_t Row = AFirstRow; Row < std::size(NAMED_ENTITIES); ++Row) {
      const std::string_view Name = NAMED_ENTITIES[Row].From.substr(ASkip);
      // The second byte and the closing ";" rule out nearly every row before a full compare.
      if (Name.size() <= Left && AText[APos + 1] == Name[1] && AText[APos + Name.size() - 1] == ';' &&
          AText.compare(APos, Name.size(), Name) == 0)
        return &NAMED_ENTITIES[Row];
    }
    return nullptr;
  };
  bool Changed = false;
  size_t Pos = 0;  // the text before Pos is in AOut
  size_t Amp = FindByte(AText, '&');
  while (Amp != NOT_FOUND) {
    const TLiteralRow* Entity = EntityAt(Amp, 0, 0);
    if (Entity == nullptr) {
      Amp = FindByte(AText, '&', Amp + 1);
      continue;
    }
    StartCopyOnce(AOut, Changed, AText.size());
    AOut.append(AText.substr(Pos, Amp - Pos));
    Pos = Amp + Entity->From.size();
    const TLiteralRow* Next = Entity == &NAMED_ENTITIES[AMP_ROW] ? EntityAt(Pos, AMP_ROW + 1, 1) : nullptr;
    if (Next != nullptr) {
      AOut.append(Next->To);
      Pos += Next->From.size() - 1;
    } else {
      AOut.append(Entity->To);
    }
    Amp = FindByte(AText, '&', Pos);
  }
  if (Changed) AOut.append(AText.substr(Pos));
  return Changed;
}

// The byte a numeric entity stands for: its decimal value modulo 256, where a digit run
// over 255 characters or a value above 2147483647 counts as 32 (a blank).
char EntityByte(std::string_view ADigits) {
  return static_cast<char>(static_cast<uint32_t>(StrToIntDef(ADigits, 32)) & 0xFFu);
}

// "&#([0-9]+);": the digits can only end at a non-digit, so a candidate "&#" matches exactly
// when one or more digits and then ";" follow it.
bool ScanNumericEntities(std::string_view AText, std::string& AOut) {
  size_t Hit = FindBytes(AText, "&#", 0);
  bool Changed = false;
  size_t Pos = 0;
  while (Hit != NOT_FOUND) {
    size_t DigitsEnd = Hit + 2;
    while (DigitsEnd < AText.size() && IsDigit(AText[DigitsEnd])) ++DigitsEnd;
    if (DigitsEnd == Hit + 2 || DigitsEnd >= AText.size() || AText[DigitsEnd] != ';') {
      Hit = FindBytes(AText, "&#", Hit + 2);
      continue;
    }
    StartCopyOnce(AOut, Changed, AText.size());
    AOut.append(AText.substr(Pos, Hit - Pos));
    AOut += EntityByte(AText.substr(Hit + 2, DigitsEnd - Hit - 2));
    Pos = DigitsEnd + 1;
    Hit = FindBytes(AText, "&#", Pos);
  }
  if (Changed) AOut.append(AText.substr(Pos));
  return Changed;
}

// "<[^>]*>": from a "<" to the first ">" after it. Once a "<" has no ">" after it, no later
// "<" has one either, so the scan ends there.
bool ScanTags(std::string_view AText, std::string& AOut) {
  bool Changed = false;
  size_t Pos = 0;
  for (;;) {
    const size_t Open = FindByte(AText, '<', Pos);
    if (Open == NOT_FOUND) break;
    const size_t Close = FindByte(AText, '>', Open + 1);
    if (Close == NOT_FOUND) break;
    StartCopyOnce(AOut, Changed, AText.size());
    AOut.append(AText.substr(Pos, Open - Pos));
    Pos = Close + 1;
  }
  if (Changed) AOut.append(AText.substr(Pos));
  return Changed;
}

// "^([A-Z]{3,})([a-z])": the greedy run takes every leading capital, and giving any back
// leaves a capital where the lower-case letter must stand, so the match exists exactly when
// three or more capitals open the text and a lower-case letter follows the whole run.
bool ScanLeadingCapitals(std::string_view AText, std::string& AOut) {
  size_t Run = 0;
  while (Run < AText.size() && IsUpper(AText[Run])) ++Run;
  if (Run < 3 || Run >= AText.size() || !IsLower(AText[Run])) return false;
  AOut.clear();
  AOut.reserve(AText.size() + 1);
  AOut.append(AText.substr(0, Run)).append(" ").append(AText.substr(Run));
  return true;
}

// "\.([A-Z])": a full stop with a capital behind it gets a blank in between.
bool ScanStopCapitals(std::string_view AText, std::string& AOut) {
  bool Changed = false;
  size_t Pos = 0;
  size_t Stop = FindByte(AText, '.', 0);
  while (Stop != NOT_FOUND) {
    if (Stop + 1 < AText.size() && IsUpper(AText[Stop + 1])) {
      StartCopyOnce(AOut, Changed, AText.size() + 64);
      AOut.append(AText.substr(Pos, Stop + 1 - Pos)).append(" ");
      Pos = Stop + 1;
      Stop = FindByte(AText, '.', Stop + 2);  // the capital is no full stop
    } else {
      Stop = FindByte(AText, '.', Stop + 1);
    }
  }
  if (Changed) AOut.append(AText.substr(Pos));
  return Changed;
}

// One engine for the label steps: the scan below, not PCRE2. The cleaner used to run
// this scan and then PCRE2 from each start it found, taking the scan's match when PCRE2 hit
// its match limit (about a megabyte between "(UTC" and "):"). Both always agreed (the
// generated-text table in cleaner_test and fuzz_cleaner's check), so PCRE2 only added time
// and a limit to reason about. bench_scan_clean, CPU time, median of 3 interleaved runs:
//   Label/utc/post        175 ns -> 117 ns   (a forum post with both labels)
//   Label/login/post      136 ns -> 105 ns
//   Label/utc/far_close   169 us ->  18 us   (256 KiB from "(UTC" to "):")
//   ScanCleanAll/every    37.9 ms -> 39.1 ms (whole corpus; within the noise of a shared box)
// fuzz_cleaner, holding the scans against PCRE2 on every step: 1.32 million inputs in
// 3 minutes (seeds and the feed corpus), no disagreement; a scan broken by hand is caught
// within seconds. PCRE2 stays as the oracle the tests and the fuzz target compare against.
//
// The next match of a label pattern at or after APos by plain search: [AStart, AEnd).
//
// "Current Date and Time \(UTC.*?\):.+?\n?": the lazy ".*?" stops at the first "):" behind
// the label that has a byte after it; ".+?" then takes exactly that one byte, whatever it is,
// and "\n?" one LF behind it if there is one. "Current User's Login:.+?\n?" ends the same
// way right behind its label. If the first "):" has nothing after it, no later one exists;
// so a label that cannot match means that no later label can, and the search ends.
bool NextLabelMatch(TCleanPattern APattern, std::string_view AText, size_t APos, size_t& AStart,
                    size_t& AEnd) {
  size_t End;
  if (APattern == cpUtcStamp) {
    AStart = FindBytes(AText, UTC_LABEL, APos);
    if (AStart == NOT_FOUND) return false;
    const size_t Close = FindBytes(AText, "):", AStart + UTC_LABEL.size());
    if (Close == NOT_FOUND) return false;
    End = Close + 2;
  } else {
    AStart = FindBytes(AText, LOGIN_LABEL, APos);
    if (AStart == NOT_FOUND) return false;
    End = AStart + LOGIN_LABEL.size();
  }
  if (End >= AText.size()) return false;
  ++End;
  if (End < AText.size() && AText[End] == '\n') ++End;
  AEnd = End;
  return true;
}

bool ScanLabel(TCleanPattern APattern, std::string_view AText, std::string& AOut) {
  bool Changed = false;
  size_t Pos = 0;
  size_t Start, End;
  while (NextLabelMatch(APattern, AText, Pos, Start, End)) {
    StartCopyOnce(AOut, Changed, AText.size());
    AOut.append(AText.substr(Pos, Start - Pos));
    Pos = End;
  }
  if (Changed) AOut.append(AText.substr(Pos));
  return Changed;
}

// "  +": each run of two or more blanks becomes one blank. The first "  " found from a
// position where no blank run is open is always the start of a run.
bool ScanBlankRuns(std::string_view AText, std::string& AOut) {
  size_t Hit = FindBytes(AText, "  ", 0);
  if (Hit == NOT_FOUND) return false;
  AOut.clear();
  AOut.reserve(AText.size());
  size_t Pos = 0;
  do {
    AOut.append(AText.substr(Pos, Hit + 1 - Pos));
    Pos = Hit + 2;
    while (Pos < AText.size() && AText[Pos] == ' ') ++Pos;
    Hit = FindBytes(AText, "  ", Pos);
  } while (Hit != NOT_FOUND);
  AOut.append(AText.substr(Pos));
  return true;
}

// "\n{3,}": each run of three or more adjacent LF bytes becomes CR LF CR LF.
bool ScanLineFeedRuns(std::string_view AText, std::string& AOut) {
  size_t Hit = FindBytes(AText, "\n\n\n", 0);
  if (Hit == NOT_FOUND) return false;
  AOut.clear();
  AOut.reserve(AText.size() + 16);
  size_t Pos = 0;
  do {
    AOut.append(AText.substr(Pos, Hit - Pos)).append("\r\n\r\n");
    Pos = Hit + 3;
    while (Pos < AText.size() && AText[Pos] == '\n') ++Pos;
    Hit = FindBytes(AText, "\n\n\n", Pos);
  } while (Hit != NOT_FOUND);
  AOut.append(AText.substr(Pos));
  return true;
}

bool ScanPattern(TCleanPattern APattern, std::string_view AText, std::string& AOut) {
  switch (APattern) {
    case cpNumericEntity:
      return ScanNumericEntities(AText, AOut);
    case cpTag:
      return ScanTags(AText, AOut);
    case cpLeadingCapitals:
      return ScanLeadingCapitals(AText, AOut);
    case cpStopCapital:
      return ScanStopCapitals(AText, AOut);
    case cpUtcStamp:
    case cpLoginLine:
      return ScanLabel(APattern, AText, AOut);
    case cpBlankRun:
      return ScanBlankRuns(AText, AOut);
    case cpLineFeedRun:
      return ScanLineFeedRuns(AText, AOut);
    case CLEAN_PATTERN_COUNT:
      break;
  }
  return false;
}

// Runs one pattern step of the pipeline over AText.
void ApplyStep(TCleanPattern APattern, std::string& AText, std::string& AScratch) {
  if (ScanPattern(APattern, AText, AScratch)) AText.swap(AScratch);
}

}  // namespace

std::string DecodeNamedEntities(std::string_view AText) {
  std::string Out;
  return DecodeEntityNames(AText, Out) ? Out : std::string(AText);
}

std::string ApplyCleanerPattern(TCleanPattern APattern, std::string_view AText) {
  std::string Out;
  return ScanPattern(APattern, AText, Out) ? Out : std::string(AText);
}

std::string CleanTextForBBS(std::string_view AText) {
  std::string T(AText);
  std::string Scratch;

  // Entities, named then numeric. Neither can match without an "&".
  if (FindByte(T, '&') != NOT_FOUND) {
    if (DecodeEntityNames(T, Scratch)) T.swap(Scratch);
    ApplyStep(cpNumericEntity, T, Scratch);
  }

  // From here on nothing puts a byte of 0x80 or above into the text, so a text without one
  // skips every repair of damaged sequences and the accent folding.
  const bool HasHigh = HasHighByte(T);

  if (HasHigh) {
    // Damaged punctuation and Latin-1 signs. Each group's rows share a prefix that no
    // replacement makes, so a text without the prefix has nothing for the group.
    if (Contains(T, DAMAGED_PUNCTUATION_PREFIX)) ReplaceRows(T, Scratch, DAMAGED_PUNCTUATION);
    if (Contains(T, DAMAGED_LATIN_PREFIX)) ReplaceRows(T, Scratch, DAMAGED_LATIN);
    // No-break space, alone or as the second byte of C2 A0 (the C2 falls in the filter).
    for (size_t I = FindByte(T, '\xA0', 0); I != NOT_FOUND; I = FindByte(T, '\xA0', I + 1)) T[I] = ' ';
  }

  if (FindByte(T, '<', 0) != NOT_FOUND) {
    ReplaceRows(T, Scratch, PARAGRAPHS);
    ApplyStep(cpTag, T, Scratch);
  }

  if (HasHigh && Contains(T, DAMAGED_QUOTE_PREFIX)) ReplaceRows(T, Scratch, DAMAGED_QUOTED_STAR);
  ReplaceRows(T, Scratch, QUOTED_STAR_AND_ELLIPSIS);
  ReplaceRows(T, Scratch, FOOTER);
  if (HasHigh) ReplaceRows(T, Scratch, REPLACEMENT_CHARACTER);

  ApplyStep(cpLeadingCapitals, T, Scratch);
  ApplyStep(cpStopCapital, T, Scratch);
  ApplyStep(cpUtcStamp, T, Scratch);
  ApplyStep(cpLoginLine, T, Scratch);
  ApplyStep(cpBlankRun, T, Scratch);
  ApplyStep(cpLineFeedRun, T, Scratch);

  if (HasHigh) FilterTo7Bit(T);
  TrimInPlace(T);
  return T;
}
