// The input character sets and the clock's date-time scale.
#include "doorstate.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <ctime>

namespace {

// Each set holds exactly its printable ASCII members, each once.
TEST(DoorState, InputCharacterSetsHoldExactlyTheirMembers) {
  std::string All, Alpha, Numeric, FileName;
  for (char C = 0x20; C <= 0x7E; ++C) {
    All += C;
    if (std::isalpha(C)) Alpha += C;
    if (std::isdigit(C)) Numeric += C;
    if (std::string("\"*/<>?`|").find(C) == std::string::npos) FileName += C;
  }
  auto Sorted = [](std::string AText) {
    std::sort(AText.begin(), AText.end());
    return AText;
  };
  EXPECT_EQ(Sorted(DOOR_INPUT_CHARS_ALL), All);
  EXPECT_EQ(Sorted(DOOR_INPUT_CHARS_ALPHA), Alpha);
  EXPECT_EQ(Sorted(DOOR_INPUT_CHARS_NUMERIC), Numeric);
  EXPECT_EQ(Sorted(DOOR_INPUT_CHARS_FILENAME), FileName);
}

// Days since 1899-12-30 in local time: the whole part must be today's local date.
TEST(DoorState, RealClockCountsLocalDaysFrom1899) {
  const time_t Before = time(nullptr);
  const double Now = DoorRealClock();
  tm Local{};
  localtime_r(&Before, &Local);
  EXPECT_NEAR(Now, 25569.0 + static_cast<double>(Before + Local.tm_gmtoff) / 86400.0, 2.0 / 86400.0);
  // Readings fall on whole milliseconds (within the rounding of the double).
  EXPECT_NEAR(Now * 86400000.0, std::round(Now * 86400000.0), 0.01);
}

}  // namespace
