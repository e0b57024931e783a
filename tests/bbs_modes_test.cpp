// The reader run the way real BBS packages run a door. Most start a "stdio" door on a
// pseudo-terminal left in its usual cooked mode (echo, line editing, CR LF added to output) and
// tell the door that the caller has gone with SIGHUP or by closing the master; others hand the
// caller's socket down, by number on the command line or inside a DOOR32.SYS that they write
// each in their own way (upper or lower case name, CR LF or LF, blanks behind names, an empty
// line at the end, huge minute counts, comm type 0 or handle -1 for stdio). What a sysop relies
// on: the caller's screen gets exactly the door's bytes, the terminal is put back the way the
// BBS left it on every way out, a dropped caller ends the door at once with exit code 0, and
// every drop file a BBS writes leads to the mode it means.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "feedserver.h"
#include "readerrun.h"
#include "screenmodel.h"
#include "testsupport.h"

namespace fs = std::filesystem;
using TClock = std::chrono::steady_clock;

namespace {

const std::string CMD = "[A]bout   [N]ext   [P]revious   [Q]uit";
const std::string TELNET_OPEN("\xFF\xFB\x00\xFF\xFB\x01", 6);
const std::string CURSOR_QUESTION = "\x1B[6n";
// What a caller's terminal answers to the question above (cursor in the top left corner).
const std::string CURSOR_ANSWER = "\x1B[1;1R";

double MsSince(TClock::time_point AStart) {
  return std::chrono::duration<double, std::milli>(TClock::now() - AStart).count();
}

size_t Count(const std::string& AText, const std::string& APart) {
  size_t N = 0;
  for (size_t At = AText.find(APart); At != std::string::npos; At = AText.find(APart, At + 1)) ++N;
  return N;
}

// A run folder as a sysop sets one up: the bundled skins, settings naming one of them, and the
// bundled sample feed served from loopback.
struct TSite {
  TTempDir Dir;
  TFeedServer Server;
  size_t Items = 0;

  explicit TSite(TFeedStall AStall = fsNone) {
    fs::create_directory(Dir.Path / "skins");
    for (const auto& Entry : fs::directory_iterator(SourceDir() / "skins"))
      if (Entry.path().extension() == ".ans")
        fs::copy_file(Entry.path(), Dir.Path / "skins" / Entry.path().filename());
    const std::string Feed = ReadWholeFile(SourceDir() / "samples" / "bbs-news.xml");
    Items = Count(Feed, "<item>");
    StartFeedServer(Server, HttpOk(Feed), AStall);
    WriteWholeFile(Dir.Path / "tamblin.cfg",
                   SettingsText(FeedServerUrl(Server, "/bbs-news.xml"), "console.ans"));
  }
  // "(01/12)": the counter on item AIndex (from 1).
  std::string Counter(size_t AIndex) const {
    char Text[32];
    std::snprintf(Text, sizeof Text, "(%02zu/%zu)", AIndex, Items);
    return Text;
  }
};

enum TConsoleKind {
  ckPipes,      // standard input and output are pipes
  ckPty,        // the slave of a pty, the door's controlling terminal, in cooked mode
  ckPtyNoCtty,  // the same pty, but not the door's controlling terminal (no SIGHUP from it)
};

// One running door program and the BBS's ends of everything it was given.
struct TDoor {
  pid_t Pid = -1;
  int Screen = -1;  // pty master, or the read end of standard output
  int Slave = -1;   // the BBS's own hold on the pty slave, to read its mode at any time
  int Keys = -1;    // write end of standard input (pipes)
  int Caller = -1;  // the caller's end of the link
  int Bbs = -1;     // the BBS's copy of the door's end of the link
  std::string Shown, Wire;
  bool Pty = false;
  size_t CursorAnswers = 0;  // one answer per question, across every Pump of the run
  bool AnswerCursor = true;  // false: a terminal that never answers the cursor question
  int ExitCode = -1;
  TClock::time_point Start;
  fs::path ErrFile;

  TDoor() = default;
  TDoor(const TDoor&) = delete;
  TDoor& operator=(const TDoor&) = delete;
  ~TDoor() {
    if (Pid > 0) {
      kill(Pid, SIGKILL);
      waitpid(Pid, nullptr, 0);
    }
    for (int Fd : {Screen, Slave, Keys, Caller, Bbs})
      if (Fd >= 0) close(Fd);
  }
  std::string Stderr() const { return ReadWholeFile(ErrFile); }
};

// Starts tamblin in ADir with AArgs, where "{fd}" stands for the door's end of a fresh
// socketpair that it inherits. ADropFile, when given, writes a drop file knowing that number.
// AEnv ("NAME=value" each) goes into the door's environment.
void StartDoor(TDoor& ADoor, const fs::path& ADir, TConsoleKind AConsole, std::vector<std::string> AArgs,
               const std::function<void(int ADoorFd)>& ADropFile = {},
               const std::vector<std::string>& AEnv = {}) {
  int Link[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, Link), 0);
  ADoor.Caller = Link[0];
  ADoor.Bbs = Link[1];
  if (ADropFile) ADropFile(Link[1]);
  for (std::string& Arg : AArgs)
    for (size_t At = Arg.find("{fd}"); At != std::string::npos; At = Arg.find("{fd}"))
      Arg.replace(At, 4, std::to_string(Link[1]));
  int In[2] = {-1, -1}, Out[2] = {-1, -1};
  std::string SlaveName;
  ADoor.Pty = AConsole != ckPipes;
  if (!ADoor.Pty) {
    ASSERT_EQ(pipe2(In, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(Out, O_CLOEXEC), 0);
  } else {
    ADoor.Screen = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(ADoor.Screen, 0);
    ASSERT_EQ(grantpt(ADoor.Screen), 0);
    ASSERT_EQ(unlockpt(ADoor.Screen), 0);
    SlaveName = ptsname(ADoor.Screen);
    winsize Size{};
    Size.ws_row = 25;
    Size.ws_col = 80;
    ioctl(ADoor.Screen, TIOCSWINSZ, &Size);
    ADoor.Slave = open(SlaveName.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(ADoor.Slave, 0);
  }
  const std::string Program = (BuildDir() / "tamblin").string();
  std::vector<char*> Argv = {const_cast<char*>(Program.c_str())};
  for (std::string& Arg : AArgs) Argv.push_back(Arg.data());
  Argv.push_back(nullptr);
  ADoor.ErrFile = ADir / "door-stderr.txt";
  const std::string Dir = ADir.string(), ErrName = ADoor.ErrFile.string();
  std::vector<std::string> Env = TamblinEnvironment(AEnv);
  const std::vector<char*> Envp = EnvironmentPointers(Env);

  ADoor.Start = TClock::now();
  ADoor.Pid = fork();
  ASSERT_GE(ADoor.Pid, 0);
  if (ADoor.Pid == 0) {
    fcntl(Link[1], F_SETFD, 0);  // inherited, as from a BBS
    setsid();
    if (ADoor.Pty) {
      const int Slave = open(SlaveName.c_str(), O_RDWR | (AConsole == ckPty ? 0 : O_NOCTTY));
      if (AConsole == ckPty) ioctl(Slave, TIOCSCTTY, 0);
      dup2(Slave, 0);
      dup2(Slave, 1);
    } else {
      dup2(In[0], 0);
      dup2(Out[1], 1);
    }
    const int Err = open(ErrName.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(Err, 2);
    if (chdir(Dir.c_str()) != 0) _exit(126);
    execve(Program.c_str(), Argv.data(), Envp.data());
    _exit(127);
  }
  if (!ADoor.Pty) {
    close(In[0]);
    close(Out[1]);
    ADoor.Keys = In[1];
    ADoor.Screen = Out[0];
  }
}

// Reads what the door shows and sends, answering its cursor question as a terminal does,
// until ADone holds, the door has ended and nothing more comes, or ALimitMs passes.
bool Pump(TDoor& ADoor, const std::function<bool()>& ADone, int ALimitMs = 5000) {
  const auto End = TClock::now() + std::chrono::milliseconds(ALimitMs);
  for (;;) {
    if (ADone()) return true;
    if (ADoor.Pty && ADoor.AnswerCursor && Count(ADoor.Shown, CURSOR_QUESTION) > ADoor.CursorAnswers) {
      ++ADoor.CursorAnswers;
      if (ADoor.Screen >= 0) (void)!write(ADoor.Screen, CURSOR_ANSWER.data(), CURSOR_ANSWER.size());
    }
    if (TClock::now() > End) return false;
    std::vector<pollfd> P;
    if (ADoor.Screen >= 0) P.push_back({ADoor.Screen, POLLIN, 0});
    if (ADoor.Caller >= 0) P.push_back({ADoor.Caller, POLLIN, 0});
    if (poll(P.data(), P.size(), 20) <= 0) {
      if (ADoor.ExitCode >= 0) return ADone();  // ended, and everything has been read
      int Status = 0;
      if (ADoor.Pid > 0 && waitpid(ADoor.Pid, &Status, WNOHANG) == ADoor.Pid) {
        ADoor.Pid = -1;
        ADoor.ExitCode = WIFEXITED(Status) ? WEXITSTATUS(Status) : 128 + WTERMSIG(Status);
      }
      continue;
    }
    for (const pollfd& Q : P) {
      if (Q.revents == 0) continue;
      char Buffer[8192];
      const ssize_t Got = read(Q.fd, Buffer, sizeof Buffer);
      std::string& Into = Q.fd == ADoor.Caller ? ADoor.Wire : ADoor.Shown;
      if (Got > 0) {
        Into.append(Buffer, static_cast<size_t>(Got));
      } else {  // end of file, or EIO from a pty whose slave is closed
        close(Q.fd);
        (Q.fd == ADoor.Caller ? ADoor.Caller : ADoor.Screen) = -1;
      }
    }
  }
}

bool PumpUntilShown(TDoor& ADoor, const std::string& AText, size_t ATimes = 1, int ALimitMs = 5000) {
  return Pump(
      ADoor, [&] { return Count(ADoor.Shown, AText) >= ATimes; }, ALimitMs);
}
bool PumpUntilOnWire(TDoor& ADoor, const std::string& AText, size_t ATimes = 1, int ALimitMs = 5000) {
  return Pump(
      ADoor, [&] { return Count(ADoor.Wire, AText) >= ATimes; }, ALimitMs);
}
// The exit code once the door has ended, or -1 when it is still there after ALimitMs.
int PumpUntilExit(TDoor& ADoor, int ALimitMs) {
  Pump(
      ADoor, [&] { return ADoor.ExitCode >= 0; }, ALimitMs);
  return ADoor.ExitCode;
}

void Type(int AFd, const std::string& AKeys) {
  ASSERT_EQ(write(AFd, AKeys.data(), AKeys.size()), ssize_t(AKeys.size()));
}

termios ModeOf(int AFd) {
  termios Mode{};
  EXPECT_EQ(tcgetattr(AFd, &Mode), 0);
  return Mode;
}

bool SameMode(const termios& A, const termios& B) {
  return A.c_iflag == B.c_iflag && A.c_oflag == B.c_oflag && A.c_cflag == B.c_cflag &&
         A.c_lflag == B.c_lflag && std::memcmp(A.c_cc, B.c_cc, sizeof A.c_cc) == 0;
}

// What the caller sees at the end of AShown (a stream of screen bytes).
TScreenModel Screen(const std::string& AShown) {
  TScreenModel Model;
  ScreenFeed(Model, AShown);
  return Model;
}

}  // namespace

// The pty as most BBSes leave it: cooked. The door switches it fully raw, so that not one byte
// of its output is changed on the way (ONLCR would turn each CR LF into CR CR LF), and puts the
// BBS's mode back when the caller quits.
TEST(BbsStdioOnPty, DoorOutputReachesTheCallerUntranslatedAndTheModeComesBack) {
  TSite Site;
  // The same run on plain pipes: the door's bytes as it writes them.
  TReaderRunSetup Setup;
  Setup.WorkDir = Site.Dir.Path;
  Setup.Args = {"@tamblin.cfg"};
  Setup.Keys = "nq";
  const TReaderRunResult Piped = RunTamblin(Setup);
  ASSERT_EQ(Piped.ExitCode, 0) << Piped.Stderr;
  ASSERT_GT(Count(Piped.Screen, "\r\n"), 20u);

  TDoor Door;
  StartDoor(Door, Site.Dir.Path, ckPty, {"-S-1", "-N1", "@tamblin.cfg"});
  const termios Cooked = ModeOf(Door.Slave);
  ASSERT_NE(Cooked.c_lflag & ICANON, 0u);
  ASSERT_NE(Cooked.c_lflag & ECHO, 0u);
  ASSERT_NE(Cooked.c_oflag & ONLCR, 0u);

  ASSERT_TRUE(PumpUntilShown(Door, CMD)) << Door.Shown;
  const termios Raw = ModeOf(Door.Slave);
  EXPECT_EQ(Raw.c_lflag & (ICANON | ECHO | ISIG | IEXTEN), 0u);
  EXPECT_EQ(Raw.c_iflag & (ICRNL | INLCR | IGNCR | IXON | ISTRIP), 0u);
  EXPECT_EQ(Raw.c_oflag & OPOST, 0u);
  EXPECT_EQ(Raw.c_cflag & CSIZE, tcflag_t(CS8));

  Type(Door.Screen, "n");
  ASSERT_TRUE(PumpUntilShown(Door, Site.Counter(2))) << ScreenDump(Screen(Door.Shown));
  Type(Door.Screen, "q");
  EXPECT_EQ(PumpUntilExit(Door, 3000), 0) << Door.Stderr();
  EXPECT_TRUE(SameMode(ModeOf(Door.Slave), Cooked));

  // On a terminal the console asks where the cursor is and resets the colours first; after
  // that the caller gets the door's bytes exactly as on the pipes: no echo of the keys, and no
  // CR added before any LF.
  EXPECT_EQ(Door.Shown, CURSOR_QUESTION + "\x1B[m" + Piped.Screen);
  EXPECT_EQ(Count(Door.Shown, "\r\r\n"), 0u);
  EXPECT_EQ(Count(Door.Shown, "\n"), Count(Door.Shown, "\r\n"));
}

// The runs that end by themselves before the first item also give the BBS its mode back: the
// fetch failure (code 0, its line on the caller's screen) and the missing settings file (217,
// the reason on standard error, nothing on the screen but the clear).
TEST(BbsStdioOnPty, RunsThatEndBeforeTheFirstItemRestoreTheTerminal) {
  struct TCase {
    const char* What;
    std::string Settings;
    std::string Arg;
    int Exit;
    std::string OnScreen;
    std::string OnStderr;
  } Cases[] = {
      {"fetch fails", "not a url\n", "@bad.cfg", 0, "Error fetching RSS: Invalid protocol : \"\"", ""},
      {"settings missing", "", "@missing.cfg", 217, "", "Unable to open file \"missing.cfg\""},
  };
  TSite Site;
  for (const TCase& C : Cases) {
    SCOPED_TRACE(C.What);
    if (!C.Settings.empty()) WriteWholeFile(Site.Dir.Path / "bad.cfg", C.Settings);
    TDoor Door;
    StartDoor(Door, Site.Dir.Path, ckPty, {"-S-1", "-N1", C.Arg});
    const termios Cooked = ModeOf(Door.Slave);
    EXPECT_EQ(PumpUntilExit(Door, 5000), C.Exit) << Door.Stderr();
    EXPECT_TRUE(SameMode(ModeOf(Door.Slave), Cooked));
    if (!C.OnScreen.empty()) {
      EXPECT_NE(Door.Shown.find(C.OnScreen), std::string::npos) << Door.Shown;
    }
    EXPECT_NE(Door.Stderr().find(C.OnStderr), std::string::npos) << Door.Stderr();
  }
}

// A caller can leave at any moment of a run, and a BBS learns it in one of these ways: the
// caller's socket closes (the door notices by itself), the BBS sends SIGHUP, or a stdio door's
// pty master closes (here without the kernel's SIGHUP: the pty is not the door's controlling
// terminal, so the door has only the hung-up terminal to go by). Whatever the door is doing
// then, even waiting on a feed server that stalls, it ends within moments with code 0, puts a
// terminal that is still there back in the BBS's mode, and leaves the BBS's copy of the socket
// usable. The table prints how long each end took.
enum THangupPhase {
  hpBeforeSettings,  // as soon as the door is up: the settings are read with the hang-up pending
  hpCursorQuestion,  // the start-up cursor question on a pty, never answered
  hpResolve,         // a host name whose lookup never answers
  hpConnect,         // a listener whose accept queue is full
  hpTlsHandshake,    // a server that accepts and never answers the TLS hello
  hpRequest,         // a server that never reads a request of several megabytes
  hpResponse,        // a server that stops in the middle of the body
  hpPainting,        // a skin of a megabyte and a caller who reads none of it
  hpItems,           // the item loop's key wait
  hpAbout,           // the About view's key wait
};
enum THangupWay { hwSocketClosed, hwSocketSignal, hwPtySignal, hwPtyMasterClosed };

struct THangupCell {
  THangupPhase Phase;
  THangupWay Way;
};

const char* const PHASE_NAMES[] = {"BeforeSettings", "CursorQuestion", "Resolve",  "Connect", "TlsHandshake",
                                   "Request",        "Response",       "Painting", "Items",   "About"};
const char* const WAY_NAMES[] = {"SocketClosed", "SocketSignal", "PtySignal", "PtyMasterClosed"};

std::vector<THangupCell> HangupCells() {
  std::vector<THangupCell> Cells;
  for (int Phase = hpBeforeSettings; Phase <= hpAbout; ++Phase)
    for (int Way = hwSocketClosed; Way <= hwPtyMasterClosed; ++Way)
      if (Phase != hpCursorQuestion || Way >= hwPtySignal)  // only a terminal is asked
        Cells.push_back({THangupPhase(Phase), THangupWay(Way)});
  return Cells;
}

class HangupAtAnyMoment : public ::testing::TestWithParam<THangupCell> {};

TEST_P(HangupAtAnyMoment, EndsAtOnceInOrder) {
  const THangupCell C = GetParam();
  const bool Socket = C.Way <= hwSocketSignal;
  const TFeedStall Stall = C.Phase == hpConnect                                ? fsConnect
                           : C.Phase == hpTlsHandshake || C.Phase == hpRequest ? fsAccept
                           : C.Phase == hpResponse                             ? fsResponse
                                                                               : fsNone;
  TSite Site(Stall);
  if (C.Phase == hpResponse) Site.Server.Response = "HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n<rss>";
  const std::string HostPort = "127.0.0.1:" + std::to_string(Site.Server.Port);
  std::string Url = "http://" + HostPort + "/bbs-news.xml", Skin = "console.ans";
  std::vector<std::string> Env;
  if (C.Phase == hpResolve) {
    Url = "http://feed.stall.test:" + std::to_string(Site.Server.Port) + "/";
    // The lookup goes to a stand-in that never answers for this name; the door's code is its own.
    Env = {"LD_PRELOAD=" + (BuildDir() / "tests" / "libtamblin_stallresolver.so").string(),
           std::string("ASAN_OPTIONS=") + (getenv("ASAN_OPTIONS") ? getenv("ASAN_OPTIONS") : "") +
               ":verify_asan_link_order=0"};
  }
  if (C.Phase == hpTlsHandshake) Url = "https://" + HostPort + "/";
  if (C.Phase == hpRequest) Url += "?" + std::string(8 << 20, 'q');
  if (C.Phase == hpPainting) {
    Skin = "huge.ans";
    std::string Art;
    while (Art.size() < (1u << 20)) Art += std::string(78, '#') + "\r\n";
    WriteWholeFile(Site.Dir.Path / "skins" / Skin, Art);
  }
  WriteWholeFile(Site.Dir.Path / "tamblin.cfg", SettingsText(Url, Skin));
  const fs::path Log = Site.Dir.Path / "door.log";
  Env.push_back("WICKET_LOG_FILE=" + Log.string());

  TDoor Door;
  Door.AnswerCursor = C.Phase != hpCursorQuestion;
  StartDoor(Door, Site.Dir.Path,
            Socket                 ? ckPipes
            : C.Way == hwPtySignal ? ckPty
                                   : ckPtyNoCtty,
            {Socket ? "-S{fd}" : "-S-1", "-N1", "@tamblin.cfg"}, {}, Env);
  const termios Cooked = Door.Pty ? ModeOf(Door.Slave) : termios{};
  std::string& Seen = Socket ? Door.Wire : Door.Shown;
  // The door is up: the link announced, or the cursor question asked (and answered).
  const auto Up = [&] {
    return Socket ? Count(Door.Wire, TELNET_OPEN) > 0 : Door.CursorAnswers > 0 || !Door.AnswerCursor;
  };
  const auto Settle = [] { std::this_thread::sleep_for(std::chrono::milliseconds(300)); };
  switch (C.Phase) {
    case hpBeforeSettings:
      ASSERT_TRUE(Pump(Door, Up));
      break;
    case hpCursorQuestion:
      ASSERT_TRUE(PumpUntilShown(Door, CURSOR_QUESTION));
      Settle();
      break;
    case hpResolve:
    case hpConnect:
      // Top left on black over the skin: the last output before the fetch.
      ASSERT_TRUE(Pump(
          Door, [&] { return Seen.ends_with("\x1B[0;0f\x1B[40m"); }, 10000))
          << Seen << Door.Stderr();
      Settle();
      break;
    case hpTlsHandshake:
    case hpRequest:
    case hpResponse:
      ASSERT_TRUE(Pump(
          Door, [&] { return Site.Server.Accepted > 0; }, 10000));
      Settle();
      break;
    case hpPainting:
      ASSERT_TRUE(Pump(Door, Up));
      std::this_thread::sleep_for(std::chrono::milliseconds(500));  // reading nothing
      break;
    case hpItems:
    case hpAbout:
      ASSERT_TRUE(Pump(Door, [&] { return Count(Seen, CMD) > 0; }));
      if (C.Phase == hpAbout) {
        Type(Socket ? Door.Caller : Door.Screen, "a");
        ASSERT_TRUE(Pump(Door, [&] { return Count(Seen, "*** Press Any Key To Continue Reading ***") > 0; }));
      }
      break;
  }
  ASSERT_LT(Door.ExitCode, 0) << "ended before the hang-up: " << Door.Stderr();
  const size_t Before = Seen.size();
  const auto HungUp = TClock::now();
  if (C.Way == hwSocketClosed) {
    close(Door.Caller);
    Door.Caller = -1;
  } else if (C.Way == hwPtyMasterClosed) {
    close(Door.Screen);
    Door.Screen = -1;
  } else {
    kill(Door.Pid, SIGHUP);
  }
  const int Exit = PumpUntilExit(Door, 15000);
  const double Took = MsSince(HungUp);
  std::printf("[ hang-up  ] %-15s %-15s ended after %5.0f ms\n", PHASE_NAMES[C.Phase], WAY_NAMES[C.Way],
              Took);
  EXPECT_EQ(Exit, 0) << Door.Stderr();
  // The connect has a 3-second bound of its own, so a door that sat it out would still be
  // inside 5 s; its cells get a bound that only a door that woke can meet.
  EXPECT_LT(Took, C.Phase == hpConnect ? 2500 : 5000);
  // The fetch was given up, not failed: nothing tells a caller who has gone about it.
  EXPECT_EQ(Count(Seen, "Error fetching RSS"), 0u) << Seen.substr(Before);
  if (fs::exists(Log)) {
    EXPECT_EQ(ReadWholeFile(Log).find("Error fetching RSS"), std::string::npos) << ReadWholeFile(Log);
  }
  if (C.Way == hwPtySignal) {
    EXPECT_TRUE(SameMode(ModeOf(Door.Slave), Cooked));
  }
  if (C.Way == hwSocketSignal) {
    // The caller is still there: left in grey with the cursor at the bottom left, and the BBS's
    // copy of the socket reaches them after the door.
    const std::string Reset = Door.Wire.substr(Before);
    EXPECT_NE(Reset.find("\x1B[0;37m"), std::string::npos) << Reset;
    EXPECT_TRUE(Reset.ends_with("\x1B[255B\x1B[255D")) << Reset;
    const std::string Back = "Back at the BBS\r\n";
    ASSERT_EQ(write(Door.Bbs, Back.data(), Back.size()), ssize_t(Back.size()));
    EXPECT_TRUE(PumpUntilOnWire(Door, Back));
  }
}

INSTANTIATE_TEST_SUITE_P(Table, HangupAtAnyMoment, ::testing::ValuesIn(HangupCells()), [](const auto& AInfo) {
  return std::string(PHASE_NAMES[AInfo.param.Phase]) + "_" + WAY_NAMES[AInfo.param.Way];
});

// A BBS takes the line back the moment a door ends (it repaints its menu at once, or closes the
// line with keys unread), so the last line of a run that ends by itself must have reached the
// caller by then, also when the caller's side reads slowly: the door waits for that, a
// bounded while, before it ends.
TEST(BbsSocketLink, LastLineReachesASlowCallerBeforeTheDoorEnds) {
  TSite Site;
  Site.Server.Response = "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n";
  TDoor Door;
  StartDoor(Door, Site.Dir.Path, ckPipes, {"-S{fd}", "-N3", "@tamblin.cfg"}, {}, {"WICKET_DRAIN_MS=2000"});
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));  // the caller reads nothing yet
  EXPECT_EQ(waitpid(Door.Pid, nullptr, WNOHANG), 0) << "the door ended before its caller read the last line";
  EXPECT_TRUE(PumpUntilOnWire(Door, "Error fetching RSS: Unexpected response status code: 404\r\n"));
  EXPECT_EQ(PumpUntilExit(Door, 5000), 0) << Door.Stderr();
}

namespace {

// DOOR32.SYS with the given first two lines and minutes left, in the layout real BBSes write:
// type, handle, baud, BBS name, user record, real name, alias, security, minutes, emulation,
// node. ATrail goes behind each text line; AEnd is the line end.
std::string Door32(const std::string& AType, const std::string& AHandle, const std::string& AMinutes,
                   const std::string& AEnd = "\r\n", const std::string& ATrail = "") {
  const std::string Lines[] = {AType,
                               AHandle,
                               "115200",
                               "Lantern Hollow BBS" + ATrail,
                               "42",
                               "Ada Lovelace" + ATrail,
                               "Countess" + ATrail,
                               "100",
                               AMinutes,
                               "1",
                               "2"};
  std::string Text;
  for (const std::string& Line : Lines) Text += Line + AEnd;
  return Text;
}

}  // namespace

// Drop files as BBS packages write them. Socket cases: the door speaks telnet on the handle
// and leaves standard output alone. Stdio cases (comm type 0, or handle -1): the screen goes to
// standard output, keys come from standard input, and the socket stays silent.
TEST(BbsDropFiles, EveryDoor32VariantLeadsToTheModeItMeans) {
  struct TCase {
    const char* What;
    const char* Name;  // the file's name in the node folder
    std::function<std::string(const std::string& AFd)> Text;
    bool Socket;
  } Cases[] = {
      {"comm type 2, socket, CR LF", "DOOR32.SYS", [](const std::string& F) { return Door32("2", F, "60"); },
       true},
      {"lower-case name, LF", "door32.sys", [](const std::string& F) { return Door32("2", F, "60", "\n"); },
       true},
      {"CR only", "Door32.Sys", [](const std::string& F) { return Door32("2", F, "60", "\r"); }, true},
      {"blanks behind the names, an empty extra line", "DOOR32.SYS",
       [](const std::string& F) { return Door32("2", F, "60", "\r\n", "   ") + "\r\n"; }, true},
      {"comm type 1 (serial) with a descriptor", "DOOR32.SYS",
       [](const std::string& F) { return Door32("1", F, "60"); }, true},
      {"minutes left beyond what seconds can hold", "DOOR32.SYS",
       [](const std::string& F) { return Door32("2", F, "99999999"); }, true},
      {"minutes left at the 32-bit maximum", "DOOR32.SYS",
       [](const std::string& F) { return Door32("2", F, "2147483647"); }, true},
      {"comm type 0 (local), handle -1", "DOOR32.SYS",
       [](const std::string&) { return Door32("0", "-1", "60"); }, false},
      {"comm type 0 with a descriptor anyway", "DOOR32.SYS",
       [](const std::string& F) { return Door32("0", F, "60"); }, false},
      {"comm type 2, handle -1", "DOOR32.SYS", [](const std::string&) { return Door32("2", "-1", "60"); },
       false},
  };
  TSite Site;
  for (const TCase& C : Cases) {
    SCOPED_TRACE(C.What);
    const fs::path Node = Site.Dir.Path / "node2";
    fs::create_directories(Node);
    const fs::path DropFile = Node / C.Name;
    TDoor Door;
    StartDoor(Door, Site.Dir.Path, ckPipes, {"-D" + DropFile.string(), "@tamblin.cfg"},
              [&](int AFd) { WriteWholeFile(DropFile, C.Text(std::to_string(AFd))); });
    if (C.Socket) {
      ASSERT_TRUE(PumpUntilOnWire(Door, CMD)) << Door.Stderr() << ScreenDump(Screen(Door.Shown));
      EXPECT_EQ(Door.Wire.compare(0, TELNET_OPEN.size(), TELNET_OPEN), 0);
      Type(Door.Caller, "n");
      // The time limit must not end the run, however large or odd the minutes were.
      ASSERT_TRUE(PumpUntilOnWire(Door, Site.Counter(2))) << ScreenDump(Screen(TelnetPayload(Door.Wire)));
      Type(Door.Caller, "q");
      EXPECT_EQ(PumpUntilExit(Door, 4000), 0) << Door.Stderr();
      EXPECT_EQ(Door.Shown, "");
      EXPECT_EQ(TelnetPayload(Door.Wire).find("Your Time Has Expired"), std::string::npos);
    } else {
      ASSERT_TRUE(PumpUntilShown(Door, CMD)) << Door.Stderr() << Door.Wire;
      Type(Door.Keys, "n");
      ASSERT_TRUE(PumpUntilShown(Door, Site.Counter(2)));
      Type(Door.Keys, "q");
      EXPECT_EQ(PumpUntilExit(Door, 4000), 0) << Door.Stderr();
      EXPECT_EQ(Door.Wire, "");
    }
    fs::remove_all(Node);
  }
}
