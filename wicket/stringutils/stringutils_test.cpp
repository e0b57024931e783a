// The string helpers against hand-written expectations: Seth codes,
// time texts, tokens and Base64, weighted toward malformed codes and boundary
// values.
#include "stringutils.h"

#include <gtest/gtest.h>

#include <climits>

using namespace std::string_literals;

TEST(SethStrip, DropsCodesOfTwoOrThreeBytes) {
  struct TCase {
    std::string Text;
    std::string Want;
  } Cases[] = {
      {"a`1b", "ab"}, {"a`r1b", "ab"},    {"ab`", "ab"},    {"`r", ""},      {"`", ""},
      {"", ""},       {"plain", "plain"}, {"``x", "x"},     {"`r`1x", "1x"}, {"a`rZ", "a"},
      {"`R1x", "1x"}, {"`!`@`#", ""},     {"x`\0y"s, "xy"}, {"`\xFFz", "z"},
  };
  for (const auto& C : Cases) EXPECT_EQ(SethStrip(C.Text), C.Want) << C.Text;
}

TEST(SecondsTexts, FieldsPaddingAndGrowth) {
  struct TCase {
    int32_t Sec;
    std::string DHMS, HM, HMS, MS;
  } Cases[] = {
      {0, "0d 0h 0m 0s", "00:00", "00:00:00", "00:00"},
      {3661, "0d 1h 1m 1s", "01:01", "01:01:01", "61:01"},
      {90061, "1d 1h 1m 1s", "25:01", "25:01:01", "1501:01"},
      {INT32_MAX, "24855d 3h 14m 7s", "596523:14", "596523:14:07", "35791394:07"},
      {-65, "-0d 0h 1m 5s", "-00:01", "-00:01:05", "-01:05"},
      {INT32_MIN, "-24855d 3h 14m 8s", "-596523:14", "-596523:14:08", "-35791394:08"},
  };
  for (const auto& C : Cases) {
    EXPECT_EQ(SecToDHMS(C.Sec) + "|" + SecToHM(C.Sec) + "|" + SecToHMS(C.Sec) + "|" + SecToMS(C.Sec),
              C.DHMS + "|" + C.HM + "|" + C.HMS + "|" + C.MS);
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
  // Joining from another start index: below 1 includes entry 0, past the end gives nothing.
  const TTokens Abc{"", "a", "b", "c"};
  for (const auto& [Start, Want] : std::vector<std::pair<int32_t, std::string>>{
           {2, "b,c"}, {3, "c"}, {4, ""}, {1000, ""}, {0, ",a,b,c"}, {-3, ",a,b,c"}, {INT32_MAX, ""}}) {
    EXPECT_EQ(TokToStr(Abc, ',', Start), Want) << Start;
  }
  EXPECT_EQ(TokToStr(TTokens{}, ',', 0), "");
}

TEST(Base64Decode, StandardLenientAndCutShort) {
  struct TCase {
    std::string Text;
    std::string Want;
  } Cases[] = {{"", ""},
               {"Zg==", "f"},
               {"Zm8=", "fo"},
               {"Zm9vYmFy", "foobar"},
               {"Zm9v\r\nYmFy\r\n", "foobar"},
               {" Z m!9 v ", "foo"},
               {"Zg==Zm9v", "f"},
               {"=Zm9v", ""},
               {"Zg", "f"},
               {"Zm8", "fo"},
               {"Zm9vY", "foo"},
               {"+/+/", "\xFB\xFF\xBF"},
               {"AAA=", "\0\0"s},
               {"-_-_", ""},
               {"\xFFZ\x80g", "f"}};
  for (const auto& C : Cases) EXPECT_EQ(Base64Decode(C.Text), C.Want) << C.Text;
}
