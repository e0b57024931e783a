// The example door run as a BBS runs it: the real program, started with a socket it inherits
// (from -S/-N or a drop file), in stdio mode on pipes, and on a pseudo-terminal for the local
// login and for a stdio run whose caller hangs up. The test plays the BBS, keeping its own copy
// of the socket, and the caller, typing on the other end.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "door/doorlink_testutil.h"
#include "testsupport.h"

namespace {

using TEnv = std::vector<std::pair<std::string, std::string>>;

// A door side that writes the drop file ADrop (ALines, each ended by CR LF, "{fd}" standing for
// the door's end of the link) and runs wicket-example with AArguments, "{fd}" filled in the same,
// and with AEnv in its environment (the rig has turned the stop pauses and the last-line wait off).
std::function<void(int)> Example(std::vector<std::string> AArguments, const std::string& ADrop = "",
                                 const std::vector<std::string>& ALines = {}, const TEnv& AEnv = {}) {
  return [=](int ADoorFd) mutable {
    for (const auto& [Name, Value] : AEnv) setenv(Name.c_str(), Value.c_str(), 1);
    auto Fill = [&](std::string AText) {
      const size_t At = AText.find("{fd}");
      return At == std::string::npos ? AText : AText.replace(At, 4, std::to_string(ADoorFd));
    };
    std::string Text;
    for (const std::string& Line : ALines) Text += Fill(Line) + "\r\n";
    if (!ADrop.empty()) WriteWholeFile(ADrop, Text);
    const std::string Program = (BuildDir() / "wicket-example").string();
    std::vector<char*> Argv = {const_cast<char*>(Program.c_str())};
    for (std::string& Argument : AArguments)
      if (!Argument.empty()) Argv.push_back((Argument = Fill(Argument)).data());  // "" stands for none
    Argv.push_back(nullptr);
    execv(Program.c_str(), Argv.data());
    _exit(127);
  };
}

// The caller's side of a whole session: name, two menu choices, Q. The door's output is read
// from AFd, keys go to AKeys.
void PlaySession(std::string& ASeen, const std::string& ADefaultName, const std::string& ATyped,
                 const std::string& AGreeted, int AFd, int AKeys, bool AReadGoodbye = true) {
  ASSERT_TRUE(WaitFor(AFd, ASeen, "Your name:")) << ASeen;
  // The field: bright white on blue, the default, blanks to 30 cells, back behind the text.
  const std::string Pad(30 - ADefaultName.size(), ' ');
  ASSERT_TRUE(WaitFor(AFd, ASeen,
                      "\x1b[1;37m\x1b[44m" + ADefaultName + Pad + "\x1b[" + std::to_string(Pad.size()) + "D"))
      << ASeen;
  Send(AKeys, ATyped);
  ASSERT_TRUE(WaitFor(AFd, ASeen, "Hello, \x1b[1;37m\x1b[40m" + AGreeted)) << ASeen;
  ASSERT_TRUE(WaitFor(AFd, ASeen, " Goodbye ")) << ASeen;
  Send(AKeys, "2\r");  // the second row
  ASSERT_TRUE(WaitFor(AFd, ASeen, "You may stay idle for 300 seconds.")) << ASeen;
  Send(AKeys, "\x1b[A\r");  // back up with the arrow key
  ASSERT_TRUE(WaitFor(AFd, ASeen, "You have 0")) << ASeen;
  Send(AKeys, "q");
  if (!AReadGoodbye) return;
  ASSERT_TRUE(WaitFor(AFd, ASeen, "  Goodbye, " + AGreeted + ". Returning to the BBS...\r\n")) << ASeen;
}

const TDoorRunOptions AS_BBS{.KeepBbsCopy = true};

// Whole sessions on a socket named by -S/-N or by a DOOR32.SYS, and in stdio mode on pipes.
TEST(ExampleDoor, WholeSessionsOnASocketAndOnPipes) {
  TTempDir Dir;
  const std::string Drop = (Dir.Path / "DOOR32.SYS").string();
  const std::vector<std::string> Door32 = {"2",  "{fd}", "38400", "Test BBS", "7", "Jane Doe",
                                           "jd", "20",   "60",    "1",        "3"};
  const struct {
    std::vector<std::string> Arguments, DropLines;
    std::string Default, Typed, Greeted, Node;
    bool Stdio;
  } Cases[] = {
      {{"-N1", "-S{fd}"}, {}, "", "Ann\r", "Ann", "1", false},
      {{"-D" + Drop}, Door32, "jd", "\r", "jd", "3", false},
      {{"-S-1", "-N4"}, {}, "", "Bo\r", "Bo", "4", true},
  };
  const std::string Log = (Dir.Path / "log").string();
  for (const auto& Case : Cases) {
    TDoorRun Door(Example(Case.Arguments, Case.DropLines.empty() ? "" : Drop, Case.DropLines,
                          {{"WICKET_LOG_FILE", Log}}),
                  AS_BBS);
    std::string Seen;
    PlaySession(Seen, Case.Default, Case.Typed, Case.Greeted, Case.Stdio ? Door.Output : Door.Caller,
                Case.Stdio ? Door.Input : Door.Caller);
    EXPECT_EQ(FinishDoor(Door), 0) << Case.Greeted;
    EXPECT_FALSE(std::filesystem::exists(Log)) << ReadWholeFile(Log);  // a normal end logs nothing
    EXPECT_NE(Seen.find("Wicket example door\x1b[0;37m\x1b[40m\x1b[40m, node " + Case.Node),
              std::string::npos);
    if (Case.Stdio) {
      // No telnet announcements and no status bar in the caller's stream.
      EXPECT_EQ(Seen.find('\xFF'), std::string::npos);
      EXPECT_EQ(Seen.find("Idle:"), std::string::npos);
      continue;
    }
    EXPECT_EQ(Seen.find(DOOR_LINK_ANNOUNCEMENTS + "\x1b[2J\x1b[1;1f"), 0u);
    // The sysop's console showed the status bar (drawn before each menu).
    EXPECT_NE(Door.Console.find("Wicket example door"), std::string::npos) << Door.Console;
    EXPECT_NE(Door.Console.find("Idle: 00:0"), std::string::npos) << Door.Console;
    EXPECT_TRUE(Door.Console.find("Left: 01:00:00") != std::string::npos ||
                Door.Console.find("Left: 00:59:5") != std::string::npos)
        << Door.Console;
    // The BBS takes the caller back on its own copy of the socket, both ways, and nothing of the
    // door comes after its goodbye.
    std::string AtCaller, AtBbs;
    Send(Door.Bbs, "Back at the BBS");
    EXPECT_TRUE(WaitFor(Door.Caller, AtCaller, "Back at the BBS", 2000));
    EXPECT_EQ(Door.Heard + AtCaller, "Back at the BBS");
    Send(Door.Caller, "x");
    EXPECT_TRUE(WaitFor(Door.Bbs, AtBbs, "x", 2000));
  }
}

TEST(ExampleDoor, StdioModeEndsWithCodeZeroWhenTheBbsDropsBothPipes) {
  TDoorRun Door(Example({"-S-1", "-N4"}));
  std::string Seen;
  ASSERT_TRUE(WaitFor(Door.Output, Seen, "Your name:"));
  CloseEnd(Door.Output);  // the door's next writes find no reader: no SIGPIPE may kill it
  Send(Door.Input, "Bo\r");
  CloseEnd(Door.Input);
  const double Dropped = MonotonicMs();
  EXPECT_EQ(FinishDoor(Door), 0);
  EXPECT_LT(MonotonicMs() - Dropped, 1000);
}

TEST(ExampleDoor, UsageScreenWithTheProgramsOwnName) {
  for (const char* Option : {"/?", "-?", "-S1000", "-D"}) {
    TTempDir Dir;
    const std::string Log = (Dir.Path / "log").string();
    TDoorRun Door(Example({Option}, "", {}, {{"WICKET_LOG_FILE", Log}}));
    EXPECT_EQ(FinishDoor(Door), 0) << Option;
    // The console may be nobody's screen: the sysop finds it in the system log.
    EXPECT_EQ(ReadWholeFile(Log),
              "wicket-example: node 0: usage shown (no mode on the command line): wicket-example "
              "-D<drop file> | -N<node> -S<socket> | -L [-X]\n")
        << Option;
    EXPECT_EQ(Door.Console,
              "\n"
              " USAGE: wicket-example <PARAMETERS>\n"
              "\n"
              " Load settings from a dropfile (DOOR32.SYS, DOOR.SYS, DORINFO*.DEF or INFO.*)\n"
              "  -D         PATH\\FILENAME OF DROPFILE\n"
              " Example: wicket-example -DC:\\BBS\\NODE1\\DOOR32.SYS\n"
              "\n"
              " Pass settings on command-line\n"
              "  -N         NODE NUMBER\n"
              "  -S         SOCKET HANDLE\n"
              " Example: wicket-example -N1 -S1000\n"
              "\n"
              " Run in local mode\n"
              "  -L         LOCAL MODE\n"
              " Example: wicket-example -L\n"
              "\n"
              " Optional parameters\n"
              "  -X         DISABLE COMM ROUTINES (STDIO MODE)\n"
              "\n")
        << Option;
  }
}

// Answers the console's question for the cursor position, as a terminal would.
void AnswerCursorQuestion(TDoorRun& ADoor, std::string& ASeen) {
  ASSERT_TRUE(WaitFor(ADoor.Output, ASeen, "\x1b[6n"));
  Send(ADoor.Output, "\x1b[1;1R");
}

bool SameMode(const termios& A, const termios& B) {
  return A.c_iflag == B.c_iflag && A.c_oflag == B.c_oflag && A.c_lflag == B.c_lflag && A.c_cflag == B.c_cflag;
}

TEST(ExampleDoor, LocalLoginOnAPseudoTerminal) {
  TDoorRun Door(Example({"-N7"}), {.Pty = true});
  termios Raw{}, After{};
  std::string Seen;
  AnswerCursorQuestion(Door, Seen);
  ASSERT_TRUE(WaitFor(Door.Output, Seen, "  LOCAL LOGIN - FOR NODE 7")) << Seen;
  ASSERT_TRUE(WaitFor(Door.Output, Seen, "Run wicket-example /? for command-line usage help")) << Seen;
  ASSERT_TRUE(WaitFor(Door.Output, Seen, "SYSOP" + std::string(35, ' ') + "\x1b[35D")) << Seen;
  ASSERT_EQ(tcgetattr(Door.Output, &Raw), 0);
  EXPECT_EQ(Raw.c_lflag & (ICANON | ECHO | ISIG), 0u);  // raw while the door runs
  // Ctrl-Y and Enter: a name is required, so the prompt comes again.
  Send(Door.Output, "\x19\r");
  Seen.clear();
  ASSERT_TRUE(WaitFor(Door.Output, Seen, "Name or handle")) << Seen;
  Send(Door.Output, "\x19Sam Sysop\r");
  // The example then offers the login name as its default: Enter takes it.
  PlaySession(Seen, "Sam Sysop", "\r", "Sam Sysop", Door.Output, Door.Output);
  EXPECT_EQ(FinishDoor(Door), 0);
  ASSERT_EQ(tcgetattr(Door.Output, &After), 0);
  EXPECT_TRUE(SameMode(After, Door.PtyBefore));
}

TEST(ExampleDoor, CarrierLossEndsTheRunWithCodeZero) {
  TDoorRun Door(Example({"-N1", "-S{fd}"}), AS_BBS);
  std::string Seen, Console;
  ASSERT_TRUE(WaitFor(Door.Caller, Seen, "Your name:"));
  CloseEnd(Door.Caller);  // the caller hangs up; the BBS keeps its copy
  const double Dropped = MonotonicMs();
  ASSERT_TRUE(WaitFor(Door.Output, Console, "   Caller Dropped Carrier.  Returning To BBS...\n", 3000));
  EXPECT_LT(MonotonicMs() - Dropped, 1500);
  EXPECT_EQ(FinishDoor(Door), 0);  // not 128 + SIGPIPE, though the exit handler writes on
  EXPECT_LT(MonotonicMs() - Dropped, 1500 + 1000);
}

// DOOR.SYS naming the link's descriptor as its port, with the given seconds left; the idle
// limit of 1 s comes from the door's own -I option. The caller says nothing: the stop speaks to
// them in bright white on a clear screen, then the exit handler leaves the caller's terminal in
// grey at the bottom left.
TEST(ExampleDoor, IdleAndTimeLimitsFromADoorSysEndTheRun) {
  const std::tuple<const char*, const char*, std::string> Cases[] = {
      {"-I1", "60", "  Idle Time Limit Exceeded.  Returning To BBS...\r\n"},
      {"", "2", "  Your Time Has Expired.  Returning To BBS...\r\n"}};
  // Each run waits out its seconds, so the two run side by side.
  std::vector<std::unique_ptr<TTempDir>> Dirs;
  std::vector<std::unique_ptr<TDoorRun>> Doors;
  for (const auto& [Idle, Seconds, Message] : Cases) {
    Dirs.push_back(std::make_unique<TTempDir>());
    const std::string Drop = (Dirs.back()->Path / "DOOR.SYS").string();
    std::vector<std::string> Lines(52);
    Lines[0] = "COM{fd}:";
    Lines[3] = "2";
    Lines[9] = "Sam Caller";
    Lines[17] = Seconds;
    Lines[19] = "GR";
    Doors.push_back(std::make_unique<TDoorRun>(Example({Idle, "-D" + Drop}, Drop, Lines), AS_BBS));
  }
  for (size_t I = 0; I < std::size(Cases); ++I) {
    const std::string& Message = std::get<2>(Cases[I]);
    TDoorRun& Door = *Doors[I];
    std::string Seen;
    ASSERT_TRUE(WaitFor(Door.Caller, Seen, "Your name:")) << Message;
    EXPECT_NE(Seen.find("node 2"), std::string::npos) << Message;
    ASSERT_TRUE(WaitFor(Door.Caller, Seen, std::string("\x1b[2J\x1b[1;1f\r\n") + Message, 6000)) << Seen;
    EXPECT_EQ(FinishDoor(Door), 0) << Message;
    EXPECT_GE(Door.Ms, 2000) << Message;
    EXPECT_NE((Seen + Door.Heard).find("\x1b[255B\x1b[255D", Seen.find(Message)), std::string::npos)
        << Message;
  }
}

// The caller's terminal stops reading while the door has much to say: the caller moves the light
// bar up and down many times (as long as the terminal takes keys) and reads nothing, until the
// door's output has piled up and it is stuck writing. The master moves to ASilent, so that
// FinishDoor doesn't read it either.
void StopReadingTillThePtyIsFull(TDoorRun& ADoor, int ASlave, std::string& ASeen, int& ASilent) {
  Send(ADoor.Output, "Ann\r");
  ASSERT_TRUE(WaitFor(ADoor.Output, ASeen, " Goodbye "));
  pollfd Room{ADoor.Output, POLLOUT, 0};
  for (int I = 0; I < 2000 && poll(&Room, 1, 100) > 0; ++I) Send(ADoor.Output, "28");
  // The terminal takes no more output: the door's next write blocks. The kernel moves pty output
  // on to the master in the background, which can free room for a moment after the terminal
  // first looks full, so it must stay full for a while.
  pollfd Full{ASlave, POLLOUT, 0};
  const double Deadline = MonotonicMs() + 5000;
  for (double FullSince = -1; MonotonicMs() < Deadline; usleep(10000)) {
    if (poll(&Full, 1, 0) > 0) {
      FullSince = -1;
    } else if (FullSince < 0) {
      FullSince = MonotonicMs();
    } else if (MonotonicMs() - FullSince > 300) {
      break;
    }
  }
  ASSERT_EQ(poll(&Full, 1, 0), 0) << "the door's output never piled up";
  std::swap(ASilent, ADoor.Output);
}

// A stdio door on its caller's pty, hung up or told to end at start-up (while the console waits
// for the answer to its cursor question), in a key wait, and while stuck writing to a terminal
// that stopped reading: each way ends with code 0 through the exit handlers, at once, with the
// terminal's mode put back.
TEST(ExampleDoor, StdioDoorOnACookedPtyEndsCleanlyWhenTheCallerHangsUpOrIsStopped) {
  constexpr int CloseMaster = 0;
  for (const char* Moment : {"at the cursor question", "in a key wait", "in a blocked write"}) {
    for (const int Way : {SIGHUP, SIGTERM, SIGINT, CloseMaster}) {
      SCOPED_TRACE(std::string(Moment) + ", " + (Way == CloseMaster ? "pty master closed" : strsignal(Way)));
      const bool AtStart = Moment[1] == 't', Stuck = std::string(Moment).find("blocked") != std::string::npos;
      TDoorRun Door(Example({"-N1", "-S-1"}), {.Pty = true});
      termios Raw{}, After{};
      ASSERT_NE(Door.PtyBefore.c_lflag & ICANON, 0u);
      // The test keeps a descriptor of the terminal to read its mode after the door has gone.
      const int Slave = open(ptsname(Door.Output), O_RDWR | O_NOCTTY | O_CLOEXEC);
      ASSERT_GE(Slave, 0);
      std::string Seen;
      int Silent = -1;
      if (AtStart) {
        ASSERT_TRUE(WaitFor(Door.Output, Seen, "\x1b[6n"));
      } else {
        AnswerCursorQuestion(Door, Seen);
        ASSERT_TRUE(WaitFor(Door.Output, Seen, "Your name:"));
      }
      ASSERT_EQ(tcgetattr(Slave, &Raw), 0);
      EXPECT_EQ(Raw.c_lflag & (ICANON | ECHO | ISIG | IEXTEN), 0u);
      EXPECT_EQ(Raw.c_iflag & (ICRNL | IXON), 0u);
      EXPECT_EQ(Raw.c_oflag & OPOST, 0u);
      if (Stuck) StopReadingTillThePtyIsFull(Door, Slave, Seen, Silent);

      const double HungUp = MonotonicMs();
      if (Way == CloseMaster) {
        CloseEnd(Door.Output);
        CloseEnd(Silent);
      } else {
        kill(Door.Pid, Way);
      }
      EXPECT_EQ(FinishDoor(Door), 0);
      // Within the console's one-second wait for the cursor report, when at start.
      EXPECT_LT(MonotonicMs() - HungUp, 2000);
      // A terminal whose master has gone is hung up for good and has no mode left to read.
      if (Way != CloseMaster) {
        ASSERT_EQ(tcgetattr(Slave, &After), 0);
        EXPECT_TRUE(SameMode(After, Door.PtyBefore));
      }
      close(Slave);
      CloseEnd(Silent);
    }
  }
}

// Fills the door's socket: the caller moves the light bar up and down many times and reads
// nothing, until the door can't send any more (the BBS's copy is the same socket, with a small
// send buffer). The caller's end moves to ASilent, so that FinishDoor doesn't read it either.
void StopReadingTillTheDoorIsStuck(TDoorRun& ADoor, int& ASilent) {
  std::string Seen;
  ASSERT_TRUE(WaitFor(ADoor.Caller, Seen, "Your name:"));
  Send(ADoor.Caller, "Ann\r");
  ASSERT_TRUE(WaitFor(ADoor.Caller, Seen, " Goodbye "));
  const int Small = 4096;
  setsockopt(ADoor.Bbs, SOL_SOCKET, SO_SNDBUF, &Small, sizeof Small);
  std::string Keys;
  for (int I = 0; I < 1000; ++I) Keys += "28";
  Send(ADoor.Caller, Keys);
  const double Deadline = MonotonicMs() + 5000;
  pollfd Room{ADoor.Bbs, POLLOUT, 0};
  while (poll(&Room, 1, 0) > 0 && MonotonicMs() < Deadline) usleep(10000);
  ASSERT_EQ(poll(&Room, 1, 0), 0) << "the door's socket never filled up";
  std::swap(ASilent, ADoor.Caller);
}

// A socket run told to end while it waits for a key, or while it is stuck writing to a caller
// who stopped reading, ends at once with code 0 through its exit handlers; the idle limit is
// watched while it writes, and a caller who takes nothing for the write bound counts as gone.
TEST(ExampleDoor, SocketRunEndsInOrderOnSignalsAndWhenTheCallerStopsReading) {
  const std::string Dropped = "   Caller Dropped Carrier.  Returning To BBS...\n";
  const struct {
    const char* Name;
    int Signal;  // 0: none, a limit ends it
    bool StopReading;
    const char* Idle;     // the door's idle limit option
    const char* Stall;    // the write bound, ms
    std::string Console;  // on the sysop's console
    std::string Log;
  } Cases[] = {
      {"SIGHUP in the key wait", SIGHUP, false, "", "60000", Dropped, "node 1: hang-up (SIGHUP)"},
      {"SIGTERM in the key wait", SIGTERM, false, "", "60000", Dropped, "node 1: ended by SIGTERM"},
      {"SIGINT in the key wait", SIGINT, false, "", "60000", Dropped, "node 1: ended by SIGINT"},
      {"SIGHUP in a blocked write", SIGHUP, true, "", "60000", Dropped, "node 1: hang-up (SIGHUP)"},
      {"the idle limit in a blocked write", 0, true, "-I1", "60000", "", "node 1: idle time limit exceeded"},
      {"a caller who stops reading", 0, true, "", "1000", Dropped,
       "node 1: caller stopped reading (output stalled), carrier dropped"},
  };
  for (const auto& Case : Cases) {
    SCOPED_TRACE(Case.Name);
    TTempDir Dir;
    const std::string Log = (Dir.Path / "log").string();
    TDoorRun Door(Example({"-N1", "-S{fd}", Case.Idle}, "", {},
                          {{"WICKET_LOG_FILE", Log}, {"WICKET_WRITE_STALL_MS", Case.Stall}}),
                  AS_BBS);
    std::string Seen;
    int Silent = -1;
    if (Case.StopReading) {
      StopReadingTillTheDoorIsStuck(Door, Silent);
    } else {
      ASSERT_TRUE(WaitFor(Door.Caller, Seen, "Your name:"));
    }
    if (Case.Signal != 0) kill(Door.Pid, Case.Signal);
    EXPECT_EQ(FinishDoor(Door), 0);  // the write bound of the signal cases is 60 s: far beyond
    EXPECT_NE(Door.Console.find(Case.Console), std::string::npos) << Door.Console;
    EXPECT_EQ(ReadWholeFile(Log), "wicket-example: " + Case.Log + "\n");
    // The exit handler ran: on a caller who still reads, it leaves the terminal at the bottom left.
    if (!Case.StopReading) {
      EXPECT_NE((Seen + Door.Heard).find("\x1b[255B\x1b[255D"), std::string::npos) << Seen + Door.Heard;
    }
    CloseEnd(Silent);
  }
}

// The goodbye of a normal end reaches a caller who reads only after the door has begun to exit:
// the door waits for its output to leave before it lets go of the link.
TEST(ExampleDoor, TheLastWordsWaitForASlowCaller) {
  TDoorRun Door(Example({"-N1", "-S{fd}"}, "", {}, {{"WICKET_DRAIN_MS", "2000"}}), AS_BBS);
  std::string Seen;
  PlaySession(Seen, "", "Ann\r", "Ann", Door.Caller, Door.Caller, false);
  usleep(500000);
  EXPECT_EQ(waitpid(Door.Pid, nullptr, WNOHANG), 0) << "the door did not wait for its last words";
  ASSERT_TRUE(WaitFor(Door.Caller, Seen, "  Goodbye, Ann. Returning to the BBS...\r\n")) << Seen;
  EXPECT_EQ(FinishDoor(Door), 0);
}

}  // namespace
