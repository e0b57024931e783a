// Keys and the watch over a session, seen from the caller's end of a real socketpair: escape
// sequences with real timing, carrier loss, the idle and time limits and their warnings.
// Every door runs in a forked child, since the link's carrier never comes back once lost.
#include "doorinput.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "console/console.h"
#include "doorend.h"
#include "doorlink_testutil.h"
#include "testsupport.h"

namespace {

constexpr double MS_IN_DAYS = 1.0 / 86400000.0;
const TDoorRunOptions ON_LINK{.OnLink = true};

void Sleep(int AMs) { std::this_thread::sleep_for(std::chrono::milliseconds(AMs)); }

// Runs bytes through the decoder as DoorReadKey does when they are all there at once, with
// silence after the last one; the keys in hex, "+" marking an extended one.
std::string DecodeAll(const std::string& ABytes) {
  std::string Keys;
  TDoorEscapeState State = esNone;
  auto Add = [&](const TDoorKeyStep& AStep) {
    if (AStep.HasKey)
      Keys += HexBytes(std::string(1, static_cast<char>(AStep.Ch))) + (AStep.Extended ? "+ " : " ");
  };
  for (size_t I = 0; I < ABytes.size();) {
    const TDoorKeyStep Step = DoorKeyDecodeByte(State, static_cast<uint8_t>(ABytes[I]));
    I += Step.Consumed;
    Add(Step);
  }
  Add(DoorKeyDecodeTimeout(State));
  EXPECT_EQ(State, esNone);
  return Keys;
}

TEST(DoorKeyDecode, TurnsCursorSequencesIntoPcKeysAndLeavesTheRestAsBytes) {
  const std::pair<std::string, std::string> Cases[] = {
      {"\x1B[A\x1B[B\x1B[C\x1B[D", "48+ 50+ 4D+ 4B+ "},
      {"H", "48 "},  // same code as the up arrow, told apart only by Extended
      {"\x1BOA", "1B 4F 41 "},
      {"\x1B[a", ""},  // finals are case-sensitive
      {"\x1B\x1B[A", "1B 48+ "},
      {"\x1B[\x1B[C", "5B 43 "},
      {std::string("\x00\xFF\x1B", 3), "00 FF 1B "},
  };
  for (const auto& [Bytes, Keys] : Cases) EXPECT_EQ(DecodeAll(Bytes), Keys) << HexBytes(Bytes);
}

TEST(DoorSecondsBetween, CountsWholeSecondsEitherWayAndSaturates) {
  const double Base = 45000.5;
  for (const auto& [DeltaMs, Seconds] :
       {std::pair{999, 0}, {1000, 1}, {-1000, 1}, {1999, 1}, {-3600000, 3600}})
    EXPECT_EQ(DoorSecondsBetween(Base + DeltaMs * MS_IN_DAYS, Base), Seconds) << DeltaMs;
  // A time never stamped is long ago; one an application set out of all range is too.
  for (const double Far : {0.0, 1e300, -HUGE_VAL, double(NAN)})
    EXPECT_EQ(DoorSecondsBetween(Base, Far), INT32_MAX) << Far;
}

// One DoorReadKey per expected key, each timed in the door child: the earliest and latest
// acceptable return, from the start of the read.
struct TTimedKey {
  uint8_t Ch;
  bool Extended;
  double MinMs, MaxMs;
};

void ExpectKeys(const std::vector<TTimedKey>& AKeys) {
  for (const TTimedKey& Want : AKeys) {
    const double Start = MonotonicMs();
    EXPECT_EQ(DoorReadKey(), Want.Ch);
    const double Took = MonotonicMs() - Start;
    EXPECT_EQ(DoorLastKey.Ch, Want.Ch);
    EXPECT_EQ(DoorLastKey.Extended, Want.Extended) << "key " << int(Want.Ch);
    EXPECT_EQ(DoorLastKey.Location, lkUser);
    EXPECT_GE(Took, Want.MinMs) << "key " << int(Want.Ch);
    EXPECT_LE(Took, Want.MaxMs) << "key " << int(Want.Ch);
  }
}

// Sends pieces with pauses before them, as a caller's terminal would.
void PlayCaller(int AFd, const std::vector<std::pair<int, std::string>>& APieces) {
  for (const auto& [DelayMs, Bytes] : APieces) {
    Sleep(DelayMs);
    Send(AFd, Bytes);
  }
}

TEST(DoorReadKey, EscapeSequencesWithRealTiming) {
  const struct {
    const char* Name;
    std::vector<std::pair<int, std::string>> Caller;
    std::vector<TTimedKey> Keys;
  } Cases[] = {
      // Everything at once: no escape wait at all.
      {"whole arrow", {{0, "\x1B[A"}}, {{0x48, true, 0, 400}}},
      // A lone ESC is the key ESC, after the full 500 ms wait for a "[".
      {"lone escape", {{0, "\x1B"}}, {{0x1B, false, 480, 1500}}},
      // A byte that arrives ends the wait at once, and is the next key.
      {"escape then letter", {{0, "\x1B"}, {120, "x"}}, {{0x1B, false, 100, 450}, {'x', false, 0, 200}}},
      // Each byte of the sequence has its own wait.
      {"slow arrow", {{0, "\x1B"}, {300, "["}, {300, "B"}}, {{0x50, true, 580, 1300}}},
      // ESC "[" then silence: both vanish and the next byte is a key of its own.
      {"dropped prefix", {{0, "\x1B["}, {900, "q"}}, {{'q', false, 880, 2000}}},
      // An unknown final drops the three bytes; the rest of a longer sequence are keys.
      {"longer sequence", {{0, "\x1B[2~"}}, {{'~', false, 0, 400}}},
  };
  for (const auto& Case : Cases) {
    SCOPED_TRACE(Case.Name);
    TDoorRun Door([&](int) { ExpectKeys(Case.Keys); }, ON_LINK);
    PlayCaller(Door.Caller, Case.Caller);
    EXPECT_EQ(FinishDoor(Door), 0);
  }
}

double CpuMsSoFar() {
  rusage Usage{};
  getrusage(RUSAGE_SELF, &Usage);
  return (Usage.ru_utime.tv_sec + Usage.ru_stime.tv_sec) * 1000.0 +
         (Usage.ru_utime.tv_usec + Usage.ru_stime.tv_usec) / 1000.0;
}

// In stdio mode the keys come from the local console, which gives a key without a byte as 0
// and its code; the wait sleeps on standard input, with the watch off or (if an application
// turns it on) on.
TEST(DoorReadKey, StdioModeReadsTheLocalKeyboard) {
  for (const bool Events : {false, true}) {
    SCOPED_TRACE(Events ? "watch on" : "watch off");
    TDoorRun Door([=](int) {
      DoorSession.Events = Events;
      DoorSession.TimeOn = DoorLastKey.Time = DoorNow();
      const double CpuBefore = CpuMsSoFar(), Start = MonotonicMs();
      ExpectKeys({{'x', false, 0, 2000}, {0x48, true, 0, 2000}, {0x1B, false, 0, 2000}});
      // About a second of waiting, of which a spinning wait would have burnt most.
      EXPECT_LT(CpuMsSoFar() - CpuBefore, 0.3 * (MonotonicMs() - Start));
    });
    PlayCaller(Door.Input, {{300, "x"}, {300, "\x1B[A"}, {300, "\x1B"}});
    EXPECT_EQ(FinishDoor(Door), 0);
  }
}

// A signal that interrupts the sleep on the link (a window change, a child ending) must not
// hold back a key that follows it until the next once-a-second check.
TEST(DoorReadKey, AKeyRightAfterASignalStillReturnsAtOnce) {
  TDoorRun Door(
      [](int) {
        struct sigaction Ignore {};
        Ignore.sa_handler = [](int) {};
        sigaction(SIGUSR1, &Ignore, nullptr);
        DoorSession.TimeOn = DoorLastKey.Time = DoorNow();
        DoorSession.Events = true;
        DoorReport("ready");
        ExpectKeys({{'k', false, 150, 600}});
      },
      ON_LINK);
  std::string Seen;
  ASSERT_TRUE(WaitFor(Door.ReportFd, Seen, "ready"));
  Sleep(200);
  kill(Door.Pid, SIGUSR1);
  Sleep(30);
  Send(Door.Caller, "k");
  EXPECT_EQ(FinishDoor(Door), 0);
}

// --- The watch: carrier, idle limit, time limit ---------------------------------------------

// What the hooks saw, in order, in the door child: "H" hang-up, "O" idle stop, "o" its warning,
// "U" time-up, "u" its warning; then the minutes a warning passed, "@" and the seconds since the
// run began.
std::string GLog, GTimeLog;  // every entry; the time limit's own
double GStart = 0;           // door date-time at which the test's run began

int32_t SinceStart() { return DoorSecondsBetween(DoorNow(), GStart); }
void Log(char AHook, const std::string& AMinutes) {
  const std::string Entry = AHook + AMinutes + "@" + std::to_string(SinceStart()) + " ";
  GLog += Entry;
  if (AHook == 'u' || AHook == 'U') GTimeLog += Entry;
}
// Hooks that record, and a session begun now on the link with the watch on as DoorStartup
// leaves it.
void BeginSession() {
  GLog.clear();
  GTimeLog.clear();
  DoorOnHangup = [] { Log('H', ""); };
  DoorOnTimeOut = [] { Log('O', ""); };
  DoorOnTimeUp = [] { Log('U', ""); };
  DoorOnTimeOutWarning = [](uint8_t AMinutes) { Log('o', std::to_string(AMinutes)); };
  DoorOnTimeUpWarning = [](uint8_t AMinutes) { Log('u', std::to_string(AMinutes)); };
  GStart = DoorNow();
  DoorLastKey.Time = DoorSession.TimeOn = GStart;
  DoorSession.Events = true;
  DoorSession.EventsTime = 0;
}

double GFakeNow = 0;
double FakeClock() { return GFakeNow; }

// Steps a fake clock through a session and polls once per step, as a key wait would.
void SweepFakeClock(double AStepMs, int ASteps) {
  for (int I = 0; I < ASteps; ++I) {
    GFakeNow += AStepMs * MS_IN_DAYS;
    DoorKeyPressed();
  }
}

TEST(DoorDoEvents, WarningsFallOnTheirSecondsAndStopsFollow) {
  TDoorRun Door(
      [](int) {
        DoorClock = FakeClock;
        GFakeNow = 45000.25;
        BeginSession();
        DoorDropInfo.MaxSeconds = 400;
        DoorSession.MaxIdle = 300;
        SweepFakeClock(1000, 401);
        // Idle time left R = 241, 181, 121, 61, 1 seconds; time left L = 301 ... 1. Hooks that
        // return leave the run going, and the stop is repeated.
        const std::string Want = "o4@59 u5@99 o3@119 u4@159 o2@179 u3@219 o1@239 u2@279 o0@299 O@301 O@302 ";
        EXPECT_EQ(GLog.substr(0, Want.size()), Want);
        // Every later pass repeats the idle stop; the time warnings go on, then the time-up.
        EXPECT_EQ(GTimeLog, "u5@99 u4@159 u3@219 u2@279 u1@339 u0@399 U@400 U@401 ");
      },
      ON_LINK);
  EXPECT_EQ(FinishDoor(Door), 0);
}

TEST(DoorDoEvents, ChecksRunInOrderAtMostOnceASecondAndOnlyWithEvents) {
  TDoorRun Door(
      [](int) {
        DoorClock = FakeClock;
        GFakeNow = 45000.25;
        BeginSession();
        DoorSession.Events = false;
        DoorDropInfo.MaxSeconds = 0;
        DoorSession.MaxIdle = 0;
        // Carrier gone: the caller closed its end, and one poll of the link finds it.
        while (CommCarrier()) {
          CommCharAvail();
          Sleep(1);
        }
        SweepFakeClock(5000, 3);
        EXPECT_EQ(GLog, "") << "no watch without Events";

        DoorSession.Events = true;
        DoorSession.EventsTime = 0;
        SweepFakeClock(3000, 1);  // 18 s idle and past the time limit
        SweepFakeClock(999, 1);   // a second check within the same second does nothing
        SweepFakeClock(1, 1);
        EXPECT_EQ(GLog, "H@18 O@18 U@18 H@19 O@19 U@19 ");

        // No idle limit without DoIdleCheck; the time limit stays.
        GLog.clear();
        DoorSession.DoIdleCheck = false;
        SweepFakeClock(1000, 1);
        EXPECT_EQ(GLog, "H@20 U@20 ");
      },
      ON_LINK);
  CloseEnd(Door.Caller);
  EXPECT_EQ(FinishDoor(Door), 0);
}

// The key wait's own schedule over a long session, on a clock that reads whole milliseconds
// as the real one does and a wake-up that comes a little late: no pass reads a second of
// time left or idle time twice, and a second is skipped only when the lateness has piled up
// to a whole second, about once in several thousand passes.
double GHiddenNow = 0;
double WholeMsClock() { return std::floor(GHiddenNow / MS_IN_DAYS) * MS_IN_DAYS; }

TEST(DoorMillisecondsToNextCheck, PassesReadEachSecondOnce) {
  TDoorRun Door(
      [](int) {
        DoorClock = WholeMsClock;
        std::mt19937 Random(7);
        std::uniform_real_distribution<double> Phase(0, 1000), Lateness(0, 0.3);
        for (int Round = 0; Round < 4; ++Round) {
          GHiddenNow = 45000.25 + Phase(Random) * MS_IN_DAYS;
          BeginSession();
          DoorLastKey.Time = WholeMsClock() - std::floor(Phase(Random)) * MS_IN_DAYS;
          DoorDropInfo.MaxSeconds = DoorSession.MaxIdle = 1000000;
          DoorKeyPressed();
          int32_t LastLeft = DoorSecondsLeft(), LastIdle = DoorSecondsIdle();
          int Passes = 0, Skips = 0, Wakes = 0;
          while (Passes < 3000) {
            const int32_t Wait = DoorMillisecondsToNextCheck();
            ASSERT_TRUE(Wait >= 1 && Wait <= 1000) << Wait;
            GHiddenNow += (Wait + Lateness(Random)) * MS_IN_DAYS;
            const double Before = DoorSession.EventsTime;
            ++Wakes;
            DoorKeyPressed();
            if (DoorSession.EventsTime == Before) continue;
            ++Passes;
            // On the millisecond the check fell due, or the next one when the wake-up was late.
            const double Period = std::round((DoorSession.EventsTime - Before) / MS_IN_DAYS);
            ASSERT_TRUE(Period == 1000 || Period == 1001) << Period;
            const int32_t Left = DoorSecondsLeft(), Idle = DoorSecondsIdle();
            ASSERT_TRUE(Left == LastLeft - 1 || Left == LastLeft - 2) << "pass " << Passes;
            ASSERT_TRUE(Idle == LastIdle + 1 || Idle == LastIdle + 2) << "pass " << Passes;
            Skips += (Left == LastLeft - 2) + (Idle == LastIdle + 2);
            LastLeft = Left;
            LastIdle = Idle;
          }
          EXPECT_LE(Skips, 2) << "round " << Round;
          EXPECT_LE(Wakes, Passes + 30) << "a wake-up without a pass is a wasted one";
        }
      },
      ON_LINK);
  EXPECT_EQ(FinishDoor(Door, 30000), 0);
}

// The real clock and real waits: a stop ends the wait in DoorReadKey on its second, after its
// warning, while the door sleeps instead of spinning. The stop hook ("S") checks and ends the
// child with code 42.
std::string GWantLog;
void CheckedStop() {
  Log('S', "");
  if (!GWantLog.empty()) {
    EXPECT_EQ(GLog, GWantLog);
  }
  // A key wait that spins would have burnt most of the seconds it waited.
  EXPECT_LT(CpuMsSoFar(), 1000.0);
  _exit(::testing::Test::HasFailure() ? 1 : 42);
}

TEST(DoorReadKey, LimitsAndCarrierLossEndTheWait) {
  constexpr int NEVER = -1, CLOSE_UNDER_LINK = -2;
  const struct {
    const char* Name;
    int32_t MaxIdle, MaxSeconds;
    char StopOn;        // the hook that stops: 'O' idle, 'U' time, 'H' hang-up (emptied otherwise)
    int HangUpAfterMs;  // the caller closes its end after this long
    std::string Log;    // empty: not checked
  } Cases[] = {
      {"idle limit", 2, 3600, 'O', NEVER, "o0@1 S@3 "},
      {"time limit", 300, 2, 'U', NEVER, "u0@1 S@2 "},
      {"carrier loss mid-wait", 300, 3600, 'H', 1300, ""},
      {"carrier loss, no hang-up hook: the wait goes on quietly", 2, 3600, 'O', 0, "o0@1 S@3 "},
      {"a descriptor that can't even be polled must not spin", 2, 3600, 'O', CLOSE_UNDER_LINK, "o0@1 S@3 "},
  };
  // Each case waits out whole seconds of the door's clock, so they run side by side. A child
  // must not keep the test's ends of the doors started before it open, or its carrier would
  // not drop when the test hangs up.
  std::vector<std::unique_ptr<TDoorRun>> Doors;
  std::vector<int> Held;
  for (const auto& Case : Cases) {
    Doors.push_back(std::make_unique<TDoorRun>(
        [&](int) {
          for (int Fd : Held) close(Fd);
          BeginSession();
          GWantLog = Case.Log;
          DoorSession.MaxIdle = Case.MaxIdle;
          DoorDropInfo.MaxSeconds = Case.MaxSeconds;
          if (Case.StopOn != 'H') DoorOnHangup = nullptr;
          (Case.StopOn == 'H'   ? DoorOnHangup
           : Case.StopOn == 'U' ? DoorOnTimeUp
                                : DoorOnTimeOut) = CheckedStop;
          if (Case.HangUpAfterMs == CLOSE_UNDER_LINK) close(CommHandle());
          DoorReadKey();
          ADD_FAILURE() << "DoorReadKey returned";
        },
        ON_LINK));
    for (int Fd : {Doors.back()->Caller, Doors.back()->Input, Doors.back()->Output, Doors.back()->ReportFd})
      if (Fd >= 0) Held.push_back(Fd);
  }
  const double Started = MonotonicMs();
  std::vector<size_t> ByHangUp(std::size(Cases));
  std::iota(ByHangUp.begin(), ByHangUp.end(), size_t{0});
  std::stable_sort(ByHangUp.begin(), ByHangUp.end(),
                   [&](size_t A, size_t B) { return Cases[A].HangUpAfterMs < Cases[B].HangUpAfterMs; });
  for (const size_t I : ByHangUp) {
    if (Cases[I].HangUpAfterMs < 0) continue;
    SCOPED_TRACE(Cases[I].Name);
    Sleep(std::max(0, static_cast<int>(Started + Cases[I].HangUpAfterMs - MonotonicMs())));
    CloseEnd(Doors[I]->Caller);
    const double Closed = MonotonicMs();
    if (Cases[I].HangUpAfterMs > 0) {
      EXPECT_EQ(FinishDoor(*Doors[I]), 42);
      // The next once-a-second pass finds the carrier gone.
      EXPECT_LT(MonotonicMs() - Closed, 1500);
    }
  }
  for (size_t I = 0; I < std::size(Cases); ++I) {
    SCOPED_TRACE(Cases[I].Name);
    if (Cases[I].HangUpAfterMs <= 0) {
      EXPECT_EQ(FinishDoor(*Doors[I]), 42);
    }
  }
}

// --- The hang-up watch of a program's own long waits ----------------------------------------

// A wait on DoorAddHangupWatch's descriptors (a feed fetch, say) sleeps through typed keys,
// which stay for the next read, and wakes when the caller goes or the run is told to end;
// DoorEndForHangup then leaves one line for the sysop and, with the hook emptied, returns.
TEST(DoorHangupWatch, WakesForHangupsAndEndRequestsButNotForKeys) {
  const struct {
    const char* Name;
    bool Stdio;
    void (*Act)(TDoorRun&);
    std::string Want;
  } Cases[] = {
      {"a key on the link", false, [](TDoorRun& ADoor) { Send(ADoor.Caller, "x"); }, "quiet x"},
      {"a key on standard input", true, [](TDoorRun& ADoor) { Send(ADoor.Input, "x"); }, "quiet x"},
      {"the caller closes the link", false, [](TDoorRun& ADoor) { CloseEnd(ADoor.Caller); },
       "pending|doorinput_test: node 3: caller hung up\n"},
      {"the input pipe closes", true, [](TDoorRun& ADoor) { CloseEnd(ADoor.Input); },
       "pending|doorinput_test: node 3: caller hung up\n"},
      {"SIGTERM on the link", false, [](TDoorRun& ADoor) { kill(ADoor.Pid, SIGTERM); },
       "pending|doorinput_test: node 3: ended by SIGTERM\n"},
      {"SIGHUP in stdio", true, [](TDoorRun& ADoor) { kill(ADoor.Pid, SIGHUP); },
       "pending|doorinput_test: node 3: hang-up (SIGHUP)\n"},
  };
  for (const auto& Case : Cases) {
    SCOPED_TRACE(Case.Name);
    TTempDir Dir;
    const std::string LogFile = (Dir.Path / "log").string();
    TDoorRun Door(
        [&](int) {
          setenv("WICKET_LOG_FILE", LogFile.c_str(), 1);
          ConsoleInit();
          DoorDropInfo.Node = 3;
          DoorOnHangup = nullptr;
          std::vector<pollfd> Watch;
          DoorAddHangupWatch(Watch);
          DoorReport("ready");
          int Ready;
          while ((Ready = poll(Watch.data(), Watch.size(), 1500)) < 0 && errno == EINTR) {
          }
          if (Ready == 0) {
            const bool Pending = DoorHangupPending();
            const char Key = static_cast<char>(StdIO ? ReadKey() : (CommCharAvail() ? CommReadChar() : '-'));
            DoorReport(std::string(Pending ? "pending " : "quiet ") + Key);
            return;
          }
          DoorReport(DoorHangupPending() ? "pending|" : "quiet|");
          DoorEndForHangup();
          DoorEndForHangup();  // logged once only
          DoorReport(ReadWholeFile(LogFile));
        },
        {.OnLink = !Case.Stdio});
    std::string Seen;
    ASSERT_TRUE(WaitFor(Door.ReportFd, Seen, "ready"));
    Case.Act(Door);
    EXPECT_EQ(FinishDoor(Door), 0);
    EXPECT_EQ(Seen + Door.Report, "ready" + Case.Want);
  }
}

}  // namespace
