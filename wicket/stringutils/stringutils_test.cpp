// The string helpers against hand-written expectations: pipe and Seth codes,
// time texts, tokens and Base64, weighted toward malformed codes and boundary
// values.
#include "stringutils.h"

#include <gtest/gtest.h>

#include <climits>

#include "ansi/ansi.h"
#include "crt2/crt2.h"

using namespace std::string_literals;

namespace {

std::string Show(const std::string& AText) {
  std::string Out;
  for (char C : AText) Out += C == '\x1b' ? std::string("\\e") : std::string(1, C);
  return Out;
}

}  // namespace

TEST(PipeToAnsi, TranslatesCodesAndPassesEverythingElseAsText) {
  SetTextAttr(0x07);
  const std::string Grey = AnsiTextAttr(0x07);
  const std::string White = AnsiTextAttr(0x0F);
  const std::string YellowOnBlue = AnsiTextAttr(0x1E);
  ASSERT_EQ(Show(Grey),
            "\\e[0;37m\\e[40m\\e[40m");  // the table below leans on this
  struct TCase {
    std::string Text;
    std::string Want;
  } Cases[] = {
      {"|07Hi", Grey + "Hi"},
      {"|0F", White},
      {"|0f", White},
      {"|8F", White},  // 0x8F less 128
      {"|9e", YellowOnBlue},
      {"|1E|1e", YellowOnBlue + YellowOnBlue},
      {"|FF", AnsiTextAttr(0x7F)},
      {"|", "|"},
      {"|0", "|0"},
      {"", ""},
      {"ab", "ab"},
      {"Hi|0", "Hi|0"},
      {"Hi|", "Hi|"},
      {"|GG", "|GG"},
      {"|0G", "|0G"},
      {"| 7", "| 7"},
      {"||07", "|" + Grey},
      {"|0|07", "|0" + Grey},
      {"|||", "|||"},
      {"a|07b|x7c", "a" + Grey + "b|x7c"},
      {"\0|07\xFF"s, "\0"s + Grey + "\xFF"},
      {"|-1|+1", "|-1|+1"},
  };
  for (const auto& C : Cases) EXPECT_EQ(Show(PipeToAnsi(C.Text)), Show(C.Want)) << Show(C.Text);
}

TEST(SethStrip, DropsCodesOfTwoOrThreeBytes) {
  struct TCase {
    std::string Text;
    std::string Want;
  } Cases[] = {
      {"a`1b", "ab"}, {"a`r1b", "ab"},    {"ab`", "ab"},  {"`r", ""},       {"`", ""},
      {"", ""},       {"plain", "plain"}, {"``x", "x"},   {"`r`1x", "1x"},  {"`r", ""},
      {"a`rZ", "a"},  {"`R1x", "1x"},     {"`!`@`#", ""}, {"x`\0y"s, "xy"}, {"`\xFFz", "z"},
  };
  for (const auto& C : Cases) EXPECT_EQ(SethStrip(C.Text), C.Want) << C.Text;
}

TEST(SecondsTexts, FieldsPaddingAndGrowth) {
  struct TCase {
    int32_t Sec;
    std::string DHMS, HM, HMS, MS;
  } Cases[] = {
      {0, "0d 0h 0m 0s", "00:00", "00:00:00", "00:00"},
      {59, "0d 0h 0m 59s", "00:00", "00:00:59", "00:59"},
      {61, "0d 0h 1m 1s", "00:01", "00:01:01", "01:01"},
      {3661, "0d 1h 1m 1s", "01:01", "01:01:01", "61:01"},
      {90061, "1d 1h 1m 1s", "25:01", "25:01:01", "1501:01"},
      {86400, "1d 0h 0m 0s", "24:00", "24:00:00", "1440:00"},
      {6000, "0d 1h 40m 0s", "01:40", "01:40:00", "100:00"},
      {360000, "4d 4h 0m 0s", "100:00", "100:00:00", "6000:00"},
      {INT32_MAX, "24855d 3h 14m 7s", "596523:14", "596523:14:07", "35791394:07"},
      {-65, "-0d 0h 1m 5s", "-00:01", "-00:01:05", "-01:05"},
      {INT32_MIN, "-24855d 3h 14m 8s", "-596523:14", "-596523:14:08", "-35791394:08"},
  };
  for (const auto& C : Cases) {
    EXPECT_EQ(SecToDHMS(C.Sec), C.DHMS) << C.Sec;
    EXPECT_EQ(SecToHM(C.Sec), C.HM) << C.Sec;
    EXPECT_EQ(SecToHMS(C.Sec), C.HMS) << C.Sec;
    EXPECT_EQ(SecToMS(C.Sec), C.MS) << C.Sec;
  }
}

TEST(Tokens, SplitKeepsEveryEmptyTokenAndJoinGivesTheTextBack) {
  struct TCase {
    std::string Text;
    TTokens Want;  // entry 0 included
  } Cases[] = {
      {"a,,b", {"", "a", "", "b"}}, {"", {"", ""}},       {",", {"", "", ""}},
      {",a,", {"", "", "a", ""}},   {"abc", {"", "abc"}}, {"a\0,b"s, {"", "a\0"s, "b"}},
  };
  for (const auto& C : Cases) {
    EXPECT_EQ(StrToTok(C.Text, ','), C.Want) << C.Text;
    EXPECT_EQ(TokToStr(StrToTok(C.Text, ','), ','), C.Text);
  }
  const TTokens High = StrToTok("x\xFFy\xFF", 0xFF);
  EXPECT_EQ(High, (TTokens{"", "x", "y", ""}));
  EXPECT_EQ(TokToStr(High, 0xFF), "x\xFFy\xFF");
}

TEST(Tokens, JoinFromAnyStartIndex) {
  const TTokens Abc{"", "a", "b", "c"};
  struct TCase {
    int32_t Start;
    std::string Want;
  } Cases[] = {
      {2, "b,c"}, {1, "a,b,c"}, {3, "c"}, {4, ""}, {1000, ""}, {0, ",a,b,c"}, {-3, ",a,b,c"}, {INT32_MAX, ""},
  };
  for (const auto& C : Cases) EXPECT_EQ(TokToStr(Abc, ',', C.Start), C.Want) << C.Start;
  EXPECT_EQ(TokToStr(TTokens{}, ','), "");
  EXPECT_EQ(TokToStr(TTokens{}, ',', 0), "");
}

TEST(Base64Decode, StandardLenientAndCutShort) {
  struct TCase {
    std::string Text;
    std::string Want;
  } Cases[] = {
      {"", ""},
      {"Zg==", "f"},
      {"Zm8=", "fo"},
      {"Zm9v", "foo"},
      {"Zm9vYg==", "foob"},
      {"Zm9vYmE=", "fooba"},
      {"Zm9vYmFy", "foobar"},
      {"Zm9v\r\nYmFy\r\n", "foobar"},  // line breaks of a MIME body
      {" Z m 9 v ", "foo"},
      {"Zm9v!@#$YmFy", "foobar"},
      {"Zg==Zm9v", "f"},  // padding ends the data
      {"=Zm9v", ""},
      {"Zg", "f"},       // cut short: two characters hold one byte
      {"Zm8", "fo"},     // three hold two
      {"Zm9vY", "foo"},  // one holds no whole byte
      {"////", "\xFF\xFF\xFF"},
      {"++++", "\xFB\xEF\xBE"},
      {"AAA=", "\0\0"s},
      {"-_-_", ""},  // the URL-safe alphabet is not this one
      {"\xFFZ\x80g", "f"},
  };
  for (const auto& C : Cases) EXPECT_EQ(Base64Decode(C.Text), C.Want) << C.Text;
}
