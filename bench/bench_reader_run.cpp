// The whole reader run as a caller meets it: the real tamblin program started in stdio mode,
// its settings read, a skin painted, a feed of N items fetched from a loopback server, scanned
// and cleaned, the first item painted; then Q and the exit. Reported per run:
//   real time          start to exit (the Q goes in as soon as the first paint is seen)
//   first_paint_ms     start to the end of the first paint on standard output
//   own_peak_KB        the program's own peak resident memory (VmHWM at the first paint, by
//                      then every allocation of the run has happened)
//   maxrss_KB          getrusage's ru_maxrss of the child; Linux carries the forking
//                      process's resident size over exec, so this is at least this bench's
//                      own size, reported as bench_rss_KB beside it
// BM_FetchOnly and BM_ScanOnly do the fetch, and the scan with its cleaning, of the same feed
// in-process, so that the first paint minus those two shows what the rest of the run (start,
// settings, skin, the paint itself) costs at each item count.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "config.h"
#include "fetch.h"
#include "scanner.h"

namespace fs = std::filesystem;
extern char** environ;

namespace {

const std::string COMMAND_LINE = "[A]bout   [N]ext   [P]revious   [Q]uit";

std::string BenchFeed(int ACount) {
  std::string Xml =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<rss version=\"2.0\"><channel>\n"
      "<title>Bench Gazette</title><link>http://bench.invalid/</link>\n";
  for (int I = 1; I <= ACount; ++I) {
    const std::string N = std::to_string(I);
    Xml += "<item>\n<title>Story " + N + ": the sysop&#8217;s caf&eacute; gets a new modem</title>\n";
    Xml += "<link>http://bench.invalid/story/" + N +
           "</link>\n<pubDate>Mon, 23 Nov 2026 08:15:00 +0000</pubDate>\n";
    Xml += "<description><![CDATA[<p>After three weeks on the shelf, <b>Node " + N +
           "</b> is back &amp; taking calls at 33.6k.</p><p>The sysop says the new modem &#8220;sings like a "
           "kettle&#8221; and that the message bases were packed while it was away. Callers report download "
           "speeds of 3,200 cps and no line noise since Tuesday.</p><p>Read more at the board&hellip;</p>]]>"
           "</description>\n</item>\n";
  }
  return Xml + "</channel></rss>\n";
}

// One HTTP responder on 127.0.0.1 for the whole bench: every connection gets Response.
struct TBenchServer {
  int ListenFd = -1;
  uint16_t Port = 0;
  std::string Response;
  std::atomic<bool> Stop{false};
  std::thread Thread;

  void Start() {
    ListenFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in Addr{};
    Addr.sin_family = AF_INET;
    Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t Len = sizeof Addr;
    bind(ListenFd, reinterpret_cast<sockaddr*>(&Addr), Len);
    listen(ListenFd, 64);
    getsockname(ListenFd, reinterpret_cast<sockaddr*>(&Addr), &Len);
    Port = ntohs(Addr.sin_port);
    Thread = std::thread([this] { Serve(); });
  }
  void Serve() {
    sigset_t Block;
    sigemptyset(&Block);
    sigaddset(&Block, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &Block, nullptr);
    while (!Stop) {
      pollfd P{ListenFd, POLLIN, 0};
      if (poll(&P, 1, 100) <= 0) continue;
      const int Fd = accept(ListenFd, nullptr, nullptr);
      if (Fd < 0) continue;
      std::string Request;
      char Buffer[4096];
      while (Request.find("\r\n\r\n") == std::string::npos) {
        const ssize_t Got = recv(Fd, Buffer, sizeof Buffer, 0);
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
  ~TBenchServer() {
    Stop = true;
    if (Thread.joinable()) Thread.join();
    if (ListenFd >= 0) close(ListenFd);
  }
};

// A run folder per item count: settings pointing at that count's server, and one fixed skin.
struct TBenchSite {
  fs::path Dir;
  TBenchServer Server;
  std::string Feed;
};

TBenchSite& Site(int ACount) {
  static std::map<int, std::unique_ptr<TBenchSite>> Sites;
  auto& Slot = Sites[ACount];
  if (!Slot) {
    Slot = std::make_unique<TBenchSite>();
    std::string Template = (fs::temp_directory_path() / "tamblin-bench-XXXXXX").string();
    Slot->Dir = mkdtemp(Template.data());
    fs::create_directory(Slot->Dir / "skins");
    fs::copy_file(fs::path(TAMBLIN_SOURCE_DIR) / "skins" / "valley.ans", Slot->Dir / "skins" / "valley.ans");
    Slot->Feed = BenchFeed(ACount);
    Slot->Server.Response = "HTTP/1.1 200 OK\r\nContent-Type: application/rss+xml\r\nContent-Length: " +
                            std::to_string(Slot->Feed.size()) + "\r\nConnection: close\r\n\r\n" + Slot->Feed;
    Slot->Server.Start();
    std::ofstream(Slot->Dir / "tamblin.cfg")
        << "http://127.0.0.1:" << Slot->Server.Port << "/feed.xml\nvalley.ans\n7\n15\n11\n14\n14\nN\n15\n1\n"
        << ACount << "\n";
  }
  return *Slot;
}

// The program beside this bench's folder: build/bench/bench_reader_run -> build/tamblin.
fs::path TamblinProgram() {
  return fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "tamblin";
}

long StatusKB(pid_t APid, const std::string& AField) {
  std::ifstream In("/proc/" + (APid ? std::to_string(APid) : std::string("self")) + "/status");
  std::string Line;
  while (std::getline(In, Line)) {
    if (Line.rfind(AField + ":", 0) == 0) return std::atol(Line.c_str() + AField.size() + 1);
  }
  return -1;
}

double NowMs() {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

struct TRunFigures {
  double FirstPaintMs = 0;
  long OwnPeakKB = 0;
  long MaxRssKB = 0;
  bool Ok = false;
};

TRunFigures RunOnce(const fs::path& AProgram, const fs::path& ADir) {
  TRunFigures Figures;
  int In[2], Out[2];
  if (pipe2(In, O_CLOEXEC) != 0 || pipe2(Out, O_CLOEXEC) != 0) return Figures;
  posix_spawn_file_actions_t Actions;
  posix_spawn_file_actions_init(&Actions);
  posix_spawn_file_actions_adddup2(&Actions, In[0], 0);
  posix_spawn_file_actions_adddup2(&Actions, Out[1], 1);
  posix_spawn_file_actions_addopen(&Actions, 2, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addchdir_np(&Actions, ADir.c_str());
  std::string Program = AProgram.string(), Link = "-S-1", Node = "-N1", Cfg = "@tamblin.cfg";
  char* Argv[] = {Program.data(), Link.data(), Node.data(), Cfg.data(), nullptr};
  const double Start = NowMs();
  pid_t Pid = -1;
  const int Spawned = posix_spawn(&Pid, Program.c_str(), &Actions, nullptr, Argv, environ);
  posix_spawn_file_actions_destroy(&Actions);
  close(In[0]);
  close(Out[1]);
  if (Spawned != 0) {
    close(In[1]);
    close(Out[0]);
    return Figures;
  }
  // Read until the command line of the first paint has come, then quit.
  std::string Screen;
  char Buffer[65536];
  bool Painted = false;
  for (;;) {
    const ssize_t Got = read(Out[0], Buffer, sizeof Buffer);
    if (Got <= 0) break;
    Screen.append(Buffer, static_cast<size_t>(Got));
    if (!Painted && Screen.find(COMMAND_LINE) != std::string::npos) {
      Painted = true;
      Figures.FirstPaintMs = NowMs() - Start;
      Figures.OwnPeakKB = StatusKB(Pid, "VmHWM");
      (void)!write(In[1], "q", 1);
    }
  }
  close(In[1]);
  close(Out[0]);
  int Status = 0;
  rusage Usage{};
  wait4(Pid, &Status, 0, &Usage);
  Figures.MaxRssKB = Usage.ru_maxrss;
  Figures.Ok = Painted && WIFEXITED(Status) && WEXITSTATUS(Status) == 0;
  return Figures;
}

void BM_ReaderRun(benchmark::State& AState) {
  const int Count = static_cast<int>(AState.range(0));
  const fs::path Program = TamblinProgram();
  if (!fs::exists(Program)) {
    AState.SkipWithError("build the tamblin program first");
    return;
  }
  TBenchSite& S = Site(Count);
  double FirstPaint = 0;
  long OwnPeak = 0, MaxRss = 0;
  for (auto _ : AState) {
    const TRunFigures F = RunOnce(Program, S.Dir);
    if (!F.Ok) {
      AState.SkipWithError("the run did not paint and end in order");
      return;
    }
    FirstPaint += F.FirstPaintMs;
    OwnPeak = std::max(OwnPeak, F.OwnPeakKB);
    MaxRss = std::max(MaxRss, F.MaxRssKB);
  }
  AState.counters["first_paint_ms"] = FirstPaint / static_cast<double>(AState.iterations());
  AState.counters["own_peak_KB"] = static_cast<double>(OwnPeak);
  AState.counters["maxrss_KB"] = static_cast<double>(MaxRss);
  AState.counters["bench_rss_KB"] = static_cast<double>(StatusKB(0, "VmRSS"));
  AState.counters["feed_KB"] = static_cast<double>(S.Feed.size()) / 1024.0;
}
BENCHMARK(BM_ReaderRun)
    ->Arg(50)
    ->Arg(1)
    ->Arg(500)
    ->Arg(5000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(20)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

void BM_FetchOnly(benchmark::State& AState) {
  TBenchSite& S = Site(static_cast<int>(AState.range(0)));
  const std::string Url = "http://127.0.0.1:" + std::to_string(S.Server.Port) + "/feed.xml";
  for (auto _ : AState) benchmark::DoNotOptimize(SimpleGet(Url));
}
BENCHMARK(BM_FetchOnly)->Arg(1)->Arg(50)->Arg(500)->Arg(5000)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ScanOnly(benchmark::State& AState) {
  const int Count = static_cast<int>(AState.range(0));
  const std::string Feed = BenchFeed(Count);
  MaxItems = Count;
  for (auto _ : AState) {
    RSSText = Feed;
    ScanFeedItems();
    benchmark::DoNotOptimize(ItemCount);
  }
}
BENCHMARK(BM_ScanOnly)->Arg(1)->Arg(50)->Arg(500)->Arg(5000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
