#include "config.h"

#include <gtest/gtest.h>

#include <climits>
#include <stdexcept>

#include "testsupport.h"

using namespace std::string_literals;

namespace {

// Every setting at once, so that a test states the whole outcome of a file.
struct TSettings {
  std::string Url, Skin;
  int32_t FeedBg, Title, Date, Body, Command;
  bool Exit;
  int32_t Page, PageBg, Max;
  bool operator==(const TSettings&) const = default;
};

TSettings Current() {
  return {FeedUrl,      SkinFile,    FeedBgColor, TitleColor,  DateColor, BodyTextColor,
          CommandColor, ExitOnEnter, PageColor,   PageBgColor, MaxItems};
}

void PrintTo(const TSettings& A, std::ostream* AOut) {
  *AOut << testing::PrintToString(std::make_tuple(A.Url, A.Skin, A.FeedBg, A.Title, A.Date, A.Body, A.Command,
                                                  A.Exit, A.Page, A.PageBg, A.Max));
}

const TSettings PRESETS = {"", "", 7, 15, 11, 14, 14, false, 15, 1, 50};

// Writes AContent as a settings file and loads it through LoadConfig.
TSettings Load(const std::string& AContent) {
  TTempDir Dir;
  const auto Path = Dir.Path / "tamblin.cfg";
  WriteWholeFile(Path, AContent);
  LoadConfig(Path.string());
  return Current();
}

std::string Lines(const std::vector<std::string>& ALines, const std::string& AEnd = "\n") {
  std::string Text;
  for (const auto& Line : ALines) Text += Line + AEnd;
  return Text;
}

// The first ACount lines of a complete file, each ended by AEnd.
std::string FullFile(size_t ACount, const std::string& AEnd = "\n") {
  const std::vector<std::string> Values = {
      "http://example.com/rss", "blue.ans", "1", "2", "3", "4", "5", "Y", "6", "0", "20",
      "ignored twelfth line"};
  return Lines({Values.begin(), Values.begin() + static_cast<ptrdiff_t>(ACount)}, AEnd);
}
const TSettings FULL = {"http://example.com/rss", "blue.ans", 1, 2, 3, 4, 5, true, 6, 0, 20};

}  // namespace

// Every load starts from the presets, so each file here also undoes what the one before set.
TEST(LoadConfig, ShortFilesKeepThePresetsOfTheLinesTheyLack) {
  EXPECT_EQ(Load(FullFile(12)), FULL);
  EXPECT_EQ(Load(FullFile(8)),
            (TSettings{"http://example.com/rss", "blue.ans", 1, 2, 3, 4, 5, true, 15, 1, 50}));
  EXPECT_EQ(Load(FullFile(9)),
            (TSettings{"http://example.com/rss", "blue.ans", 1, 2, 3, 4, 5, true, 6, 1, 50}));
  EXPECT_EQ(Load(FullFile(11)), FULL);
  EXPECT_EQ(Load(FullFile(10)),
            (TSettings{"http://example.com/rss", "blue.ans", 1, 2, 3, 4, 5, true, 6, 0, 50}));
  EXPECT_EQ(Load("  http://x/feed  "), (TSettings{"http://x/feed", "", 7, 15, 11, 14, 14, false, 15, 1, 50}));
  EXPECT_EQ(Load(""), PRESETS);
}

TEST(LoadConfig, BadNumbersFallBackLineByLine) {
  // A present line without a valid number: lines 3-7 fall back to their preset, lines 9-11
  // to 7, and the lines after it are still read.
  const std::string AllBad =
      Lines({"u", "s", "blue", "", "12 blue", "1.5", "0x", "YES", "", "abc", "99999999999"});
  EXPECT_EQ(Load(AllBad), (TSettings{"u", "s", 7, 15, 11, 14, 14, false, 7, 7, 7}));
  EXPECT_EQ(Load(Lines({"u", "s", "x", "2", "3", "4", "5", "n", "6", "0", ""})),
            (TSettings{"u", "s", 7, 2, 3, 4, 5, false, 6, 0, 7}));
}

TEST(LoadConfig, ReadsEveryNumberFormAfterTrimming) {
  auto Expect = [](const std::string& ALine, int32_t AWant) {
    // Line 11 uses the fallback 7, as a bad colour of line 3 does.
    const auto Got = Load(Lines({"u", "s", ALine, "2", "3", "4", "5", "n", "6", "0", ALine}));
    EXPECT_EQ(std::pair(Got.FeedBg, Got.Max), std::pair(AWant, AWant)) << ALine;
  };
  for (const char* Twelve : {"\t12\x01", "$0C", "0x0c", "X0C", "&14", "%1100", "+12"}) Expect(Twelve, 12);
  for (const std::string& Bad : {"2147483648"s, "$100000000"s, "1 2"s, "12h"s, std::string(256, '1')})
    Expect(Bad, 7);
  Expect("-1", -1);
  Expect("$FFFFFFFF", -1);
  Expect("270", 270);
  Expect("2147483647", INT_MAX);
  Expect("-2147483648", INT_MIN);
}

TEST(LoadConfig, OnlyAYTurnsExitOnEnterOn) {
  const std::pair<std::string, bool> Cases[] = {
      {"Y", true},  {"y", true},  {"  y  ", true}, {"\ty\x01", true}, {"YES", false},
      {"1", false}, {"N", false}, {"", false},     {"y y", false},    {"\xC3\xBD", false}};
  for (const auto& [Line, Want] : Cases)
    EXPECT_EQ(Load(Lines({"u", "s", "1", "2", "3", "4", "5", Line})).Exit, Want) << Line;
}

TEST(LoadConfig, LineEndsCountTheSameInEveryForm) {
  for (const std::string End : {"\n", "\r", "\r\n"}) {
    std::string Text = FullFile(11, End);
    EXPECT_EQ(Load(Text), FULL) << "line end " << int(End[0]) << "/" << End.size();
    Text.resize(Text.size() - End.size());  // the last line needs no line end
    EXPECT_EQ(Load(Text), FULL);
  }
  // Mixed ends in one file.
  EXPECT_EQ(Load("http://example.com/rss\rblue.ans\r\n1\n2\r3\r\n4\n5\rY\n6\r\n0\r20"), FULL);
  // LF CR is two line ends: the empty line between shifts every later setting by one.
  EXPECT_EQ(Load("http://x\n\rskin\n1\n"), (TSettings{"http://x", "", 7, 1, 11, 14, 14, false, 15, 1, 50}));
  // An empty line keeps its place.
  EXPECT_EQ(Load("\n\n3\n"), (TSettings{"", "", 3, 15, 11, 14, 14, false, 15, 1, 50}));
}

TEST(LoadConfig, ByteOrderMarksAreDecodedAndNotPartOfLineOne) {
  auto Utf16 = [](const std::u16string& AText, bool ABigEndian) {
    std::string Bytes = ABigEndian ? "\xFE\xFF" : "\xFF\xFE";
    for (const char16_t Unit : AText) {
      const char Hi = static_cast<char>(Unit >> 8), Lo = static_cast<char>(Unit & 0xFF);
      Bytes += ABigEndian ? Hi : Lo;
      Bytes += ABigEndian ? Lo : Hi;
    }
    return Bytes;
  };
  const std::u16string Text =
      u"http://example.com/caf\u00e9\r\nsk\U0001F600.ans\r\n$0C\r\n\r\n\r\n\r\n\r\n y\r\n";
  // UTF-16 text becomes UTF-8.
  const TSettings Want = {
      "http://example.com/caf\xC3\xA9", "sk\xF0\x9F\x98\x80.ans", 12, 15, 11, 14, 14, true, 15, 1, 50};
  EXPECT_EQ(Load(Utf16(Text, false)), Want);
  EXPECT_EQ(Load(Utf16(Text, true)), Want);
  EXPECT_EQ(Load("\xEF\xBB\xBFhttp://example.com/caf\xC3\xA9\nsk\xF0\x9F\x98\x80.ans\n$0C\n\n\n\n\ny"), Want);

  // Without a mark the bytes stand as they are, a mark-like sequence later on included, and
  // zero and high bytes inside a line too.
  EXPECT_EQ(Load("\x01http://a\0b\xE9\x1A/ \x00\n"s).Url, "http://a\0b\xE9\x1A/"s);
  EXPECT_EQ(Load("\xEF\xBB\xBF\xEF\xBB\xBFu\n").Url, "\xEF\xBB\xBFu");
  EXPECT_EQ(Load("u\xFF\xFE\n").Url, "u\xFF\xFE");
  // A lone surrogate becomes U+FFFD; an odd last byte is dropped.
  EXPECT_EQ(Load("\xFF\xFEg\0\x00\xD8h\0x"s).Url, "g\xEF\xBF\xBDh");
  EXPECT_EQ(Load("\xFE\xFF").Url, "");
  // The last code point there is, from the highest pair of surrogates.
  EXPECT_EQ(Load(Utf16(u"\U0010FFFF", true)).Url, "\xF4\x8F\xBF\xBF");
  // A high surrogate in the last whole unit pairs with nothing, not with the odd byte after it.
  EXPECT_EQ(Load("\xFE\xFF\x00g\xD8\x00\xDC"s).Url, "g\xEF\xBF\xBD");
}

TEST(LoadConfig, StopsReadingADeviceNamedByMistake) {
  LoadConfig("/dev/zero");  // one endless line of zero bytes: trimmed away, nothing else set
  EXPECT_EQ(Current(), PRESETS);
}

TEST(LoadConfig, FailsWithTheSystemsReasonWhenTheFileCannotBeRead) {
  TTempDir Dir;
  const std::pair<std::string, std::string> Cases[] = {
      {(Dir.Path / "missing.cfg").string(), "No such file or directory"},
      {"", "No such file or directory"},
      {Dir.Path.string(), "Is a directory"}};
  for (const auto& [Name, Reason] : Cases) {
    Load(FullFile(12));
    try {
      LoadConfig(Name);
      ADD_FAILURE() << "no failure for " << Name;
    } catch (const std::runtime_error& E) {
      EXPECT_EQ(std::string(E.what()), "Unable to open file \"" + Name + "\": " + Reason);
    }
    EXPECT_EQ(Current(), PRESETS) << "a failed load leaves the presets, not the last file";
  }
}
