// The local keyboard: bytes from descriptor 0, decoded into the keys a DOS program would get,
// with cursor and function keys as 0 followed by the PC scan code. It owns the bytes read but not
// yet decoded, the decoded keys not yet handed out, and the knowledge that input has ended.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <string>

#include "consoleinternal.h"

using TClock = std::chrono::steady_clock;

static std::string FIn;    // read, not yet decoded
static std::string FKeys;  // decoded, not yet handed out
static bool FInputEnded = false;
// Since when FIn has held the start of an escape sequence that may still be completed.
static bool FUndecided = false;
static TClock::time_point FUndecidedSince;

static const int kLoneEscapeMs = 50;
static const size_t kMaxSequence = 32;
static const uint8_t ESC = 0x1B;

void ConsoleKeepInput(std::string_view ABytes) { FIn.append(ABytes); }
void ConsoleMarkInputEnded() { FInputEnded = true; }

bool ConsoleInputEnded() {
  ConsoleInit();
  return FInputEnded;
}

void (*ConsoleOnInputEnd)() = nullptr;

// Input ends for the keyboard also when a signal has asked the run to end.
static bool NoMoreInput() { return FInputEnded || ConsoleEndSignal() != 0; }

// Waits at most ATimeoutMs (-1: without limit) for descriptor 0 and takes what it has. A signal
// that asks the run to end wakes the wait.
static void ReadInput(int ATimeoutMs) {
  if (NoMoreInput()) return;
  const int SignalFd = ConsoleSignalFd();
  struct pollfd Polls[2] = {{0, POLLIN, 0}, {SignalFd, POLLIN, 0}};
  if (poll(Polls, SignalFd >= 0 ? 2 : 1, ATimeoutMs) <= 0) return;
  const struct pollfd& P = Polls[0];
  if (P.revents == 0) return;
  if ((P.revents & POLLNVAL) != 0) {
    FInputEnded = true;
    return;
  }
  char Buf[256];
  ssize_t N = read(0, Buf, sizeof(Buf));
  if (N > 0) {
    FIn.append(Buf, static_cast<size_t>(N));
  } else if (N == 0 || (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK)) {
    FInputEnded = true;  // end of file, or EIO from a terminal that has gone
  }
}

enum class TMatch { Key, Drop, NeedMore, LoneEscape };

struct TSequence {
  TMatch Kind;
  size_t Length = 1;
  uint8_t Scan = 0;
};

// Letter finals of CSI and SS3 forms: cursor keys, Home, End, and F1-F4 (SS3, and CSI with xterm
// modifiers). CSI "R" is left out: it is also the terminal's cursor report.
static uint8_t LetterScan(char AFinal, bool ACsi) {
  switch (AFinal) {
    case 'A':
      return 72;
    case 'B':
      return 80;
    case 'C':
      return 77;
    case 'D':
      return 75;
    case 'H':
      return 71;
    case 'F':
      return 79;
    case 'P':
      return 59;
    case 'Q':
      return 60;
    case 'R':
      return ACsi ? 0 : 61;
    case 'S':
      return 62;
    default:
      return 0;
  }
}

static uint8_t TildeScan(int32_t ACode) {
  switch (ACode) {
    case 1:
    case 7:
      return 71;
    case 4:
    case 8:
      return 79;
    case 2:
      return 82;
    case 3:
      return 83;
    case 5:
      return 73;
    case 6:
      return 81;
    case 11:
      return 59;
    case 12:
      return 60;
    case 13:
      return 61;
    case 14:
      return 62;
    case 15:
      return 63;
    case 17:
      return 64;
    case 18:
      return 65;
    case 19:
      return 66;
    case 20:
      return 67;
    case 21:
      return 68;
    case 23:
      return 133;
    case 24:
      return 134;
    default:
      return 0;
  }
}

static TSequence KeyOrDrop(uint8_t AScan, size_t ALength) {
  return {AScan != 0 ? TMatch::Key : TMatch::Drop, ALength, AScan};
}

// AIn starts with ESC.
static TSequence MatchEscape(const std::string& AIn) {
  if (AIn.size() < 2) return {TMatch::NeedMore};
  if (AIn[1] == 'O') {
    if (AIn.size() < 3) return {TMatch::NeedMore};
    return KeyOrDrop(LetterScan(AIn[2], false), 3);
  }
  if (AIn[1] != '[') return {TMatch::LoneEscape, 1};
  if (AIn.size() < 3) return {TMatch::NeedMore};
  if (AIn[2] == '[') {  // the Linux console's F1-F5
    if (AIn.size() < 4) return {TMatch::NeedMore};
    char F = AIn[3];
    return KeyOrDrop(F >= 'A' && F <= 'E' ? static_cast<uint8_t>(59 + (F - 'A')) : 0, 4);
  }
  size_t I = 2;
  while (I < AIn.size() && AIn[I] >= 0x30 && AIn[I] <= 0x3F) ++I;
  while (I < AIn.size() && AIn[I] >= 0x20 && AIn[I] <= 0x2F) ++I;
  if (I >= AIn.size()) {
    if (AIn.size() >= kMaxSequence) return {TMatch::Drop, AIn.size()};
    return {TMatch::NeedMore};
  }
  char Final = AIn[I];
  if (Final < 0x40 || Final > 0x7E) return {TMatch::LoneEscape, 1};
  int32_t First = 0;
  bool Private = AIn[2] >= 0x3C && AIn[2] <= 0x3F;
  for (size_t K = 2; K < I && AIn[K] >= '0' && AIn[K] <= '9' && First < 1000; ++K)
    First = First * 10 + (AIn[K] - '0');
  if (Private) return {TMatch::Drop, I + 1};
  if (Final == '~') return KeyOrDrop(TildeScan(First), I + 1);
  uint8_t Scan = LetterScan(Final, true);
  // F1-F4 in CSI form only carry modifiers after a 1; other numbers mean other sequences.
  if (Final == 'P' || Final == 'Q' || Final == 'S') Scan = First <= 1 ? Scan : 0;
  return KeyOrDrop(Scan, I + 1);
}

static void PushByte(uint8_t AByte) {
  if (AByte == 0x7F) {
    FKeys += '\x08';
  } else if (AByte == 0) {
    FKeys += '\0';
    FKeys += '\x03';
  } else {
    FKeys += static_cast<char>(AByte);
  }
}

// Turns FIn into keys. AFinal: no more bytes are coming for an unfinished sequence, so a lone ESC
// is a key of its own.
static void Decode(bool AFinal) {
  size_t Pos = 0;
  while (Pos < FIn.size()) {
    uint8_t Byte = static_cast<uint8_t>(FIn[Pos]);
    if (Byte != ESC) {
      PushByte(Byte);
      ++Pos;
      continue;
    }
    TSequence Seq = MatchEscape(FIn.substr(Pos, kMaxSequence));
    if (Seq.Kind == TMatch::NeedMore) {
      if (!AFinal) break;
      Seq = {TMatch::LoneEscape, 1};
    }
    if (Seq.Kind == TMatch::Key) {
      FKeys += '\0';
      FKeys += static_cast<char>(Seq.Scan);
    } else if (Seq.Kind == TMatch::LoneEscape) {
      FKeys += static_cast<char>(ESC);
    }
    Pos += Seq.Length;
  }
  FIn.erase(0, Pos);
}

static int MsSinceUndecided() {
  return static_cast<int>(
      std::chrono::duration_cast<std::chrono::milliseconds>(TClock::now() - FUndecidedSince).count());
}

static void DecodeNow() {
  Decode(FInputEnded || (FUndecided && MsSinceUndecided() >= kLoneEscapeMs));
  if (FIn.empty()) {
    FUndecided = false;
  } else if (!FUndecided) {
    FUndecided = true;
    FUndecidedSince = TClock::now();
  }
}

bool KeyPressed() {
  ConsoleInit();
  if (!FKeys.empty()) return true;
  ReadInput(0);
  DecodeNow();
  return !FKeys.empty() || NoMoreInput();
}

uint8_t ReadKey() {
  ConsoleInit();
  ConsoleFlushOutput();
  for (;;) {
    if (!FKeys.empty()) {
      uint8_t Key = static_cast<uint8_t>(FKeys[0]);
      FKeys.erase(0, 1);
      return Key;
    }
    DecodeNow();
    if (!FKeys.empty()) continue;
    if (NoMoreInput()) {
      if (ConsoleOnInputEnd != nullptr) ConsoleOnInputEnd();
      ConsoleDone();
      std::exit(0);
    }
    int Timeout = FUndecided ? std::max(0, kLoneEscapeMs - MsSinceUndecided()) + 1 : -1;
    ReadInput(Timeout);
  }
}

void Delay(uint16_t AMilliseconds) {
  ConsoleFlushOutput();
  // Only a request that comes during the wait ends it early; once one is pending, the wait is
  // a plain sleep, so that a loop that goes on after the request can't spin.
  const int SignalFd = ConsoleEndSignal() == 0 ? ConsoleSignalFd() : -1;
  const auto Deadline = TClock::now() + std::chrono::milliseconds(AMilliseconds);
  for (;;) {
    const auto Left = std::chrono::ceil<std::chrono::milliseconds>(Deadline - TClock::now()).count();
    if (Left <= 0) return;
    struct pollfd P = {SignalFd, POLLIN, 0};  // a negative descriptor: a plain sleep
    if (poll(&P, 1, static_cast<int>(Left)) > 0) return;
  }
}
