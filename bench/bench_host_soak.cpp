// Soak of wicket-host running the real reader: many telnet sessions through one host process,
// first one after another, then twenty at a time, each a caller who pages N, N, P and quits
// with Q against the bundled sample feed served from 127.0.0.1. What it shows is that the host
// stays the same however many callers it has served:
//   per benchmark      time per session (one after another) or per round of 20 (at once),
//                      sessions and failed sessions (wrong bytes, no "Back at the host.")
//   at the end         every door's exit status from the host's log, the host's children and
//                      descriptors against the count after a warm-up session, and its VmRSS
//                      before and after; the program exits 1 if any of these is off.
// Run: build/bench/bench_host_soak   (add --benchmark_filter=OneAfterAnother for half of it)
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
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
  std::vector<char*> Argv;
  for (auto& Arg : Args) Argv.push_back(Arg.data());
  Argv.push_back(nullptr);
  const std::string LogPath = S.Log.string();
  S.Host = fork();
  if (S.Host == 0) {
    const int LogFd = open(LogPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(LogFd, 2);
    execv(Argv[0], Argv.data());
    _exit(127);
  }
  const std::regex Listening("listening on 127\\.0\\.0\\.1:([0-9]+)");
  for (int Try = 0; Try < 1000 && S.Port == 0; ++Try) {
    std::this_thread::sleep_for(10ms);
    std::smatch Match;
    const std::string Text = ReadFile(S.Log);
    if (std::regex_search(Text, Match, Listening)) S.Port = std::stoi(Match[1]);
  }
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
  std::error_code Ec;
  fs::remove_all(S.Run, Ec);
  return S.Failures == 0 && Ends == Sessions && Clean == Sessions && Fds == S.BaselineFds && Children == 0 &&
         StoppedClean;
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  TSoakSite& S = Site();
  return FinalReport(S) ? 0 : 1;
}
