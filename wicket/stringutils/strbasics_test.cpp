#include "strbasics.h"

#include <gtest/gtest.h>

#include <climits>

using namespace std::string_literals;

TEST(Trim, RemovesControlBytesAndBlanksAtTheEndsOnly) {
  EXPECT_EQ(Trim("\x01 \t a b \r\n\x00"s), "a b");
  EXPECT_EQ(Trim(" \x20\x1f"), "");
  EXPECT_EQ(Trim(""), "");
  EXPECT_EQ(Trim("\x7f"), "\x7f");  // DEL is above 0x20 and stays
  EXPECT_EQ(TrimLeft("  a  "), "a  ");
  EXPECT_EQ(TrimRight("  a  "), "  a");
}

TEST(StrToIntDef, ReadsEveryNumberForm) {
  struct Case {
    std::string Text;
    int32_t Want;
  } Cases[] = {
      {"12", 12},  {"  \t12", 12}, {"+12", 12},  {"-12", -12}, {"007", 7},  {"$0C", 12}, {"$0c", 12},
      {"x1F", 31}, {"X1f", 31},    {"0x10", 16}, {"0X10", 16}, {"&17", 15}, {"%101", 5}, {"-$10", -16},
  };
  for (const auto& C : Cases) EXPECT_EQ(StrToIntDef(C.Text, 99), C.Want) << C.Text;
  // The limits, and hexadecimal and binary forms that fill all 32 bits.
  EXPECT_EQ(StrToIntDef("2147483647", 99), INT_MAX);
  EXPECT_EQ(StrToIntDef("-2147483648", 99), INT_MIN);
  EXPECT_EQ(StrToIntDef("$FFFFFFFF", 99), -1);
  EXPECT_EQ(StrToIntDef("$80000000", 99), INT_MIN);
  EXPECT_EQ(StrToIntDef("%" + std::string(32, '1'), 99), -1);
}

// Blanks after the number, signs twice, digits of another base, one past the limits, and text
// over the length limit (even of leading zeros; 255 bytes are still fine).
TEST(StrToIntDef, GivesTheDefaultForAnythingElse) {
  const std::string Bad[] = {"",        " ",   "-",   "$",          "0x",          "12 ",
                             "12 blue", "1.5", "abc", "2147483648", "-2147483649", "$100000000",
                             "&8",      "%2",  "+-1", "1\n",        "--1",         std::string(256, '1')};
  for (const auto& Text : Bad) EXPECT_EQ(StrToIntDef(Text, 7), 7) << Text;
  EXPECT_EQ(StrToIntDef(std::string(254, '0') + "5", 7), 5);
}

// Only the 26 ASCII letters change case; the bytes beside each range, and Latin-1 letters that a
// locale-aware toupper would change, stay. Hex digits end exactly at the letter f of either case.
TEST(ByteHelpers, AsciiCaseAndHexDigitsAtTheirEdges) {
  EXPECT_EQ(UpperCaseAscii("`az{@AZ[\xE9\xFF\0"s), "`AZ{@AZ[\xE9\xFF\0"s);
  const struct {
    uint8_t Byte;
    int32_t Want;
  } Hex[] = {{'0', 0},  {'9', 9},  {'a', 10}, {'F', 15}, {'f', 15}, {'/', -1},
             {':', -1}, {'@', -1}, {'G', -1}, {'`', -1}, {'g', -1}, {0xB0, -1}};
  for (const auto& C : Hex) EXPECT_EQ(HexDigitValue(C.Byte), C.Want) << int{C.Byte};
}
