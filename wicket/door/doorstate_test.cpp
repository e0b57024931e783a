// Start values of the door state that applications and the runtime rely on, the input
// character sets, and the clock's date-time scale.
#include "doorstate.h"

#include <gtest/gtest.h>

#include <cmath>
#include <ctime>
#include <set>

#include "doordefaults.h"

namespace {

std::set<unsigned char> Members(const std::string& AText) { return {AText.begin(), AText.end()}; }

std::set<unsigned char> Range(unsigned char AFrom, unsigned char ATo) {
  std::set<unsigned char> Result;
  for (int C = AFrom; C <= ATo; ++C) Result.insert(static_cast<unsigned char>(C));
  return Result;
}

TEST(DoorState, InputCharacterSetsHoldExactlyTheirMembers) {
  EXPECT_EQ(DOOR_INPUT_CHARS_ALL.size(), 95u);
  EXPECT_EQ(Members(DOOR_INPUT_CHARS_ALL), Range(0x20, 0x7E));

  std::set<unsigned char> Letters = Range('a', 'z');
  Letters.merge(Range('A', 'Z'));
  EXPECT_EQ(DOOR_INPUT_CHARS_ALPHA.size(), 52u);
  EXPECT_EQ(Members(DOOR_INPUT_CHARS_ALPHA), Letters);

  EXPECT_EQ(DOOR_INPUT_CHARS_NUMERIC.size(), 10u);
  EXPECT_EQ(Members(DOOR_INPUT_CHARS_NUMERIC), Range('0', '9'));

  std::set<unsigned char> FileName = Range(0x20, 0x7E);
  for (unsigned char Banned : {'"', '*', '/', '<', '>', '?', '`', '|'}) FileName.erase(Banned);
  EXPECT_EQ(DOOR_INPUT_CHARS_FILENAME.size(), 87u);
  EXPECT_EQ(Members(DOOR_INPUT_CHARS_FILENAME), FileName);
}

// A run started by hand, with no drop file, depends on these: stdio mode, an hour, the idle
// limit on, pipe codes converted, the stops handled by defaults, and no warnings.
TEST(DoorState, StartValuesGiveAnOrdinaryRun) {
  EXPECT_TRUE(StdIO);
  EXPECT_EQ(DoorDropInfo.MaxSeconds, 3600);
  EXPECT_EQ(DoorSession.MaxIdle, 300);
  EXPECT_TRUE(DoorSession.DoIdleCheck);
  EXPECT_FALSE(DoorSession.Events);
  EXPECT_TRUE(DoorSession.PipeWrite);
  EXPECT_EQ(DoorOnHangup, &DefaultOnHangup);
  EXPECT_EQ(DoorOnTimeOut, &DefaultOnTimeOut);
  EXPECT_EQ(DoorOnTimeUp, &DefaultOnTimeUp);
  EXPECT_EQ(DoorOnTimeOutWarning, nullptr);
  EXPECT_EQ(DoorOnTimeUpWarning, nullptr);
}

// Days since 1899-12-30 in local time: the whole part must be today's local date.
TEST(DoorState, RealClockCountsLocalDaysFrom1899) {
  const time_t Before = time(nullptr);
  const double Now = DoorRealClock();
  tm Local{};
  localtime_r(&Before, &Local);
  const double Expected = 25569.0 + static_cast<double>(Before + Local.tm_gmtoff) / 86400.0;
  EXPECT_NEAR(Now, Expected, 2.0 / 86400.0);
  // Readings fall on whole milliseconds (within the rounding of the double).
  EXPECT_NEAR(Now * 86400000.0, std::round(Now * 86400000.0), 0.01);
}

TEST(DoorState, DoorNowFollowsAReplacedClock) {
  const TDoorClock Saved = DoorClock;
  DoorClock = [] { return 45000.5; };
  EXPECT_EQ(DoorNow(), 45000.5);
  DoorClock = nullptr;
  EXPECT_GT(DoorNow(), 40000.0);
  DoorClock = Saved;
}

}  // namespace
