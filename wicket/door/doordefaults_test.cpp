// The default handlers' words and where they go: the login dialogue and the two stops that speak
// to the caller over the link, the hang-up message on the local console only, and the status
// bar's cells. Each runs in a forked door child on a socketpair with its console on a pipe.
#include "doordefaults.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "console/console.h"
#include "doorlink_testutil.h"
#include "testsupport.h"
#include "videoutils/videoutils.h"

namespace {

const std::string ESC = "\x1b";
// Attribute 7 as the sequence builders send it after any other attribute.
const std::string TO_7 = "\x1b[0;37m\x1b[40m\x1b[40m";

const TDoorRunOptions ON_LINK{.OnLink = true};

// The login screen up to the first prompt's field, for node 0, from attribute 7; the prompt;
// the name field: attribute 0x1F, "SYSOP" and 35 blanks, back behind the text.
const std::string LOGIN_SCREEN = TO_7 + ESC + "[2J" + ESC + "[1;1f" + "\r\n\r\n" + "  " + ESC + "[1;37m" +
                                 ESC + "[44m" + "  LOCAL LOGIN - FOR NODE 0" + TO_7 + "\r\n\r\n\r\n" + "  " +
                                 ESC + "[1;34m" + ESC + "[40m" +
                                 "Run doordefaults_test /? for command-line usage help" + TO_7 + "\r\n\r\n";
const std::string PROMPT = "  " + ESC + "[1;32m" + ESC + "[40m" + "Name or handle " + ESC + "[1;37m" + ESC +
                           "[40m" + ":" + TO_7 + " ";
const std::string FIELD = ESC + "[1;37m" + ESC + "[44m" + "SYSOP" + std::string(35, ' ') + ESC + "[35D";
const std::string FIELD_END = TO_7 + "\r\n";  // attribute 7 again, next line
const std::string EMPTIED = ESC + "[5D" + std::string(40, ' ') + ESC + "[40D";  // Ctrl-Y

TEST(DefaultOnLocalLogin, AsksUntilANameIsGivenAndTakesOnlyLettersAndBlanks) {
  const struct {
    std::string Keys, Name, Caller;
  } Cases[] = {
      {"\x19\r\x19"
       "Ann Lee\r",
       "Ann Lee", FIELD + EMPTIED + FIELD_END + PROMPT + FIELD + EMPTIED + "Ann Lee" + FIELD_END},
      {"1_\x1b", "SYSOP", FIELD + FIELD_END},  // ESC keeps SYSOP
  };
  for (const auto& Case : Cases) {
    TDoorRun Door(
        [](int) {
          DefaultOnLocalLogin();
          DoorReport(DoorDropInfo.RealName + "/" + DoorDropInfo.Alias);
        },
        ON_LINK);
    Send(Door.Caller, Case.Keys);
    EXPECT_EQ(FinishDoor(Door), 0);
    EXPECT_EQ(Door.Report, Case.Name + "/" + Case.Name);
    EXPECT_EQ(Door.Heard, LOGIN_SCREEN + PROMPT + Case.Caller);
  }
}

TEST(DefaultStops, SayTheirWordsWaitAndEndWithCodeZero) {
  const std::string Bright = ESC + "[1;37m" + ESC + "[40m" + ESC + "[2J" + ESC + "[1;1f\r\n";
  const struct {
    const char* What;
    void (*Handler)();
    std::string Caller;   // after the announcements
    std::string Console;  // on the redirected local console
    std::string Log;      // the system log's line
  } Cases[] = {
      {"idle limit", DefaultOnTimeOut, Bright + "  Idle Time Limit Exceeded.  Returning To BBS...\r\n", "",
       "idle time limit exceeded"},
      {"time limit", DefaultOnTimeUp, Bright + "  Your Time Has Expired.  Returning To BBS...\r\n", "",
       "time limit reached"},
      {"hang-up: the local console only", DefaultOnHangup, "",
       "\n   Caller Dropped Carrier.  Returning To BBS...\n", "caller hung up"},
  };
  TTempDir Dir;
  const std::string Log = (Dir.Path / "log").string();
  for (const auto& Case : Cases) {
    // The pause before the end follows the program-wide setting.
    TDoorRun Door(
        [&](int) {
          setenv("WICKET_STOP_PAUSE_MS", "300", 1);
          setenv("WICKET_LOG_FILE", Log.c_str(), 1);
          DoorDropInfo.Node = 2;
          Case.Handler();
        },
        ON_LINK);
    EXPECT_EQ(FinishDoor(Door), 0) << Case.What;
    EXPECT_EQ(Door.Heard, Case.Caller) << Case.What;
    EXPECT_EQ(Door.Console, Case.Console) << Case.What;
    EXPECT_EQ(ReadWholeFile(Log), "doordefaults_test: node 2: " + Case.Log + "\n") << Case.What;
    std::filesystem::remove(Log);
    EXPECT_GE(Door.Ms, 300) << Case.What;
    EXPECT_LT(Door.Ms, 6000) << Case.What;
  }
}

// Row 25 of the console's shadow as characters and as attributes (E for 0x1E, F for 0x1F),
// drawn for a short name, padded, and for a long one, which is not cut by its padding but
// covered by the next field. The last cell is never written, so that the screen can't scroll.
TEST(DefaultOnStatusBar, DrawsRow25OfTheLocalConsoleOnly) {
  TDoorRun Door(
      [](int) {
        DoorClock = [] { return 45000.5; };
        DoorLastKey.Time = DoorNow() - 65.0 / 86400;
        DoorSession.TimeOn = DoorNow() - 100.0 / 86400;
        for (const char* Name : {"Jane Doe", "A Very Long Name Of Twenty-Nine"}) {
          DoorDropInfo.RealName = Name;
          const TConsoleCursor Before = ConsoleGetCursor();
          DoorOnStatusBar();
          const TConsoleCursor After = ConsoleGetCursor();
          std::string Row = "|";
          for (uint8_t X = 1; X <= 80; ++X) Row += static_cast<char>(GetCharAt(X, 25));
          for (uint8_t X = 1; X <= 80; ++X)
            Row += "?EF"[(GetAttrAt(X, 25) == 0x1E) + 2 * (GetAttrAt(X, 25) == 0x1F)];
          DoorReport(Row + (Before.X == After.X && Before.Y == After.Y ? "|still" : "|moved"));
        }
      },
      ON_LINK);
  EXPECT_EQ(FinishDoor(Door), 0);
  const std::string Attrs =
      "EEFFFFFFFFFFFFFFFFFFFFFFEEEEEEFFFFFFFFFFFFFFFFEEEEFFFFFFFFFFFEEEFFFFFFFFFFFFFFE?";
  const std::string Rest = "Wicket v13.09.02  \xFE Idle: 01:05 \xFE Left: 00:58:20 " + std::string(1, '\0');
  EXPECT_EQ(Door.Report, "|\xFE Jane Doe" + std::string(18, ' ') + "\xFE " + Rest + Attrs + "|still" +
                             "|\xFE A Very Long Name Of Twenty-N" + Rest +
                             "EEFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF" + Attrs.substr(32) + "|still");
  EXPECT_EQ(Door.Heard, "");  // nothing went to the caller
}

}  // namespace
