// What a door costs while it waits for the caller, and how fast it answers a key.
//
// A door child waits in DoorReadKey on one end of a socketpair, with the once-a-second watch on
// as on a real socket link, for D seconds (10 by default; the first argument overrides it).
// Its processor time and context switches over that wait come from getrusage. For contrast a
// second child waits the plain way, polling DoorKeyPressed with a 1 ms sleep between polls.
// Then the caller's side sends keys at uneven intervals and times each until the door's echo
// (its first output byte) arrives.
//
// Run: build/bench/bench_idle_wait [seconds] [keys]
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "comm/comm.h"
#include "door/door.h"

namespace {

struct TUsage {
  double CpuMs = 0;
  double WallMs = 0;
  long Voluntary = 0;
  long Involuntary = 0;
};

double NowMs() {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

TUsage ReadUsage() {
  rusage Usage{};
  getrusage(RUSAGE_SELF, &Usage);
  TUsage Result;
  Result.CpuMs = (Usage.ru_utime.tv_sec + Usage.ru_stime.tv_sec) * 1000.0 +
                 (Usage.ru_utime.tv_usec + Usage.ru_stime.tv_usec) / 1000.0;
  Result.WallMs = NowMs();
  Result.Voluntary = Usage.ru_nvcsw;
  Result.Involuntary = Usage.ru_nivcsw;
  return Result;
}

TUsage Difference(const TUsage& AAfter, const TUsage& ABefore) {
  return {AAfter.CpuMs - ABefore.CpuMs, AAfter.WallMs - ABefore.WallMs, AAfter.Voluntary - ABefore.Voluntary,
          AAfter.Involuntary - ABefore.Involuntary};
}

bool ReadExactly(int AFd, void* AData, size_t ASize) {
  char* Out = static_cast<char*>(AData);
  while (ASize > 0) {
    const ssize_t Got = read(AFd, Out, ASize);
    if (Got <= 0) return false;
    Out += Got;
    ASize -= static_cast<size_t>(Got);
  }
  return true;
}

void SleepMs(double AMs) { std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(AMs)); }

// The door side of a run: a socket session as DoorStartup leaves it.
void BeginLinkSession(int ADoorFd) {
  StdIO = false;
  CommOpen(ADoorFd);
  DoorSession.TimeOn = DoorLastKey.Time = DoorNow();
  DoorSession.Events = true;
  DoorSession.EventsTime = 0;
}

// Waits for the first key, in DoorReadKey or in the plain polling loop, then echoes every key
// until "q" and reports the usage of that first wait on AReportFd.
[[noreturn]] void DoorChild(int ADoorFd, int AReportFd, bool APlainPolling) {
  BeginLinkSession(ADoorFd);
  // The plain way polls, sleeping 1 ms between polls, before each key.
  auto NextKey = [APlainPolling] {
    if (APlainPolling)
      while (!DoorKeyPressed()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return DoorReadKey();
  };
  const TUsage Before = ReadUsage();
  uint8_t Key = NextKey();
  const TUsage Waited = Difference(ReadUsage(), Before);
  for (;;) {
    DoorWrite(std::string(1, static_cast<char>(Key)));
    if (Key == 'q') break;
    Key = NextKey();
  }
  (void)!write(AReportFd, &Waited, sizeof Waited);
  _exit(0);
}

struct TRun {
  TUsage Idle;
  std::vector<double> LatencyMs;
};

TRun RunOnce(double ASeconds, int AKeys, bool APlainPolling) {
  int Pair[2];
  int Report[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, Pair) != 0 || pipe(Report) != 0) std::exit(1);
  const pid_t Child = fork();
  if (Child == 0) {
    close(Pair[0]);
    close(Report[0]);
    DoorChild(Pair[1], Report[1], APlainPolling);
  }
  close(Pair[1]);
  close(Report[1]);
  const int Caller = Pair[0];
  char Opening[6];
  ReadExactly(Caller, Opening, sizeof Opening);  // the telnet announcements

  TRun Run;
  SleepMs(ASeconds * 1000);
  std::mt19937 Random(42);
  std::uniform_real_distribution<double> Gap(2, 30);
  for (int I = 0; I <= AKeys; ++I) {
    const char Key = I == AKeys ? 'q' : static_cast<char>('a' + I % 16);  // never the closing q
    const double Sent = NowMs();
    (void)!send(Caller, &Key, 1, MSG_NOSIGNAL);
    char Echo = 0;
    if (!ReadExactly(Caller, &Echo, 1) || Echo != Key) std::exit(1);
    Run.LatencyMs.push_back(NowMs() - Sent);
    if (I < AKeys) SleepMs(Gap(Random));
  }
  ReadExactly(Report[0], &Run.Idle, sizeof Run.Idle);
  close(Caller);
  close(Report[0]);
  int Status = 0;
  waitpid(Child, &Status, 0);
  return Run;
}

void PrintUsage(const char* AName, const TUsage& AUsage) {
  const double Seconds = AUsage.WallMs / 1000.0;
  std::printf(
      "%-34s wall %6.2f s  cpu %8.3f ms (%7.4f%% of a core)  voluntary switches %6ld (%7.1f/s)  "
      "involuntary %ld\n",
      AName, Seconds, AUsage.CpuMs, 100.0 * AUsage.CpuMs / AUsage.WallMs, AUsage.Voluntary,
      AUsage.Voluntary / Seconds, AUsage.Involuntary);
}

void PrintLatency(const char* AName, std::vector<double> ALatency) {
  if (ALatency.empty()) return;
  std::sort(ALatency.begin(), ALatency.end());
  auto At = [&](double AFraction) {
    return ALatency[static_cast<size_t>(AFraction * double(ALatency.size() - 1))];
  };
  std::printf("%-34s keys %zu  min %.3f  median %.3f  p99 %.3f  max %.3f ms\n", AName, ALatency.size(),
              ALatency.front(), At(0.5), At(0.99), ALatency.back());
}

}  // namespace

int main(int argc, char** argv) {
  const double Seconds = argc > 1 ? std::atof(argv[1]) : 10.0;
  const int Keys = argc > 2 ? std::atoi(argv[2]) : 200;
  std::printf("Door waiting for a key on a socket link, %.1f s idle, then %d keys echoed\n", Seconds, Keys);

  const TRun Door = RunOnce(Seconds, Keys, false);
  const TRun Plain = RunOnce(Seconds, Keys, true);
  PrintUsage("DoorReadKey wait (sleeps on fd)", Door.Idle);
  PrintUsage("plain 1 ms polling loop", Plain.Idle);
  PrintLatency("DoorReadKey key -> first byte", Door.LatencyMs);
  PrintLatency("plain loop key -> first byte", Plain.LatencyMs);
  return 0;
}
