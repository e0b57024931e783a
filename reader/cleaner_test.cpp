#include "cleaner.h"

#include <gtest/gtest.h>

#include <random>

#include "cleaner_oracle_testutil.h"
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

// Random texts of the given tokens, reproducible per seed.
template <size_t N>
std::vector<std::string> TokenTexts(const std::string (&ATokens)[N], unsigned ASeed, int ACount,
                                    int AMaxLen) {
  std::mt19937 Random(ASeed);
  std::uniform_int_distribution<size_t> PickToken(0, N - 1);
  std::uniform_int_distribution<int> PickLength(0, AMaxLen);
  std::vector<std::string> Texts(ACount);
  for (auto& Text : Texts)
    for (int I = PickLength(Random); I > 0; --I) Text += ATokens[PickToken(Random)];
  return Texts;
}

const std::string STAMP = "Current Date and Time (UTC";
const std::string LOGIN = "Current User's Login:";

}  // namespace

// Rows join several cases with "|" or with letters outside a-f, which no "\x.." escape swallows.
TEST(CleanTextForBBS, DecodesEntitiesBeforeTheTagStep) {
  ExpectCleaned({
      {"&quot;&apos;&amp;&gt;&lt;|&ndash;|&mdash;|&rsquo;&lsquo;&ldquo;&rdquo;&#39;&#8230;",
       "\"'&><|-|--|''\"\"'..."},
      // "&amp;" runs third: what it makes feeds the later rows and the numeric step only.
      {"x&amp;lt;y&amp;quot;z&amp;amp;w", "x<y&quot;z&amp;w"},
      {"x&amp;#65;y&amp;#233;z", "xAyz"},
      {"a&nbsp;b&hellip;c&QUOT;d&Amp;e", "a&nbsp;b&hellip;c&QUOT;d&Amp;e"},
      {"&lt;b&gt;bold&lt;/b&gt;", "bold"},
      {"x&lt;p&gt;y", "x\r\n\r\ny"},
      {"&#60;b&#62;x", "x"},
  });
}

TEST(CleanTextForBBS, TurnsNumericEntitiesIntoTheLowByteOfTheirValue) {
  ExpectCleaned({
      {"&#65;x&#00065;y", "AxAy"},
      {"&#0;a&#0;b&#0;", "a\0b"s},  // zero bytes stay inside, the trim takes them at the ends
      {"x&#8217;y&#8220;z&#8221;w&#8211;v&#8212;u", "x\x19y\x1Cz\x1Dw\x13v\x14u"},
      {"x&#256;y&#65536;z&#65601;", "x\0y\0zA"s},
      // 0xFF is dropped by the filter; past the 32-bit range the value is 32, a blank.
      {"x&#2147483647;y&#2147483648;z&#99999999999999999999;w", "xy z w"},
      {"x&#" + std::string(253, '0') + "65;y&#" + std::string(254, '0') + "65;z",
       "xAy z"},                          // 255 digits, 256
      {"a&#160;b caf&#233;", "a b caf"},  // no-break space; a lone E9 is no accented pair
      {"a&#10;&#10;&#10;b", "a\r\n\r\nb"},
      // What does not match stays, and what was made is not searched again.
      {"&#x2019;&#;&#12 &#-1;&#&#65;&#38;#65;", "&#x2019;&#;&#12 &#-1;&#A&#65;"},
  });
}

TEST(CleanTextForBBS, RepairsKnownDamagedByteSequences) {
  const std::string Q = "\xCE\x93\xC3\x87";  // E2 80 read as CP437
  const std::string C = "\xE2\x94\xAC";      // C2 read as CP437
  const std::string Euro = "\xC3\xA2\xE2\x82\xAC", Left = Euro + "\xC5\x93";
  // Each damaged form behind APrefix, joined by "|".
  auto Forms = [](const std::string& APrefix, std::initializer_list<const char*> ATails) {
    std::string Text;
    for (const char* Tail : ATails) Text += (Text.empty() ? "" : "|") + APrefix + Tail;
    return Text;
  };
  ExpectCleaned({
      {Forms(Q, {"\xC2\xA3", "\xC2\xA5", "\xC5\x93", "\xC2\x9D", "\xC2\xAB", "\xC2\xBB"}),
       "\"|\"|\"|\"|\"|\""},
      {Forms(Q, {"\xC3\xBF", "\xC3\x96", "\xC3\xB4", "\xC3\xB6", "\xC3\xB3", "\xC2\xAA"}), "'|'|-|-|*|..."},
      {Forms(C, {"\xE2\x8C\x90", "\xC2\xA9", "\xC2\xAB", "\xC2\xBB", "\xC3\xA1y"}), "(c)|(c)|(R)|>>| y"},
      {"Rene\xE2\x94\x9C\xE2\x8C\x90 and Jos\xE2\x94\x9C\xE2\x8C\x90", "Renee and Jos"},
      // The correct UTF-8 forms are no rows: a curly quote falls away, an ellipsis is kept.
      {"don\xE2\x80\x99t wait\xE2\x80\xA6 5\xE2\x82\xAC x\xEF\xBF\xBDy", "dont wait... 5 xy"},
      // Quoted asterisks, damaged or not, after the tag step; the first pass makes quotes too.
      {Left + "*" + Euro + "|" + Left + "*|*" + Euro + "|\"*\"|" + Q + "\xC2\xA3*" + Q +
           "\xC2\xA5|&quot;*&quot;",
       "*|*|*|*|*|*"},
      // A0 becomes a blank wherever it stands; the C2 before it falls in the filter, and
      // still divides the blanks when runs close.
      {"a\xC2\xA0z|a\xC2\xA0\xC2\xA0z|a\xA0\xA0z|voil\xC3\xA0 x", "a z|a  z|a z|voil x"},
  });
}

TEST(CleanTextForBBS, MarksParagraphsAndDeletesTags) {
  ExpectCleaned({
      {"<p>One</p><p>Two</p>", "One\r\n\r\nTwo"},
      {"a<p></p><p>b", "a\r\n\r\n\r\n\r\nb"},
      {"a<P>b<p class=x>c<br>d<br/>e", "abcde"},
      {"a < b and c > d", "a d"},
      {"a > b < c", "a > b < c"},
      {"a<b\nc>d", "ad"},
      {"<![CDATA[<b>x</b> y]]>", "x y]]>"},
      {"<<b>>x a<>b", ">x ab"},
      {"[...] The post Foo appeared first on Bar.", "[...]\r\n\r\nThe post Foo appeared first on\r\n Bar."},
  });
}

TEST(CleanTextForBBS, SpacesOutLeadingCapitalsAndSentences) {
  ExpectCleaned({
      {"ABCd", "ABC d"},
      {"NEWSFlash", "NEWSF lash"},
      {"ABd", "ABd"},
      {"ABCD", "ABCD"},
      {" ABCd", "ABCd"},             // the blank is first when the pattern looks; the trim comes later
      {"xABCd ABCd", "xABCd ABCd"},  // at the first byte only
      {"<b>ABCd</b>", "ABC d"},      // tags are gone by then
      {"end.Next A.B.C version 3.5 a.b a..B x.\xC3\x89t", "end. Next A. B. C version 3.5 a.b a.. B x.Et"},
  });
}

// Each row is cleaned differently if two of the steps swap places.
TEST(CleanTextForBBS, RunsItsStepsInOrder) {
  ExpectCleaned({
      // Bytes made by numeric entities are repaired; a tag inside a damaged quote prevents the
      // first repair (its C3 87 then folds to "C") but not the second, which comes after tags.
      {"&#206;&#147;&#195;&#135;&#194;&#163;x|\xCE\x93<b>\xC3\x87\xC2\xA3|"
       "\xC3\xA2\xE2\x82\xAC\xC5\x93<i>*</i>\xC3\xA2\xE2\x82\xAC",
       "\"x|C|*"},
      // The replacement character goes before full stops get their blank, and tags before labels.
      {"end.\xEF\xBF\xBDNext Current User's<b/> Login: x\nrest", "end. Next x\nrest"},
  });
}

TEST(CleanTextForBBS, RemovesLoginAndTimeStampLabelsUpToOneByteAfterThem) {
  ExpectCleaned({
      {LOGIN + " alice\nNext", "alice\nNext"},
      {LOGIN + "x\nNext", "Next"},
      {LOGIN + "\nNext", "Next"},
      {"a" + LOGIN + "\n\nNext", "aNext"},
      {"a " + LOGIN, "a " + LOGIN},
      {"a " + LOGIN + "x\r\nb", "a \r\nb"},  // CR is no LF
      {STAMP + " - YYYY-MM-DD HH:MM:SS formatted): 2025-01-01 10:00:00\n" + LOGIN + " bob\nText",
       "2025-01-01 10:00:00\nbob\nText"},
      {"x " + STAMP + "):\n\nY", "x Y"},
      {"x " + STAMP + "\nspans\nlines): y", "x y"},
      {"x " + STAMP + "): a): b", "x a): b"},  // lazy: the first "):" ends it
      {"A " + STAMP + "):1 B " + STAMP + "):2 C", "A B C"},
      {"x " + STAMP + " never closed", "x " + STAMP + " never closed"},
      {"x " + STAMP + "):1 " + STAMP + "):", "x " + STAMP + "):"},  // "):" with nothing after it
  });
}

TEST(CleanTextForBBS, CollapsesBlankRunsAndLongLineFeedRuns) {
  ExpectCleaned({
      {"a  b     c \t d \n e", "a b c \t d \n e"},
      // CR keeps LFs apart, and so does a blank.
      {"a\n\nb\n\n\nc\n\n\n\n\n\nd\r\n\r\n\r\n\r\n\r\ne\n\n\n \n\n\nf",
       "a\n\nb\r\n\r\nc\r\n\r\nd\r\n\r\n\r\n\r\n\r\ne\r\n\r\n \r\n\r\nf"},
  });
}

TEST(CleanTextForBBS, FoldsAccentsKeepsSevenBitBytesAndTrims) {
  // Every pair of the accent table, in its order; C3 A0 reaches the filter as C3 and a blank.
  const std::string Pairs =
      "\xC3\xA9\xC3\xA8\xC3\xAA\xC3\xAB\xC3\x89\xC3\x88\xC3\x8A\xC3\x8B\xC3\xA0\xC3\xA1\xC3\xA2\xC3\xA4"
      "\xC3\xA3\xC3\xA5\xC3\xA6\xC3\x80\xC3\x81\xC3\x82\xC3\x84\xC3\x83\xC3\x85\xC3\x86\xC3\xA7\xC3\x87"
      "\xC3\xB1\xC3\x91\xC3\xAD\xC3\xAC\xC3\xAE\xC3\xAF\xC3\x8D\xC3\x8C\xC3\x8E\xC3\x8F\xC3\xB3\xC3\xB2"
      "\xC3\xB4\xC3\xB6\xC3\xB5\xC3\xB8\xC3\x93\xC3\x92\xC3\x94\xC3\x96\xC3\x95\xC3\x98\xC3\xBA\xC3\xB9"
      "\xC3\xBB\xC3\xBC\xC3\x9A\xC3\x99\xC3\x9B\xC3\x9C\xC3\xBD\xC3\xBF\xC3\x9D\xC5\xB8";
  ASSERT_EQ(Pairs.size(), 2 * 58u);
  ExpectCleaned({
      {"[" + Pairs + "]", "[eeeeEEEE aaaaaaAAAAAAAcCnNiiiiIIIIooooooOOOOOOuuuuUUUUyyYY]"},
      {"", ""},
      {" \t\r\n\x01\x1F ", ""},
      {"\x01x\x02y\x7F\x1F", "x\x02y\x7F"},
      // Pairs outside the table, lone and cut-off lead bytes: all dropped byte by byte.
      {"\xC3\xC3\xA9|x\xE9y|\xC5\xB9\xC2\xA9|\xC3\x9F\xC3\x90\xC3\xB0\xC3\x9E\xC3\xBE\xC3\x97\xC3\xB7|"
       "\xFF\xFE\x80|x\xC3",
       "e|xy||||x"},
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
  for (const auto& Text : TokenTexts(Tokens, 7, 20000, 12))
    ASSERT_EQ(DecodeNamedEntities(Text), ByPasses(Text)) << Text;
}

// The cleaner runs every pattern step as a plain scan; each must give exactly what PCRE2
// gives for the pattern itself.
TEST(CleanerPatterns, MatchPcre2OnGeneratedText) {
  const std::string Tokens[] = {"&#", "65", "0",  ";",  "<",   ">", "A",    "BC", "d",   ".",
                                " ",  "  ", "\n", "\r", "\0"s, "x", "\xC3", "):", STAMP, LOGIN};
  for (const auto& Text : TokenTexts(Tokens, 20250801, 4000, 24)) {
    for (int P = 0; P < CLEAN_PATTERN_COUNT; ++P) {
      const auto Pattern = static_cast<TCleanPattern>(P);
      std::string Want;
      ASSERT_TRUE(ApplyPatternByRegex(Pattern, Text, Want));
      const auto Where = CleanPatternText(Pattern) + " on "s + testing::PrintToString(Text);
      ASSERT_EQ(ApplyCleanerPattern(Pattern, Text), Want) << Where;
    }
  }
}

TEST(CleanerPatterns, StayLinearAndCorrectOnHugeFields) {
  std::string Labels;
  while (Labels.size() < (2u << 20)) Labels += STAMP;

  // Thousands of labels without "):" behind them: nothing matches, and no search walks from
  // each of them to the end.
  EXPECT_EQ(ApplyCleanerPattern(cpUtcStamp, "x):y " + Labels), "x):y " + Labels);
  EXPECT_EQ(ApplyCleanerPattern(cpUtcStamp, STAMP + "):1" + Labels), Labels);

  // Megabytes between "(UTC" and "):", far past where PCRE2 gives up; the cleaner still
  // removes exactly what the pattern stands for.
  const std::string Long = "a " + STAMP + std::string(3u << 20, 'x') + "):\n\nb";
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
