// Start-up and shutdown: the command-line reading on its own, then whole starts in forked
// children (the mode chosen, the drop-file path, the stops), and the exit handler on every way
// out of a socket run, with the test holding the caller's end and the BBS's copy of the link.
#include "doorstartup.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "doorinput.h"
#include "dooroutput.h"
#include "doorprocess_testutil.h"
#include "doorstate.h"
#include "testsupport.h"

namespace {

const std::string kAnnouncements("\xFF\xFB\x00\xFF\xFB\x01", 6);
const std::string kClearScreen = "\x1b[2J\x1b[1;1f";
// What the exit handler leaves the caller with: grey on black, cursor to the bottom left.
const std::string kExitTail = "\x1b[0;37m\x1b[40m\x1b[40m\x1b[255B\x1b[255D";

std::vector<std::string> FSeenOptions;
void RecordOption(uint8_t AKey, const std::string& AValue) {
  FSeenOptions.push_back(std::string(1, static_cast<char>(AKey)) + "=" + AValue);
}

struct TReadCase {
  std::vector<std::string> Arguments;
  bool Local;
  std::string DropFile;
  int32_t Node;
  int32_t Socket;
  bool ForceStdio;
  std::string Unknown;  // options handed to DoorOnCLP, joined by blanks
};

TEST(DoorReadCommandLine, OptionsLettersAndValues) {
  const TReadCase Cases[] = {
      {{}, true, "", 0, -99, false, ""},
      {{"-N5"}, true, "", 5, -99, false, ""},
      {{"-L", "-n5"}, true, "", 5, -99, false, "L="},
      {{"/?"}, false, "", 0, -99, false, ""},
      {{"-D"}, false, "", 0, -99, false, ""},
      {{"-d/bbs/DOOR32.SYS", "-x"}, false, "/bbs/DOOR32.SYS", 0, -99, true, ""},
      {{"-D", "/bbs/door.sys"}, false, "", 0, -99, false, "B=bs/door.sys"},
      {{"-S1000", "-S7", "-N1", "-N0x10"}, false, "", 16, 7, false, ""},
      {{"-Sabc", "-Nxyz"}, false, "", 0, -1, false, ""},
      {{"-S-5", "-N 2"}, false, "", 2, -5, false, ""},
      {{"-S 7 "}, false, "", 0, -1, false, ""},
      {{"", "-", "x", "@tamblin.cfg", "+N5", "--help", "-ié"}, true, "", 0, -99, false, "-=help I=\xC3\xA9"},
      {{"-Ivalue", "-i", "/q9"}, true, "", 0, -99, false, "I=value I= Q=9"},
  };
  DoorOnCLP = RecordOption;
  for (const TReadCase& Case : Cases) {
    FSeenOptions.clear();
    const TDoorCommandLine Got = DoorReadCommandLine(Case.Arguments);
    std::string Unknown;
    for (const std::string& Seen : FSeenOptions) Unknown += (Unknown.empty() ? "" : " ") + Seen;
    const std::string What = ::testing::PrintToString(Case.Arguments);
    EXPECT_EQ(Got.Local, Case.Local) << What;
    EXPECT_EQ(Got.DropFile, Case.DropFile) << What;
    EXPECT_EQ(Got.Node, Case.Node) << What;
    EXPECT_EQ(Got.Socket, Case.Socket) << What;
    EXPECT_EQ(Got.ForceStdio, Case.ForceStdio) << What;
    EXPECT_EQ(Unknown, Case.Unknown) << What;
  }
  DoorOnCLP = nullptr;
}

// The run's state after DoorStartupArgs, as one line.
// ComNum shows as "link" when it is the door's end of the test's socketpair.
std::string DescribeRun(int ADoorFd) {
  const std::string ComNum = DoorDropInfo.ComNum == ADoorFd ? "link" : std::to_string(DoorDropInfo.ComNum);
  return "StdIO=" + std::to_string(StdIO) + " Events=" + std::to_string(DoorSession.Events) +
         " Node=" + std::to_string(DoorDropInfo.Node) + " ComType=" + std::to_string(DoorDropInfo.ComType) +
         " ComNum=" + ComNum + " Real=" + DoorDropInfo.RealName;
}

void ReportUsage() { DoorReport("usage;"); }

// Starts a door in a child with the arguments AMake builds from the door's end of the link,
// the login and usage hooks replaced by quiet ones; the child reports DescribeRun() and ends
// without running exit handlers, unless the start itself ended the process.
TDoorProcessRun StartWith(const std::function<std::vector<std::string>(int)>& AMake) {
  return RunDoorProcess([&](int ADoorFd) {
    DoorOnLocalLogin = nullptr;
    DoorOnUsage = ReportUsage;
    DoorStartupArgs(AMake(ADoorFd));
    DoorReport(DescribeRun(ADoorFd));
    _exit(0);
  });
}

std::string WriteDropFile(const std::filesystem::path& APath, const std::vector<std::string>& ALines) {
  std::string Text;
  for (const std::string& Line : ALines) Text += Line + "\r\n";
  std::filesystem::create_directories(APath.parent_path());
  WriteWholeFile(APath, Text);
  return APath.string();
}

// DOOR32.SYS with the given connection type and handle.
std::vector<std::string> Door32(const std::string& AComType, const std::string& AComNum) {
  return {AComType, AComNum, "38400", "Test BBS", "1", "Jane Doe", "jd", "10", "60", "1", "4"};
}

struct TModeCase {
  const char* What;
  std::function<std::vector<std::string>(int ADoorFd, const std::string& ADir)> Arguments;
  std::string Report;  // DescribeRun(), or "usage;" when the usage hook ran
};

TEST(DoorStartup, ChoosesTheModeInItsOrder) {
  TTempDir Dir;
  const std::string D = Dir.Path.string();
  auto Fd = [](int AFd) { return std::to_string(AFd); };
  const TModeCase Cases[] = {
      {"no arguments: local on node 0", [](int, auto&) { return std::vector<std::string>{}; },
       "StdIO=1 Events=0 Node=0 ComType=0 ComNum=0 Real="},
      {"-L with -N5: local on node 5",
       [](int, auto&) {
         return std::vector<std::string>{"-L", "-N5"};
       },
       "StdIO=1 Events=0 Node=5 ComType=0 ComNum=0 Real="},
      {"-S and -N: socket link",
       [&](int AFd, auto&) {
         return std::vector<std::string>{"-S" + Fd(AFd), "-N3"};
       },
       "StdIO=0 Events=1 Node=3 ComType=2 ComNum=link Real="},
      {"-S-1 and -N: stdio",
       [](int, auto&) {
         return std::vector<std::string>{"-S-1", "-N2"};
       },
       "StdIO=1 Events=0 Node=2 ComType=2 ComNum=-1 Real="},
      {"-S with no number and -N: stdio",
       [](int, auto&) {
         return std::vector<std::string>{"-N2", "-Sx"};
       },
       "StdIO=1 Events=0 Node=2 ComType=2 ComNum=-1 Real="},
      {"/?", [](int, auto&) { return std::vector<std::string>{"/?"}; }, "usage;"},
      {"-D with no value", [](int, auto&) { return std::vector<std::string>{"-D"}; }, "usage;"},
      {"-S without -N", [](int, auto&) { return std::vector<std::string>{"-S1000"}; }, "usage;"},
      {"-N0 with -S",
       [](int, auto&) {
         return std::vector<std::string>{"-N0", "-S1000"};
       },
       "usage;"},
      {"-S-5 with -N",
       [](int, auto&) {
         return std::vector<std::string>{"-N2", "-S-5"};
       },
       "usage;"},
      {"-D, a blank, then the path",
       [](int, auto&) {
         return std::vector<std::string>{"-D", "/tmp/x"};
       },
       "usage;"},
      {"the socket case wins over a drop file",
       [&](int AFd, auto& ADir) {
         return std::vector<std::string>{"-S" + Fd(AFd), "-N1",
                                         "-D" + WriteDropFile(ADir + "/w/DOOR32.SYS", Door32("0", "-1"))};
       },
       "StdIO=0 Events=1 Node=1 ComType=2 ComNum=link Real="},
      {"-? and -S without -N, with a usable drop file: the file is read",
       [&](int, auto& ADir) {
         return std::vector<std::string>{"-?", "-S7",
                                         "-D" + WriteDropFile(ADir + "/a/DOOR32.SYS", Door32("0", "909"))};
       },
       "StdIO=1 Events=0 Node=4 ComType=0 ComNum=909 Real=Jane Doe"},
      {"-N with a drop file: the node comes from the file",
       [&](int, auto& ADir) {
         return std::vector<std::string>{"-N5",
                                         "-D" + WriteDropFile(ADir + "/a2/DOOR32.SYS", Door32("0", "909"))};
       },
       "StdIO=1 Events=0 Node=4 ComType=0 ComNum=909 Real=Jane Doe"},
      {"a lower-case door32.sys naming the link",
       [&](int AFd, auto& ADir) {
         return std::vector<std::string>{"-D" + WriteDropFile(ADir + "/b/door32.sys", Door32("2", Fd(AFd)))};
       },
       "StdIO=0 Events=1 Node=4 ComType=2 ComNum=link Real=Jane Doe"},
      {"-X keeps a drop-file link in stdio mode",
       [&](int AFd, auto& ADir) {
         return std::vector<std::string>{"-X",
                                         "-D" + WriteDropFile(ADir + "/c/DOOR32.SYS", Door32("2", Fd(AFd)))};
       },
       "StdIO=1 Events=0 Node=4 ComType=2 ComNum=link Real=Jane Doe"},
      {"ComNum -1 in the drop file: stdio",
       [&](int, auto& ADir) {
         return std::vector<std::string>{"-D" + WriteDropFile(ADir + "/d/DOOR32.SYS", Door32("1", "-1"))};
       },
       "StdIO=1 Events=0 Node=4 ComType=1 ComNum=-1 Real=Jane Doe"},
      {"connection type 3: stdio stays",
       [&](int, auto& ADir) {
         return std::vector<std::string>{"-D" + WriteDropFile(ADir + "/e/DOOR32.SYS", Door32("3", "905"))};
       },
       "StdIO=1 Events=0 Node=4 ComType=3 ComNum=905 Real=Jane Doe"},
      {"DORINFO1.DEF goes to its own reader though it contains INFO.",
       [&](int, auto& ADir) {
         return std::vector<std::string>{
             "-D" + WriteDropFile(ADir + "/f/DORINFO1.DEF", {"BBS", "S", "O", "COM0", "38400 BAUD,N,8,1", "",
                                                             "FIRST", "LAST", "", "1", "10", "30", ""})};
       },
       "StdIO=1 Events=0 Node=0 ComType=0 ComNum=0 Real=FIRST LAST"},
      {"a directory name decides the reader",
       [&](int, auto& ADir) {
         std::vector<std::string> Lines(52);
         Lines[0] = "COM0:";
         Lines[3] = "6";
         Lines[9] = "Door Sys";
         return std::vector<std::string>{"-D" + WriteDropFile(ADir + "/DOOR.SYS.d/node", Lines)};
       },
       "StdIO=1 Events=0 Node=6 ComType=0 ComNum=0 Real=Door Sys"},
      {"INFO.1 goes to the fourth reader",
       [&](int, auto& ADir) {
         return std::vector<std::string>{
             "-D" + WriteDropFile(ADir + "/g/INFO.1",
                                  {"3", "3", "", "", "10", "al", "Ann", "Lee", "912", "", "", "LOCAL"})};
       },
       "StdIO=1 Events=0 Node=0 ComType=0 ComNum=912 Real=Ann Lee"},
  };
  for (const TModeCase& Case : Cases) {
    const TDoorProcessRun Run = StartWith([&](int AFd) { return Case.Arguments(AFd, D); });
    EXPECT_EQ(Run.ExitCode, 0) << Case.What;
    EXPECT_EQ(Run.Report, Case.Report) << Case.What;
    const bool Socket = Run.Report.find("StdIO=0") == 0;
    // A socket run announces telnet and clears the caller's screen; no other run says a word.
    EXPECT_EQ(Run.Caller, Socket ? kAnnouncements + kClearScreen : "") << Case.What;
  }
}

struct TStopCase {
  const char* What;
  std::function<std::vector<std::string>(const std::string& ADir)> Arguments;
  std::string Console;  // after the clear screen
};

TEST(DoorStartup, StopsWithAMessageOnTheLocalConsoleOnly) {
  TTempDir Dir;
  const TStopCase Cases[] = {
      {"missing drop file", [](auto& ADir) { return std::vector<std::string>{"-D" + ADir + "/DOOR32.SYS"}; },
       "\n  Drop File Does Not Exist Or Is Not Supported:\n  " + Dir.Path.string() + "/DOOR32.SYS\n\n"},
      {"a name of no known format",
       [](auto& ADir) {
         return std::vector<std::string>{"-D" + WriteDropFile(ADir + "/drop.txt", {"2", "5"})};
       },
       "\n  Drop File Does Not Exist Or Is Not Supported:\n  " + Dir.Path.string() + "/drop.txt\n\n"},
      {"a directory", [](auto& ADir) { return std::vector<std::string>{"-D" + ADir}; },
       "\n  Drop File Does Not Exist Or Is Not Supported:\n  " + Dir.Path.string() + "\n\n"},
      {"a negative handle below -1",
       [](auto& ADir) {
         return std::vector<std::string>{"-D" + WriteDropFile(ADir + "/DOOR32.SYS", Door32("2", "-3"))};
       },
       "\n  Invalid comm number: -3\n\n"},
  };
  for (const TStopCase& Case : Cases) {
    const TDoorProcessRun Run = StartWith([&](int) { return Case.Arguments(Dir.Path.string()); });
    EXPECT_EQ(Run.ExitCode, 0) << Case.What;
    EXPECT_EQ(Run.Report, "") << Case.What;  // the start never returned
    EXPECT_EQ(Run.Console, Case.Console) << Case.What;
    EXPECT_EQ(Run.Caller, "") << Case.What;
    EXPECT_GE(Run.Ms, 2400) << Case.What;
    EXPECT_LT(Run.Ms, 6000) << Case.What;
  }
}

TEST(DoorStartup, UsageWithoutAHookEndsQuietly) {
  const TDoorProcessRun Run = RunDoorProcess([](int) {
    DoorOnUsage = nullptr;
    DoorStartupArgs({"-?"});
    DoorReport("returned");
  });
  EXPECT_EQ(Run.ExitCode, 0);
  EXPECT_EQ(Run.Report, "");
  EXPECT_EQ(Run.Console, "");
}

double FClock = 1000.0;
double StepClock() { return FClock += 1.0 / 86400.0; }
void SlowLogin() {
  FClock += 1.0;  // a day spent typing a name
  DoorDropInfo.Alias = "Nick";
  DoorReport("login;");
}

TEST(DoorStartup, StampsTimesAfterTheLoginAndDerivesTheNames) {
  const TDoorProcessRun Run = RunDoorProcess([](int) {
    DoorClock = StepClock;
    DoorOnLocalLogin = SlowLogin;
    DoorStartupArgs({});
    const double AfterLogin = 1001.0;
    DoorReport("key-before-on=" + std::to_string(DoorLastKey.Time < DoorSession.TimeOn) + " after-login=" +
               std::to_string(DoorLastKey.Time > AfterLogin) + " idle=" + std::to_string(DoorSecondsIdle()) +
               " real-or-alias=" + DoorDropInfo.RealNameOrAlias +
               " alias-or-real=" + DoorDropInfo.AliasOrRealName);
    _exit(0);
  });
  EXPECT_EQ(Run.ExitCode, 0);
  EXPECT_EQ(Run.Report, "login;key-before-on=1 after-login=1 idle=2 real-or-alias=Nick alias-or-real=Nick");
  // The login hook is followed by a clear screen on the (stdio) console.
  EXPECT_NE(Run.Console.find(kClearScreen), std::string::npos);
}

// --- The exit handler -----------------------------------------------------------------------

void MarkOldHandler() { DoorReport("old handler;"); }
void EndInAHook() { std::exit(0); }

struct TExitCase {
  const char* What;
  std::function<void()> AfterStart;
  int ExitCode;
  std::string CallerTail;  // what the caller gets after the start's clear screen
};

TEST(DoorExitHandler, RunsOnEveryWayOutAndChainsToTheOldOne) {
  const TExitCase Cases[] = {
      {"return from the program", [] {}, 0, kExitTail},
      {"exit inside a hook called from the key wait",
       [] {
         DoorOnTimeUp = EndInAHook;
         DoorDropInfo.MaxSeconds = 0;
         DoorReadKey();
       },
       0, kExitTail},
      {"an unhandled exception", [] { throw std::runtime_error("boom"); }, 128 + SIGABRT, kExitTail},
      {"after DoorShutdown nothing more is sent", [] { DoorShutdown(); }, 0, ""},
  };
  for (const TExitCase& Case : Cases) {
    const TDoorProcessRun Run = RunDoorProcess([&](int ADoorFd) {
      DoorExitProc = MarkOldHandler;
      DoorStartupArgs({"-S" + std::to_string(ADoorFd), "-N1"});
      Case.AfterStart();
    });
    EXPECT_EQ(Run.ExitCode, Case.ExitCode) << Case.What;
    EXPECT_EQ(Run.Report, "old handler;") << Case.What;
    EXPECT_EQ(Run.Caller, kAnnouncements + kClearScreen + Case.CallerTail) << Case.What;
    EXPECT_TRUE(Run.CallerClosed) << Case.What;
  }
}

TEST(DoorShutdown, LeavesTheBbsCopyOfTheSocketUsable) {
  TDoorProcessOptions Options;
  Options.KeepBbsCopy = true;
  Options.KeepCallerEnd = true;
  TDoorProcessRun Run = RunDoorProcess(
      [](int ADoorFd) {
        DoorStartupArgs({"-S" + std::to_string(ADoorFd), "-N1"});
        DoorLiteBarOptions = {"a", "b"};
        DoorWrite("bye");
        DoorShutdown();
        DoorReport("options=" + std::to_string(DoorLiteBarOptions.size()));
      },
      Options);
  EXPECT_EQ(Run.ExitCode, 0);
  EXPECT_EQ(Run.Report, "options=0");
  EXPECT_EQ(Run.Caller, kAnnouncements + kClearScreen + "bye");
  EXPECT_FALSE(Run.CallerClosed);  // the BBS still holds the connection

  // The BBS goes on talking to its caller, both ways.
  const std::string Back = "\r\nBack at the BBS";
  ASSERT_EQ(send(Run.BbsFd, Back.data(), Back.size(), MSG_NOSIGNAL), static_cast<ssize_t>(Back.size()));
  char Buffer[64] = {};
  ASSERT_EQ(recv(Run.CallerFd, Buffer, sizeof(Buffer), 0), static_cast<ssize_t>(Back.size()));
  EXPECT_EQ(std::string(Buffer, Back.size()), Back);
  ASSERT_EQ(send(Run.CallerFd, "Q", 1, MSG_NOSIGNAL), 1);
  ASSERT_EQ(recv(Run.BbsFd, Buffer, 1, 0), 1);
  EXPECT_EQ(Buffer[0], 'Q');
  close(Run.BbsFd);
  close(Run.CallerFd);
}

TEST(DoorStartup, StdioRunsInstallNoDoorHandlerButRunTheChain) {
  const TDoorProcessRun Run = RunDoorProcess([](int) {
    DoorExitProc = MarkOldHandler;
    DoorStartupArgs({"-S-1", "-N1"});
    DoorReport(std::string("same=") + (DoorExitProc == MarkOldHandler ? "1;" : "0;"));
  });
  EXPECT_EQ(Run.ExitCode, 0);
  EXPECT_EQ(Run.Report, "same=1;old handler;");
}

}  // namespace
