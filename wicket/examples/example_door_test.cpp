// The example door run as a BBS runs it: the real program, started with a socket it inherits
// (from -S/-N or a drop file), in stdio mode on pipes, and on a pseudo-terminal for the local
// login and for a stdio run whose caller hangs up. The test plays the BBS, keeping its own copy
// of the socket, and the caller, typing on the other end.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "testsupport.h"

namespace {

using TClock = std::chrono::steady_clock;

const std::string kAnnouncements("\xFF\xFB\x00\xFF\xFB\x01", 6);

double MsSince(TClock::time_point AStart) {
  return std::chrono::duration<double, std::milli>(TClock::now() - AStart).count();
}

std::string ExampleDoor() { return (BuildDir() / "wicket-example").string(); }

// One running door program and the test's ends of its descriptors.
struct TDoorProgram {
  pid_t Pid = -1;
  int Caller = -1;   // the caller's end of the socket
  int Bbs = -1;      // the BBS's copy of the door's end
  int Input = -1;    // write end of its standard input (pipes)
  int Output = -1;   // read end of its standard output (pipes), or the pty's master
  std::string Seen;  // everything read so far from the caller's end or from Output
  TClock::time_point Start = TClock::now();
};

enum class TConsole { Pipes, Pty };

// Starts wicket-example with AArguments, in which "{fd}" stands for the number of the door's
// end of a fresh socketpair. With TConsole::Pipes its standard input and output are pipes;
// with TConsole::Pty they are the slave of a pseudo-terminal, which becomes its controlling
// terminal, left in the usual cooked mode. APrepare, when given, runs before the start with
// that number, to write a drop file that names it.
TDoorProgram StartDoor(std::vector<std::string> AArguments, TConsole AConsole = TConsole::Pipes,
                       const std::function<void(int ADoorFd)>& APrepare = {}) {
  TDoorProgram Door;
  int Link[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, Link) != 0) ADD_FAILURE() << "socketpair";
  if (APrepare) APrepare(Link[1]);
  for (std::string& Argument : AArguments) {
    const size_t At = Argument.find("{fd}");
    if (At != std::string::npos) Argument.replace(At, 4, std::to_string(Link[1]));
  }
  int In[2] = {-1, -1}, Out[2] = {-1, -1};
  std::string SlaveName;
  if (AConsole == TConsole::Pipes) {
    if (pipe2(In, O_CLOEXEC) != 0 || pipe2(Out, O_CLOEXEC) != 0) ADD_FAILURE() << "pipe";
  } else {
    Out[0] = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (Out[0] < 0 || grantpt(Out[0]) != 0 || unlockpt(Out[0]) != 0) ADD_FAILURE() << "pty";
    SlaveName = ptsname(Out[0]);
    struct winsize Size {};
    Size.ws_row = 25;
    Size.ws_col = 80;
    ioctl(Out[0], TIOCSWINSZ, &Size);
  }
  const std::string Program = ExampleDoor();
  std::vector<char*> Argv = {const_cast<char*>(Program.c_str())};
  for (std::string& Argument : AArguments) Argv.push_back(Argument.data());
  Argv.push_back(nullptr);

  Door.Start = TClock::now();
  Door.Pid = fork();
  if (Door.Pid == 0) {
    fcntl(Link[1], F_SETFD, 0);  // the door inherits its end, as from a BBS
    if (AConsole == TConsole::Pipes) {
      dup2(In[0], STDIN_FILENO);
      dup2(Out[1], STDOUT_FILENO);
    } else {
      setsid();
      const int Slave = open(SlaveName.c_str(), O_RDWR);
      ioctl(Slave, TIOCSCTTY, 0);
      dup2(Slave, STDIN_FILENO);
      dup2(Slave, STDOUT_FILENO);
      if (Slave > STDOUT_FILENO) close(Slave);
    }
    execv(Program.c_str(), Argv.data());
    _exit(127);
  }
  Door.Caller = Link[0];
  Door.Bbs = Link[1];
  if (AConsole == TConsole::Pipes) {
    close(In[0]);
    close(Out[1]);
    Door.Input = In[1];
  }
  Door.Output = Out[0];
  return Door;
}

// Reads AFd into ASeen until it holds ANeedle (after what was there before the call) or
// ATimeoutMs passes; true when found.
bool WaitFor(int AFd, std::string& ASeen, const std::string& ANeedle, int ATimeoutMs = 5000) {
  const auto Deadline = TClock::now() + std::chrono::milliseconds(ATimeoutMs);
  for (;;) {
    if (ASeen.find(ANeedle) != std::string::npos) return true;
    const int Left = static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Deadline - TClock::now()).count());
    if (Left <= 0) return false;
    pollfd Poll{AFd, POLLIN, 0};
    if (poll(&Poll, 1, Left) <= 0) continue;
    char Buffer[4096];
    const ssize_t N = read(AFd, Buffer, sizeof(Buffer));
    if (N > 0)
      ASeen.append(Buffer, static_cast<size_t>(N));
    else if (!(N < 0 && errno == EINTR))
      return ASeen.find(ANeedle) != std::string::npos;  // end of file, or EIO from a pty
  }
}

// What is left to read on AFd until end of file (or EIO) or ATimeoutMs.
std::string ReadRest(int AFd, int ATimeoutMs = 5000) {
  std::string Seen;
  WaitFor(AFd, Seen, std::string("\0never\0", 7), ATimeoutMs);
  return Seen;
}

void Send(int AFd, const std::string& ABytes) {
  ASSERT_EQ(write(AFd, ABytes.data(), ABytes.size()), static_cast<ssize_t>(ABytes.size()));
}

// Waits for the program to end: its exit code, 128 + signal, or -1 after killing it.
int WaitExit(TDoorProgram& ADoor, int ATimeoutMs = 10000) {
  const auto Deadline = TClock::now() + std::chrono::milliseconds(ATimeoutMs);
  int Status = 0;
  while (waitpid(ADoor.Pid, &Status, WNOHANG) != ADoor.Pid) {
    if (TClock::now() > Deadline) {
      kill(ADoor.Pid, SIGKILL);
      waitpid(ADoor.Pid, &Status, 0);
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return WIFEXITED(Status) ? WEXITSTATUS(Status) : 128 + WTERMSIG(Status);
}

void CloseAll(TDoorProgram& ADoor) {
  for (int* Fd : {&ADoor.Caller, &ADoor.Bbs, &ADoor.Input, &ADoor.Output})
    if (*Fd >= 0) {
      close(*Fd);
      *Fd = -1;
    }
}

// The caller's side of a whole session: name, two menu choices, Q.
// The door's output is read from AFd, keys go to AKeys.
void PlaySession(TDoorProgram& ADoor, const std::string& ADefaultName, const std::string& ATyped,
                 const std::string& AGreeted, int AFd, int AKeys) {
  ASSERT_TRUE(WaitFor(AFd, ADoor.Seen, "Your name:")) << ADoor.Seen;
  // The field: bright white on blue, the default, blanks to 30 cells, back behind the text.
  const std::string Field = "\x1b[1;37m\x1b[44m" + ADefaultName + std::string(30 - ADefaultName.size(), ' ') +
                            "\x1b[" + std::to_string(30 - ADefaultName.size()) + "D";
  ASSERT_TRUE(WaitFor(AFd, ADoor.Seen, Field)) << ADoor.Seen;
  Send(AKeys, ATyped);
  ASSERT_TRUE(WaitFor(AFd, ADoor.Seen, "Hello, \x1b[1;37m\x1b[40m" + AGreeted)) << ADoor.Seen;
  ASSERT_TRUE(WaitFor(AFd, ADoor.Seen, " Goodbye ")) << ADoor.Seen;
  Send(AKeys, "2\r");  // the second row
  ASSERT_TRUE(WaitFor(AFd, ADoor.Seen, "You may stay idle for 300 seconds.")) << ADoor.Seen;
  Send(AKeys, "\x1b[A\r");  // back up with the arrow key
  ASSERT_TRUE(WaitFor(AFd, ADoor.Seen, "You have 0")) << ADoor.Seen;
  Send(AKeys, "q");
  ASSERT_TRUE(WaitFor(AFd, ADoor.Seen, "  Goodbye, " + AGreeted + ". Returning to the BBS...\r\n"))
      << ADoor.Seen;
}

// The BBS takes the caller back on its own copy of the socket, both ways.
void BbsTalksToCaller(TDoorProgram& ADoor) {
  const std::string Back = "Back at the BBS";
  ASSERT_EQ(send(ADoor.Bbs, Back.data(), Back.size(), MSG_NOSIGNAL), static_cast<ssize_t>(Back.size()));
  std::string Got;
  ASSERT_TRUE(WaitFor(ADoor.Caller, Got, Back, 2000));
  EXPECT_EQ(Got, Back);  // nothing of the door came after its goodbye
  ASSERT_EQ(send(ADoor.Caller, "x", 1, MSG_NOSIGNAL), 1);
  char Byte = 0;
  ASSERT_EQ(recv(ADoor.Bbs, &Byte, 1, 0), 1);
  EXPECT_EQ(Byte, 'x');
}

std::string WriteDropFile(const std::filesystem::path& APath, const std::vector<std::string>& ALines) {
  std::string Text;
  for (const std::string& Line : ALines) Text += Line + "\r\n";
  WriteWholeFile(APath, Text);
  return APath.string();
}

std::vector<std::string> Door32(int AComType, const std::string& AHandle) {
  return {
      std::to_string(AComType), AHandle, "38400", "Test BBS", "7", "Jane Doe", "jd", "20", "60", "1", "3"};
}

// DOOR.SYS with the link's descriptor as its port number and the given seconds left.
std::vector<std::string> DoorSys(int ADoorFd, const std::string& ASeconds) {
  std::vector<std::string> Lines(52);
  Lines[0] = "COM" + std::to_string(ADoorFd) + ":";
  Lines[3] = "2";
  Lines[9] = "Sam Caller";
  Lines[17] = ASeconds;
  Lines[19] = "GR";
  return Lines;
}

TEST(ExampleDoor, SocketLinkFromTheCommandLine) {
  TDoorProgram Door = StartDoor({"-N1", "-S{fd}"});
  ASSERT_TRUE(WaitFor(Door.Caller, Door.Seen, kAnnouncements + "\x1b[2J\x1b[1;1f"));
  EXPECT_EQ(Door.Seen.find(kAnnouncements), 0u);
  PlaySession(Door, "", "Ann\r", "Ann", Door.Caller, Door.Caller);
  EXPECT_EQ(WaitExit(Door), 0);
  // The sysop's console showed the status bar (drawn before each menu).
  const std::string Console = ReadRest(Door.Output);
  EXPECT_NE(Console.find("Wicket example door"), std::string::npos) << Console;
  EXPECT_NE(Console.find("Idle: 00:0"), std::string::npos) << Console;
  EXPECT_TRUE(Console.find("Left: 01:00:00") != std::string::npos ||
              Console.find("Left: 00:59:5") != std::string::npos)
      << Console;
  BbsTalksToCaller(Door);
  CloseAll(Door);
}

TEST(ExampleDoor, SocketLinkNamedByADoor32File) {
  TTempDir Dir;
  const std::filesystem::path Drop = Dir.Path / "DOOR32.SYS";
  TDoorProgram Door = StartDoor({"-D" + Drop.string()}, TConsole::Pipes, [&](int ADoorFd) {
    WriteDropFile(Drop, Door32(2, std::to_string(ADoorFd)));
  });
  ASSERT_TRUE(WaitFor(Door.Caller, Door.Seen, kAnnouncements));
  PlaySession(Door, "jd", "\r", "jd", Door.Caller, Door.Caller);
  EXPECT_NE(Door.Seen.find("Wicket example door\x1b[0;37m\x1b[40m\x1b[40m, node 3"), std::string::npos);
  EXPECT_EQ(WaitExit(Door), 0);
  BbsTalksToCaller(Door);
  CloseAll(Door);
}

TEST(ExampleDoor, StdioModeOnPipes) {
  TDoorProgram Door = StartDoor({"-S-1", "-N4"});
  PlaySession(Door, "", "Bo\r", "Bo", Door.Output, Door.Input);
  EXPECT_EQ(WaitExit(Door), 0);
  // No telnet announcements and no status bar in the caller's stream.
  EXPECT_EQ(Door.Seen.find('\xFF'), std::string::npos);
  EXPECT_EQ(Door.Seen.find("Idle:"), std::string::npos);
  CloseAll(Door);
}

TEST(ExampleDoor, StdioModeEndsWithCodeZeroWhenTheBbsDropsBothPipes) {
  TDoorProgram Door = StartDoor({"-S-1", "-N4"});
  ASSERT_TRUE(WaitFor(Door.Output, Door.Seen, "Your name:"));
  close(Door.Output);  // the door's next writes find no reader: no SIGPIPE may kill it
  Door.Output = -1;
  Send(Door.Input, "Bo\r");
  close(Door.Input);
  Door.Input = -1;
  const auto Dropped = TClock::now();
  EXPECT_EQ(WaitExit(Door), 0);
  EXPECT_LT(MsSince(Dropped), 1000);
  CloseAll(Door);
}

TEST(ExampleDoor, UsageScreenWithTheProgramsOwnName) {
  for (const char* Option : {"/?", "-?", "-S1000", "-D"}) {
    TDoorProgram Door = StartDoor({Option});
    EXPECT_EQ(WaitExit(Door), 0) << Option;
    EXPECT_EQ(ReadRest(Door.Output),
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
    CloseAll(Door);
  }
}

// Answers the console's question for the cursor position, as a terminal would.
void AnswerCursorQuestion(TDoorProgram& ADoor) {
  ASSERT_TRUE(WaitFor(ADoor.Output, ADoor.Seen, "\x1b[6n"));
  Send(ADoor.Output, "\x1b[1;1R");
}

bool SameMode(const termios& A, const termios& B) {
  return A.c_iflag == B.c_iflag && A.c_oflag == B.c_oflag && A.c_lflag == B.c_lflag && A.c_cflag == B.c_cflag;
}

TEST(ExampleDoor, LocalLoginOnAPseudoTerminal) {
  TDoorProgram Door = StartDoor({"-N7"}, TConsole::Pty);
  termios Cooked{};
  ASSERT_EQ(tcgetattr(Door.Output, &Cooked), 0);
  AnswerCursorQuestion(Door);
  ASSERT_TRUE(WaitFor(Door.Output, Door.Seen, "  LOCAL LOGIN - FOR NODE 7")) << Door.Seen;
  ASSERT_TRUE(WaitFor(Door.Output, Door.Seen, "Run wicket-example /? for command-line usage help"))
      << Door.Seen;
  ASSERT_TRUE(WaitFor(Door.Output, Door.Seen, "SYSOP" + std::string(35, ' ') + "\x1b[35D")) << Door.Seen;
  termios Raw{};
  ASSERT_EQ(tcgetattr(Door.Output, &Raw), 0);
  EXPECT_EQ(Raw.c_lflag & (ICANON | ECHO | ISIG), 0u);  // raw while the door runs
  // Ctrl-Y and Enter: a name is required, so the prompt comes again.
  Send(Door.Output, "\x19\r");
  Door.Seen.clear();
  ASSERT_TRUE(WaitFor(Door.Output, Door.Seen, "Name or handle")) << Door.Seen;
  Send(Door.Output, "\x19Sam Sysop\r");
  // The example then offers the login name as its default: Enter takes it.
  PlaySession(Door, "Sam Sysop", "\r", "Sam Sysop", Door.Output, Door.Output);
  EXPECT_EQ(WaitExit(Door), 0);
  termios After{};
  ASSERT_EQ(tcgetattr(Door.Output, &After), 0);
  EXPECT_TRUE(SameMode(After, Cooked));
  CloseAll(Door);
}

TEST(ExampleDoor, CarrierLossEndsTheRunWithCodeZero) {
  TDoorProgram Door = StartDoor({"-N1", "-S{fd}"});
  ASSERT_TRUE(WaitFor(Door.Caller, Door.Seen, "Your name:"));
  close(Door.Caller);  // the caller hangs up; the BBS keeps its copy
  Door.Caller = -1;
  const auto Dropped = TClock::now();
  std::string Console;
  ASSERT_TRUE(WaitFor(Door.Output, Console, "   Caller Dropped Carrier.  Returning To BBS...\n", 3000));
  EXPECT_LT(MsSince(Dropped), 1500);
  EXPECT_EQ(WaitExit(Door), 0);  // not 128 + SIGPIPE, though the exit handler writes on
  EXPECT_LT(MsSince(Dropped), 1500 + 2500 + 1000);
  CloseAll(Door);
}

struct TLimitCase {
  const char* What;
  std::vector<std::string> ExtraArguments;
  std::string Seconds;  // line 18 of DOOR.SYS
  std::string Message;
  double AtLeastMs;
};

TEST(ExampleDoor, IdleAndTimeLimitsFromADoorSysEndTheRun) {
  const TLimitCase Cases[] = {
      {"idle limit of 1 s from the door's own -I option",
       {"-I1"},
       "60",
       "  Idle Time Limit Exceeded.  Returning To BBS...\r\n",
       2000},
      {"2 seconds left in DOOR.SYS", {}, "2", "  Your Time Has Expired.  Returning To BBS...\r\n", 2000},
  };
  for (const TLimitCase& Case : Cases) {
    TTempDir Dir;
    const std::filesystem::path Drop = Dir.Path / "DOOR.SYS";
    std::vector<std::string> Arguments = Case.ExtraArguments;
    Arguments.push_back("-D" + Drop.string());
    TDoorProgram Door = StartDoor(Arguments, TConsole::Pipes,
                                  [&](int ADoorFd) { WriteDropFile(Drop, DoorSys(ADoorFd, Case.Seconds)); });
    ASSERT_TRUE(WaitFor(Door.Caller, Door.Seen, "Your name:")) << Case.What;
    EXPECT_NE(Door.Seen.find("node 2"), std::string::npos) << Case.What;
    // The caller says nothing: the stop speaks to them in bright white on a clear screen.
    ASSERT_TRUE(WaitFor(Door.Caller, Door.Seen, "\x1b[2J\x1b[1;1f\r\n" + Case.Message, 6000))
        << Case.What << Door.Seen;
    EXPECT_EQ(WaitExit(Door), 0) << Case.What;
    EXPECT_GE(MsSince(Door.Start), Case.AtLeastMs + 2500) << Case.What;
    // Then the exit handler leaves the caller's terminal in grey at the bottom left.
    ASSERT_TRUE(WaitFor(Door.Caller, Door.Seen, "\x1b[255B\x1b[255D", 1000)) << Case.What;
    CloseAll(Door);
  }
}

TEST(ExampleDoor, StdioDoorOnACookedPtyEndsCleanlyWhenTheCallerHangsUp) {
  for (const bool CloseMaster : {false, true}) {
    const char* What = CloseMaster ? "pty master closed" : "SIGHUP";
    TDoorProgram Door = StartDoor({"-N1", "-S-1"}, TConsole::Pty);
    termios Cooked{};
    ASSERT_EQ(tcgetattr(Door.Output, &Cooked), 0);
    ASSERT_NE(Cooked.c_lflag & ICANON, 0u);
    // The test keeps a descriptor of the terminal to read its mode after the door has gone.
    const int Slave = open(ptsname(Door.Output), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(Slave, 0);
    AnswerCursorQuestion(Door);
    ASSERT_TRUE(WaitFor(Door.Output, Door.Seen, "Your name:")) << What;
    termios Raw{};
    ASSERT_EQ(tcgetattr(Slave, &Raw), 0);
    EXPECT_EQ(Raw.c_lflag & (ICANON | ECHO | ISIG | IEXTEN), 0u) << What;
    EXPECT_EQ(Raw.c_iflag & (ICRNL | IXON), 0u) << What;
    EXPECT_EQ(Raw.c_oflag & OPOST, 0u) << What;

    const auto HungUp = TClock::now();
    if (CloseMaster) {
      close(Door.Output);
      Door.Output = -1;
    } else {
      kill(Door.Pid, SIGHUP);
    }
    EXPECT_EQ(WaitExit(Door), 0) << What;
    EXPECT_LT(MsSince(HungUp), 1000) << What;
    // A terminal whose master has gone is hung up for good and has no mode left to read.
    termios After{};
    if (!CloseMaster) {
      ASSERT_EQ(tcgetattr(Slave, &After), 0);
      EXPECT_TRUE(SameMode(After, Cooked)) << What;
    }
    close(Slave);
    CloseAll(Door);
  }
}

}  // namespace
