#include "cleaner.h"

#include <gtest/gtest.h>

#include <random>

#include "cleaner_steps.h"

using namespace std::string_literals;

namespace {

struct TCase {
  std::string In;
  std::string Want;
};

void ExpectCleaned(const std::vector<TCase>& ACases) {
  for (const auto& C : ACases)
    EXPECT_EQ(CleanTextForBBS(C.In), C.Want) << "input " << testing::PrintToString(C.In);
}

}  // namespace

TEST(CleanTextForBBS, DecodesTheKnownNamedEntitiesInOnePassEach) {
  ExpectCleaned({
      {"a&quot;b", "a\"b"},
      {"a&apos;b", "a'b"},
      {"a&amp;b", "a&b"},
      {"a&lt;b", "a<b"},
      {"a&gt;b", "a>b"},
      {"a&ndash;b", "a-b"},
      {"a&mdash;b", "a--b"},
      {"a&rsquo;b&lsquo;c", "a'b'c"},
      {"a&ldquo;b&rdquo;c", "a\"b\"c"},
      {"a&#39;b", "a'b"},
      {"a&#8230;b", "a...b"},
      // "&amp;" runs third: what it makes feeds the later rows, not the earlier ones.
      {"x&amp;lt;y", "x<y"},
      {"x&amp;quot;y", "x&quot;y"},
      {"x&amp;amp;y", "x&amp;y"},
      {"x&amp;#65;y", "xAy"},
      {"x&amp;#233;y", "xy"},
      // Unknown names and other cases stay as text.
      {"a&nbsp;b&hellip;c&QUOT;d&Amp;e", "a&nbsp;b&hellip;c&QUOT;d&Amp;e"},
      // Entities come before the tag step.
      {"&lt;b&gt;bold&lt;/b&gt;", "bold"},
      {"x&lt;p&gt;y", "x\r\n\r\ny"},
      {"&#60;b&#62;x", "x"},
  });
}

TEST(CleanTextForBBS, TurnsNumericEntitiesIntoTheLowByteOfTheirValue) {
  ExpectCleaned({
      {"&#65;", "A"},
      {"x&#00065;y", "xAy"},
      {"a&#0;b", "a\0b"s},
      {"&#0;x&#0;", "x"},
      {"x&#8217;y&#8220;z&#8221;w", "x\x19y\x1Cz\x1Dw"},
      {"x&#8211;y&#8212;z", "x\x13y\x14z"},
      {"x&#256;y&#65536;z", "x\0y\0z"s},
      {"&#65601;", "A"},
      {"x&#2147483647;y", "xy"},   // 0xFF, dropped by the filter
      {"x&#2147483648;y", "x y"},  // too big: a blank
      {"x&#99999999999999999999;y", "x y"},
      {"x&#" + std::string(253, '0') + "65;y", "xAy"},  // 255 digits still convert
      {"x&#" + std::string(254, '0') + "65;y", "x y"},  // 256 do not
      {"a&#160;b", "a b"},                              // no-break space
      {"caf&#233;", "caf"},                             // a lone E9 is no accented pair
      {"a&#10;&#10;&#10;b", "a\r\n\r\nb"},              // the line feeds it makes count later on
      // What does not match stays, and what was made is not searched again.
      {"&#x2019;&#;&#12 &#-1;", "&#x2019;&#;&#12 &#-1;"},
      {"&#&#65;", "&#A"},
      {"&#38;#65;", "&#65;"},
  });
}

TEST(CleanTextForBBS, RepairsKnownDamagedByteSequences) {
  ExpectCleaned({
      {"a\xCE\x93\xC3\x87\xC2\xA3"
       "b\xCE\x93\xC3\x87\xC2\xA5"
       "c",
       "a\"b\"c"},
      {"a\xCE\x93\xC3\x87\xC5\x93"
       "b\xCE\x93\xC3\x87\xC2\x9D"
       "c",
       "a\"b\"c"},
      {"a\xCE\x93\xC3\x87\xC3\xBF"
       "b\xCE\x93\xC3\x87\xC3\x96"
       "c",
       "a'b'c"},
      {"a\xCE\x93\xC3\x87\xC3\xB4"
       "b\xCE\x93\xC3\x87\xC3\xB6"
       "c",
       "a-b-c"},
      {"a\xCE\x93\xC3\x87\xC3\xB3"
       "b\xCE\x93\xC3\x87\xC2\xAA"
       "c",
       "a*b...c"},
      {"a\xCE\x93\xC3\x87\xC2\xAB"
       "b\xCE\x93\xC3\x87\xC2\xBB"
       "c",
       "a\"b\"c"},
      {"a\xE2\x94\xAC\xE2\x8C\x90"
       "b\xE2\x94\xAC\xC2\xA9"
       "c",
       "a(c)b(c)c"},
      {"a\xE2\x94\xAC\xC2\xAB"
       "b\xE2\x94\xAC\xC2\xBB"
       "c",
       "a(R)b>>c"},
      {"Rene\xE2\x94\x9C\xE2\x8C\x90 and Jos\xE2\x94\x9C\xE2\x8C\x90", "Renee and Jos"},
      {"a\xE2\x94\xAC\xC3\xA1"
       "b",
       "a b"},
      // The correct UTF-8 forms are no rows: a curly quote falls away, an ellipsis is kept.
      {"don\xE2\x80\x99t", "dont"},
      {"wait\xE2\x80\xA6", "wait..."},
      {"5\xE2\x82\xAC", "5"},
      // Quoted asterisks, damaged or not, after the tag step.
      {"a\xC3\xA2\xE2\x82\xAC\xC5\x93*\xC3\xA2\xE2\x82\xAC"
       "b",
       "a*b"},
      {"a\xC3\xA2\xE2\x82\xAC\xC5\x93*b", "a*b"},
      {"a*\xC3\xA2\xE2\x82\xAC"
       "b",
       "a*b"},
      {"a\"*\"b", "a*b"},
      {"a\xCE\x93\xC3\x87\xC2\xA3*\xCE\x93\xC3\x87\xC2\xA5"
       "b",
       "a*b"},  // first pass makes "*"
      {"a&quot;*&quot;b", "a*b"},
      {"a\xEF\xBF\xBD"
       "b",
       "ab"},
      // A0 becomes a blank wherever it stands; the C2 before it falls in the filter.
      {"a\xC2\xA0"
       "b",
       "a b"},
      {"a\xC2\xA0\xC2\xA0"
       "b",
       "a  b"},  // a C2 still divides the blanks when runs close
      {"a\xA0\xA0"
       "b",
       "a b"},
      {"voil\xC3\xA0 x", "voil x"},
  });
}

TEST(CleanTextForBBS, MarksParagraphsAndDeletesTags) {
  ExpectCleaned({
      {"<p>One</p><p>Two</p>", "One\r\n\r\nTwo"},
      {"a<p></p><p>b", "a\r\n\r\n\r\n\r\nb"},
      {"a<P>b<p class=x>c<br>d<br/>e", "abcde"},
      {"a < b and c > d", "a d"},
      {"a < b", "a < b"},
      {"a > b < c", "a > b < c"},
      {"a<b\nc>d", "ad"},
      {"<![CDATA[Hello]]>", ""},
      {"<![CDATA[<b>x</b> y]]>", "x y]]>"},
      {"<<b>>x", ">x"},
      {"a<>b", "ab"},
      {"[...] The post Foo appeared first on Bar.", "[...]\r\n\r\nThe post Foo appeared first on\r\n Bar."},
  });
}

TEST(CleanTextForBBS, SpacesOutLeadingCapitalsAndSentences) {
  ExpectCleaned({
      {"ABCd", "ABC d"},
      {"NEWSflash", "NEWS flash"},
      {"NEWSFlash", "NEWSF lash"},
      {"ABd", "ABd"},
      {"ABCD", "ABCD"},
      {"ABC1d", "ABC1d"},
      {" ABCd", "ABCd"},  // the blank is first when the pattern looks; the trim comes later
      {"xABCd", "xABCd"},
      {"ABCd ABCd", "ABC d ABCd"},
      {"<b>ABCd</b>", "ABC d"},  // tags are gone by then
      {"end.Next", "end. Next"},
      {"A.B.C", "A. B. C"},
      {"version 3.5", "version 3.5"},
      {"a.b a..B", "a.b a.. B"},
      {"x.\xC3\x89t", "x.Et"},  // only ASCII capitals count
  });
}

TEST(CleanTextForBBS, RemovesLoginAndTimeStampLabelsUpToOneByteAfterThem) {
  const std::string Login = "Current User's Login:";
  const std::string Stamp = "Current Date and Time (UTC";
  ExpectCleaned({
      {Login + " alice\nNext", "alice\nNext"},
      {Login + "x\nNext", "Next"},
      {Login + "\nNext", "Next"},
      {Login + "\n\nNext", "Next"},
      {Login + "\n\n\nNext", "Next"},
      {"a " + Login, "a " + Login},
      {"a " + Login + "x\r\nb", "a \r\nb"},  // CR is no LF
      {Stamp + " - YYYY-MM-DD HH:MM:SS formatted): 2025-01-01 10:00:00\n" + Login + " bob\nText",
       "2025-01-01 10:00:00\nbob\nText"},
      {"x " + Stamp + "):\n\nY", "x Y"},
      {"x " + Stamp + "\nspans\nlines): y", "x y"},
      {"x " + Stamp + "): a): b", "x a): b"},  // lazy: the first "):" ends it
      {"A " + Stamp + "):1 B " + Stamp + "):2 C", "A B C"},
      {"x " + Stamp + " never closed", "x " + Stamp + " never closed"},
      {"x " + Stamp + "):", "x " + Stamp + "):"},  // "):" with nothing after it
      {"x " + Stamp + "):1 " + Stamp + "):", "x " + Stamp + "):"},
  });
}

TEST(CleanTextForBBS, CollapsesBlankRunsAndLongLineFeedRuns) {
  ExpectCleaned({
      {"a  b     c", "a b c"},
      {"a \t b", "a \t b"},
      {"a \n b", "a \n b"},
      {"a\n\nb", "a\n\nb"},
      {"a\n\n\nb", "a\r\n\r\nb"},
      {"a\n\n\n\n\n\nb", "a\r\n\r\nb"},
      {"a\r\n\r\n\r\n\r\n\r\nb", "a\r\n\r\n\r\n\r\n\r\nb"},  // CR keeps the LFs apart
      {"a\n\n\n \n\n\nb", "a\r\n\r\n \r\n\r\nb"},
  });
}

TEST(CleanTextForBBS, FoldsEveryAccentedPairOfTheTable) {
  struct Fold {
    std::string Pairs;
    char Letter;
  } Folds[] = {
      {"\xC3\xA9\xC3\xA8\xC3\xAA\xC3\xAB", 'e'},
      {"\xC3\x89\xC3\x88\xC3\x8A\xC3\x8B", 'E'},
      {"\xC3\xA0\xC3\xA1\xC3\xA2\xC3\xA4\xC3\xA3\xC3\xA5\xC3\xA6", 'a'},
      {"\xC3\x80\xC3\x81\xC3\x82\xC3\x84\xC3\x83\xC3\x85\xC3\x86", 'A'},
      {"\xC3\xA7", 'c'},
      {"\xC3\x87", 'C'},
      {"\xC3\xB1", 'n'},
      {"\xC3\x91", 'N'},
      {"\xC3\xAD\xC3\xAC\xC3\xAE\xC3\xAF", 'i'},
      {"\xC3\x8D\xC3\x8C\xC3\x8E\xC3\x8F", 'I'},
      {"\xC3\xB3\xC3\xB2\xC3\xB4\xC3\xB6\xC3\xB5\xC3\xB8", 'o'},
      {"\xC3\x93\xC3\x92\xC3\x94\xC3\x96\xC3\x95\xC3\x98", 'O'},
      {"\xC3\xBA\xC3\xB9\xC3\xBB\xC3\xBC", 'u'},
      {"\xC3\x9A\xC3\x99\xC3\x9B\xC3\x9C", 'U'},
      {"\xC3\xBD\xC3\xBF", 'y'},
      {"\xC3\x9D\xC5\xB8", 'Y'},
  };
  size_t Total = 0;
  for (const auto& F : Folds) {
    // A0 becomes a blank before the filter runs, so C3 A0 reaches it as C3 and a blank.
    const bool HasA0 = F.Pairs.find("\xC3\xA0") != std::string::npos;
    const size_t Count = F.Pairs.size() / 2;
    Total += Count;
    const std::string Want =
        HasA0 ? "[ " + std::string(Count - 1, F.Letter) + "]" : "[" + std::string(Count, F.Letter) + "]";
    EXPECT_EQ(CleanTextForBBS("[" + F.Pairs + "]"), Want) << F.Letter;
  }
  EXPECT_EQ(Total, 58u);
}

TEST(CleanTextForBBS, KeepsOnlySevenBitBytesAndTrimsTheEnds) {
  ExpectCleaned({
      {"", ""},
      {" \t\r\n\x01\x1F ", ""},
      {"\x01"
       "a\x02"
       "b\x1F",
       "a\x02"
       "b"},
      {"\x7F", "\x7F"},
      {"caf\xC3\xA9", "cafe"},
      {"Z\xC3\xBC"
       "rich",
       "Zurich"},
      {"\xC3\xC3\xA9", "e"},
      {"x\xC3", "x"},
      {"x\xE9y", "xy"},
      {"x\xC3\x9F\xC3\x90\xC3\xB0\xC3\x9E\xC3\xBE\xC3\x97\xC3\xB7y", "xy"},
      {"x\xC5\xB9y\xC2\xA9z", "xyz"},
      {"\xFF\xFE\x80", ""},
  });
}

// The named entities are decoded in one walk; it must give what thirteen literal passes
// in their order give, "&amp;" third.
TEST(CleanerPatterns, NamedEntitiesMatchThirteenPassesInOrder) {
  const std::pair<std::string, std::string> Rows[] = {
      {"&quot;", "\""},  {"&apos;", "'"},   {"&amp;", "&"},     {"&lt;", "<"},    {"&gt;", ">"},
      {"&ndash;", "-"},  {"&mdash;", "--"}, {"&rsquo;", "'"},   {"&lsquo;", "'"}, {"&ldquo;", "\""},
      {"&rdquo;", "\""}, {"&#39;", "'"},    {"&#8230;", "..."},
  };
  auto ByPasses = [&](std::string AText) {
    for (const auto& [From, To] : Rows) {
      std::string Out;
      size_t Pos = 0;
      for (size_t Hit; (Hit = AText.find(From, Pos)) != std::string::npos; Pos = Hit + From.size())
        Out += AText.substr(Pos, Hit - Pos) + To;
      AText = Out + AText.substr(Pos);
    }
    return AText;
  };
  const std::string Tokens[] = {"&",    "amp;", "&amp;", "lt;",    "&lt;", "quot;", "&quot;", "apos;",
                                "#39;", "#",    "8230;", "mdash;", ";",    "x",     "&gt",    "rdquo;"};
  std::mt19937 Random(7);
  std::uniform_int_distribution<size_t> PickToken(0, std::size(Tokens) - 1);
  std::uniform_int_distribution<int> PickLength(0, 12);
  for (int Round = 0; Round < 20000; ++Round) {
    std::string Text;
    for (int I = PickLength(Random); I > 0; --I) Text += Tokens[PickToken(Random)];
    ASSERT_EQ(DecodeNamedEntities(Text), ByPasses(Text)) << Text;
  }
}

// The cleaner runs most pattern steps as plain scans and the two label patterns through
// PCRE2 with a guard; all of them must give exactly what PCRE2 gives for the pattern itself.
TEST(CleanerPatterns, MatchPcre2OnGeneratedText) {
  const std::string Tokens[] = {"&#",
                                "65",
                                "0",
                                ";",
                                "<",
                                ">",
                                "A",
                                "BC",
                                "d",
                                ".",
                                " ",
                                "  ",
                                "\n",
                                "\r",
                                "\0"s,
                                "x",
                                "\xC3",
                                "):",
                                "Current Date and Time (UTC",
                                "Current User's Login:"};
  std::mt19937 Random(20250801);
  std::uniform_int_distribution<size_t> PickToken(0, std::size(Tokens) - 1);
  std::uniform_int_distribution<int> PickLength(0, 24);
  for (int Round = 0; Round < 4000; ++Round) {
    std::string Text;
    for (int I = PickLength(Random); I > 0; --I) Text += Tokens[PickToken(Random)];
    for (int P = 0; P < CLEAN_PATTERN_COUNT; ++P) {
      const auto Pattern = static_cast<TCleanPattern>(P);
      std::string Want;
      ASSERT_TRUE(ApplyPatternByRegex(Pattern, Text, Want));
      ASSERT_EQ(ApplyCleanerPattern(Pattern, Text), Want)
          << CleanPatternText(Pattern) << " on " << testing::PrintToString(Text);
      ASSERT_EQ(ApplyPatternByScan(Pattern, Text), Want)
          << CleanPatternText(Pattern) << " on " << testing::PrintToString(Text);
    }
  }
}

TEST(CleanerPatterns, StayLinearAndCorrectOnHugeFields) {
  const std::string Stamp = "Current Date and Time (UTC";
  std::string Labels;
  while (Labels.size() < (2u << 20)) Labels += Stamp;

  // Thousands of labels without "):" behind them: nothing matches, and PCRE2 is never left
  // to walk from each of them to the end.
  EXPECT_EQ(ApplyCleanerPattern(cpUtcStamp, "x):y " + Labels), "x):y " + Labels);
  EXPECT_EQ(ApplyCleanerPattern(cpUtcStamp, Stamp + "):1" + Labels), Labels);

  // Megabytes between "(UTC" and "):" exceed PCRE2's match limit; the cleaner still
  // removes exactly what the pattern stands for.
  const std::string Long = "a " + Stamp + std::string(3u << 20, 'x') + "):\n\nb";
  std::string Ignored;
  EXPECT_FALSE(ApplyPatternByRegex(cpUtcStamp, Long, Ignored)) << "the limit is expected to stop PCRE2 here";
  EXPECT_EQ(ApplyCleanerPattern(cpUtcStamp, Long), "a b");
  EXPECT_EQ(CleanTextForBBS(Long), "a b");

  // Whole-pipeline inputs that would be quadratic for a naive search.
  EXPECT_EQ(CleanTextForBBS(std::string(4u << 20, '<')).size(), 4u << 20);
  EXPECT_EQ(CleanTextForBBS(std::string(1u << 20, '.') + "A"), std::string(1u << 20, '.') + " A");
  std::string Entities;
  while (Entities.size() < (2u << 20)) Entities += "&#12345678";
  EXPECT_EQ(CleanTextForBBS(Entities), Entities);
  EXPECT_EQ(CleanTextForBBS(Labels + "):x"), "");
}
