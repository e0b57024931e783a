#include "bytesearch.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

using namespace std::string_literals;

// Both searches against the standard library's, on texts of every length around the
// sixteen-byte blocks, with needles made of the same few bytes so that near misses abound.
TEST(FindBytes, AgreesWithStringFindEverywhere) {
  std::mt19937 Random(1);
  const std::string Alphabet = "ab\0\xFF"s.substr(0, 4);
  std::uniform_int_distribution<size_t> Pick(0, 1);
  std::uniform_int_distribution<size_t> PickWide(0, 3);
  for (size_t Length = 0; Length <= 70; ++Length) {
    for (int Round = 0; Round < 20; ++Round) {
      std::string Text;
      for (size_t I = 0; I < Length; ++I) Text += Alphabet[Round % 2 ? Pick(Random) : PickWide(Random)];
      for (size_t NeedleLength = 0; NeedleLength <= 5; ++NeedleLength) {
        std::string Needle;
        for (size_t I = 0; I < NeedleLength; ++I) Needle += Alphabet[Pick(Random)];
        for (size_t From = 0; From <= Length + 1; ++From) {
          ASSERT_EQ(FindBytes(Text, Needle, From), std::string_view(Text).find(Needle, From))
              << testing::PrintToString(Text) << " / " << testing::PrintToString(Needle) << " from " << From;
        }
      }
      for (size_t From = 0; From <= Length + 1; ++From)
        for (const char Byte : Alphabet)
          ASSERT_EQ(FindByte(Text, Byte, From), std::string_view(Text).find(Byte, From));
    }
  }
}
