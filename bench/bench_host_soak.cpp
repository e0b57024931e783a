// Soak of wicket-host running the real reader: many telnet sessions through one host process,
// first one after another, then twenty at a time, each a caller who pages N, N, P and quits
// with Q against the bundled sample feed served from 127.0.0.1; then a burst of 500 callers
// connecting at once to the same 20 nodes; then a host of its own with only 20 descriptors
// serving 40 callers. What it shows is that the host stays the same however many callers it
// has served, answers a burst at once, and leaves no session folder behind:
//   per benchmark      time per session (one after another) or per round of 20 (at once),
//                      sessions and failed sessions (wrong bytes, no "Back at the host.");
//                      for the burst: callers given the door and the busy line, the worst and
//                      median time from connect to first byte, the host's descriptors and
//                      VmRSS before and after; for the low limit: folders left behind
//   at the end         every door's exit status from the host's log, the host's children and
//                      descriptors against the count after a warm-up session, and its VmRSS
//                      before and after; the program exits 1 if any of these is off.
// Run: build/bench/bench_host_soak   (add --benchmark_filter=OneAfterAnother for one part)
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using TClock = std::chrono::steady_clock;

namespace {

constexpr int CONCURRENT = 20;
const std::string BACK = "Back at the host.\r\n";

std::string ReadFile(const fs::path& APath) {
  std::ifstream In(APath, std::ios::binary);
  std::stringstream Text;
  Text << In.rdbuf();
  return Text.str();
}

size_t CountOf(const std::string& AText, const std::string& APart) {
  size_t Count = 0;
  for (size_t At = AText.find(APart); At != std::string::npos; At = AText.find(APart, At + 1)) ++Count;
  return Count;
}

// The sample feed over HTTP on 127.0.0.1, one connection at a time, in a thread of the bench.
struct TFeedServer {
  int ListenFd = -1;
  int Port = 0;
  std::string Response;
  std::atomic<bool> Stop{false};
  std::thread Thread;

  void Start(const std::string& ABody) {
    Response = "HTTP/1.1 200 OK\r\nContent-Type: application/rss+xml\r\nContent-Length: " +
               std::to_string(ABody.size()) + "\r\nConnection: close\r\n\r\n" + ABody;
    ListenFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in Address{};
    Address.sin_family = AF_INET;
    Address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t Length = sizeof(Address);
    bind(ListenFd, reinterpret_cast<sockaddr*>(&Address), Length);
    listen(ListenFd, 64);
    getsockname(ListenFd, reinterpret_cast<sockaddr*>(&Address), &Length);
    Port = ntohs(Address.sin_port);
    Thread = std::thread([this] { Serve(); });
  }
  void Serve() {
    while (!Stop) {
      pollfd P{ListenFd, POLLIN, 0};
      if (poll(&P, 1, 100) <= 0) continue;
      const int Fd = accept4(ListenFd, nullptr, nullptr, SOCK_CLOEXEC);
      if (Fd < 0) continue;
      std::string Request;
      char Buffer[4096];
      while (Request.find("\r\n\r\n") == std::string::npos) {
        const ssize_t Got = recv(Fd, Buffer, sizeof(Buffer), 0);
        if (Got <= 0) break;
        Request.append(Buffer, static_cast<size_t>(Got));
      }
      size_t Sent = 0;
      while (Sent < Response.size()) {
        const ssize_t Put = send(Fd, Response.data() + Sent, Response.size() - Sent, MSG_NOSIGNAL);
        if (Put <= 0) break;
        Sent += static_cast<size_t>(Put);
      }
      close(Fd);
    }
  }
  ~TFeedServer() {
    Stop = true;
    if (Thread.joinable()) Thread.join();
    if (ListenFd >= 0) close(ListenFd);
  }
};

// The host under test with the reader as its door, in a run folder with settings and skins.
struct TSoakSite {
  fs::path Run;
  fs::path Log;
  TFeedServer Feed;
  pid_t Host = -1;
  int Port = 0;
  std::atomic<int> Sessions{0};
  std::atomic<int> Failures{0};
  std::string FirstFailure;
  // Taken after a warm-up session, so that what the first caller costs once is not counted.
  int BaselineFds = 0;
  long BaselineRssKb = 0;
  bool Ready = false;
};

fs::path BuildDir() { return fs::read_symlink("/proc/self/exe").parent_path().parent_path(); }

int CountFds(pid_t APid) {
  int Count = 0;
  std::error_code Ec;
  for (auto It = fs::directory_iterator("/proc/" + std::to_string(APid) + "/fd", Ec);
       !Ec && It != fs::directory_iterator(); It.increment(Ec))
    ++Count;
  return Count;
}

long RssKb(pid_t APid) {
  std::istringstream Status(ReadFile("/proc/" + std::to_string(APid) + "/status"));
  std::string Line;
  while (std::getline(Status, Line))
    if (Line.rfind("VmRSS:", 0) == 0) return std::atol(Line.c_str() + 6);
  return -1;
}

int CountChildren(pid_t APid) {
  int Count = 0;
  std::error_code Ec;
  for (const auto& Entry : fs::directory_iterator("/proc", Ec)) {
    const std::string Stat = ReadFile(Entry.path() / "stat");
    const size_t Close = Stat.rfind(')');
    if (Close == std::string::npos || Close + 4 > Stat.size()) continue;
    if (std::atoi(Stat.c_str() + Close + 4) == APid) ++Count;
  }
  return Count;
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

// One caller: waits for each page's counter before the next key. Empty result: all went as a
// caller expects; otherwise what went wrong.
std::string CallerSession(int APort) {
  const int Fd = Connect(APort);
  if (Fd < 0) return "connect failed";
  std::string Wire;
  bool Closed = false;
  const auto Deadline = TClock::now() + 30s;
  auto Until = [&](const std::string& AMarker, size_t ACount) {
    while (CountOf(Wire, AMarker) < ACount && !Closed && TClock::now() < Deadline) {
      pollfd P{Fd, POLLIN, 0};
      if (poll(&P, 1, 100) <= 0) continue;
      char Buffer[8192];
      const ssize_t Got = recv(Fd, Buffer, sizeof(Buffer), 0);
      if (Got <= 0) Closed = true;
      if (Got > 0) Wire.append(Buffer, static_cast<size_t>(Got));
    }
    return CountOf(Wire, AMarker) >= ACount;
  };
  struct TStep {
    const char* Key;
    const char* Marker;  // what must be on the line before the key goes out
    size_t Count;
  } Steps[] = {{"N", "(01/", 1}, {"N", "(02/", 1}, {"P", "(03/", 1}, {"Q", "(02/", 2}};
  std::string Problem;
  for (const TStep& Step : Steps) {
    if (!Until(Step.Marker, Step.Count)) {
      Problem = std::string("no ") + Step.Marker + " before " + Step.Key;
      break;
    }
    if (send(Fd, Step.Key, 1, MSG_NOSIGNAL) != 1) Problem = "send failed";
  }
  if (Problem.empty()) {
    Until("\x01\x02never", 1);  // reads to the end of the line
    if (!Closed)
      Problem = "line still open";
    else if (Wire.compare(0, 9, std::string("\xFF\xFB\x03\xFF\xFB\x00\xFF\xFB\x01", 9)) != 0)
      Problem = "no telnet announcements first";
    else if (Wire.size() < BACK.size() || Wire.compare(Wire.size() - BACK.size(), BACK.size(), BACK) != 0)
      Problem = "no \"Back at the host.\" at the end";
  }
  close(Fd);
  return Problem;
}

// Starts wicket-host with AArgs, its standard error in ALog, its TMPDIR ATmpDir, and at most
// AFdLimit descriptors when that is not 0.
pid_t SpawnHost(std::vector<std::string> AArgs, const fs::path& ALog, rlim_t AFdLimit,
                const fs::path& ATmpDir) {
  std::vector<char*> Argv;
  for (auto& Arg : AArgs) Argv.push_back(Arg.data());
  Argv.push_back(nullptr);
  // Built before the fork: the bench has threads, so the child only makes system calls.
  std::vector<std::string> Env = {"TMPDIR=" + ATmpDir.string(), "WICKET_STOP_PAUSE_MS=0"};
  for (char** Var = environ; *Var != nullptr; ++Var)
    if (std::strncmp(*Var, "TMPDIR=", 7) != 0) Env.push_back(*Var);
  std::vector<char*> Envp;
  for (auto& Var : Env) Envp.push_back(Var.data());
  Envp.push_back(nullptr);
  const std::string LogPath = ALog.string();
  const rlimit Limit = {AFdLimit, AFdLimit};
  const pid_t Pid = fork();
  if (Pid == 0) {
    const int LogFd = open(LogPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(LogFd, 2);
    if (LogFd > 2) close(LogFd);
    if (AFdLimit > 0) setrlimit(RLIMIT_NOFILE, &Limit);
    execve(Argv[0], Argv.data(), Envp.data());
    _exit(127);
  }
  return Pid;
}

// The port the host's log says it listens on; 0 if it never says so.
int ListeningPort(const fs::path& ALog) {
  const std::regex Listening("listening on 127\\.0\\.0\\.1:([0-9]+)");
  for (int Try = 0; Try < 1000; ++Try) {
    std::this_thread::sleep_for(10ms);
    std::smatch Match;
    const std::string Text = ReadFile(ALog);
    if (std::regex_search(Text, Match, Listening)) return std::stoi(Match[1]);
  }
  return 0;
}

TSoakSite& Site() {
  static TSoakSite S;
  if (S.Ready) return S;
  S.Ready = true;
  std::string Template = (fs::temp_directory_path() / "host-soak-XXXXXX").string();
  S.Run = mkdtemp(Template.data());
  S.Log = S.Run / "host.log";
  S.Feed.Start(ReadFile(fs::path(TAMBLIN_SOURCE_DIR) / "samples" / "bbs-news.xml"));
  fs::create_directory_symlink(fs::path(TAMBLIN_SOURCE_DIR) / "skins", S.Run / "skins");
  std::ofstream(S.Run / "tamblin.cfg")
      << "http://127.0.0.1:" << S.Feed.Port << "/bbs-news.xml\n\n7\n15\n11\n14\n14\nN\n15\n1\n50\n";

  std::vector<std::string> Args = {(BuildDir() / "wicket-host").string(),
                                   "--listen",
                                   "127.0.0.1:0",
                                   "--nodes",
                                   std::to_string(CONCURRENT),
                                   "--cwd",
                                   S.Run.string(),
                                   "--",
                                   (BuildDir() / "tamblin").string(),
                                   "-S{fd}",
                                   "-N{node}",
                                   "@tamblin.cfg"};
  S.Host = SpawnHost(Args, S.Log, 0, S.Run);
  S.Port = ListeningPort(S.Log);
  const std::string Warm = S.Port != 0 ? CallerSession(S.Port) : "host did not start";
  S.Sessions = 1;
  if (!Warm.empty()) {
    S.Failures = 1;
    S.FirstFailure = "warm-up: " + Warm;
  }
  std::this_thread::sleep_for(300ms);  // the host closes the lingering socket
  S.BaselineFds = CountFds(S.Host);
  S.BaselineRssKb = RssKb(S.Host);
  return S;
}

void Record(TSoakSite& ASite, const std::string& AProblem) {
  ++ASite.Sessions;
  if (AProblem.empty()) return;
  if (ASite.Failures++ == 0) ASite.FirstFailure = AProblem;
}

void BM_SessionsOneAfterAnother(benchmark::State& AState) {
  TSoakSite& S = Site();
  const int FailuresBefore = S.Failures;
  for (auto _ : AState) Record(S, CallerSession(S.Port));
  AState.counters["sessions"] = static_cast<double>(AState.iterations());
  AState.counters["failed"] = S.Failures - FailuresBefore;
  AState.counters["host_rss_KB"] = static_cast<double>(RssKb(S.Host));
}
BENCHMARK(BM_SessionsOneAfterAnother)->Iterations(300)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_TwentyAtOnce(benchmark::State& AState) {
  TSoakSite& S = Site();
  const int FailuresBefore = S.Failures;
  std::vector<std::string> Problems(CONCURRENT);
  for (auto _ : AState) {
    std::vector<std::thread> Callers;
    for (int I = 0; I < CONCURRENT; ++I)
      Callers.emplace_back([&, I] { Problems[static_cast<size_t>(I)] = CallerSession(S.Port); });
    for (auto& Caller : Callers) Caller.join();
    for (const auto& Problem : Problems) Record(S, Problem);
  }
  AState.counters["sessions"] = static_cast<double>(AState.iterations() * CONCURRENT);
  AState.counters["failed"] = S.Failures - FailuresBefore;
  AState.counters["host_rss_KB"] = static_cast<double>(RssKb(S.Host));
}
BENCHMARK(BM_TwentyAtOnce)->Iterations(300 / CONCURRENT)->Unit(benchmark::kMillisecond)->UseRealTime();

// Many callers connecting at once, all served from one thread with poll(), so that they really
// are at the host's door in the same moment. Each reads until the host hangs up; a caller that
// got the reader quits it with Q once its first page is there (AQuitReader).
struct TBurstResult {
  int Door = 0;    // the host's WILL SGA first and "Back at the host." last
  int Busy = 0;    // the busy line
  int Failed = 0;  // anything else, or still open at the time limit
  std::string FirstFailure;
  std::vector<double> FirstByteMs;  // from the start of connect() to the first byte, per caller
  double WorstMs() const {
    return FirstByteMs.empty() ? 0 : *std::max_element(FirstByteMs.begin(), FirstByteMs.end());
  }
  double MedianMs() const {
    std::vector<double> Sorted = FirstByteMs;
    std::sort(Sorted.begin(), Sorted.end());
    return Sorted.empty() ? 0 : Sorted[Sorted.size() / 2];
  }
};

TBurstResult Burst(int APort, int ACount, bool AQuitReader, std::chrono::seconds ALimit) {
  const std::string Busy = "All nodes are busy. Please call back later.\r\n";
  struct TBurstCaller {
    int Fd = -1;
    TClock::time_point Start;
    bool Connecting = true;
    bool GotByte = false;
    bool QuitSent = false;
    std::string Wire;
  };
  std::vector<TBurstCaller> Callers(static_cast<size_t>(ACount));
  TBurstResult Result;
  auto Fail = [&](const std::string& AWhy) {
    if (Result.Failed++ == 0) Result.FirstFailure = AWhy;
  };
  for (TBurstCaller& Caller : Callers) {
    Caller.Fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in Address{};
    Address.sin_family = AF_INET;
    Address.sin_port = htons(static_cast<uint16_t>(APort));
    Address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Caller.Start = TClock::now();
    if (connect(Caller.Fd, reinterpret_cast<sockaddr*>(&Address), sizeof(Address)) == 0)
      Caller.Connecting = false;
    else if (errno != EINPROGRESS)
      Fail(std::string("connect: ") + std::strerror(errno));
  }
  const auto End = TClock::now() + ALimit;
  std::vector<pollfd> Polled;
  std::vector<size_t> Which;
  for (;;) {
    Polled.clear();
    Which.clear();
    for (size_t I = 0; I < Callers.size(); ++I) {
      if (Callers[I].Fd < 0) continue;
      Polled.push_back(
          {Callers[I].Fd, static_cast<short>(POLLIN | (Callers[I].Connecting ? POLLOUT : 0)), 0});
      Which.push_back(I);
    }
    if (Polled.empty() || TClock::now() > End) break;
    if (poll(Polled.data(), Polled.size(), 100) <= 0) continue;
    for (size_t P = 0; P < Polled.size(); ++P) {
      if (Polled[P].revents == 0) continue;
      TBurstCaller& Caller = Callers[Which[P]];
      Caller.Connecting = false;
      char Buffer[16384];
      const ssize_t Got = recv(Caller.Fd, Buffer, sizeof(Buffer), 0);
      if (Got < 0 && errno == EAGAIN) continue;
      if (Got > 0) {
        if (!Caller.GotByte)
          Result.FirstByteMs.push_back(
              std::chrono::duration<double, std::milli>(TClock::now() - Caller.Start).count());
        Caller.GotByte = true;
        Caller.Wire.append(Buffer, static_cast<size_t>(Got));
        if (AQuitReader && !Caller.QuitSent && Caller.Wire.find("(01/") != std::string::npos)
          Caller.QuitSent = send(Caller.Fd, "Q", 1, MSG_NOSIGNAL) == 1;
        continue;
      }
      close(Caller.Fd);
      Caller.Fd = -1;
      if (Caller.Wire == Busy)
        ++Result.Busy;
      else if (Caller.Wire.rfind("\xFF\xFB\x03", 0) == 0 && Caller.Wire.size() >= BACK.size() &&
               Caller.Wire.compare(Caller.Wire.size() - BACK.size(), BACK.size(), BACK) == 0)
        ++Result.Door;
      else
        Fail(Got < 0 ? std::string("recv: ") + std::strerror(errno)
                     : "unexpected bytes: " + Caller.Wire.substr(0, 40));
    }
  }
  for (TBurstCaller& Caller : Callers) {
    if (Caller.Fd < 0) continue;
    close(Caller.Fd);
    Fail(Caller.GotByte ? "line still open" : "no byte at all");
  }
  return Result;
}

// What the burst and the low-limit host showed, for the report at the end.
TBurstResult FBurst;
int FBurstFdsBefore = 0, FBurstFdsAfter = 0;
long FBurstRssBefore = 0, FBurstRssAfter = 0;
TBurstResult FFewFds;
int FFoldersLeft = -1;

void BM_BurstOf500(benchmark::State& AState) {
  TSoakSite& S = Site();
  std::this_thread::sleep_for(300ms);  // the callers of the part before have all gone
  FBurstFdsBefore = CountFds(S.Host);
  FBurstRssBefore = RssKb(S.Host);
  for (auto _ : AState) FBurst = Burst(S.Port, 500, true, 60s);
  std::this_thread::sleep_for(300ms);  // the host closes the last lingering sockets
  FBurstFdsAfter = CountFds(S.Host);
  FBurstRssAfter = RssKb(S.Host);
  // Every caller given the reader is a session of the soak: its door must end with exit 0.
  S.Sessions += FBurst.Door;
  for (int I = 0; I < FBurst.Failed; ++I) Record(S, "burst: " + FBurst.FirstFailure);
  AState.counters["door"] = FBurst.Door;
  AState.counters["busy"] = FBurst.Busy;
  AState.counters["failed"] = FBurst.Failed;
  AState.counters["first_byte_worst_ms"] = FBurst.WorstMs();
  AState.counters["first_byte_median_ms"] = FBurst.MedianMs();
  AState.counters["host_fds_after"] = FBurstFdsAfter;
  AState.counters["host_rss_KB"] = static_cast<double>(FBurstRssAfter);
}
BENCHMARK(BM_BurstOf500)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// A host allowed 20 descriptors serving 40 callers of a short shell door at once: the callers
// it can't take yet wait in the queue, and every session folder is gone when it has stopped.
void BM_FortyCallersTwentyDescriptors(benchmark::State& AState) {
  std::string Template = (fs::temp_directory_path() / "host-fds-XXXXXX").string();
  const fs::path Run = mkdtemp(Template.data());
  const fs::path Log = Run / "host.log";
  const pid_t Host = SpawnHost({(BuildDir() / "wicket-host").string(), "--listen", "127.0.0.1:0", "--nodes",
                                "40", "--", "bash", "-c", "printf 'hi {node}\\r\\n' >&{fd}; sleep 0.3"},
                               Log, 20, Run);
  const int Port = ListeningPort(Log);
  for (auto _ : AState) FFewFds = Burst(Port, 40, false, 60s);
  kill(Host, SIGTERM);
  waitpid(Host, nullptr, 0);
  FFoldersLeft = 0;
  std::error_code Ec;
  // Every folder in its TMPDIR but the base folder it keeps its session folders in.
  const std::string Base = "wicket-host-" + std::to_string(getuid());
  for (auto It = fs::recursive_directory_iterator(Run, Ec); !Ec && It != fs::recursive_directory_iterator();
       It.increment(Ec))
    if (It->is_directory() && It->path().filename() != Base) ++FFoldersLeft;
  AState.counters["door"] = FFewFds.Door;
  AState.counters["busy"] = FFewFds.Busy;
  AState.counters["failed"] = FFewFds.Failed;
  AState.counters["first_byte_worst_ms"] = FFewFds.WorstMs();
  AState.counters["folders_left"] = FFoldersLeft;
  AState.counters["out_of_descriptors"] = static_cast<double>(CountOf(ReadFile(Log), "can't take a caller"));
  fs::remove_all(Run, Ec);
}
BENCHMARK(BM_FortyCallersTwentyDescriptors)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// The checks after the run, printed as a short report; false when one fails.
bool FinalReport(TSoakSite& S) {
  const int Sessions = S.Sessions;
  // Every door has been reaped once its caller saw the host's line; the log may trail a little.
  const std::regex Ended("door ended, pid [0-9]+, ([^,]+),");
  int Ends = 0, Clean = 0;
  for (int Try = 0; Try < 300; ++Try) {
    const std::string Log = ReadFile(S.Log);
    Ends = Clean = 0;
    for (auto It = std::sregex_iterator(Log.begin(), Log.end(), Ended); It != std::sregex_iterator(); ++It) {
      ++Ends;
      Clean += (*It)[1] == "exit 0" ? 1 : 0;
    }
    if (Ends >= Sessions) break;
    std::this_thread::sleep_for(10ms);
  }
  std::this_thread::sleep_for(300ms);
  const int Fds = CountFds(S.Host);
  const int Children = CountChildren(S.Host);
  const long Rss = RssKb(S.Host);

  kill(S.Host, SIGTERM);
  int Status = 0;
  waitpid(S.Host, &Status, 0);
  const bool StoppedClean = WIFEXITED(Status) && WEXITSTATUS(Status) == 0;

  std::printf("\nwicket-host soak: %d sessions (tamblin, N N P Q), %d failed%s%s\n", Sessions,
              S.Failures.load(), S.Failures > 0 ? ", first: " : "", S.FirstFailure.c_str());
  std::printf("  doors ended: %d, with exit 0: %d\n", Ends, Clean);
  std::printf("  host descriptors: %d after warm-up, %d at the end\n", S.BaselineFds, Fds);
  std::printf("  host children at the end: %d\n", Children);
  std::printf("  host VmRSS: %ld KB after warm-up, %ld KB at the end\n", S.BaselineRssKb, Rss);
  std::printf("  host stopped on SIGTERM with exit 0: %s\n", StoppedClean ? "yes" : "no");
  std::printf("  burst of 500: %d got the door, %d the busy line, %d failed%s%s\n", FBurst.Door, FBurst.Busy,
              FBurst.Failed, FBurst.Failed > 0 ? ", first: " : "", FBurst.FirstFailure.c_str());
  std::printf("    connect to first byte: worst %.0f ms, median %.0f ms\n", FBurst.WorstMs(),
              FBurst.MedianMs());
  std::printf("    host descriptors %d before, %d after; VmRSS %ld KB before, %ld KB after\n",
              FBurstFdsBefore, FBurstFdsAfter, FBurstRssBefore, FBurstRssAfter);
  std::printf(
      "  40 callers, 20 descriptors: %d got the door, %d the busy line, %d failed%s%s; folders left: %d\n",
      FFewFds.Door, FFewFds.Busy, FFewFds.Failed, FFewFds.Failed > 0 ? ", first: " : "",
      FFewFds.FirstFailure.c_str(), FFoldersLeft);
  std::error_code Ec;
  fs::remove_all(S.Run, Ec);
  // Parts left out by --benchmark_filter report nothing and fail nothing.
  // Descriptors left by the burst show in the comparison with the warm-up above.
  const bool BurstOk = FBurst.Failed == 0;
  const bool FewFdsOk = FFoldersLeft <= 0 && FFewFds.Failed == 0;
  return S.Failures == 0 && Ends == Sessions && Clean == Sessions && Fds == S.BaselineFds && Children == 0 &&
         StoppedClean && BurstOk && FewFdsOk;
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  // The burst holds 500 sockets at once.
  rlimit Files{};
  getrlimit(RLIMIT_NOFILE, &Files);
  Files.rlim_cur = std::max<rlim_t>(Files.rlim_cur, std::min<rlim_t>(Files.rlim_max, 4096));
  setrlimit(RLIMIT_NOFILE, &Files);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  TSoakSite& S = Site();
  return FinalReport(S) ? 0 : 1;
}
