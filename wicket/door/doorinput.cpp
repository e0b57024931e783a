// Door input and events: keys from the link or the local console, escape decoding, and the
// once-a-second watch over carrier, idle time and time left. This module owns the pacing of
// the key wait and the counts of the last watch pass that keep warnings on their exact second.
//
// The wait never spins: while no key is there the thread sleeps on the link's descriptor (or,
// through the console, on standard input) with a time-out that ends on the millisecond the next
// check is due. A key wakes it at once; a quiet node wakes about once a second, for the check.
#include "doorinput.h"

#include <chrono>
#include <climits>
#include <cmath>
#include <cstdlib>

#include "comm/comm.h"
#include "console/console.h"
#include "doorend.h"
#include "doorstate.h"
#include "stringutils/strbasics.h"

namespace {

constexpr double SECOND_IN_DAYS = 1.0 / 86400.0;
constexpr double HALF_MILLISECOND_IN_DAYS = 0.0005 / 86400.0;
constexpr double MILLISECONDS_PER_DAY = 86400000.0;

// Longest single sleep of the key wait: a clock stepped by the system, or a test clock, can
// never leave the wait blind for more than this.
constexpr int32_t MAX_WAIT_MS = 1000;
// A step of a count within this much after the check falls due is waited for (see
// DoorMillisecondsToNextCheck); further away, the check runs when due.
constexpr double STEP_NUDGE_DAYS = 2.0 / MILLISECONDS_PER_DAY;
// How long DoorReadKey waits for each further byte of an escape sequence: ten tries of 50 ms.
constexpr int32_t ESCAPE_WAIT_MS = 500;

constexpr uint8_t ESC = 0x1B;
// The keys of a remote terminal's ESC "[" A, B, C, D: the local up, down, right and left.
constexpr uint8_t ARROW_KEYS[4] = {0x48, 0x50, 0x4D, 0x4B};

// The whole seconds since DoorSession.TimeOn and since DoorLastKey.Time that the last watch
// pass read for its warnings; -1 when not read yet. Only the scheduling of the wait uses them.
int64_t FLastPassLeftCount = -1;
int64_t FLastPassIdleCount = -1;
bool FEndRequestSeen = false;
// When the checks of a slow write last ran.
double FLastWriteCheck = 0;

int64_t WholeSeconds(double AFirst, double ASecond) {
  const double Seconds = (std::fabs(AFirst - ASecond) + HALF_MILLISECOND_IN_DAYS) * 86400.0;
  // A date-time out of all range (or not a number) reads as "very long ago", never as a
  // wrapped, negative count that would look like time still to come.
  return Seconds < 9.0e18 ? static_cast<int64_t>(Seconds) : INT64_MAX;
}

int32_t SecondsLeftFromCount(int64_t ACountOn) {
  return SaturateToInt32(static_cast<int64_t>(DoorDropInfo.MaxSeconds) - ACountOn);
}

void CallWarning(TDoorWarningProc AHook, int32_t ARemaining) {
  if (AHook != nullptr && ARemaining % 60 == 1 && ARemaining / 60 <= 5)
    AHook(static_cast<uint8_t>(ARemaining / 60));
}

// The watch pass. Runs only on a socket link (Events), at most once per whole second.
void DoorDoEvents() {
  if (!DoorSession.Events) return;
  // The BBS has hung the caller up, or the run was told to end: at once, not at the next
  // second. Once only: a hang-up hook that returns is asked again by the carrier step.
  const bool FirstSight = ConsoleEndSignal() != 0 && !FEndRequestSeen;
  if (FirstSight) {
    FEndRequestSeen = true;
    DoorEndForHangup();
  }
  if (WholeSeconds(DoorNow(), DoorSession.EventsTime) < 1) return;

  if (!DoorCarrier() || (FEndRequestSeen && !FirstSight)) DoorEndForHangup();

  if (DoorSession.DoIdleCheck && DoorSecondsIdle() > DoorSession.MaxIdle && DoorOnTimeOut != nullptr)
    DoorOnTimeOut();

  if (DoorSession.DoIdleCheck) {
    const double Now = DoorNow();
    const int64_t IdleCount = WholeSeconds(Now, DoorLastKey.Time);
    FLastPassIdleCount = IdleCount;
    CallWarning(DoorOnTimeOutWarning, SaturateToInt32(static_cast<int64_t>(DoorSession.MaxIdle) - IdleCount));
  }

  if (DoorSecondsLeft() < 1 && DoorOnTimeUp != nullptr) DoorOnTimeUp();

  {
    const double Now = DoorNow();
    const int64_t CountOn = WholeSeconds(Now, DoorSession.TimeOn);
    FLastPassLeftCount = CountOn;
    CallWarning(DoorOnTimeUpWarning, SecondsLeftFromCount(CountOn));
  }

  DoorSession.EventsTime = DoorNow();
}

void SleepMilliseconds(int32_t AMs) {
  if (AMs > 0) Delay(static_cast<uint16_t>(AMs < 65535 ? AMs : 65535));
}

using TSteadyClock = std::chrono::steady_clock;

int32_t MillisecondsUntil(TSteadyClock::time_point ADeadline) {
  const auto Left = ADeadline - TSteadyClock::now();
  if (Left <= TSteadyClock::duration::zero()) return 0;
  // Round up, so that a wait never ends just short of its deadline and goes round again.
  return static_cast<int32_t>(std::chrono::ceil<std::chrono::milliseconds>(Left).count());
}

// Sleeps on the link up to AMs, ending early when a byte arrives or a signal interrupts the
// sleep, so that the caller's loop looks again at once: a key that follows a signal (or the
// request a signal leaves) is not held until the next check. A link whose carrier is gone can
// never bring a byte and its socket stays readable at end of file, so it gets a plain sleep
// instead and such a wait can't spin.
void WaitOnLink(int32_t AMs) {
  if (!CommCarrier())
    SleepMilliseconds(AMs);
  else
    CommWaitForData(AMs);
}

// Step 2 of a key read: until a key can be read, sleep on the input, waking for each check.
void WaitForKey() {
  while (!DoorKeyPressed()) {
    const int32_t Ms = DoorMillisecondsToNextCheck();
    if (StdIO)
      ConsoleWaitForKey(Ms);
    else
      WaitOnLink(Ms);
  }
}

// The wait for the next byte of an escape sequence: true as soon as one is there, false when
// none has come within the ten tries of 50 ms. The watch does not run during this wait.
bool WaitForLinkByte() {
  const auto Deadline = TSteadyClock::now() + std::chrono::milliseconds(ESCAPE_WAIT_MS);
  for (;;) {
    if (CommCharAvail()) return true;
    const int32_t Left = MillisecondsUntil(Deadline);
    if (Left <= 0) return false;
    WaitOnLink(Left);
  }
}

// Feeds the next link byte to the decoder, taking it from the buffer only if it was used.
TDoorKeyStep FeedLinkByte(TDoorEscapeState& AState) {
  const TDoorKeyStep Step = DoorKeyDecodeByte(AState, CommPeekChar());
  if (Step.Consumed) CommReadChar();
  return Step;
}

// One key from the link, with escape decoding; HasKey false when the bytes read gave none.
TDoorKeyStep ReadLinkKey() {
  TDoorEscapeState State = esNone;
  TDoorKeyStep Step = FeedLinkByte(State);
  while (!Step.HasKey && State != esNone)
    Step = WaitForLinkByte() ? FeedLinkByte(State) : DoorKeyDecodeTimeout(State);
  return Step;
}

// Milliseconds from ANow until the whole seconds since ARef first exceed ACount, as a date-time
// difference; negative when ARef lies ahead (the count then runs down, not up).
double StepTime(double ARef, int64_t ACount) {
  return ARef + static_cast<double>(ACount + 1) * SECOND_IN_DAYS - HALF_MILLISECOND_IN_DAYS;
}

// Moves AWake to the next step of the count since ARef when the count at ADue would repeat
// the one the last pass read and that step is only a hair after ADue.
void NudgePastRepeat(double& AWake, double ADue, double ARef, int64_t ALastCount) {
  if (ALastCount < 0 || ARef > ADue) return;
  const int64_t CountAtDue = WholeSeconds(ADue, ARef);
  if (CountAtDue != ALastCount) return;
  const double Step = StepTime(ARef, CountAtDue);
  if (Step > AWake && Step - ADue <= STEP_NUDGE_DAYS) AWake = Step;
}

}  // namespace

int32_t DoorSecondsBetween(double AFirst, double ASecond) {
  return SaturateToInt32(WholeSeconds(AFirst, ASecond));
}

int32_t DoorSecondsIdle() { return DoorSecondsBetween(DoorNow(), DoorLastKey.Time); }

int32_t DoorSecondsLeft() { return SecondsLeftFromCount(WholeSeconds(DoorNow(), DoorSession.TimeOn)); }

bool DoorCarrier() { return StdIO || CommCarrier(); }

void DoorWriteWaitChecks() {
  if (ConsoleEndSignal() != 0 || !DoorCarrier()) {
    DoorEndForHangup();
    return;
  }
  if (!DoorSession.Events || DoorSecondsBetween(DoorNow(), FLastWriteCheck) < 1) return;
  FLastWriteCheck = DoorNow();
  if (DoorSession.DoIdleCheck && DoorSecondsIdle() > DoorSession.MaxIdle && DoorOnTimeOut != nullptr)
    DoorOnTimeOut();
  if (DoorSecondsLeft() < 1 && DoorOnTimeUp != nullptr) DoorOnTimeUp();
}

bool DoorKeyPressed() {
  DoorDoEvents();
  return StdIO ? KeyPressed() : CommCharAvail();
}

int32_t DoorMillisecondsToNextCheck() {
  if (!DoorSession.Events) return MAX_WAIT_MS;
  const double Now = DoorNow();
  if (WholeSeconds(Now, DoorSession.EventsTime) >= 1) return 1;
  // Less than a second from EventsTime (either way): due once a whole second has passed it.
  const double Due = StepTime(DoorSession.EventsTime, 0);
  double Wake = Due;
  NudgePastRepeat(Wake, Due, DoorSession.TimeOn, FLastPassLeftCount);
  if (DoorSession.DoIdleCheck) NudgePastRepeat(Wake, Due, DoorLastKey.Time, FLastPassIdleCount);
  const double Ms = std::ceil((Wake - Now) * MILLISECONDS_PER_DAY);
  if (!(Ms >= 1)) return 1;
  if (Ms > MAX_WAIT_MS) return MAX_WAIT_MS;
  return static_cast<int32_t>(Ms);
}

uint8_t DoorReadKey() {
  DoorLastKey.Location = lkNone;
  uint8_t Key = 0;
  while (DoorLastKey.Location == lkNone) {
    if (!StdIO || DoorSession.Events) WaitForKey();
    if (StdIO) {
      // Without the watch, polling has no effect but the key itself: wait for it in the
      // console, which sleeps until the keyboard has one.
      if (DoorSession.Events && !KeyPressed()) continue;
      Key = ReadKey();
      DoorLastKey.Extended = Key == 0;
      if (DoorLastKey.Extended) Key = ReadKey();
      DoorLastKey.Location = lkUser;
    } else {
      if (!CommCharAvail()) continue;
      const TDoorKeyStep Step = ReadLinkKey();
      if (!Step.HasKey) continue;
      Key = Step.Ch;
      DoorLastKey.Extended = Step.Extended;
      DoorLastKey.Location = lkUser;
    }
  }
  DoorLastKey.Ch = Key;
  DoorLastKey.Time = DoorNow();
  return Key;
}

TDoorKeyStep DoorKeyDecodeByte(TDoorEscapeState& AState, uint8_t AByte) {
  TDoorKeyStep Step;
  switch (AState) {
    case esNone:
      if (AByte == ESC) {
        AState = esEscape;
      } else {
        Step.HasKey = true;
        Step.Ch = AByte;
      }
      break;
    case esEscape:
      if (AByte == '[') {
        AState = esBracket;
      } else {
        AState = esNone;
        Step.HasKey = true;
        Step.Ch = ESC;
        Step.Consumed = false;
      }
      break;
    case esBracket:
      AState = esNone;
      if (AByte >= 'A' && AByte <= 'D') Step.Ch = ARROW_KEYS[AByte - 'A'];
      Step.HasKey = Step.Ch != 0;
      Step.Extended = Step.HasKey;
      break;
  }
  return Step;
}

TDoorKeyStep DoorKeyDecodeTimeout(TDoorEscapeState& AState) {
  TDoorKeyStep Step;
  if (AState == esEscape) {
    Step.HasKey = true;
    Step.Ch = ESC;
  }
  AState = esNone;
  return Step;
}
