// The host's event loop and the sessions it runs. It owns the listening socket, the self-pipe
// that signal handlers wake the loop with, one session record per node (the host's copy of the
// caller's socket, the door's process, its deadlines, its temporary folder with DOOR32.SYS,
// and with --utf8 the relay between caller and door), the callers being hung up, and the base
// folder that session folders live in. Everything happens on the one thread, between two
// poll() calls, and no call waits on a caller; signal handlers only set a flag and write one
// byte to the self-pipe.
#include "hostloop.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "hostcp437.h"

namespace {

using TClock = std::chrono::steady_clock;

// The door may leave the caller in any colour (black on black, mid-row): the line is made
// readable on a fresh row in plain grey first.
constexpr char BACK_AT_HOST[] = "\x1b[0m\r\nBack at the host.\r\n";
// IAC WILL SUPPRESS-GO-AHEAD, as a BBS's telnet layer says before any door runs. With the
// door's own WILL ECHO it puts a plain telnet client into character mode, so each key reaches
// the door as it is typed rather than a line at a time.
constexpr char TELNET_WILL_SGA[] = "\xFF\xFB\x03";
constexpr char ALL_NODES_BUSY[] = "All nodes are busy. Please call back later.\r\n";
// How long a hung-up caller may go on sending, or leave the host's last bytes unread, before
// the host closes its end regardless: 2 s, or WICKET_HOST_LINGER_MS milliseconds (tests turn
// it down).
static std::chrono::milliseconds LingerTime() {
  static const std::chrono::milliseconds Time = [] {
    const char* Value = std::getenv("WICKET_HOST_LINGER_MS");
    char* End = nullptr;
    const long Ms = Value != nullptr && *Value != '\0' ? std::strtol(Value, &End, 10) : -1;
    return std::chrono::milliseconds(End != nullptr && *End == '\0' && Ms >= 0 && Ms <= 60000 ? Ms : 2000);
  }();
  return Time;
}

// What the relay holds for each direction before it stops reading the sender: a caller who
// reads nothing makes the door's own writes wait, not the host's memory grow.
constexpr size_t RELAY_LIMIT = 64 * 1024;
// How often a session folder that could not be removed (no descriptor left) is tried again.
constexpr auto REMOVAL_RETRY = std::chrono::seconds(1);

// One node. A session is in use from the caller's connect until the host has hung up on it;
// its door runs from the fork until the host reaps it (Pid -1 before and after).
struct THostSession {
  bool InUse = false;
  int Socket = -1;  // the host's own copy; without the relay the door inherits the same number
  pid_t Pid = -1;
  std::string Peer;
  TClock::time_point Started;
  TClock::time_point HangUpAt = TClock::time_point::max();  // the session limit
  TClock::time_point KillAt = TClock::time_point::max();    // set by the SIGHUP
  bool HungUp = false;
  bool Killed = false;
  std::string DropDir;  // the session's folder with its DOOR32.SYS
  // The relay (--utf8): the door has the other end of DoorEnd, the host moves bytes between it
  // and Socket. DoorEnd is -1 when the door has the caller's socket itself.
  int DoorEnd = -1;
  std::string ToCaller;  // translated door output not yet taken by the caller
  std::string ToDoor;    // caller input not yet taken by the door
  THostTelnetUtf8 Telnet;
  bool CallerDone = false;  // the caller has closed or failed: nothing more comes from it
  bool CallerLost = false;  // the caller's line failed: nothing more can reach it either
  bool DoorDone = false;    // the door's end has closed: nothing more comes from the door
  bool DoorShut = false;    // the door has been shown the end of its caller
};

// A caller being hung up: it gets what is still owed to it (Pending: the rest of the door's
// output, the host's line), then a FIN, and its late input is read and dropped until it closes
// too: closing with unread input would answer with a reset, and a reset can throw away the
// last line before the caller's program has read it. A caller who stops reading or sending for
// LingerTime() is closed regardless.
struct TLingeringCaller {
  int Socket = -1;
  TClock::time_point CloseAt;
  std::string Pending;
  bool InputDone = false;  // the caller has closed its side or failed
};

}  // namespace

static THostOptions FOptions;
static std::vector<THostSession> FSessions;
static std::vector<TLingeringCaller> FLingering;
static int FListenFd = -1;
static int FWakeRead = -1;
static int FWakeWrite = -1;
static volatile sig_atomic_t FStopSignal = 0;
static std::string FHostDir;  // the host's working directory at start
static TClock::time_point FAcceptPausedUntil;
// $TMPDIR/wicket-host-UID: every session folder is made here and named "PID-nodeN.XXXXXX" after
// the host that made it, which is how a later host knows what it may clear. Empty when the
// folder can't be had safely: doors then run without a drop file.
static std::string FDropBase;
static std::vector<std::string> FUnremovedDirs;  // session folders whose removal failed so far
static TClock::time_point FRemovalRetryAt = TClock::time_point::max();

static void Log(const std::string& ALine) {
  // One write per line, so that lines of the host and of its doors (same stderr) don't mix.
  const std::string Text = "wicket-host: " + ALine + "\n";
  size_t Done = 0;
  while (Done < Text.size()) {
    const ssize_t N = write(2, Text.data() + Done, Text.size() - Done);
    if (N < 0 && errno == EINTR) continue;
    if (N <= 0) return;
    Done += static_cast<size_t>(N);
  }
}

static std::string ErrorText(int AErrno) { return std::strerror(AErrno); }

static void OnSignal(int ASignal) {
  const int SavedErrno = errno;
  if (ASignal != SIGCHLD) FStopSignal = ASignal;
  const char Byte = 0;
  if (write(FWakeWrite, &Byte, 1) < 0) {
    // A full pipe already holds a wake-up.
  }
  errno = SavedErrno;
}

static void InstallSignalHandlers() {
  struct sigaction Act;
  std::memset(&Act, 0, sizeof(Act));
  Act.sa_handler = OnSignal;
  sigemptyset(&Act.sa_mask);
  Act.sa_flags = SA_RESTART | SA_NOCLDSTOP;
  for (int Sig : {SIGCHLD, SIGINT, SIGTERM, SIGHUP}) sigaction(Sig, &Act, nullptr);
  // A caller who has gone must not kill the host when it writes its last line.
  signal(SIGPIPE, SIG_IGN);
}

// Descriptors 0 to 2 must stay taken: otherwise a caller's socket could get one of those
// numbers, and the door's /dev/null standard streams would be put over it.
static void EnsureStandardDescriptors() {
  for (int Fd = 0; Fd <= 2; ++Fd) {
    if (fcntl(Fd, F_GETFD) >= 0 || errno != EBADF) continue;
    if (open("/dev/null", O_RDWR) < 0) return;
  }
}

// Descriptors the host was started with (beyond 0 to 2) are its parent's business, not the
// doors': they are closed on exec like the host's own, so a door starts with its standard
// streams and the caller's socket and nothing else.
static void KeepInheritedDescriptorsFromDoors() {
  std::error_code Error;
  std::vector<int> Found;
  for (const auto& Entry : std::filesystem::directory_iterator("/proc/self/fd", Error)) {
    const int Fd = std::atoi(Entry.path().filename().c_str());
    if (Fd > 2) Found.push_back(Fd);
  }
  // The listing's own descriptor is among them and is gone by now; fcntl on it just fails.
  for (int Fd : Found) {
    const int Flags = fcntl(Fd, F_GETFD);
    if (Flags >= 0) fcntl(Fd, F_SETFD, Flags | FD_CLOEXEC);
  }
}

static std::string AddressText(const sockaddr_in& AAddress) {
  char Text[INET_ADDRSTRLEN] = "?";
  inet_ntop(AF_INET, &AAddress.sin_addr, Text, sizeof(Text));
  return std::string(Text) + ":" + std::to_string(ntohs(AAddress.sin_port));
}

// The longest queue of callers the system allows: a burst of callers then waits in it for the
// loop, which takes them all at each wake-up, instead of having its connects dropped and
// retried by the callers' systems seconds later.
static int ListenBacklog() {
  int Backlog = SOMAXCONN;
  const int Fd = open("/proc/sys/net/core/somaxconn", O_RDONLY | O_CLOEXEC);
  if (Fd < 0) return Backlog;
  char Text[16] = {};
  if (read(Fd, Text, sizeof(Text) - 1) > 0) Backlog = std::max(Backlog, std::atoi(Text));
  close(Fd);
  return Backlog;
}

static bool StartListening(std::string& AError) {
  FListenFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (FListenFd < 0) {
    AError = "socket: " + ErrorText(errno);
    return false;
  }
  const int One = 1;
  setsockopt(FListenFd, SOL_SOCKET, SO_REUSEADDR, &One, sizeof(One));
  sockaddr_in Address{};
  Address.sin_family = AF_INET;
  Address.sin_port = htons(static_cast<uint16_t>(FOptions.ListenPort));
  inet_pton(AF_INET, FOptions.ListenAddress.c_str(), &Address.sin_addr);
  if (bind(FListenFd, reinterpret_cast<sockaddr*>(&Address), sizeof(Address)) != 0 ||
      listen(FListenFd, ListenBacklog()) != 0) {
    AError = "can't listen on " + FOptions.ListenAddress + ":" + std::to_string(FOptions.ListenPort) + ": " +
             ErrorText(errno);
    return false;
  }
  socklen_t Length = sizeof(Address);
  getsockname(FListenFd, reinterpret_cast<sockaddr*>(&Address), &Length);
  FOptions.ListenPort = ntohs(Address.sin_port);
  return true;
}

static void StopListening() {
  if (FListenFd >= 0) close(FListenFd);
  FListenFd = -1;
}

// Removes a session folder; false when it is still there. DOOR32.SYS and its folder go by
// unlink and rmdir, which need no descriptor, so that a host that has run out of them (a burst
// of callers) still clears up; only files a door added of its own need a listing.
static bool RemoveDropDir(const std::string& ADir) {
  unlink((ADir + "/DOOR32.SYS").c_str());
  if (rmdir(ADir.c_str()) == 0 || errno == ENOENT) return true;
  std::error_code Error;
  std::filesystem::remove_all(ADir, Error);
  return !Error;
}

// Removes ADir now, or keeps it to be tried again on a later pass of the loop and at stop.
static void RemoveOrRetry(const std::string& ADir) {
  if (ADir.empty() || RemoveDropDir(ADir)) return;
  Log("can't remove " + ADir + " yet: " + ErrorText(errno) + "; trying again");
  FUnremovedDirs.push_back(ADir);
  FRemovalRetryAt = std::min(FRemovalRetryAt, TClock::now() + REMOVAL_RETRY);
}

static void RetryRemovals() {
  std::erase_if(FUnremovedDirs, RemoveDropDir);
  FRemovalRetryAt = FUnremovedDirs.empty() ? TClock::time_point::max() : TClock::now() + REMOVAL_RETRY;
}

// The host that made a session folder, from its name "PID-nodeN.XXXXXX"; 0 for any other name.
static pid_t FolderOwner(const std::string& AName) {
  const size_t Dash = AName.find("-node");
  const size_t Dot = AName.rfind('.');
  if (Dash == 0 || Dash == std::string::npos || Dash > 9 || Dot == std::string::npos || Dot < Dash + 6 ||
      AName.size() - Dot != 7)
    return 0;
  const std::string Pid = AName.substr(0, Dash);
  const std::string Node = AName.substr(Dash + 5, Dot - Dash - 5);
  if (Pid.find_first_not_of("0123456789") != std::string::npos ||
      Node.find_first_not_of("0123456789") != std::string::npos)
    return 0;
  return static_cast<pid_t>(std::atol(Pid.c_str()));
}

// Takes the base folder for session folders and clears what an earlier host left there (one
// that was killed outright): only folders named as this program names them, made by a host
// that is no longer running. Another host still running keeps its folders; nothing else in the
// base folder, and nothing outside it, is ever touched.
static void PrepareDropBase() {
  const char* Tmp = std::getenv("TMPDIR");
  const std::string Base =
      std::string(Tmp != nullptr && *Tmp != '\0' ? Tmp : "/tmp") + "/wicket-host-" + std::to_string(getuid());
  if (mkdir(Base.c_str(), 0700) != 0 && errno != EEXIST) {
    Log("can't make " + Base + ": " + ErrorText(errno) + "; doors get no DOOR32.SYS");
    return;
  }
  // In a shared /tmp the name could have been taken by someone else to catch our files.
  struct stat Info;
  if (lstat(Base.c_str(), &Info) != 0 || !S_ISDIR(Info.st_mode) || Info.st_uid != getuid() ||
      (Info.st_mode & 077) != 0) {
    Log(Base + " is not a private folder of this user; doors get no DOOR32.SYS");
    return;
  }
  FDropBase = Base;
  DIR* Dir = opendir(Base.c_str());
  if (Dir == nullptr) return;
  std::vector<std::string> Stale;
  while (const dirent* Entry = readdir(Dir)) {
    const std::string Name = Entry->d_name;
    const pid_t Owner = FolderOwner(Name);
    if (Owner <= 0 || Owner == getpid() || kill(Owner, 0) == 0 || errno != ESRCH) continue;
    if (lstat((Base + "/" + Name).c_str(), &Info) == 0 && S_ISDIR(Info.st_mode)) Stale.push_back(Name);
  }
  closedir(Dir);
  for (const std::string& Name : Stale) {
    Log("clearing " + Base + "/" + Name + ", left by an earlier run");
    RemoveOrRetry(Base + "/" + Name);
  }
}

// Makes the session's own folder in the base folder and writes its DOOR32.SYS there, naming
// ADoorFd as the door's socket; returns the file's path. The folder lives only as long as the
// session; one left by a host killed outright is cleared when the next one starts. A failure
// is logged and the door still runs (it may not need the file).
static std::string WriteDoor32(THostSession& ASession, int ANode, int ADoorFd) {
  const std::string NodeText = "node " + std::to_string(ANode);
  if (FDropBase.empty()) return "DOOR32.SYS";
  std::string Dir = FDropBase + "/" + std::to_string(getpid()) + "-node" + std::to_string(ANode) + ".XXXXXX";
  if (mkdtemp(Dir.data()) == nullptr) {
    Log(NodeText + ": can't make a folder for DOOR32.SYS (" + Dir + "): " + ErrorText(errno));
    return Dir + "/DOOR32.SYS";
  }
  ASession.DropDir = Dir;
  const std::string Path = Dir + "/DOOR32.SYS";
  const std::string Text = HostDoor32Text(FOptions, ADoorFd, ANode);
  const int Fd = open(Path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  bool Ok = Fd >= 0;
  if (Ok) Ok = write(Fd, Text.data(), Text.size()) == static_cast<ssize_t>(Text.size());
  const int Error = errno;
  if (Fd >= 0) close(Fd);
  if (!Ok) Log(NodeText + ": can't write " + Path + ": " + ErrorText(Error));
  return Path;
}

// Closes a socket of a caller or a door's relay. A host that stopped taking callers for want of
// descriptors takes them again at once, rather than after its pause.
static void CloseSocket(int AFd) {
  close(AFd);
  FAcceptPausedUntil = TClock::time_point();
}

// Sends what the caller will take now, without waiting, and removes it from AText; false when
// the caller's line has failed.
static bool SendNow(int ASocket, std::string& AText) {
  while (!AText.empty()) {
    const ssize_t N = send(ASocket, AText.data(), AText.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (N > 0) {
      AText.erase(0, static_cast<size_t>(N));
      continue;
    }
    if (N < 0 && errno == EINTR) continue;
    return N < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
  }
  return true;
}

// Reads and drops what the caller has sent; false once the caller has closed or failed.
static bool DropInput(int ASocket) {
  char Buffer[4096];
  for (;;) {
    const ssize_t N = recv(ASocket, Buffer, sizeof(Buffer), MSG_DONTWAIT);
    if (N > 0) continue;
    if (N < 0 && errno == EINTR) continue;
    return N < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
  }
}

// Ends the host's side of a connection once ALast has gone out: a FIN after it, then the socket
// lingers until the caller closes too. Never waits: what the caller doesn't take at once is
// sent from the loop, for as long as the caller keeps taking it.
static void HangUpCaller(int ASocket, std::string ALast) {
  TLingeringCaller Caller{ASocket, TClock::now() + LingerTime(), std::move(ALast)};
  const bool LineOk = SendNow(ASocket, Caller.Pending);
  Caller.InputDone = !DropInput(ASocket);
  if (!LineOk || (Caller.InputDone && Caller.Pending.empty())) {
    CloseSocket(ASocket);
    return;
  }
  if (Caller.Pending.empty()) shutdown(ASocket, SHUT_WR);
  FLingering.push_back(std::move(Caller));
}

// One pass over a lingering caller that poll() found ready; false when it is done with.
static bool ServeLingering(TLingeringCaller& ACaller) {
  if (!ACaller.InputDone) ACaller.InputDone = !DropInput(ACaller.Socket);
  if (!ACaller.Pending.empty()) {
    const size_t Before = ACaller.Pending.size();
    if (!SendNow(ACaller.Socket, ACaller.Pending)) return false;
    if (ACaller.Pending.size() < Before) ACaller.CloseAt = TClock::now() + LingerTime();
    if (ACaller.Pending.empty()) shutdown(ACaller.Socket, SHUT_WR);
  }
  return !(ACaller.InputDone && ACaller.Pending.empty());
}

static std::string StatusText(int AStatus) {
  if (WIFEXITED(AStatus)) return "exit " + std::to_string(WEXITSTATUS(AStatus));
  if (WIFSIGNALED(AStatus))
    return "signal " + std::to_string(WTERMSIG(AStatus)) + " (" + strsignal(WTERMSIG(AStatus)) + ")";
  return "status " + std::to_string(AStatus);
}

static std::string SecondsText(TClock::duration ADuration) {
  const long Tenths =
      static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(ADuration).count() / 100);
  return std::to_string(Tenths / 10) + "." + std::to_string(Tenths % 10) + " s";
}

// Sends ASignal to the door's process group (its helpers too), or to the door alone when it
// has left its group. Only for a door not yet reaped: after that its number may be anybody's.
static void SignalDoor(const THostSession& ASession, int ASignal) {
  if (ASession.Pid <= 0) return;
  if (kill(-ASession.Pid, ASignal) != 0) kill(ASession.Pid, ASignal);
}

static void HangUpDoor(THostSession& ASession, int ANode, const std::string& AReason) {
  if (ASession.Pid <= 0 || ASession.HungUp) return;
  Log("node " + std::to_string(ANode) + ": " + AReason + ", SIGHUP to the door");
  SignalDoor(ASession, SIGHUP);
  SignalDoor(ASession, SIGCONT);  // a stopped door could not act on the hang-up
  ASession.HungUp = true;
  ASession.KillAt = TClock::now() + std::chrono::seconds(FOptions.GraceSeconds);
}

// Takes what the door's end holds now into ToCaller, translated; at most what the relay may
// hold unless AAll (the door has ended, and its last words are owed to the caller).
static void ReadFromDoor(THostSession& ASession, bool AAll) {
  char Buffer[4096];
  while (!ASession.DoorDone && (AAll || ASession.ToCaller.size() < RELAY_LIMIT)) {
    const ssize_t N = recv(ASession.DoorEnd, Buffer, sizeof(Buffer), MSG_DONTWAIT);
    if (N < 0 && errno == EINTR) continue;
    if (N < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    if (N <= 0) {
      ASession.DoorDone = true;
      return;
    }
    if (!ASession.CallerLost)
      HostCp437ToUtf8(ASession.Telnet, std::string_view(Buffer, static_cast<size_t>(N)), ASession.ToCaller);
  }
}

// The door has ended (or never started): the caller gets the rest of the door's output and the
// host's line and is hung up, and the node is free again.
static void FinishSession(int ANode, const std::string& AHow) {
  THostSession& Session = FSessions[static_cast<size_t>(ANode - 1)];
  Log("node " + std::to_string(ANode) + ": door ended, pid " + std::to_string(Session.Pid) + ", " + AHow +
      ", after " + SecondsText(TClock::now() - Session.Started));
  // Helpers the door left behind in its group would keep the caller's line open. The group
  // outlives its reaped leader only while members are left, so its number is still ours.
  if (Session.Pid > 0) kill(-Session.Pid, SIGHUP);
  // Cleared away before the caller hears of the end, so a caller (or a test) that has the
  // host's line finds nothing of the session left.
  RemoveOrRetry(Session.DropDir);
  std::string Last;
  if (Session.DoorEnd >= 0) {
    ReadFromDoor(Session, true);
    CloseSocket(Session.DoorEnd);
    Last = std::move(Session.ToCaller);
  }
  if (Session.CallerLost) {
    CloseSocket(Session.Socket);
  } else {
    Last += BACK_AT_HOST;
    HangUpCaller(Session.Socket, std::move(Last));
  }
  Session = THostSession();
}

// Runs in the forked child; only calls that are safe between fork and exec.
[[noreturn]] static void ExecDoor(int ASocket, char** AArgv, const char* AWorkDir) {
  setpgid(0, 0);
  sigset_t None;
  sigemptyset(&None);
  sigprocmask(SIG_SETMASK, &None, nullptr);
  for (int Sig : {SIGCHLD, SIGINT, SIGTERM, SIGHUP, SIGPIPE}) signal(Sig, SIG_DFL);
  // The door's console is nobody's terminal: a door in its own process group that put the
  // host's terminal into raw mode would be stopped by the terminal driver.
  const int Null = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (Null >= 0) {
    dup2(Null, 0);
    dup2(Null, 1);
  }
  // The door's socket (the caller's, or its end of the relay's pair) is the one descriptor of
  // the host that the door inherits.
  const int Flags = fcntl(ASocket, F_GETFD);
  if (Flags >= 0) fcntl(ASocket, F_SETFD, Flags & ~FD_CLOEXEC);
  const char* Failed = "exec";
  if (AWorkDir == nullptr || chdir(AWorkDir) == 0) {
    execvp(AArgv[0], AArgv);
  } else {
    Failed = AWorkDir;
  }
  const char* Error = strerror(errno);
  const std::string Text =
      std::string("wicket-host: can't run ") + AArgv[0] + " (" + Failed + "): " + Error + "\n";
  if (write(2, Text.data(), Text.size()) < 0) {
    // Nothing left to tell it to.
  }
  _exit(127);
}

static std::string JoinArgs(const std::vector<std::string>& AArgs) {
  std::string Text;
  for (const std::string& Arg : AArgs) Text += (Text.empty() ? "" : " ") + Arg;
  return Text;
}

static void StartSession(int ANode, int ASocket, const std::string& APeer) {
  THostSession& Session = FSessions[static_cast<size_t>(ANode - 1)];
  Session = THostSession();
  Session.InUse = true;
  Session.Socket = ASocket;
  Session.Peer = APeer;
  Session.Started = TClock::now();
  const int32_t Limit = HostSessionSeconds(FOptions);
  if (Limit > 0) Session.HangUpAt = Session.Started + std::chrono::seconds(Limit);
  const std::string NodeText = "node " + std::to_string(ANode);
  Log(NodeText + ": connect from " + APeer);

  // With the relay the door gets one end of a socket pair, a connected stream socket like the
  // caller's, and the host the other; without it the door gets the caller's socket itself.
  int DoorFd = ASocket;
  if (FOptions.Utf8) {
    int Pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, Pair) != 0) {
      FinishSession(ANode, "not started (socketpair: " + ErrorText(errno) + ")");
      return;
    }
    Session.DoorEnd = Pair[0];
    DoorFd = Pair[1];
  }

  const std::string Door32 = WriteDoor32(Session, ANode, DoorFd);
  std::vector<std::string> Args = HostExpandCommand(FOptions.Command, DoorFd, ANode, Door32);
  // A door named by a relative path is found from where the host was started, not from --cwd.
  if (Args[0].find('/') != std::string::npos && Args[0][0] != '/') Args[0] = FHostDir + "/" + Args[0];
  std::vector<char*> Argv;
  for (std::string& Arg : Args) Argv.push_back(Arg.data());
  Argv.push_back(nullptr);
  const char* WorkDir = FOptions.WorkDir.empty() ? nullptr : FOptions.WorkDir.c_str();

  const pid_t Pid = fork();
  if (Pid == 0) ExecDoor(DoorFd, Argv.data(), WorkDir);
  const int ForkError = errno;
  // The door's end of the pair is the door's alone: once it closes it, the host reads the end.
  if (DoorFd != ASocket) close(DoorFd);
  if (Pid < 0) {
    FinishSession(ANode, "not started (fork: " + ErrorText(ForkError) + ")");
    return;
  }
  // Both sides set the group, so that it is in place whichever runs first.
  setpgid(Pid, Pid);
  Session.Pid = Pid;
  Log(NodeText + ": door started, pid " + std::to_string(Pid) + ": " + JoinArgs(Args));
}

static int LowestFreeNode() {
  for (size_t I = 0; I < FSessions.size(); ++I)
    if (!FSessions[I].InUse) return static_cast<int>(I + 1);
  return 0;
}

// Takes every caller waiting in the queue, so that a burst is answered at once: each gets a
// node or the busy line, and neither waits on anything.
static void AcceptCallers() {
  for (;;) {
    sockaddr_in Peer{};
    socklen_t Length = sizeof(Peer);
    // Blocking, close-on-exec: the door gets the socket as a BBS hands it down, and no other
    // door inherits it. The host itself never waits on it (MSG_DONTWAIT on every call).
    const int Fd = accept4(FListenFd, reinterpret_cast<sockaddr*>(&Peer), &Length, SOCK_CLOEXEC);
    if (Fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        // Out of descriptors: the caller waits in the backlog rather than the loop spinning.
        Log("can't take a caller: " + ErrorText(errno));
        FAcceptPausedUntil = TClock::now() + std::chrono::seconds(1);
      }
      return;
    }
    const std::string PeerText = AddressText(Peer);
    const int Node = LowestFreeNode();
    if (Node == 0) {
      Log("busy: " + PeerText + " turned away, all " + std::to_string(FOptions.Nodes) + " nodes in use");
      HangUpCaller(Fd, ALL_NODES_BUSY);
      continue;
    }
    std::string Greeting = TELNET_WILL_SGA;
    SendNow(Fd, Greeting);
    StartSession(Node, Fd, PeerText);
  }
}

// One pass of a session's relay: moves what can move now in both directions, never waiting.
// When the caller goes, the door is shown the end of its line as it would see it on the
// caller's own socket, and hung up as a BBS hangs up a door that lost its caller.
static void Relay(THostSession& ASession, int ANode) {
  char Buffer[4096];
  while (!ASession.CallerDone && ASession.ToDoor.size() < RELAY_LIMIT) {
    const ssize_t N = recv(ASession.Socket, Buffer, sizeof(Buffer), MSG_DONTWAIT);
    if (N < 0 && errno == EINTR) continue;
    if (N < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    if (N <= 0) {
      ASession.CallerDone = true;
      ASession.CallerLost = N < 0;
      break;
    }
    ASession.ToDoor.append(Buffer, static_cast<size_t>(N));
  }
  ReadFromDoor(ASession, false);
  if (!ASession.DoorShut && !SendNow(ASession.DoorEnd, ASession.ToDoor)) ASession.ToDoor.clear();
  if (!ASession.CallerLost && !SendNow(ASession.Socket, ASession.ToCaller)) {
    ASession.CallerDone = ASession.CallerLost = true;
  }
  if (ASession.CallerLost) ASession.ToCaller.clear();
  if (ASession.CallerDone && !ASession.DoorShut) {
    // A caller who only closed its sending side still reads: the door may go on writing.
    shutdown(ASession.DoorEnd, ASession.CallerLost ? SHUT_RDWR : SHUT_WR);
    ASession.DoorShut = true;
    ASession.ToDoor.clear();
    HangUpDoor(ASession, ANode, "caller hung up");
  }
}

static void ReapDoors() {
  for (;;) {
    int Status = 0;
    const pid_t Pid = waitpid(-1, &Status, WNOHANG);
    if (Pid < 0 && errno == EINTR) continue;
    if (Pid <= 0) return;
    for (size_t I = 0; I < FSessions.size(); ++I)
      if (FSessions[I].InUse && FSessions[I].Pid == Pid)
        FinishSession(static_cast<int>(I + 1), StatusText(Status));
  }
}

static void CheckDeadlines(TClock::time_point ANow) {
  for (size_t I = 0; I < FSessions.size(); ++I) {
    THostSession& Session = FSessions[I];
    const int Node = static_cast<int>(I + 1);
    if (!Session.InUse || Session.Pid <= 0) continue;
    if (!Session.HungUp && ANow >= Session.HangUpAt)
      HangUpDoor(Session, Node,
                 "session limit of " + std::to_string(HostSessionSeconds(FOptions)) + " s reached");
    if (Session.HungUp && !Session.Killed && ANow >= Session.KillAt) {
      Log("node " + std::to_string(Node) + ": door still running after the hang-up, SIGKILL");
      SignalDoor(Session, SIGKILL);
      Session.Killed = true;
    }
  }
  for (size_t I = 0; I < FLingering.size();) {
    if (ANow >= FLingering[I].CloseAt) {
      CloseSocket(FLingering[I].Socket);
      FLingering.erase(FLingering.begin() + static_cast<std::ptrdiff_t>(I));
    } else {
      ++I;
    }
  }
}

static TClock::time_point NextDeadline() {
  TClock::time_point Next = TClock::time_point::max();
  for (const THostSession& Session : FSessions) {
    if (!Session.InUse || Session.Pid <= 0) continue;
    if (!Session.HungUp) Next = std::min(Next, Session.HangUpAt);
    if (Session.HungUp && !Session.Killed) Next = std::min(Next, Session.KillAt);
  }
  for (const TLingeringCaller& Caller : FLingering) Next = std::min(Next, Caller.CloseAt);
  if (FAcceptPausedUntil > TClock::now()) Next = std::min(Next, FAcceptPausedUntil);
  return std::min(Next, FRemovalRetryAt);
}

static int PollTimeoutMs(TClock::time_point ADeadline) {
  if (ADeadline == TClock::time_point::max()) return -1;
  const auto Left = std::chrono::duration_cast<std::chrono::milliseconds>(ADeadline - TClock::now()).count();
  // Rounded up, so that the loop never wakes just before a deadline and spins until it.
  return static_cast<int>(std::clamp<long long>(Left + 1, 0, 60000));
}

static void BeginStop(int ASignal) {
  int Running = 0;
  for (const THostSession& Session : FSessions) Running += Session.InUse ? 1 : 0;
  Log(std::string("stopping on ") + strsignal(ASignal) + ", " + std::to_string(Running) + " door(s) running");
  StopListening();
  for (size_t I = 0; I < FSessions.size(); ++I)
    if (FSessions[I].InUse) HangUpDoor(FSessions[I], static_cast<int>(I + 1), "host stopping");
}

static bool AnySessionInUse() {
  return std::any_of(FSessions.begin(), FSessions.end(), [](const THostSession& S) { return S.InUse; });
}

// What poll() watches on a relayed session's two sockets: only what can make progress, so
// that a side that has nothing to do (or a caller who reads nothing) never wakes the loop.
static short CallerEvents(const THostSession& ASession) {
  short Events = 0;
  if (!ASession.CallerDone && ASession.ToDoor.size() < RELAY_LIMIT) Events |= POLLIN;
  if (!ASession.CallerLost && !ASession.ToCaller.empty()) Events |= POLLOUT;
  return Events;
}

static short DoorEvents(const THostSession& ASession) {
  short Events = 0;
  if (!ASession.DoorDone && ASession.ToCaller.size() < RELAY_LIMIT) Events |= POLLIN;
  if (!ASession.DoorShut && !ASession.ToDoor.empty()) Events |= POLLOUT;
  return Events;
}

static void RunLoop() {
  bool Stopping = false;
  std::vector<pollfd> Polled;
  std::vector<size_t> Relayed;  // the session of each pair of relay entries in Polled
  for (;;) {
    if (FStopSignal != 0 && !Stopping) {
      Stopping = true;
      BeginStop(FStopSignal);
    }
    ReapDoors();
    CheckDeadlines(TClock::now());
    if (TClock::now() >= FRemovalRetryAt) RetryRemovals();
    if (Stopping && !AnySessionInUse() && FLingering.empty()) return;

    Polled.clear();
    Relayed.clear();
    Polled.push_back({FWakeRead, POLLIN, 0});
    const bool Accepting = FListenFd >= 0 && TClock::now() >= FAcceptPausedUntil;
    if (Accepting) Polled.push_back({FListenFd, POLLIN, 0});
    const size_t FirstLingering = Polled.size();
    for (const TLingeringCaller& Caller : FLingering) {
      const short Events =
          static_cast<short>((Caller.InputDone ? 0 : POLLIN) | (Caller.Pending.empty() ? 0 : POLLOUT));
      Polled.push_back({Caller.Socket, Events, 0});
    }
    const size_t FirstRelay = Polled.size();
    for (size_t I = 0; I < FSessions.size(); ++I) {
      const THostSession& Session = FSessions[I];
      if (!Session.InUse || Session.DoorEnd < 0) continue;
      // A side with nothing to wait for is left out (-1), so its hang-up can't wake the loop.
      const short Caller = CallerEvents(Session);
      const short Door = DoorEvents(Session);
      Polled.push_back({Caller != 0 ? Session.Socket : -1, Caller, 0});
      Polled.push_back({Door != 0 ? Session.DoorEnd : -1, Door, 0});
      Relayed.push_back(I);
    }

    const int Ready = poll(Polled.data(), Polled.size(), PollTimeoutMs(NextDeadline()));
    if (Ready < 0) {
      if (errno == EINTR) continue;
      Log("poll: " + ErrorText(errno));
      return;
    }
    if ((Polled[0].revents & POLLIN) != 0) {
      char Drain[64];
      while (read(FWakeRead, Drain, sizeof(Drain)) > 0) {
      }
    }
    for (size_t R = 0; R < Relayed.size(); ++R) {
      const pollfd& Caller = Polled[FirstRelay + 2 * R];
      const pollfd& Door = Polled[FirstRelay + 2 * R + 1];
      if (Caller.revents == 0 && Door.revents == 0) continue;
      Relay(FSessions[Relayed[R]], static_cast<int>(Relayed[R] + 1));
    }
    // Callers being hung up: checked before new callers could reuse numbers.
    for (size_t I = FirstRelay; I-- > FirstLingering;) {
      TLingeringCaller& Caller = FLingering[I - FirstLingering];
      if (Polled[I].revents == 0 || ServeLingering(Caller)) continue;
      CloseSocket(Caller.Socket);
      FLingering.erase(FLingering.begin() + static_cast<std::ptrdiff_t>(I - FirstLingering));
    }
    if (Accepting && (Polled[1].revents & POLLIN) != 0) AcceptCallers();
  }
}

int HostRun(const THostOptions& AOptions) {
  FOptions = AOptions;
  EnsureStandardDescriptors();
  KeepInheritedDescriptorsFromDoors();
  std::error_code Error;
  FHostDir = std::filesystem::current_path(Error).string();
  if (!FOptions.WorkDir.empty() && !std::filesystem::is_directory(FOptions.WorkDir, Error)) {
    Log("--cwd: " + FOptions.WorkDir + " is not a folder");
    return 1;
  }
  int Wake[2];
  if (pipe2(Wake, O_CLOEXEC | O_NONBLOCK) != 0) {
    Log("pipe: " + ErrorText(errno));
    return 1;
  }
  FWakeRead = Wake[0];
  FWakeWrite = Wake[1];
  InstallSignalHandlers();

  std::string Problem;
  if (!StartListening(Problem)) {
    Log(Problem);
    StopListening();
    return 1;
  }
  FSessions.assign(static_cast<size_t>(FOptions.Nodes), THostSession());
  PrepareDropBase();
  Log("listening on " + FOptions.ListenAddress + ":" + std::to_string(FOptions.ListenPort) + ", " +
      std::to_string(FOptions.Nodes) + " node(s), door: " + JoinArgs(FOptions.Command));

  RunLoop();

  StopListening();
  for (const TLingeringCaller& Caller : FLingering) close(Caller.Socket);
  FLingering.clear();
  close(FWakeRead);
  close(FWakeWrite);
  // With every socket closed the host has descriptors again for whatever removal still needs one.
  RetryRemovals();
  for (const std::string& Dir : FUnremovedDirs) Log("can't remove " + Dir + "; the next host clears it");
  Log("stopped");
  return 0;
}
