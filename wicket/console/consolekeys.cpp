// The local keyboard: bytes from descriptor 0, decoded into the keys a DOS program would get,
// with cursor and function keys as 0 followed by the PC scan code. It owns the bytes read but not
// yet decoded, the decoded keys not yet handed out, and the knowledge that input has ended.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <iterator>
#include <string>

#include "consoleinternal.h"

using TClock = std::chrono::steady_clock;

static std::string FIn;    // read, not yet decoded
static std::string FKeys;  // decoded, not yet handed out
static bool FInputEnded = false;
// Since when FIn has held the start of an escape sequence that may still be completed.
static bool FUndecided = false;
static TClock::time_point FUndecidedSince;

static const int LONE_ESCAPE_MS = 50;
static const size_t MAX_SEQUENCE = 32;
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
static constexpr struct {
  char Final;
  uint8_t Scan;
} LETTER_SCANS[] = {{'A', 72}, {'B', 80}, {'C', 77}, {'D', 75}, {'H', 71},
                    {'F', 79}, {'P', 59}, {'Q', 60}, {'R', 61}, {'S', 62}};

static uint8_t LetterScan(char AFinal, bool ACsi) {
  if (AFinal == 'R' && ACsi) return 0;
  for (const auto& Entry : LETTER_SCANS)
    if (Entry.Final == AFinal) return Entry.Scan;
  return 0;
}

// The scan code of each CSI number "~" form, by the number; 0: no key. 1 and 7 are Home, 4 and 8
// End (the two conventions of VT220 and rxvt), 2 Ins, 3 Del, 5 PgUp, 6 PgDn, 11-24 F1-F12.
static constexpr uint8_t TILDE_SCANS[] = {0,  71, 82, 83, 79, 73, 81, 71, 79, 0, 0,   59, 60,
                                          61, 62, 63, 0,  64, 65, 66, 67, 68, 0, 133, 134};

static uint8_t TildeScan(int32_t ACode) {
  return ACode >= 0 && static_cast<size_t>(ACode) < std::size(TILDE_SCANS) ? TILDE_SCANS[ACode] : 0;
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
    if (AIn.size() >= MAX_SEQUENCE) return {TMatch::Drop, AIn.size()};
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
    TSequence Seq = MatchEscape(FIn.substr(Pos, MAX_SEQUENCE));
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
  Decode(FInputEnded || (FUndecided && MsSinceUndecided() >= LONE_ESCAPE_MS));
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

bool ConsoleWaitForKey(int32_t ATimeoutMs) {
  ConsoleInit();
  ConsoleFlushOutput();
  const auto Deadline = TClock::now() + std::chrono::milliseconds(std::max(ATimeoutMs, 0));
  for (;;) {
    if (KeyPressed()) return true;
    int Wait = -1;
    if (ATimeoutMs >= 0) {
      // Rounded up, so that the wait never ends just short of its deadline and goes round again.
      Wait = static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(Deadline - TClock::now()).count());
      if (Wait <= 0) return false;
    }
    // An unfinished sequence becomes its keys when its time is up, with no further byte.
    if (FUndecided) {
      const int Escape = std::max(0, LONE_ESCAPE_MS - MsSinceUndecided()) + 1;
      Wait = Wait < 0 ? Escape : std::min(Wait, Escape);
    }
    ReadInput(Wait);
  }
}

bool ConsoleInputGone() {
  if (ConsoleInputEnded()) return true;
  pollfd Poll{STDIN_FILENO, 0, 0};
  return poll(&Poll, 1, 0) > 0 && (Poll.revents & (POLLHUP | POLLERR)) != 0;
}

void ConsoleAddEndWatch(std::vector<pollfd>& APoll, bool AInput) {
  if (ConsoleSignalFd() >= 0) APoll.push_back({ConsoleSignalFd(), POLLIN, 0});
  if (AInput) APoll.push_back({STDIN_FILENO, 0, 0});
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
    int Timeout = FUndecided ? std::max(0, LONE_ESCAPE_MS - MsSinceUndecided()) + 1 : -1;
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
