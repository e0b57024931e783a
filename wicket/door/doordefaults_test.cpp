// The default handlers' words and where they go: the login dialogue and the two stops that speak
// to the caller over the link, the hang-up message on the local console only, and the status
// bar's cells. Each runs in a forked door child on a socketpair with its console on a pipe.
#include "doordefaults.h"

#include <gtest/gtest.h>

#include <string>

#include "comm/comm.h"
#include "console/console.h"
#include "doorprocess_testutil.h"
#include "doorstate.h"
#include "videoutils/videoutils.h"

namespace {

const std::string kAnnouncements("\xFF\xFB\x00\xFF\xFB\x01", 6);
const std::string kEsc = "\x1b";
// Attribute 7 as the sequence builders send it after any other attribute.
const std::string kTo7 = "\x1b[0;37m\x1b[40m\x1b[40m";

// A child on the link, as a socket run leaves it, running ADoorSide.
TDoorProcessRun OnLink(void (*ADoorSide)(), const std::string& AKeys = "") {
  static void (*FSide)() = nullptr;
  FSide = ADoorSide;
  TDoorProcessOptions Options;
  Options.CallerKeys = AKeys;
  return RunDoorProcess(
      [](int ADoorFd) {
        StdIO = false;
        CommOpen(ADoorFd);
        FSide();
      },
      Options);
}

void LoginAndReport() {
  DefaultOnLocalLogin();
  DoorReport(DoorDropInfo.RealName + "/" + DoorDropInfo.Alias);
}

// The login screen up to the first prompt's field, for node 0, from attribute 7.
std::string LoginScreen() {
  return kTo7 +                                        // DoorTextAttr(7)
         kEsc + "[2J" + kEsc + "[1;1f" + "\r\n\r\n" +  // clear, two empty lines
         "  " + kEsc + "[1;37m" + kEsc + "[44m" + "  LOCAL LOGIN - FOR NODE 0" + kTo7 + "\r\n\r\n\r\n" +
         "  " + kEsc + "[1;34m" + kEsc + "[40m" + "Run doordefaults_test /? for command-line usage help" +
         kTo7 + "\r\n\r\n";
}

std::string Prompt() {
  return "  " + kEsc + "[1;32m" + kEsc + "[40m" + "Name or handle " + kEsc + "[1;37m" + kEsc + "[40m" + ":" +
         kTo7 + " ";
}

// The name field: attribute 0x1F, "SYSOP" and 35 blanks, back behind the text.
std::string Field() {
  return kEsc + "[1;37m" + kEsc + "[44m" + "SYSOP" + std::string(35, ' ') + kEsc + "[35D";
}
const std::string kFieldEnd = kTo7 + "\r\n";  // attribute 7 again, next line

TEST(DefaultOnLocalLogin, AsksUntilANameIsGiven) {
  const TDoorProcessRun Run = OnLink(LoginAndReport,
                                     "\x19\r\x19"
                                     "Ann Lee\r");
  EXPECT_EQ(Run.ExitCode, 0);
  EXPECT_EQ(Run.Report, "Ann Lee/Ann Lee");
  const std::string Emptied = kEsc + "[5D" + std::string(40, ' ') + kEsc + "[40D";  // Ctrl-Y
  EXPECT_EQ(Run.Caller, kAnnouncements + LoginScreen() + Prompt() + Field() + Emptied + kFieldEnd + Prompt() +
                            Field() + Emptied + "Ann Lee" + kFieldEnd);
}

TEST(DefaultOnLocalLogin, EscKeepsSysopAndOnlyLettersAndBlanksAreTaken) {
  const TDoorProcessRun Run = OnLink(LoginAndReport, "1_\x1b");
  EXPECT_EQ(Run.Report, "SYSOP/SYSOP");
  EXPECT_EQ(Run.Caller, kAnnouncements + LoginScreen() + Prompt() + Field() + kFieldEnd);
}

struct TStopCase {
  const char* What;
  void (*Handler)();
  std::string Caller;   // after the announcements
  std::string Console;  // on the redirected local console
};

TEST(DefaultStops, SayTheirWordsWaitAndEndWithCodeZero) {
  const std::string Bright = kEsc + "[1;37m" + kEsc + "[40m" + kEsc + "[2J" + kEsc + "[1;1f\r\n";
  const TStopCase Cases[] = {
      {"idle limit", DefaultOnTimeOut, Bright + "  Idle Time Limit Exceeded.  Returning To BBS...\r\n", ""},
      {"time limit", DefaultOnTimeUp, Bright + "  Your Time Has Expired.  Returning To BBS...\r\n", ""},
      {"hang-up: the local console only", DefaultOnHangup, "",
       "\n   Caller Dropped Carrier.  Returning To BBS...\n"},
  };
  for (const TStopCase& Case : Cases) {
    const TDoorProcessRun Run = OnLink(Case.Handler);
    EXPECT_EQ(Run.ExitCode, 0) << Case.What;
    EXPECT_EQ(Run.Caller, kAnnouncements + Case.Caller) << Case.What;
    EXPECT_EQ(Run.Console, Case.Console) << Case.What;
    EXPECT_GE(Run.Ms, 2400) << Case.What;
    EXPECT_LT(Run.Ms, 6000) << Case.What;
  }
}

double FixedClock() { return 45000.5; }

// Row 25 as characters and as attribute digits, from the console's shadow.
void DrawBarAndReport() {
  DoorClock = FixedClock;
  DoorLastKey.Time = FixedClock() - 65.0 / 86400;
  DoorSession.TimeOn = FixedClock() - 100.0 / 86400;
  DoorDropInfo.MaxSeconds = 3600;
  const TConsoleCursor Before = ConsoleGetCursor();
  DoorOnStatusBar();
  const TConsoleCursor After = ConsoleGetCursor();
  std::string Chars, Attrs;
  for (uint8_t X = 1; X <= 80; ++X) {
    Chars += static_cast<char>(GetCharAt(X, 25));
    Attrs += GetAttrAt(X, 25) == 0x1E ? 'E' : GetAttrAt(X, 25) == 0x1F ? 'F' : '?';
  }
  DoorReport(Chars + "|" + Attrs + "|" + std::to_string(Before.X == After.X && Before.Y == After.Y));
}

std::string Repeat(char AChar, size_t ACount) { return std::string(ACount, AChar); }

TEST(DefaultOnStatusBar, DrawsRow25OfTheLocalConsoleOnly) {
  const struct {
    const char* What;
    std::string RealName;
    std::string Chars;
  } Cases[] = {
      {"short name, padded", "Jane Doe",
       "\xFE Jane Doe" + Repeat(' ', 14) +
           "    \xFE Wicket v13.09.02  \xFE Idle: 01:05 \xFE Left: 00:58:20 " + '\0'},
      {"a long name is not cut by its padding, but the next field covers it",
       "A Very Long Name Of Twenty-Nine",
       "\xFE A Very Long Name Of Twenty-NWicket v13.09.02  \xFE Idle: 01:05 \xFE Left: 00:58:20 " +
           std::string(1, '\0')},
  };
  for (const auto& Case : Cases) {
    static std::string FName;
    FName = Case.RealName;
    const TDoorProcessRun Run = OnLink([] {
      DoorDropInfo.RealName = FName;
      DrawBarAndReport();
    });
    EXPECT_EQ(Run.ExitCode, 0) << Case.What;
    // The last cell of row 25 is never written, so that the screen can't scroll.
    const std::string Attrs = Repeat('E', 2) + Repeat('F', 22) + Repeat('E', 6) + Repeat('F', 16) +
                              Repeat('E', 4) + Repeat('F', 11) + Repeat('E', 3) + Repeat('F', 14) + "E?";
    ASSERT_EQ(Run.Report.size(), 80u + 1 + 80 + 2) << Case.What;
    EXPECT_EQ(Run.Report.substr(0, 80), Case.Chars) << Case.What;
    if (Case.RealName.size() <= 22) {
      EXPECT_EQ(Run.Report.substr(81, 80), Attrs) << Case.What;
    }
    EXPECT_EQ(Run.Report.substr(162), "1") << Case.What;  // the cursor did not move
    EXPECT_EQ(Run.Caller, kAnnouncements) << Case.What;   // nothing went to the caller
  }
}

}  // namespace
