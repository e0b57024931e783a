// Keys and the watch over a session, seen from the caller's end of a real socketpair: escape
// sequences with real timing, carrier loss, the idle and time limits and their warnings.
// Every door runs in a forked child, since the link's carrier never comes back once lost.
#include "doorinput.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "comm/comm.h"
#include "doorlink_testutil.h"
#include "dooroutput.h"
#include "doorstate.h"

namespace {

constexpr double kMsInDays = 1.0 / 86400000.0;

void Sleep(int AMs) { std::this_thread::sleep_for(std::chrono::milliseconds(AMs)); }

// --- Decoding -----------------------------------------------------------------------------

struct TKey {
  uint8_t Ch;
  bool Extended;
  bool operator==(const TKey&) const = default;
};

// Runs bytes through the decoder as DoorReadKey does when they are all there at once, with
// silence after the last one.
std::vector<TKey> DecodeAll(const std::string& ABytes) {
  std::vector<TKey> Keys;
  TDoorEscapeState State = esNone;
  size_t I = 0;
  while (I < ABytes.size()) {
    const TDoorKeyStep Step = DoorKeyDecodeByte(State, static_cast<uint8_t>(ABytes[I]));
    if (Step.Consumed) ++I;
    if (Step.HasKey) Keys.push_back({Step.Ch, Step.Extended});
  }
  const TDoorKeyStep Last = DoorKeyDecodeTimeout(State);
  if (Last.HasKey) Keys.push_back({Last.Ch, Last.Extended});
  EXPECT_EQ(State, esNone);
  return Keys;
}

TEST(DoorKeyDecode, TurnsCursorSequencesIntoPcKeysAndLeavesTheRestAsBytes) {
  const TKey Esc{0x1B, false};
  const struct {
    std::string Bytes;
    std::vector<TKey> Keys;
  } Cases[] = {
      {"\x1B[A", {{0x48, true}}},
      {"\x1B[B", {{0x50, true}}},
      {"\x1B[C", {{0x4D, true}}},
      {"\x1B[D", {{0x4B, true}}},
      {"H", {{'H', false}}},  // same code as the up arrow, told apart only by Extended
      {"\x1B", {Esc}},
      {"\x1Bx", {Esc, {'x', false}}},
      {"\x1BOA", {Esc, {'O', false}, {'A', false}}},
      {"\x1B[", {}},
      {"\x1B[2~", {{'~', false}}},
      {"\x1B[a", {}},  // finals are case-sensitive
      {"\x1B\x1B[A", {Esc, {0x48, true}}},
      {"\x1B[\x1B[C", {{'[', false}, {'C', false}}},
      {std::string("\x00\xFF\x1B", 3), {{0x00, false}, {0xFF, false}, Esc}},
  };
  for (const auto& Case : Cases) EXPECT_EQ(DecodeAll(Case.Bytes), Case.Keys) << HexBytes(Case.Bytes);
}

TEST(DoorSecondsBetween, CountsWholeSecondsEitherWayAndSaturates) {
  const double Base = 45000.5;
  const struct {
    double DeltaMs;
    int32_t Seconds;
  } Cases[] = {{0, 0}, {999, 0}, {1000, 1}, {-1000, 1}, {1999, 1}, {61000, 61}, {-3600000, 3600}};
  for (const auto& Case : Cases)
    EXPECT_EQ(DoorSecondsBetween(Base + Case.DeltaMs * kMsInDays, Base), Case.Seconds) << Case.DeltaMs;
  EXPECT_EQ(DoorSecondsBetween(Base, 0), INT32_MAX);  // a time never stamped is long ago
}

// --- Keys over a real link ----------------------------------------------------------------

// One DoorReadKey per expected key, each timed in the door child.
struct TTimedKey {
  uint8_t Ch;
  bool Extended;
  double MinMs;  // earliest and latest acceptable return, from the start of the read
  double MaxMs;
};

void ExpectKeys(const std::vector<TTimedKey>& AKeys) {
  for (const TTimedKey& Want : AKeys) {
    const double Start = MonotonicMs();
    const uint8_t Got = DoorReadKey();
    const double Took = MonotonicMs() - Start;
    EXPECT_EQ(Got, Want.Ch);
    EXPECT_EQ(DoorLastKey.Ch, Want.Ch);
    EXPECT_EQ(DoorLastKey.Extended, Want.Extended) << "key " << int(Want.Ch);
    EXPECT_EQ(DoorLastKey.Location, lkUser);
    EXPECT_GE(Took, Want.MinMs) << "key " << int(Want.Ch);
    EXPECT_LE(Took, Want.MaxMs) << "key " << int(Want.Ch);
  }
}

// Sends pieces with pauses between them, as a caller's terminal would.
struct TPiece {
  int DelayMs;
  std::string Bytes;
};

void PlayCaller(int AFd, const std::vector<TPiece>& APieces) {
  for (const TPiece& Piece : APieces) {
    Sleep(Piece.DelayMs);
    SendToDoor(AFd, Piece.Bytes);
  }
}

TEST(DoorReadKey, EscapeSequencesWithRealTiming) {
  const struct {
    const char* Name;
    std::vector<TPiece> Caller;
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
    TDoorChild Child = StartDoorOnLink([&] { ExpectKeys(Case.Keys); }, SOCK_STREAM);
    PlayCaller(Child.CallerFd, Case.Caller);
    EXPECT_EQ(FinishDoor(Child), 0);
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
    TDoorChild Child = StartDoorOnStdout(
        [=] {
          DoorSession.Events = Events;
          DoorSession.TimeOn = DoorLastKey.Time = DoorNow();
          const double CpuBefore = CpuMsSoFar(), Start = MonotonicMs();
          ExpectKeys({{'x', false, 0, 2000}, {0x48, true, 0, 2000}, {0x1B, false, 0, 2000}});
          // About a second of waiting, of which a spinning wait would have burnt most.
          EXPECT_LT(CpuMsSoFar() - CpuBefore, 0.3 * (MonotonicMs() - Start));
        },
        true);
    PlayCaller(Child.InputFd, {{300, "x"}, {300, "\x1B[A"}, {300, "\x1B"}});
    EXPECT_EQ(FinishDoor(Child), 0);
  }
}

// --- The watch: carrier, idle limit, time limit ---------------------------------------------

// What the hooks saw, in order, in the door child.
struct THookCall {
  char Hook;  // 'H'angup, 'O' time out, 'o' its warning, 'U' time up, 'u' its warning
  int Minutes;
  int32_t AtSecond;  // seconds since the run began, when the hook was called
  bool operator==(const THookCall&) const = default;
};
std::vector<THookCall> GCalls;
double GStart = 0;  // door date-time at which the test's run began

int32_t SinceStart() { return DoorSecondsBetween(DoorNow(), GStart); }
void RecordHangup() { GCalls.push_back({'H', -1, SinceStart()}); }
void RecordTimeOut() { GCalls.push_back({'O', -1, SinceStart()}); }
void RecordTimeUp() { GCalls.push_back({'U', -1, SinceStart()}); }
void RecordIdleWarning(uint8_t AMinutes) { GCalls.push_back({'o', AMinutes, SinceStart()}); }
void RecordTimeWarning(uint8_t AMinutes) { GCalls.push_back({'u', AMinutes, SinceStart()}); }

void RecordEveryHook() {
  GCalls.clear();
  DoorOnHangup = RecordHangup;
  DoorOnTimeOut = RecordTimeOut;
  DoorOnTimeUp = RecordTimeUp;
  DoorOnTimeOutWarning = RecordIdleWarning;
  DoorOnTimeUpWarning = RecordTimeWarning;
}

// A session begun now on the link, with the watch on as DoorStartup leaves it.
void BeginSession() {
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
    GFakeNow += AStepMs * kMsInDays;
    DoorKeyPressed();
  }
}

TEST(DoorDoEvents, WarningsFallOnTheirSecondsAndStopsFollow) {
  TDoorChild Child =
      StartDoorOnLink(
          [] {
            DoorClock = FakeClock;
            GFakeNow = 45000.25;
            RecordEveryHook();
            BeginSession();
            DoorDropInfo.MaxSeconds = 400;
            DoorSession.MaxIdle = 300;
            SweepFakeClock(1000, 401);
            const std::vector<THookCall> Want =
                {
                    // Idle time left R = 241, 181, 121, 61, 1 seconds; time left L = 301 ... 1.
                    {'o', 4, 59},  {'u', 5, 99},   {'o', 3, 119},  {'u', 4, 159},
                    {'o', 2, 179}, {'u', 3, 219},  {'o', 1, 239},  {'u', 2, 279},
                    {'o', 0, 299}, {'O', -1, 301}, {'O', -1, 302},  // hooks that return leave the run going,
                                                                    // and the stop is repeated
                };
            ASSERT_GE(GCalls.size(), Want.size());
            EXPECT_EQ(std::vector<THookCall>(GCalls.begin(), GCalls.begin() + Want.size()), Want);
            // Every later pass repeats the idle stop; the time warnings go on, then the time-up.
            std::vector<THookCall> TimeCalls;
            for (const THookCall& Call : GCalls)
              if (Call.Hook == 'u' || Call.Hook == 'U') TimeCalls.push_back(Call);
            const std::vector<THookCall> WantTime = {{'u', 5, 99},   {'u', 4, 159}, {'u', 3, 219},
                                                     {'u', 2, 279},  {'u', 1, 339}, {'u', 0, 399},
                                                     {'U', -1, 400}, {'U', -1, 401}};
            EXPECT_EQ(TimeCalls, WantTime);
          },
          SOCK_STREAM);
  EXPECT_EQ(FinishDoor(Child), 0);
}

TEST(DoorDoEvents, ChecksRunInOrderAtMostOnceASecondAndOnlyWithEvents) {
  TDoorChild Child = StartDoorOnLink(
      [] {
        DoorClock = FakeClock;
        GFakeNow = 45000.25;
        RecordEveryHook();
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
        EXPECT_TRUE(GCalls.empty()) << "no watch without Events";

        DoorSession.Events = true;
        DoorSession.EventsTime = 0;
        GFakeNow += 3000 * kMsInDays;  // 18 s idle and past the time limit
        DoorKeyPressed();
        const std::vector<THookCall> Want = {{'H', -1, 18}, {'O', -1, 18}, {'U', -1, 18}};
        EXPECT_EQ(GCalls, Want);
        SweepFakeClock(999, 1);
        EXPECT_EQ(GCalls.size(), 3u) << "a second check within the same second";
        SweepFakeClock(1, 1);
        EXPECT_EQ(GCalls.size(), 6u);

        // No idle limit without DoIdleCheck; the time limit stays.
        GCalls.clear();
        DoorSession.DoIdleCheck = false;
        SweepFakeClock(1000, 1);
        const std::vector<THookCall> WantNoIdle = {{'H', -1, 20}, {'U', -1, 20}};
        EXPECT_EQ(GCalls, WantNoIdle);
      },
      SOCK_STREAM);
  close(Child.CallerFd);
  Child.CallerFd = -1;
  EXPECT_EQ(FinishDoor(Child), 0);
}

// The key wait's own schedule over a long session, on a clock that reads whole milliseconds
// as the real one does and a wake-up that comes a little late: no pass reads a second of
// time left or idle time twice, and a second is skipped only when the lateness has piled up
// to a whole second, about once in several thousand passes.
double GHiddenNow = 0;
double WholeMsClock() { return std::floor(GHiddenNow / kMsInDays) * kMsInDays; }

TEST(DoorMillisecondsToNextCheck, PassesReadEachSecondOnce) {
  TDoorChild Child = StartDoorOnLink(
      [] {
        DoorClock = WholeMsClock;
        std::mt19937 Random(7);
        std::uniform_real_distribution<double> Phase(0, 1000), Lateness(0, 0.3);
        for (int Round = 0; Round < 4; ++Round) {
          GHiddenNow = 45000.25 + Phase(Random) * kMsInDays;
          RecordEveryHook();
          BeginSession();
          DoorLastKey.Time = WholeMsClock() - std::floor(Phase(Random)) * kMsInDays;
          DoorDropInfo.MaxSeconds = 1000000;
          DoorSession.MaxIdle = 1000000;
          DoorKeyPressed();
          int32_t LastLeft = DoorSecondsLeft(), LastIdle = DoorSecondsIdle();
          int Passes = 0, Skips = 0, Wakes = 0;
          while (Passes < 3000) {
            const int32_t Wait = DoorMillisecondsToNextCheck();
            ASSERT_GE(Wait, 1);
            ASSERT_LE(Wait, 1000);
            GHiddenNow += (Wait + Lateness(Random)) * kMsInDays;
            const double Before = DoorSession.EventsTime;
            ++Wakes;
            DoorKeyPressed();
            if (DoorSession.EventsTime == Before) continue;
            ++Passes;
            // On the millisecond the check fell due, or the next one when the wake-up was late.
            const double Period = (DoorSession.EventsTime - Before) / kMsInDays;
            ASSERT_TRUE(std::round(Period) == 1000 || std::round(Period) == 1001) << Period;
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
      SOCK_STREAM);
  EXPECT_EQ(FinishDoor(Child, 30000), 0);
}

// The real clock, real waits: the default limits of a link session end the wait in
// DoorReadKey, after their warning, while the door sleeps instead of spinning.
int GStopCode = 0;
void StopAfterRecording() {
  // The wait before the stop used little processor time: a key wait that spins would have
  // burnt most of the seconds it waited.
  EXPECT_LT(CpuMsSoFar(), 1000.0);
  std::fflush(stdout);
  _exit(::testing::Test::HasFailure() ? 1 : GStopCode);
}
void TimeOutStop() {
  RecordTimeOut();
  EXPECT_EQ(GCalls, (std::vector<THookCall>{{'o', 0, 1}, {'O', -1, 3}}));
  GStopCode = 43;
  StopAfterRecording();
}
void TimeUpStop() {
  RecordTimeUp();
  EXPECT_EQ(GCalls, (std::vector<THookCall>{{'u', 0, 1}, {'U', -1, 2}}));
  GStopCode = 44;
  StopAfterRecording();
}
void HangupStop() {
  RecordHangup();
  GStopCode = 42;
  StopAfterRecording();
}

TEST(DoorReadKey, LimitsEndTheWaitOnTheirSecond) {
  const struct {
    const char* Name;
    void (*Setup)();
    int ExitCode;
  } Cases[] = {
      {"idle limit",
       [] {
         DoorSession.MaxIdle = 2;
         DoorOnTimeOut = TimeOutStop;
       },
       43},
      {"time limit",
       [] {
         DoorDropInfo.MaxSeconds = 2;
         DoorSession.DoIdleCheck = false;
         DoorOnTimeUp = TimeUpStop;
       },
       44},
  };
  for (const auto& Case : Cases) {
    SCOPED_TRACE(Case.Name);
    TDoorChild Child = StartDoorOnLink(
        [&] {
          RecordEveryHook();
          BeginSession();
          Case.Setup();
          DoorReadKey();
          ADD_FAILURE() << "DoorReadKey returned";
        },
        SOCK_STREAM);
    EXPECT_EQ(FinishDoor(Child), Case.ExitCode);
  }
}

// The caller hangs up mid-wait: the next pass calls the hang-up hook; with that hook emptied
// the wait goes on, quietly, until the idle limit ends it.
TEST(DoorReadKey, CarrierLossEndsTheWait) {
  TDoorChild Child = StartDoorOnLink(
      [] {
        RecordEveryHook();
        BeginSession();
        DoorOnHangup = HangupStop;
        DoorReadKey();
      },
      SOCK_STREAM);
  Sleep(1300);
  const double Closed = MonotonicMs();
  close(Child.CallerFd);
  Child.CallerFd = -1;
  EXPECT_EQ(FinishDoor(Child), 42);
  EXPECT_LT(MonotonicMs() - Closed, 1500);

  Child = StartDoorOnLink(
      [] {
        RecordEveryHook();
        BeginSession();
        DoorSession.MaxIdle = 2;
        DoorOnHangup = nullptr;
        DoorOnTimeOut = HangupStop;
        DoorReadKey();
      },
      SOCK_STREAM);
  close(Child.CallerFd);
  Child.CallerFd = -1;
  EXPECT_EQ(FinishDoor(Child), 42);

  // A descriptor that can't even be polled (closed under the link) must not make it spin either.
  Child = StartDoorOnLink(
      [] {
        close(CommHandle());
        RecordEveryHook();
        BeginSession();
        DoorSession.MaxIdle = 2;
        DoorOnTimeOut = HangupStop;
        DoorReadKey();
      },
      SOCK_STREAM);
  EXPECT_EQ(FinishDoor(Child), 42);
}

}  // namespace
