// Start-up and shutdown: the command-line reading on its own, then whole starts in forked
// children (the mode chosen, the drop-file path, the stops), and the exit handler on every way
// out of a socket run, with the test holding the caller's end and the BBS's copy of the link.
#include "doorstartup.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "doorinput.h"
#include "doorlink_testutil.h"
#include "dooroutput.h"
#include "testsupport.h"

namespace {

const std::string CLEAR_SCREEN = "\x1b[2J\x1b[1;1f";
// What the exit handler leaves the caller with: grey on black, cursor to the bottom left.
const std::string EXIT_TAIL = "\x1b[0;37m\x1b[40m\x1b[40m\x1b[255B\x1b[255D";

std::string FSeenOptions;

TEST(DoorReadCommandLine, OptionsLettersAndValues) {
  // "Local Node Socket ForceStdio [DropFile]" and the options handed to DoorOnCLP.
  const std::pair<std::vector<std::string>, std::string> Cases[] = {
      {{}, "1 0 -99 0 [] "},
      {{"-L", "-n5"}, "1 5 -99 0 [] L="},
      {{"/?"}, "0 0 -99 0 [] "},
      {{"-D"}, "0 0 -99 0 [] "},
      {{"-d/bbs/DOOR32.SYS", "-x"}, "0 0 -99 1 [/bbs/DOOR32.SYS] "},
      {{"-D", "/bbs/door.sys"}, "0 0 -99 0 [] B=bs/door.sys"},
      {{"-S1000", "-S7", "-N1", "-N3"}, "0 3 7 0 [] "},  // the last one counts
      {{"-Sabc", "-Nxyz"}, "0 0 -1 0 [] "},
      {{"-S-5"}, "0 0 -5 0 [] "},
      {{"", "-", "x", "@tamblin.cfg", "+N5", "--help", "-ié"}, "1 0 -99 0 [] -=help I=\xC3\xA9"},
      {{"-Ivalue", "-i", "/q9"}, "1 0 -99 0 [] I=value I= Q=9"},
  };
  DoorOnCLP = [](uint8_t AKey, const std::string& AValue) {
    FSeenOptions +=
        (FSeenOptions.empty() ? "" : " ") + std::string(1, static_cast<char>(AKey)) + "=" + AValue;
  };
  for (const auto& [Arguments, Want] : Cases) {
    FSeenOptions.clear();
    const TDoorCommandLine Got = DoorReadCommandLine(Arguments);
    EXPECT_EQ(std::to_string(Got.Local) + " " + std::to_string(Got.Node) + " " + std::to_string(Got.Socket) +
                  " " + std::to_string(Got.ForceStdio) + " [" + Got.DropFile + "] " + FSeenOptions,
              Want)
        << ::testing::PrintToString(Arguments);
  }
  DoorOnCLP = nullptr;
}

// DOOR32.SYS with the given connection type and handle, lines ended by "\n".
std::string Door32(const std::string& AComType, const std::string& AComNum) {
  return AComType + "\n" + AComNum + "\n38400\nTest BBS\n1\nJane Doe\njd\n10\n60\n1\n4\n";
}

// A door side that writes the drop file ADrop in ADir (ALines with each "\n" made CR LF) and
// starts with AArguments (separated by blanks), the login and usage hooks replaced by quiet
// ones. It reports "StdIO Events Node ComType ComNum RealName", or "usage;" from the usage hook,
// and ends without running exit handlers. "{fd}" stands for the door's end of the link and
// "{drop}" for the drop file's path; a ComNum that is the door's end shows as "link".
std::function<void(int)> Starting(const std::string& AArguments, const std::string& ADir,
                                  const std::string& ADrop = "", const std::string& ALines = "") {
  return [=](int ADoorFd) {
    auto Fill = [&](std::string AText, const std::string& AMark, const std::string& AValue) {
      for (size_t At = 0; (At = AText.find(AMark, At)) != std::string::npos; At += AValue.size())
        AText.replace(At, AMark.size(), AValue);
      return AText;
    };
    const std::string Drop = ADir + "/" + ADrop;
    if (!ALines.empty()) {
      std::filesystem::create_directories(std::filesystem::path(Drop).parent_path());
      WriteWholeFile(Drop, Fill(Fill(ALines, "{fd}", std::to_string(ADoorFd)), "\n", "\r\n"));
    }
    std::vector<std::string> Arguments;
    std::istringstream Words(Fill(Fill(AArguments, "{fd}", std::to_string(ADoorFd)), "{drop}", Drop));
    for (std::string Word; Words >> Word;) Arguments.push_back(Word);
    DoorOnLocalLogin = nullptr;
    DoorOnUsage = [] { DoorReport("usage;"); };
    DoorStartupArgs(Arguments);
    DoorReport(std::to_string(StdIO) + " " + std::to_string(DoorSession.Events) + " " +
               std::to_string(DoorDropInfo.Node) + " " + std::to_string(DoorDropInfo.ComType) + " " +
               (DoorDropInfo.ComNum == ADoorFd ? "link" : std::to_string(DoorDropInfo.ComNum)) + " " +
               DoorDropInfo.RealName);
    _exit(0);
  };
}

TEST(DoorStartup, ChoosesTheModeInItsOrder) {
  TTempDir Dir;
  std::string DoorSys(52, '\n');
  DoorSys.replace(9, 0, "Door Sys").replace(3, 0, "6").replace(0, 0, "COM0:");
  const std::string DorInfo = "BBS\nS\nO\nCOM0\n38400 BAUD,N,8,1\n\nFIRST\nLAST\n\n1\n10\n30\n\n";
  const std::string LordInfo = "3\n3\n\n\n10\nal\nAnn\nLee\n912\n\n\nLOCAL\n";
  const struct {
    const char* What;
    std::string Arguments, Drop, Lines;
    std::string Report;  // StdIO Events Node ComType ComNum RealName
  } Cases[] = {
      {"no arguments: local on node 0", "", "", "", "1 0 0 0 0 "},
      {"-L with -N5: local on node 5", "-L -N5", "", "", "1 0 5 0 0 "},
      {"-S and -N: socket link", "-S{fd} -N3", "", "", "0 1 3 2 link "},
      {"-S-1 and -N: stdio", "-S-1 -N2", "", "", "1 0 2 2 -1 "},
      // /?, a -D without value and -S without -N show it in the example door's tests.
      {"-N0 with -S", "-N0 -S1000", "", "", "usage;"},
      {"-S-5 with -N", "-N2 -S-5", "", "", "usage;"},
      {"the socket case wins over a drop file", "-S{fd} -N1 -D{drop}", "DOOR32.SYS", Door32("0", "-1"),
       "0 1 1 2 link "},
      {"-? and -S without -N: the file is read", "-? -S7 -D{drop}", "DOOR32.SYS", Door32("0", "909"),
       "1 0 4 0 909 Jane Doe"},
      {"the node comes from the file", "-N5 -D{drop}", "DOOR32.SYS", Door32("0", "909"),
       "1 0 4 0 909 Jane Doe"},
      {"a lower-case door32.sys naming the link", "-D{drop}", "door32.sys", Door32("2", "{fd}"),
       "0 1 4 2 link Jane Doe"},
      {"-X keeps a drop-file link in stdio", "-X -D{drop}", "DOOR32.SYS", Door32("2", "{fd}"),
       "1 0 4 2 link Jane Doe"},
      {"ComNum -1: stdio", "-D{drop}", "DOOR32.SYS", Door32("1", "-1"), "1 0 4 1 -1 Jane Doe"},
      {"connection type 3: stdio stays", "-D{drop}", "DOOR32.SYS", Door32("3", "905"),
       "1 0 4 3 905 Jane Doe"},
      {"DORINFO1.DEF goes to its own reader", "-D{drop}", "DORINFO1.DEF", DorInfo, "1 0 0 0 0 FIRST LAST"},
      {"a directory name decides the reader", "-D{drop}", "DOOR.SYS.d/node", DoorSys, "1 0 6 0 0 Door Sys"},
      {"INFO.1 goes to the fourth reader", "-D{drop}", "INFO.1", LordInfo, "1 0 0 0 912 Ann Lee"},
  };
  for (const auto& Case : Cases) {
    TDoorRun Door(Starting(Case.Arguments, Dir.Path.string(), Case.Drop, Case.Lines));
    EXPECT_EQ(FinishDoor(Door), 0) << Case.What;
    EXPECT_EQ(Door.Report, Case.Report) << Case.What;
    // A socket run announces telnet and clears the caller's screen; no other run says a word.
    EXPECT_EQ(Door.Heard, Case.Report[0] == '0' ? DOOR_LINK_ANNOUNCEMENTS + CLEAR_SCREEN : "") << Case.What;
  }
}

TEST(DoorStartup, StopsWithAMessageOnTheLocalConsoleOnly) {
  TTempDir Dir;
  const std::string D = Dir.Path.string(),
                    NotSupported = "\n  Drop File Does Not Exist Or Is Not Supported:\n  ";
  // A link whose caller has gone before the door starts: the process already found the
  // carrier lost on it (here through a connection of its own), so the open finds none.
  const auto CarrierGone = [](int ADoorFd) {
    int Pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, Pair) != 0) _exit(3);
    close(Pair[0]);
    CommOpen(Pair[1]);
    while (CommCarrier()) CommCharAvail();
    DoorStartupArgs({"-S" + std::to_string(ADoorFd), "-N1"});
  };
  const std::string NoLog = "doorstartup_test: node 0: Drop File Does Not Exist Or Is Not Supported: ";
  const struct {
    const char* What;
    std::function<void(int)> DoorSide;
    std::string Console, Heard, Log;
  } Cases[] = {
      {"missing drop file", Starting("-D{drop}", D, "DOOR32.SYS"), NotSupported + D + "/DOOR32.SYS\n\n", "",
       NoLog + D + "/DOOR32.SYS\n"},
      {"a name of no known format", Starting("-D{drop}", D, "drop.txt", "2\n5\n"),
       NotSupported + D + "/drop.txt\n\n", "", NoLog + D + "/drop.txt\n"},
      {"a directory", Starting("-D{drop}", D), NotSupported + D + "/\n\n", "", NoLog + D + "/\n"},
      {"a negative handle below -1", Starting("-D{drop}", D, "DOOR32.SYS", Door32("2", "-3")),
       "\n  Invalid comm number: -3\n\n", "", "doorstartup_test: node 4: Invalid comm number: -3\n"},
      {"no carrier on the link", CarrierGone, "\n  No Carrier Detected\n\n", DOOR_LINK_ANNOUNCEMENTS,
       "doorstartup_test: node 1: No Carrier Detected\n"},
  };
  const std::string Log = D + "/log";
  for (const auto& Case : Cases) {
    // The pause before the end follows the program-wide setting.
    TDoorRun Door([&](int ADoorFd) {
      setenv("WICKET_STOP_PAUSE_MS", "300", 1);
      setenv("WICKET_LOG_FILE", Log.c_str(), 1);
      Case.DoorSide(ADoorFd);
    });
    EXPECT_EQ(FinishDoor(Door), 0) << Case.What;
    EXPECT_EQ(Door.Report, "") << Case.What;  // the start never returned
    EXPECT_EQ(Door.Console, Case.Console) << Case.What;
    EXPECT_EQ(Door.Heard, Case.Heard) << Case.What;  // the stop's words never reach the caller
    EXPECT_EQ(ReadWholeFile(Log), Case.Log) << Case.What;
    std::filesystem::remove(Log);
    EXPECT_GE(Door.Ms, 300) << Case.What;
    EXPECT_LT(Door.Ms, 6000) << Case.What;
  }
}

double FClock = 1000.0;

TEST(DoorStartup, StampsTimesAfterTheLoginAndDerivesTheNames) {
  TDoorRun Door([](int) {
    DoorClock = [] { return FClock += 1.0 / 86400.0; };
    DoorOnLocalLogin = [] {
      FClock += 1.0;  // a day spent typing a name
      DoorDropInfo.Alias = "Nick";
      DoorReport("login;");
    };
    DoorStartupArgs({});
    DoorReport("key-before-on=" + std::to_string(DoorLastKey.Time < DoorSession.TimeOn) + " after-login=" +
               std::to_string(DoorLastKey.Time > 1001.0) + " idle=" + std::to_string(DoorSecondsIdle()) +
               " real-or-alias=" + DoorDropInfo.RealNameOrAlias +
               " alias-or-real=" + DoorDropInfo.AliasOrRealName);
    _exit(0);
  });
  EXPECT_EQ(FinishDoor(Door), 0);
  EXPECT_EQ(Door.Report, "login;key-before-on=1 after-login=1 idle=2 real-or-alias=Nick alias-or-real=Nick");
  // The login hook is followed by a clear screen on the (stdio) console.
  EXPECT_NE(Door.Console.find(CLEAR_SCREEN), std::string::npos);
}

// --- The exit handler -----------------------------------------------------------------------

void OldHandler() { DoorReport("old handler;"); }

TEST(DoorExitHandler, RunsOnEveryWayOutAndChainsToTheOldOne) {
  const std::string Socket = DOOR_LINK_ANNOUNCEMENTS + CLEAR_SCREEN;
  const struct {
    const char* What;
    std::string Option;  // before -N1
    void (*AfterStart)();
    int ExitCode;
    std::string Report, Heard;
  } Cases[] = {
      {"return from the program", "-S{fd}", [] {}, 0, "old handler;", Socket + EXIT_TAIL},
      {"exit inside a hook called from the key wait", "-S{fd}",
       [] {
         DoorOnTimeUp = [] { std::exit(0); };
         DoorDropInfo.MaxSeconds = 0;
         DoorReadKey();
       },
       0, "old handler;", Socket + EXIT_TAIL},
      {"an unhandled exception", "-S{fd}", [] { throw std::runtime_error("boom"); }, 128 + SIGABRT,
       "old handler;", Socket + EXIT_TAIL},
      {"after DoorShutdown nothing more is sent", "-S{fd}", [] { DoorShutdown(); }, 0, "old handler;",
       Socket},
      // A stdio run installs no handler of the door's, but the chain still runs.
      {"stdio run", "-S-1", [] { DoorReport(DoorExitProc == OldHandler ? "same;" : "other;"); }, 0,
       "same;old handler;", ""},
      {"the usage screen without a hook: a quiet end", "-?", [] { DoorReport("returned;"); }, 0,
       "old handler;", ""},
  };
  for (const auto& Case : Cases) {
    TDoorRun Door([&](int ADoorFd) {
      DoorExitProc = OldHandler;
      DoorOnUsage = nullptr;
      DoorStartupArgs({Case.Option == "-S{fd}" ? "-S" + std::to_string(ADoorFd) : Case.Option, "-N1"});
      Case.AfterStart();
    });
    EXPECT_EQ(FinishDoor(Door), Case.ExitCode) << Case.What;
    EXPECT_EQ(Door.Report, Case.Report) << Case.What;
    EXPECT_EQ(Door.Heard, Case.Heard) << Case.What;
    EXPECT_EQ(Door.Console, "") << Case.What;
    EXPECT_TRUE(Door.CallerClosed) << Case.What;
  }
}

TEST(DoorShutdown, LeavesTheBbsCopyOfTheSocketUsable) {
  TDoorRun Door(
      [](int ADoorFd) {
        DoorStartupArgs({"-S" + std::to_string(ADoorFd), "-N1"});
        DoorLiteBarOptions = {"a", "b"};
        DoorWrite("bye");
        DoorShutdown();
        DoorReport("options=" + std::to_string(DoorLiteBarOptions.size()));
      },
      {.KeepBbsCopy = true});
  EXPECT_EQ(FinishDoor(Door), 0);
  EXPECT_EQ(Door.Report, "options=0");
  EXPECT_EQ(Door.Heard, DOOR_LINK_ANNOUNCEMENTS + CLEAR_SCREEN + "bye");
  EXPECT_FALSE(Door.CallerClosed);  // the BBS still holds the connection
  // The BBS goes on talking to its caller, both ways.
  std::string AtCaller, AtBbs;
  Send(Door.Bbs, "\r\nBack at the BBS");
  EXPECT_TRUE(WaitFor(Door.Caller, AtCaller, "\r\nBack at the BBS"));
  Send(Door.Caller, "Q");
  EXPECT_TRUE(WaitFor(Door.Bbs, AtBbs, "Q"));
}

}  // namespace
