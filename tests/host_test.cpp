// End-to-end tests of wicket-host: the real program listening on a loopback port, plain TCP
// callers, and real doors (the reader, and small shell doors that write on their inherited
// descriptor). What a caller and a door author rely on: the door's own telnet bytes come first,
// the host's line comes after the door has ended, the node and time limits, the drop file, the
// UTF-8 relay, and that the host leaves no child, no zombie, no descriptor and no folder behind.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "feedserver.h"
#include "readerrun.h"
#include "testsupport.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using TClock = std::chrono::steady_clock;

namespace {

const std::string BACK = "Back at the host.\r\n";
const std::string BUSY = "All nodes are busy. Please call back later.\r\n";

// wicket-host as a child of the test, its log in a file, its TMPDIR a folder of its own.
struct THost {
  pid_t Pid = -1;
  int Port = 0;
  fs::path Log;
  TTempDir Dir;
  rlim_t FdLimit = 0;  // the host's RLIMIT_NOFILE when not 0

  // Where the host keeps its session folders.
  fs::path DropBase() const { return Dir.Path / "tmp" / ("wicket-host-" + std::to_string(getuid())); }

  THost() = default;
  THost(const THost&) = delete;
  THost& operator=(const THost&) = delete;
  // Stopped as a sysop would, so that it cleans up; killed only if that fails.
  ~THost() {
    if (Pid <= 0) return;
    kill(Pid, SIGTERM);
    for (int Try = 0; Try < 500; ++Try) {
      if (waitpid(Pid, nullptr, WNOHANG) == Pid) return;
      usleep(10000);
    }
    kill(Pid, SIGKILL);
    waitpid(Pid, nullptr, 0);
  }
  std::string LogText() const { return ReadWholeFile(Log); }
};

bool WaitFor(const std::function<bool()>& ACondition, std::chrono::milliseconds ALimit = 10s) {
  const auto End = TClock::now() + ALimit;
  while (!ACondition()) {
    if (TClock::now() > End) return false;
    std::this_thread::sleep_for(10ms);
  }
  return true;
}

size_t CountOf(const std::string& AText, const std::string& APart) {
  size_t Count = 0;
  for (size_t At = AText.find(APart); At != std::string::npos; At = AText.find(APart, At + 1)) ++Count;
  return Count;
}

// Starts the host on a free port with AOptions and the door command ADoor; returns once it
// listens (the port comes from its first log line).
void StartHost(THost& AHost, const std::vector<std::string>& AOptions,
               const std::vector<std::string>& ADoor) {
  AHost.Log = AHost.Dir.Path / "host.log";
  std::vector<std::string> Args = {(BuildDir() / "wicket-host").string(), "--listen", "127.0.0.1:0"};
  Args.insert(Args.end(), AOptions.begin(), AOptions.end());
  Args.push_back("--");
  Args.insert(Args.end(), ADoor.begin(), ADoor.end());
  std::vector<char*> Argv;
  for (auto& Arg : Args) Argv.push_back(Arg.data());
  Argv.push_back(nullptr);
  std::vector<std::string> Env =
      TamblinEnvironment({"TMPDIR=" + (AHost.Dir.Path / "tmp").string(), "WICKET_HOST_LINGER_MS=100"});
  const std::vector<char*> Envp = EnvironmentPointers(Env);
  fs::create_directories(AHost.Dir.Path / "tmp");
  const std::string LogPath = AHost.Log.string();
  const rlimit Limit = {AHost.FdLimit, AHost.FdLimit};
  AHost.Pid = fork();
  ASSERT_GE(AHost.Pid, 0);
  if (AHost.Pid == 0) {
    const int LogFd = open(LogPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int Null = open("/dev/null", O_RDWR);
    dup2(Null, 0);
    dup2(Null, 1);
    dup2(LogFd, 2);
    // Nothing of the test's own, so that a descriptor limit means the same on every run.
    close_range(3, ~0U, 0);
    if (Limit.rlim_cur > 0) setrlimit(RLIMIT_NOFILE, &Limit);
    execve(Argv[0], Argv.data(), Envp.data());
    _exit(127);
  }
  std::smatch Match;
  const std::regex Listening("listening on 127\\.0\\.0\\.1:([0-9]+)");
  ASSERT_TRUE(WaitFor([&] {
    std::error_code Ec;
    if (!fs::exists(AHost.Log, Ec)) return false;
    const std::string Text = AHost.LogText();
    if (!std::regex_search(Text, Match, Listening)) return false;
    AHost.Port = std::stoi(Match[1]);
    return true;
  })) << "the host never listened";
}

// Waits for the host to end; its exit status, or -1 if it did not end in time.
int WaitHostExit(THost& AHost, std::chrono::milliseconds ALimit) {
  int Status = 0;
  int Result = -1;
  WaitFor(
      [&] {
        if (waitpid(AHost.Pid, &Status, WNOHANG) != AHost.Pid) return false;
        AHost.Pid = -1;
        Result = WIFEXITED(Status) ? WEXITSTATUS(Status) : 128 + WTERMSIG(Status);
        return true;
      },
      ALimit);
  return Result;
}

int Connect(int APort) {
  const int Fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in Address{};
  Address.sin_family = AF_INET;
  Address.sin_port = htons(static_cast<uint16_t>(APort));
  Address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(Fd, reinterpret_cast<sockaddr*>(&Address), sizeof(Address)) != 0) {
    close(Fd);
    return -1;
  }
  return Fd;
}

// A caller: reads into Wire until a marker is there (ACount times) or the line closes.
struct TCaller {
  int Fd = -1;
  std::string Wire;
  bool Closed = false;

  explicit TCaller(int APort) : Fd(Connect(APort)) {}
  ~TCaller() {
    if (Fd >= 0) close(Fd);
  }
  TCaller(const TCaller&) = delete;
  TCaller& operator=(const TCaller&) = delete;

  bool ReadOnce(int AWaitMs) {
    pollfd P = {Fd, POLLIN, 0};
    if (poll(&P, 1, AWaitMs) <= 0) return false;
    char Buffer[4096];
    const ssize_t N = recv(Fd, Buffer, sizeof(Buffer), 0);
    if (N <= 0) {
      Closed = true;
      return false;
    }
    Wire.append(Buffer, static_cast<size_t>(N));
    return true;
  }
  bool Until(const std::string& AMarker, size_t ACount = 1, std::chrono::milliseconds ALimit = 15s) {
    const auto End = TClock::now() + ALimit;
    while (CountOf(Wire, AMarker) < ACount) {
      if (Closed || TClock::now() > End) return false;
      ReadOnce(50);
    }
    return true;
  }
  bool UntilClosed(std::chrono::milliseconds ALimit = 15s) {
    const auto End = TClock::now() + ALimit;
    while (!Closed && TClock::now() < End) ReadOnce(50);
    return Closed;
  }
  void Send(const std::string& AText) const {
    ASSERT_EQ(send(Fd, AText.data(), AText.size(), 0), ssize_t(AText.size()));
  }
};

int CountFds(pid_t APid) {
  int Count = 0;
  std::error_code Ec;
  for (auto It = fs::directory_iterator("/proc/" + std::to_string(APid) + "/fd", Ec);
       !Ec && It != fs::directory_iterator(); It.increment(Ec))
    ++Count;
  return Count;
}

// The children of APid that exist now, with their state letter (Z: a zombie not yet reaped).
std::map<pid_t, char> ChildrenOf(pid_t APid) {
  std::map<pid_t, char> Children;
  std::error_code Ec;
  for (const auto& Entry : fs::directory_iterator("/proc", Ec)) {
    const std::string Name = Entry.path().filename().string();
    if (Name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::string Stat;
    try {
      Stat = ReadWholeFile(Entry.path() / "stat");
    } catch (...) {
      continue;  // gone meanwhile
    }
    const size_t Close = Stat.rfind(')');
    if (Close == std::string::npos || Close + 4 > Stat.size()) continue;
    char State = Stat[Close + 2];
    const pid_t Parent = std::atoi(Stat.c_str() + Close + 4);
    if (Parent == APid) Children[std::stoi(Name)] = State;
  }
  return Children;
}

// The door pids the log names, in order of start.
std::vector<pid_t> DoorPids(const std::string& ALog) {
  std::vector<pid_t> Pids;
  const std::regex Started("door started, pid ([0-9]+)");
  for (auto It = std::sregex_iterator(ALog.begin(), ALog.end(), Started); It != std::sregex_iterator(); ++It)
    Pids.push_back(std::stoi((*It)[1]));
  return Pids;
}

bool ProcessGroupGone(pid_t APgid) { return kill(-APgid, 0) != 0 && errno == ESRCH; }

// A shell door: bash running AScript, in which the host fills in the placeholders.
std::vector<std::string> ShellDoor(const std::string& AScript) { return {"bash", "-c", AScript}; }

// A door that says which node it is on and then waits for one line from its caller.
const std::string NODE_THEN_WAIT = "printf 'node {node}\\r\\n' >&{fd}; read -r line <&{fd}";

TEST(WicketHost, ReaderRunsOnTheInheritedSocketAndHandsItBack) {
  TFeedServer Feed;
  StartFeedServer(Feed, HttpOk(ReadWholeFile(SourceDir() / "samples" / "bbs-news.xml")));
  TTempDir Run;
  WriteWholeFile(Run.Path / "tamblin.cfg", SettingsText(FeedServerUrl(Feed, "/bbs-news.xml"), ""));
  fs::create_directory_symlink(SourceDir() / "skins", Run.Path / "skins");
  const std::string Reader = (BuildDir() / "tamblin").string();

  // The two ways a BBS names the socket: on the command line, or in DOOR32.SYS; and the relay
  // for a UTF-8 caller, whose socket pair the drop file names in the same way.
  const struct {
    std::vector<std::string> Door;
    bool Utf8;
  } Runs[] = {
      {{Reader, "-S{fd}", "-N{node}", "@tamblin.cfg"}, false},
      {{Reader, "-D{door32}", "@tamblin.cfg"}, false},
      {{Reader, "-D{door32}", "@tamblin.cfg"}, true},
  };
  for (const auto& Way : Runs) {
    SCOPED_TRACE(Way.Door[1] + (Way.Utf8 ? " --utf8" : ""));
    THost Host;
    std::vector<std::string> Options = {"--cwd", Run.Path.string()};
    if (Way.Utf8) Options.push_back("--utf8");
    StartHost(Host, Options, Way.Door);
    TCaller Caller(Host.Port);
    ASSERT_GE(Caller.Fd, 0);
    ASSERT_TRUE(Caller.Until("(01/")) << Caller.Wire;
    // The host says WILL SGA as a BBS would; the door's own announcements follow at once.
    EXPECT_EQ(Caller.Wire.substr(0, 9), std::string("\xFF\xFB\x03\xFF\xFB\x00\xFF\xFB\x01", 9));
    Caller.Send("N");
    ASSERT_TRUE(Caller.Until("(02/"));
    EXPECT_EQ(CountOf(Caller.Wire, "Back at the host."), 0u);
    Caller.Send("Q");
    ASSERT_TRUE(Caller.UntilClosed());
    ASSERT_GE(Caller.Wire.size(), BACK.size());
    EXPECT_EQ(Caller.Wire.substr(Caller.Wire.size() - BACK.size()), BACK);
    EXPECT_EQ(CountOf(Caller.Wire, "Back at the host."), 1u);
    EXPECT_TRUE(WaitFor([&] { return Host.LogText().find("node 1: door ended") != std::string::npos; }));
    EXPECT_NE(Host.LogText().find(", exit 0, "), std::string::npos) << Host.LogText();
  }
}

// The door sees exactly what the host promised: the drop file's lines, the socket as its one
// extra descriptor (not the socket of another caller), and its working folder.
TEST(WicketHost, DoorGetsItsDropFileItsSocketAndNothingElse) {
  THost Host;
  TTempDir Work;
  const std::string Script =
      "cat {door32} >&{fd}; printf 'fds:' >&{fd}; "
      "for n in {0..1023}; do [ -e /proc/$$/fd/$n ] && printf ' %s' $n >&{fd}; done; "
      "printf '\\r\\ncwd: %s\\r\\n' \"$PWD\" >&{fd}; read -r line <&{fd}";
  StartHost(Host,
            {"--nodes", "3", "--bbs-name", "Night Owl", "--real-name", "Ada L", "--alias", "Countess",
             "--security", "50", "--session-limit", "120", "--cwd", Work.Path.string()},
            ShellDoor(Script));
  TCaller First(Host.Port), Second(Host.Port);
  for (TCaller* Caller : {&First, &Second}) ASSERT_TRUE(Caller->Until("cwd: ")) << Caller->Wire;
  ASSERT_TRUE(First.Until("\r\n", 13));
  ASSERT_TRUE(Second.Until("\r\n", 13));

  int Node = 1;
  for (TCaller* Caller : {&First, &Second}) {
    SCOPED_TRACE(Node);
    const std::regex Shape(
        "\xFF\xFB\x03"  // the host's WILL SGA, then what the door wrote
        "2\r\n([0-9]+)\r\n38400\r\nNight Owl\r\n1\r\nAda L\r\nCountess\r\n50\r\n2\r\n1\r\n([0-9]+)\r\n"
        "fds: ([0-9 ]+)\r\ncwd: ([^\r]*)\r\n");
    std::smatch Match;
    ASSERT_TRUE(std::regex_match(Caller->Wire, Match, Shape)) << Caller->Wire;
    EXPECT_EQ(std::stoi(Match[2]), Node);
    EXPECT_EQ(Match[3].str(), "0 1 2 " + Match[1].str());
    EXPECT_EQ(fs::path(Match[4].str()), fs::canonical(Work.Path));
    ++Node;
  }
  First.Send("bye\n");
  Second.Send("bye\n");
  EXPECT_TRUE(First.UntilClosed());
  EXPECT_TRUE(Second.UntilClosed());
  // Each session's drop file had a folder of its own, gone with the session.
  const std::string Log = Host.LogText();
  const std::regex DropFile("cat (/[^ ]+)/DOOR32\\.SYS");
  int Folders = 0;
  for (auto It = std::sregex_iterator(Log.begin(), Log.end(), DropFile); It != std::sregex_iterator(); ++It) {
    ++Folders;
    EXPECT_FALSE(fs::exists((*It)[1].str())) << (*It)[1];
  }
  EXPECT_EQ(Folders, 2);
}

// A UTF-8 caller gets the door's CP437 text as UTF-8, while the door's telnet commands and ANSI
// sequences pass intact; without --utf8 the caller gets exactly the door's bytes. Either way
// the caller's own bytes reach the door as they were sent.
TEST(WicketHost, Utf8RelayTranslatesOnlyTheDoorsText) {
  // WILL ECHO, a colour, a full block and a light shade, a doubled IAC (the text byte 0xFF);
  // then the line the door read, in hex.
  const std::string Script =
      "printf '\\xff\\xfb\\x01\\x1b[1;31m\\xdb\\xb0\\xff\\xff\\r\\n' >&{fd}; "
      "IFS= read -r line <&{fd}; printf '%s' \"$line\" | od -An -tx1 >&{fd}";
  const struct {
    std::vector<std::string> Options;
    std::string Door;
  } Cases[] = {
      {{}, "\xFF\xFB\x01\x1b[1;31m\xDB\xB0\xFF\xFF\r\n"},
      {{"--utf8"}, "\xFF\xFB\x01\x1b[1;31m\u2588\u2591\u00A0\r\n"},
  };
  for (const auto& Case : Cases) {
    SCOPED_TRACE(Case.Options.empty() ? "as sent" : "--utf8");
    THost Host;
    StartHost(Host, Case.Options, ShellDoor(Script));
    TCaller Caller(Host.Port);
    ASSERT_TRUE(Caller.Until("\r\n")) << Caller.Wire;
    Caller.Send("\xFF\xFF\xE9\r\n");
    ASSERT_TRUE(Caller.UntilClosed());
    EXPECT_EQ(Caller.Wire, "\xFF\xFB\x03" + Case.Door + " ff ff e9 0d\n\x1b[0m\r\n" + BACK);
  }
}

TEST(WicketHost, NodesAreTheLowestFreeAndAnExtraCallerIsTurnedAway) {
  THost Host;
  StartHost(Host, {"--nodes", "2"}, ShellDoor(NODE_THEN_WAIT));
  TCaller A(Host.Port), B(Host.Port);
  ASSERT_TRUE(A.Until("node 1\r\n"));
  ASSERT_TRUE(B.Until("node 2\r\n"));

  TCaller C(Host.Port);
  ASSERT_TRUE(C.UntilClosed());
  EXPECT_EQ(C.Wire, BUSY);

  A.Send("bye\n");
  ASSERT_TRUE(A.UntilClosed());
  EXPECT_EQ(A.Wire.substr(A.Wire.size() - BACK.size()), BACK);
  TCaller D(Host.Port);
  EXPECT_TRUE(D.Until("node 1\r\n")) << D.Wire;
  const std::string Log = Host.LogText();
  EXPECT_NE(Log.find("turned away, all 2 nodes in use"), std::string::npos) << Log;
  B.Send("bye\n");
  D.Send("bye\n");
  EXPECT_TRUE(B.UntilClosed());
  EXPECT_TRUE(D.UntilClosed());
}

TEST(WicketHost, SessionLimitHangsUpTheDoorAndItsHelpers) {
  // Given, or by default the caller's minutes and the grace time: 0 minutes make it 1 s here.
  const std::vector<std::string> Given = {"--session-limit", "1", "--grace", "1"};
  const std::vector<std::string> ByMinutes = {"--minutes", "0", "--grace", "1", "--nodes", "1"};
  // Ignores the hang-up and writes to a caller who has stopped reading: only the kill frees it.
  const std::string Stuck = "trap '' HUP; printf 'up\\r\\n' >&{fd}; exec yes >&{fd}";
  struct TCase {
    const char* Name;
    std::vector<std::string> Options;
    std::string Script;
    bool NeedsKill;  // ignores the hang-up, so only SIGKILL ends it
    bool Reads;      // the caller reads all the time; otherwise not at all after "up"
  } Cases[] = {
      {"hangs up", Given, "printf 'up\\r\\n' >&{fd}; sleep 30; true", false, true},
      {"ignores the hang-up", ByMinutes, "trap '' HUP; printf 'up\\r\\n' >&{fd}; sleep 30; true", true, true},
      {"stuck writing", ByMinutes, Stuck, true, false},
      {"stuck writing to the relay",
       {"--utf8", "--minutes", "0", "--grace", "1", "--nodes", "1"},
       Stuck,
       true,
       false},
  };
  // Each case waits out the limit and the grace time, so the cases run side by side; a case
  // checked later can only look slower than it was, never faster.
  std::vector<std::unique_ptr<THost>> Hosts;
  std::vector<std::unique_ptr<TCaller>> Callers;
  std::vector<TClock::time_point> Ups;
  for (const TCase& Case : Cases) {
    SCOPED_TRACE(Case.Name);
    Hosts.push_back(std::make_unique<THost>());
    StartHost(*Hosts.back(), Case.Options, ShellDoor(Case.Script));
    Callers.push_back(std::make_unique<TCaller>(Hosts.back()->Port));
    ASSERT_TRUE(Callers.back()->Until("up\r\n"));
    Ups.push_back(TClock::now());
  }
  for (size_t I = 0; I < std::size(Cases); ++I) {
    const TCase& Case = Cases[I];
    SCOPED_TRACE(Case.Name);
    THost& Host = *Hosts[I];
    TCaller& Caller = *Callers[I];
    const auto Up = Ups[I];
    if (Case.Reads) {
      ASSERT_TRUE(Caller.UntilClosed(10s));
      EXPECT_EQ(Caller.Wire.substr(Caller.Wire.size() - BACK.size()), BACK);
    } else {
      ASSERT_TRUE(WaitFor([&] { return CountOf(Host.LogText(), "door ended") == 1; })) << Host.LogText();
    }
    const double Seconds = std::chrono::duration<double>(TClock::now() - Up).count();
    EXPECT_GE(Seconds, Case.NeedsKill ? 1.5 : 0.5);
    EXPECT_LT(Seconds, Case.NeedsKill ? 5.0 : 4.0);

    const std::string Log = Host.LogText();
    EXPECT_NE(Log.find("session limit of 1 s reached"), std::string::npos) << Log;
    EXPECT_EQ(Log.find("SIGKILL") != std::string::npos, Case.NeedsKill) << Log;
    EXPECT_NE(Log.find(Case.NeedsKill ? "signal 9" : "signal 1"), std::string::npos) << Log;
    // The door's sleep went with it: nothing is left of its process group.
    const auto Pids = DoorPids(Log);
    ASSERT_EQ(Pids.size(), 1u);
    EXPECT_TRUE(WaitFor([&] { return ProcessGroupGone(Pids[0]); }, 3s));
    // The node is free for the next caller, the first one's unread output notwithstanding.
    if (!Case.Reads) {
      TCaller Next(Host.Port);
      EXPECT_TRUE(Next.Until("up\r\n")) << Next.Wire;
    }
  }
}

TEST(WicketHost, EveryChildIsReapedAndNoDescriptorIsLeft) {
  // The caller's socket handed down, and the relay with its socket pair per session.
  for (const bool Utf8 : {false, true}) {
    SCOPED_TRACE(Utf8 ? "--utf8" : "socket handed down");
    THost Host;
    std::vector<std::string> Options = {"--nodes", "3"};
    if (Utf8) Options.push_back("--utf8");
    StartHost(Host, Options, ShellDoor("printf 'hi {node}\\r\\n' >&{fd}; read -r line <&{fd}"));
    const int Baseline = CountFds(Host.Pid);
    ASSERT_GT(Baseline, 0);

    for (int Round = 0; Round < 3; ++Round) {
      // Three at once, each leaving in its own way: a line, a hang-up by the caller, and a
      // caller who goes without reading the host's line.
      TCaller A(Host.Port), B(Host.Port), C(Host.Port);
      for (TCaller* Caller : {&A, &B, &C}) ASSERT_TRUE(Caller->Until("hi "));
      A.Send("bye\n");
      shutdown(B.Fd, SHUT_WR);
      C.Send("bye\n");
      close(C.Fd);
      C.Fd = -1;
      EXPECT_TRUE(A.UntilClosed());
      EXPECT_TRUE(B.UntilClosed());
      EXPECT_EQ(B.Wire.substr(B.Wire.size() - BACK.size()), BACK);
      // C's node is free only once the host has seen its door end; the next round needs all three.
      ASSERT_TRUE(WaitFor([&] { return CountOf(Host.LogText(), "door ended") == 3u * (Round + 1); }));
    }
    EXPECT_TRUE(WaitFor([&] { return CountOf(Host.LogText(), "door ended") == 9; }));
    EXPECT_TRUE(WaitFor([&] { return ChildrenOf(Host.Pid).empty(); }, 5s)) << ChildrenOf(Host.Pid).size();
    EXPECT_TRUE(WaitFor([&] { return CountFds(Host.Pid) == Baseline; }, 5s))
        << CountFds(Host.Pid) << " descriptors, " << Baseline << " at the start";
  }
}

// Session folders go on every path, even while the host has run out of descriptors, and what
// a host killed outright left behind is cleared by the next one; nothing else in the host's
// base folder is touched, not even a folder of a host that still runs.
TEST(WicketHost, SessionFoldersGoEvenWithoutDescriptorsAndStaleOnesAtStart) {
  THost Host;
  const fs::path Base = Host.DropBase();
  fs::create_directories(Base);
  fs::permissions(Base, fs::perms::owner_all, fs::perm_options::replace);
  const std::string Stale = "999999999-node1.AbC123";  // no such process
  fs::create_directory(Base / Stale);
  WriteWholeFile(Base / Stale / "DOOR32.SYS", "2\r\n");
  WriteWholeFile(Base / Stale / "door.log", "the door's own file\n");
  const std::vector<std::string> Kept = {std::to_string(getpid()) + "-node2.AbC123",  // a running host's
                                         "999999999-nodes.AbC123", "notes"};
  for (const std::string& Name : Kept) fs::create_directory(Base / Name);
  WriteWholeFile(Base / "999999999-node3.AbC123", "a file, not a session folder");
  const auto Left = [&] {
    std::set<std::string> Names;
    for (const auto& Entry : fs::directory_iterator(Base)) Names.insert(Entry.path().filename().string());
    return Names;
  };

  // Few descriptors: a handful of callers takes them all, and the doors end while they are.
  Host.FdLimit = 12;
  StartHost(Host, {"--nodes", "8"}, ShellDoor(NODE_THEN_WAIT));
  std::set<std::string> Expected(Kept.begin(), Kept.end());
  Expected.insert("999999999-node3.AbC123");
  EXPECT_EQ(Left(), Expected);

  std::vector<std::unique_ptr<TCaller>> Callers;
  for (int I = 0; I < 10; ++I) Callers.push_back(std::make_unique<TCaller>(Host.Port));
  EXPECT_TRUE(WaitFor([&] { return Host.LogText().find("can't take a caller") != std::string::npos; }))
      << Host.LogText();
  for (auto& Caller : Callers) {
    ASSERT_TRUE(Caller->Until("node ")) << Host.LogText();
    Caller->Send("bye\n");
    EXPECT_TRUE(Caller->UntilClosed());
    close(Caller->Fd);
    Caller->Fd = -1;
  }
  ASSERT_EQ(kill(Host.Pid, SIGTERM), 0);
  EXPECT_EQ(WaitHostExit(Host, 10s), 0);
  EXPECT_EQ(CountOf(Host.LogText(), "door ended"), 10u);
  EXPECT_EQ(Left(), Expected) << Host.LogText();
}

TEST(WicketHost, DoorThatCannotStartStillGivesTheCallerTheHostsLine) {
  THost Host;
  StartHost(Host, {}, {"/nonexistent/door", "-S{fd}"});
  TCaller Caller(Host.Port);
  ASSERT_TRUE(Caller.UntilClosed());
  EXPECT_EQ(Caller.Wire.substr(Caller.Wire.size() - BACK.size()), BACK);
  const std::string Log = Host.LogText();
  EXPECT_NE(Log.find("can't run /nonexistent/door"), std::string::npos) << Log;
  EXPECT_NE(Log.find("exit 127"), std::string::npos) << Log;
}

TEST(WicketHost, TermStopsListeningHangsUpEveryDoorAndExitsZero) {
  THost Host;
  // Node 1's door leaves at the hang-up; node 2's ignores it and needs the kill.
  StartHost(Host, {"--nodes", "2", "--grace", "1"},
            ShellDoor("[ {node} = 2 ] && trap '' HUP; " + NODE_THEN_WAIT));
  TCaller A(Host.Port), B(Host.Port);
  ASSERT_TRUE(A.Until("node 1\r\n"));
  ASSERT_TRUE(B.Until("node 2\r\n"));
  // The door may write before the host has logged its start.
  ASSERT_TRUE(WaitFor([&] { return DoorPids(Host.LogText()).size() == 2; }));
  const auto Pids = DoorPids(Host.LogText());

  const int Port = Host.Port;
  const pid_t HostPid = Host.Pid;
  ASSERT_EQ(kill(Host.Pid, SIGTERM), 0);
  EXPECT_EQ(WaitHostExit(Host, 6s), 0);
  for (TCaller* Caller : {&A, &B}) {
    EXPECT_TRUE(Caller->UntilClosed(3s));
    EXPECT_EQ(Caller->Wire.substr(Caller->Wire.size() - BACK.size()), BACK);
  }
  for (pid_t Pid : Pids) EXPECT_TRUE(ProcessGroupGone(Pid)) << Pid;
  EXPECT_EQ(Connect(Port), -1);
  const std::string Log = Host.LogText();
  EXPECT_NE(Log.find("stopping on"), std::string::npos) << Log;
  EXPECT_NE(Log.find("SIGKILL"), std::string::npos) << Log;
  EXPECT_NE(Log.find("stopped"), std::string::npos) << Log;
  EXPECT_FALSE(fs::exists("/proc/" + std::to_string(HostPid)));
}

TEST(WicketHost, CommandLineMistakesAndABusyPortEndWithAMessage) {
  struct TCase {
    std::vector<std::string> Args;
    int Exit;
    const char* InOutput;
  } Cases[] = {
      {{}, 2, "no door command"},
      {{"--nodes", "0", "--", "true"}, 2, "--nodes"},
      {{"--help"}, 0, "Usage: wicket-host"},
      {{"--cwd", "/nonexistent/folder", "--", "true"}, 1, "is not a folder"},
  };
  for (const TCase& Case : Cases) {
    TTempDir Dir;
    const std::string Out = (Dir.Path / "out").string();
    std::vector<std::string> Args = {(BuildDir() / "wicket-host").string()};
    Args.insert(Args.end(), Case.Args.begin(), Case.Args.end());
    std::string Line;
    for (const auto& Arg : Args) Line += "'" + Arg + "' ";
    const int Status = std::system((Line + ">" + Out + " 2>&1 </dev/null").c_str());
    ASSERT_TRUE(WIFEXITED(Status));
    EXPECT_EQ(WEXITSTATUS(Status), Case.Exit) << Line;
    EXPECT_NE(ReadWholeFile(Out).find(Case.InOutput), std::string::npos) << ReadWholeFile(Out);
  }

  THost First;
  StartHost(First, {}, {"true"});
  TTempDir Dir;
  const std::string Out = (Dir.Path / "out").string();
  const std::string Line = "'" + (BuildDir() / "wicket-host").string() +
                           "' --listen 127.0.0.1:" + std::to_string(First.Port) + " -- true >" + Out +
                           " 2>&1 </dev/null";
  const int Status = std::system(Line.c_str());
  EXPECT_EQ(WEXITSTATUS(Status), 1);
  EXPECT_NE(ReadWholeFile(Out).find("can't listen on 127.0.0.1:"), std::string::npos);
}

}  // namespace
