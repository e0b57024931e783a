// The local console's start and end, its terminal mode, and its output side: text output with
// wrap and scrolling, cursor, window, clearing and line operations, all mirrored in `ConsoleBuf`.
// It owns the saved termios and puts it back on every way out of the process, and it keeps a
// model of the terminal's own cursor and colours so that only the sequences that change
// something are sent.
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include "ansicolours.h"
#include "consoleinternal.h"

uint8_t TextAttr = 7;
int32_t WindMinX = 1, WindMinY = 1, WindMaxX = 80, WindMaxY = 25;
int32_t ScreenWidth = 80, ScreenHeight = 25;
TCharInfo* ConsoleBuf = nullptr;
bool OutputRedir = false, InputRedir = false;

TConsoleCore ConsoleCore;

static bool FStarted = false;
static int32_t FDepth = 0;
static std::string FOut;

// The first of SIGHUP, SIGTERM, SIGINT that asked the run to end (0: none yet), and the pipe the
// handler writes a byte into so that any poll can wake on the request. The pipe is never read:
// once written it stays readable, so every later wait wakes at once as well.
static volatile sig_atomic_t FEndSignal = 0;
static int FSignalPipe[2] = {-1, -1};
// Set once a write to descriptor 1 has given up (stalled terminal, reader gone): later output
// is dropped at once instead of waiting out the bound again.
static bool FOutputLost = false;
static int32_t FWriteStallMs = -1;  // read from WICKET_WRITE_STALL_MS on first use

// The terminal mode found at start; FRawActive while the terminal is in our raw mode.
static volatile sig_atomic_t FRawActive = 0;
static int FRawFd = -1;
static struct termios FSavedTermios;
static std::terminate_handler FOldTerminate = nullptr;

static const size_t OUT_BUFFER_SIZE = 1024;
static const int32_t MAX_SCREEN_SIDE = 255;  // positions travel as bytes
static const int CURSOR_REPORT_WAIT_MS = 1000;

// ---------------------------------------------------------------------------------------------
// Descriptor 1

int32_t ConsoleWriteStallMs() {
  if (FWriteStallMs < 0) {
    const char* Value = std::getenv("WICKET_WRITE_STALL_MS");
    const long Ms = Value != nullptr ? std::strtol(Value, nullptr, 10) : 0;
    FWriteStallMs = Ms > 0 && Ms < 86400000 ? static_cast<int32_t>(Ms) : 60000;
  }
  return FWriteStallMs;
}

// Waits until AFd can take output (AEvents POLLOUT) for at most ATimeoutMs, waking early when a
// signal asks the run to end; true when AFd is ready.
bool ConsoleWaitWritable(int AFd, int ATimeoutMs) {
  struct pollfd P[2] = {{AFd, POLLOUT, 0}, {FSignalPipe[0], POLLIN, 0}};
  const nfds_t Count = FEndSignal == 0 && FSignalPipe[0] >= 0 ? 2 : 1;
  if (poll(P, Count, ATimeoutMs) <= 0) return false;
  return (P[0].revents & (POLLOUT | POLLERR | POLLHUP | POLLNVAL)) != 0;
}

// Every byte for descriptor 1, in order, unless the reader stops taking them: a terminal that
// takes nothing for the stall bound, or a signal that asks the run to end while the write
// waits, drops the rest (and all later output), so that no wait of the door hangs in a write.
// Chunks of at most PIPE_BUF: a pipe that polls writable takes that much without blocking.
static void WriteAll(const char* AData, size_t ASize) {
  size_t Done = 0;
  auto LastProgress = std::chrono::steady_clock::now();
  while (Done < ASize && !FOutputLost) {
    if (!ConsoleWaitWritable(1, 0)) {
      const auto Waited = std::chrono::duration_cast<std::chrono::milliseconds>(
          std::chrono::steady_clock::now() - LastProgress);
      const int Left = static_cast<int>(ConsoleWriteStallMs() - Waited.count());
      if (FEndSignal != 0 || Left <= 0) {
        FOutputLost = true;
        return;
      }
      ConsoleWaitWritable(1, std::min(Left, 1000));
      continue;
    }
    const ssize_t N = write(1, AData + Done, std::min<size_t>(ASize - Done, PIPE_BUF));
    if (N > 0) {
      Done += static_cast<size_t>(N);
      LastProgress = std::chrono::steady_clock::now();
    } else if (N < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) {
      continue;  // the loop's wait decides whether to go on
    } else {
      FOutputLost = true;  // the reader has gone; the console's operations do not fail
      return;
    }
  }
}

static void Flush() {
  if (FOut.empty()) return;
  WriteAll(FOut.data(), FOut.size());
  FOut.clear();
}

void ConsoleFlushOutput() { Flush(); }

void ConsoleEmit(std::string_view ABytes) {
  while (!ABytes.empty()) {
    size_t Room = OUT_BUFFER_SIZE - FOut.size();
    FOut.append(ABytes.substr(0, Room));
    ABytes.remove_prefix(std::min(Room, ABytes.size()));
    if (FOut.size() >= OUT_BUFFER_SIZE) Flush();
  }
}

static void EmitNumber(int32_t AValue) { ConsoleEmit(std::to_string(AValue)); }

static void EmitCursorPosition(int32_t AX, int32_t AY) {
  ConsoleEmit("\x1b[");
  EmitNumber(AY);
  ConsoleEmit(";");
  EmitNumber(AX);
  ConsoleEmit("H");
}

// What the terminal is sent for a cell: control bytes would make the terminal act instead of
// paint, and the tracked cursor would part from the real one.
static char Glyph(uint8_t ACh) {
  if (ACh == 0) return ' ';
  if (ACh < 0x20 || ACh == 0x7F) return '?';
  return static_cast<char>(ACh);
}

// ---------------------------------------------------------------------------------------------
// Terminal mode and the ways out of the process

void ConsoleRestoreTerminal() {
  if (!FRawActive) return;
  FRawActive = 0;
  tcsetattr(FRawFd, TCSANOW, &FSavedTermios);
}

// Waits, at most 2 s, until the terminal has sent what it was given, so that the last words of
// a run are not cut off by whoever takes the line over after us. Not when the reader is gone
// (output failed, input ended, SIGHUP).
static void DrainTerminal() {
  if (OutputRedir || FOutputLost || FEndSignal == SIGHUP || ConsoleInputEnded()) return;
  ConsoleWaitOutputQueueEmpty(1, TIOCOUTQ, 2000);
}

void ConsoleWaitOutputQueueEmpty(int AFd, unsigned long AQueueRequest, int32_t ATimeoutMs, bool (*AStop)()) {
  const auto Deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ATimeoutMs);
  int Queued = 0;
  while ((AStop == nullptr || !AStop()) && ioctl(AFd, AQueueRequest, &Queued) == 0 && Queued > 0 &&
         std::chrono::steady_clock::now() < Deadline)
    Delay(10);
}

void ConsoleDone() {
  if (FStarted) {
    Flush();
    DrainTerminal();
  }
  ConsoleRestoreTerminal();
}

static void OnTerminate() {
  ConsoleDone();
  if (FOldTerminate != nullptr) FOldTerminate();
  std::abort();
}

static void OnFatalSignal(int ASignal) {
  ConsoleRestoreTerminal();
  // The disposition was reset on entry (SA_RESETHAND); the signal is blocked until we return,
  // and then ends the process as it would have without us.
  raise(ASignal);
}

// A hang-up, a stop request or an interrupt: the terminal comes back at once (the program may
// be stuck in a write for a moment yet), and the program's waits end so that it can leave the
// orderly way, through its exit handlers, with its own exit code.
static void OnEndSignal(int ASignal) {
  const int SavedErrno = errno;
  ConsoleRestoreTerminal();
  if (FEndSignal == 0) FEndSignal = ASignal;
  if (FSignalPipe[1] >= 0) {
    const char Byte = 1;
    const ssize_t Ignored = write(FSignalPipe[1], &Byte, 1);
    (void)Ignored;
  }
  errno = SavedErrno;
}

static bool DispositionIsDefault(int ASignal) {
  struct sigaction Old;
  return sigaction(ASignal, nullptr, &Old) == 0 && (Old.sa_flags & SA_SIGINFO) == 0 &&
         Old.sa_handler == SIG_DFL;
}

// Signals that a program set up itself before start-up (ignored or handled) are left alone.
static void InstallSignalHandlers(bool ARaw) {
  if (pipe2(FSignalPipe, O_CLOEXEC | O_NONBLOCK) != 0) FSignalPipe[0] = FSignalPipe[1] = -1;
  struct sigaction Act;
  std::memset(&Act, 0, sizeof(Act));
  Act.sa_handler = OnEndSignal;
  sigemptyset(&Act.sa_mask);
  for (int Sig : {SIGTERM, SIGHUP, SIGINT}) sigaddset(&Act.sa_mask, Sig);
  Act.sa_flags = 0;  // no SA_RESTART: a blocked read, write or wait must return and look
  for (int Sig : {SIGTERM, SIGHUP, SIGINT})
    if (DispositionIsDefault(Sig)) sigaction(Sig, &Act, nullptr);
  if (ARaw && DispositionIsDefault(SIGQUIT)) {
    Act.sa_handler = OnFatalSignal;
    Act.sa_flags = SA_RESETHAND;
    sigaction(SIGQUIT, &Act, nullptr);
  }
  // A reader of descriptor 1 that has gone makes a failed write, not a silent death.
  if (DispositionIsDefault(SIGPIPE)) signal(SIGPIPE, SIG_IGN);
}

int ConsoleEndSignal() { return FEndSignal; }
int ConsoleSignalFd() { return FSignalPipe[0]; }

static bool EnterRawMode() {
  struct termios Raw;
  if (tcgetattr(1, &FSavedTermios) != 0) return false;
  Raw = FSavedTermios;
  Raw.c_iflag &= ~static_cast<tcflag_t>(IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON);
  Raw.c_oflag &= ~static_cast<tcflag_t>(OPOST);
  Raw.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL | ICANON | ISIG | IEXTEN);
  Raw.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB);
  Raw.c_cflag |= CS8;
  Raw.c_cc[VMIN] = 1;
  Raw.c_cc[VTIME] = 0;
  FRawFd = 1;
  FRawActive = 1;
  if (tcsetattr(1, TCSANOW, &Raw) != 0) {
    FRawActive = 0;
    return false;
  }
  return true;
}

// Finds ESC "[" row ";" column "R" in ABytes; on success the report is cut out of ABytes.
static bool TakeCursorReport(std::string& ABytes, int32_t& AX, int32_t& AY) {
  for (size_t Start = ABytes.find('\x1b'); Start != std::string::npos;
       Start = ABytes.find('\x1b', Start + 1)) {
    size_t I = Start + 1;
    if (I >= ABytes.size() || ABytes[I] != '[') continue;
    ++I;
    int32_t Values[2] = {0, 0};
    bool Ok = true;
    for (int K = 0; K < 2 && Ok; ++K) {
      size_t Digits = 0;
      while (I < ABytes.size() && ABytes[I] >= '0' && ABytes[I] <= '9' && Digits < 6) {
        Values[K] = Values[K] * 10 + (ABytes[I] - '0');
        ++I;
        ++Digits;
      }
      char Expected = K == 0 ? ';' : 'R';
      Ok = Digits > 0 && I < ABytes.size() && ABytes[I] == Expected;
      ++I;
    }
    if (!Ok) continue;
    AY = Values[0];
    AX = Values[1];
    ABytes.erase(Start, I - Start);
    return true;
  }
  return false;
}

// Asks the terminal where its cursor is. Bytes that arrive around the report are keys.
static bool AskCursor(int32_t& AX, int32_t& AY) {
  WriteAll("\x1b[6n", 4);
  std::string Got;
  bool Found = false;
  auto Deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(CURSOR_REPORT_WAIT_MS);
  while (!Found) {
    auto Left =
        std::chrono::duration_cast<std::chrono::milliseconds>(Deadline - std::chrono::steady_clock::now());
    if (Left.count() <= 0) break;
    if (FEndSignal != 0) break;
    struct pollfd P[2] = {{0, POLLIN, 0}, {FSignalPipe[0], POLLIN, 0}};
    int R = poll(P, FSignalPipe[0] >= 0 ? 2 : 1, static_cast<int>(Left.count()));
    if (R < 0 && errno == EINTR) continue;
    if (R <= 0) break;
    if (P[0].revents == 0) continue;  // the signal pipe: the loop's test ends the wait
    char Buf[256];
    ssize_t N = read(0, Buf, sizeof(Buf));
    if (N > 0) {
      Got.append(Buf, static_cast<size_t>(N));
      Found = TakeCursorReport(Got, AX, AY);
    } else if (N < 0 && (errno == EINTR || errno == EAGAIN)) {
      continue;
    } else {
      ConsoleMarkInputEnded();
      break;
    }
  }
  ConsoleKeepInput(Got);
  return Found;
}

// A door started with descriptor 0 or 1 closed would hand that number to the next file or socket
// it opens: keys would be read from a feed connection, console bytes written into it. /dev/null
// holds the place instead, so such a door sees the end of its input and writes into nothing.
static void HoldStandardDescriptor(int AFd) {
  if (fcntl(AFd, F_GETFD) != -1 || errno != EBADF) return;
  int Null = open("/dev/null", O_RDWR);
  if (Null < 0 || Null == AFd) return;
  dup2(Null, AFd);
  close(Null);
}

void ConsoleInit() {
  if (FStarted) return;
  FStarted = true;

  HoldStandardDescriptor(0);
  HoldStandardDescriptor(1);
  OutputRedir = isatty(1) == 0;
  InputRedir = isatty(0) == 0;
  if (!InputRedir && !OutputRedir) {
    struct stat In, Out;
    if (fstat(0, &In) == 0 && fstat(1, &Out) == 0 && In.st_rdev != Out.st_rdev) InputRedir = true;
  }

  ScreenWidth = 80;
  ScreenHeight = 25;
  if (!OutputRedir) {
    struct winsize Size;
    std::memset(&Size, 0, sizeof(Size));
    if (ioctl(1, TIOCGWINSZ, &Size) == 0 && Size.ws_col > 0 && Size.ws_row > 0) {
      ScreenWidth = std::min<int32_t>(Size.ws_col, MAX_SCREEN_SIDE);
      ScreenHeight = std::min<int32_t>(Size.ws_row, MAX_SCREEN_SIDE);
    }
  }
  ConsoleBuf = new TCharInfo[static_cast<size_t>(ScreenWidth) * static_cast<size_t>(ScreenHeight)]();
  WindMinX = 1;
  WindMinY = 1;
  WindMaxX = ScreenWidth;
  WindMaxY = ScreenHeight;
  ConsoleCore = TConsoleCore();
  std::atexit(ConsoleDone);
  FOldTerminate = std::set_terminate(OnTerminate);
  const bool Raw = !OutputRedir && EnterRawMode();
  // Before the cursor question: a hang-up while it waits must end the run the orderly way.
  InstallSignalHandlers(Raw);
  if (OutputRedir) return;

  int32_t X = 1, Y = 1;
  if (!InputRedir && AskCursor(X, Y)) {
    X = std::clamp(X, 1, ScreenWidth);
    Y = std::clamp(Y, 1, ScreenHeight);
  } else {
    X = 1;
    Y = 1;
    WriteAll("\x1b[H", 3);
  }
  WriteAll("\x1b[m", 3);
  ConsoleCore.Cur = {X, Y, false};
  ConsoleCore.TermKnown = true;
  ConsoleCore.TermX = X;
  ConsoleCore.TermY = Y;
  ConsoleCore.TermAttr = 7;  // the terminal's own default colours stand for grey on black
}

void ConsoleBeginUpdate() {
  ConsoleInit();
  ++FDepth;
}

void ConsoleEndUpdate() {
  if (FDepth <= 0 || --FDepth > 0) return;
  ConsoleSyncTermCursor();
  Flush();
}

// ---------------------------------------------------------------------------------------------
// The terminal model

void ConsoleSyncTermAttr(uint8_t AAttr) {
  if (OutputRedir || ConsoleCore.TermAttr == AAttr) return;
  std::string S = "\x1b[0";
  if ((AAttr & 0x08) != 0) S += ";1";
  if ((AAttr & 0x80) != 0) S += ";5";
  S += ";3";
  S += static_cast<char>('0' + ANSI_COLOURS[AAttr & 7]);
  S += ";4";
  S += static_cast<char>('0' + ANSI_COLOURS[(AAttr >> 4) & 7]);
  S += "m";
  ConsoleEmit(S);
  ConsoleCore.TermAttr = AAttr;
}

TCharInfo& ConsoleCell(int32_t AX, int32_t AY) {
  return ConsoleBuf[static_cast<size_t>(AY - 1) * static_cast<size_t>(ScreenWidth) +
                    static_cast<size_t>(AX - 1)];
}

// Sends one cell's glyph where the terminal's cursor stands (already placed by the caller).
static void TermPut(uint8_t ACh, uint8_t AAttr) {
  ConsoleSyncTermAttr(AAttr);
  char G = Glyph(ACh);
  ConsoleEmit(std::string_view(&G, 1));
  if (ConsoleCore.TermX >= ScreenWidth) {
    ConsoleCore.TermPending = true;  // the terminal waits at the last column
  } else {
    ++ConsoleCore.TermX;
  }
}

static void TermMoveTo(int32_t AX, int32_t AY) {
  TConsoleCore& C = ConsoleCore;
  if (C.TermKnown && !C.TermPending && C.TermX == AX && C.TermY == AY) return;
  EmitCursorPosition(AX, AY);
  C.TermKnown = true;
  C.TermX = AX;
  C.TermY = AY;
  C.TermPending = false;
}

void ConsoleSyncTermCursor() {
  if (OutputRedir) return;
  TConsoleCore& C = ConsoleCore;
  if (!C.Cur.Pending) {
    TermMoveTo(C.Cur.X, C.Cur.Y);
    return;
  }
  if (C.TermKnown && C.TermPending && C.TermX == C.Cur.X && C.TermY == C.Cur.Y) return;
  // A pending wrap can only be made by writing the last cell again.
  TermMoveTo(C.Cur.X, C.Cur.Y);
  const TCharInfo& Cell = ConsoleCell(C.Cur.X, C.Cur.Y);
  TermPut(Cell.Ch, Cell.Attr);
}

static void Repaint(int32_t AX1, int32_t AY1, int32_t AX2, int32_t AY2) {
  if (OutputRedir) return;
  for (int32_t Y = AY1; Y <= AY2; ++Y) {
    for (int32_t X = AX1; X <= AX2; ++X) {
      TermMoveTo(X, Y);
      const TCharInfo& Cell = ConsoleCell(X, Y);
      TermPut(Cell.Ch, Cell.Attr);
    }
  }
}

void ConsoleShiftLines(int32_t AX1, int32_t AY1, int32_t AX2, int32_t AY2, int32_t ACount, uint8_t AAttr) {
  int32_t Rows = AY2 - AY1 + 1;
  int32_t Width = AX2 - AX1 + 1;
  if (Rows <= 0 || Width <= 0 || ACount == 0) return;
  int32_t N = std::min(ACount < 0 ? -ACount : ACount, Rows);
  auto Row = [&](int32_t AY) { return &ConsoleCell(AX1, AY); };
  const TCharInfo Blank = {' ', AAttr};
  if (ACount > 0) {
    for (int32_t Y = AY1; Y + N <= AY2; ++Y) std::copy_n(Row(Y + N), Width, Row(Y));
    for (int32_t Y = AY2 - N + 1; Y <= AY2; ++Y) std::fill_n(Row(Y), Width, Blank);
  } else {
    for (int32_t Y = AY2; Y - N >= AY1; --Y) std::copy_n(Row(Y - N), Width, Row(Y));
    for (int32_t Y = AY1; Y < AY1 + N; ++Y) std::fill_n(Row(Y), Width, Blank);
  }
}

// ---------------------------------------------------------------------------------------------
// Text output

static bool WholeScreenWindow() {
  return WindMinX == 1 && WindMinY == 1 && WindMaxX == ScreenWidth && WindMaxY == ScreenHeight;
}

// The console's operations know no pending wrap: a cursor left there by the raw stream stands on
// the last column.
static void SettleCursor() { ConsoleCore.Cur.Pending = false; }

static void ScrollWindowUp() {
  ConsoleShiftLines(WindMinX, WindMinY, WindMaxX, WindMaxY, 1, TextAttr);
  if (OutputRedir) return;
  TConsoleCore& C = ConsoleCore;
  if (!WholeScreenWindow()) {
    Repaint(WindMinX, WindMinY, WindMaxX, WindMaxY);
    return;
  }
  ConsoleSyncTermAttr(TextAttr);  // the new bottom line takes the terminal's background
  if (C.TermKnown && C.TermY == ScreenHeight) {
    ConsoleEmit(C.TermX == 1 && !C.TermPending ? "\n" : "\r\n");
  } else {
    EmitCursorPosition(1, ScreenHeight);
    ConsoleEmit("\n");
  }
  C.TermKnown = true;
  C.TermX = 1;
  C.TermY = ScreenHeight;
  C.TermPending = false;
}

static void NewLine(bool AFromLineFeed) {
  TConsoleCore& C = ConsoleCore;
  if (C.Cur.Y < WindMaxY) {
    if (AFromLineFeed && !OutputRedir && WindMinX == 1 && C.TermKnown && C.TermY == C.Cur.Y) {
      ConsoleEmit(C.TermX == 1 && !C.TermPending ? "\n" : "\r\n");
      C.TermX = 1;
      C.TermY = C.Cur.Y + 1;
      C.TermPending = false;
    }
    ++C.Cur.Y;
  } else {
    ScrollWindowUp();
    C.Cur.Y = WindMaxY;
  }
  C.Cur.X = WindMinX;
}

static void PutChar(uint8_t ACh) {
  TConsoleCore& C = ConsoleCore;
  ConsoleCell(C.Cur.X, C.Cur.Y) = {ACh, TextAttr};
  if (OutputRedir) {
    char G = Glyph(ACh);
    ConsoleEmit(std::string_view(&G, 1));
  } else {
    ConsoleSyncTermCursor();
    TermPut(ACh, TextAttr);
  }
  ++C.Cur.X;
  if (C.Cur.X > WindMaxX) NewLine(false);
}

void ConsoleWrite(std::string_view AText) {
  TConsoleUpdate Update;
  SettleCursor();
  TConsoleCore& C = ConsoleCore;
  for (char Byte : AText) {
    uint8_t Ch = static_cast<uint8_t>(Byte);
    switch (Ch) {
      case 0x07:
        ConsoleEmit("\a");
        break;
      case 0x08:
        if (C.Cur.X <= 1) break;
        if (OutputRedir) {
          ConsoleEmit("\b");
        } else if (C.TermKnown && !C.TermPending && C.TermX == C.Cur.X && C.TermY == C.Cur.Y) {
          ConsoleEmit("\b");
          --C.TermX;
        }
        --C.Cur.X;
        break;
      case 0x09: {
        int32_t Rel = ((C.Cur.X - WindMinX) % 8 + 8) % 8;
        int32_t Count = std::max(1, std::min(8 - Rel, WindMaxX - C.Cur.X + 1));
        for (int32_t I = 0; I < Count; ++I) PutChar(' ');
        break;
      }
      case 0x0A:
        if (OutputRedir) ConsoleEmit("\n");
        NewLine(true);
        break;
      case 0x0D:
        if (OutputRedir) {
          ConsoleEmit("\r");
        } else if (WindMinX == 1 && C.TermKnown && C.TermY == C.Cur.Y) {
          ConsoleEmit("\r");
          C.TermX = 1;
          C.TermPending = false;
        }
        C.Cur.X = WindMinX;
        break;
      default:
        PutChar(Ch);
    }
  }
}

TConsoleCursor ConsoleGetCursor() {
  ConsoleInit();
  return ConsoleCore.Cur;
}

void ConsoleSetCursor(TConsoleCursor ACursor) {
  TConsoleUpdate Update;
  ACursor.X = std::clamp(ACursor.X, 1, ScreenWidth);
  ACursor.Y = std::clamp(ACursor.Y, 1, ScreenHeight);
  ACursor.Pending = ACursor.Pending && ACursor.X == ScreenWidth;
  ConsoleCore.Cur = ACursor;
}

// ---------------------------------------------------------------------------------------------
// Cursor, window, clearing

void GotoXY(uint8_t AX, uint8_t AY) {
  TConsoleUpdate Update;
  if (AX == 0 || AY == 0 || AX > WindMaxX - WindMinX + 1 || AY > WindMaxY - WindMinY + 1) return;
  int32_t X = WindMinX + AX - 1;
  int32_t Y = WindMinY + AY - 1;
  if (OutputRedir && Y == ConsoleCore.Cur.Y + 1) ConsoleEmit("\n");
  ConsoleCore.Cur = {X, Y, false};
}

static uint8_t WindowRelative(int32_t AValue) { return static_cast<uint8_t>(std::clamp(AValue, 1, 255)); }

uint8_t WhereX() {
  ConsoleInit();
  return WindowRelative(ConsoleCore.Cur.X - WindMinX + 1);
}

uint8_t WhereY() {
  ConsoleInit();
  return WindowRelative(ConsoleCore.Cur.Y - WindMinY + 1);
}

void Window(uint8_t AX1, uint8_t AY1, uint8_t AX2, uint8_t AY2) {
  TConsoleUpdate Update;
  if (AX1 == 0 || AY1 == 0 || AX1 > AX2 || AY1 > AY2 || AX2 > ScreenWidth || AY2 > ScreenHeight) return;
  WindMinX = AX1;
  WindMinY = AY1;
  WindMaxX = AX2;
  WindMaxY = AY2;
  ConsoleCore.Cur = {WindMinX, WindMinY, false};
}

void ClrScr() {
  TConsoleUpdate Update;
  const TCharInfo Blank = {' ', TextAttr};
  for (int32_t Y = WindMinY; Y <= WindMaxY; ++Y)
    std::fill_n(&ConsoleCell(WindMinX, Y), WindMaxX - WindMinX + 1, Blank);
  ConsoleCore.Cur = {WindMinX, WindMinY, false};
  if (OutputRedir) return;
  TConsoleCore& C = ConsoleCore;
  ConsoleSyncTermAttr(TextAttr);
  if (WholeScreenWindow()) {
    ConsoleEmit("\x1b[H\x1b[2J");
    C.TermKnown = true;
    C.TermX = 1;
    C.TermY = 1;
    C.TermPending = false;
    return;
  }
  for (int32_t Y = WindMinY; Y <= WindMaxY; ++Y) {
    TermMoveTo(WindMinX, Y);
    if (WindMaxX == ScreenWidth) {
      ConsoleEmit("\x1b[K");
    } else {
      for (int32_t X = WindMinX; X <= WindMaxX; ++X) TermPut(' ', TextAttr);
    }
  }
}

void ClrEol() {
  TConsoleUpdate Update;
  SettleCursor();
  TConsoleCore& C = ConsoleCore;
  if (C.Cur.X > WindMaxX) return;
  std::fill_n(&ConsoleCell(C.Cur.X, C.Cur.Y), WindMaxX - C.Cur.X + 1, TCharInfo{' ', TextAttr});
  if (OutputRedir) return;
  ConsoleSyncTermCursor();
  ConsoleSyncTermAttr(TextAttr);
  if (WindMaxX == ScreenWidth) {
    ConsoleEmit("\x1b[K");
  } else {
    for (int32_t X = C.Cur.X; X <= WindMaxX; ++X) TermPut(' ', TextAttr);
  }
}

static void MoveLines(int32_t ACount, bool AInsert) {
  TConsoleUpdate Update;
  SettleCursor();
  int32_t Y = ConsoleCore.Cur.Y;
  if (ACount <= 0 || Y < WindMinY || Y > WindMaxY) return;
  ConsoleShiftLines(WindMinX, Y, WindMaxX, WindMaxY, AInsert ? -ACount : ACount, TextAttr);
  Repaint(WindMinX, Y, WindMaxX, WindMaxY);
}

void InsLine(int32_t ACount) { MoveLines(ACount, true); }
void DelLine(int32_t ACount) { MoveLines(ACount, false); }

// ---------------------------------------------------------------------------------------------
// Attributes and cursor shape

void TextColor(uint8_t AColour) {
  TextAttr = static_cast<uint8_t>((AColour & 0x0F) | (TextAttr & 0x70) | (AColour > 15 ? 0x80 : 0));
}

void TextBackground(uint8_t AColour) {
  TextAttr = static_cast<uint8_t>(((AColour << 4) & 0x70) | (TextAttr & 0x8F));
}

void HighVideo() { TextColor(static_cast<uint8_t>(TextAttr | 8)); }
void LowVideo() { TextColor(static_cast<uint8_t>(TextAttr & 0x77)); }

void NormVideo() {
  TextColor(7);
  TextBackground(0);
}

// Sent also when output is redirected: only colour and clearing sequences are held back there.
void CursorOn() {
  TConsoleUpdate Update;
  ConsoleEmit("\x1b[?2c");
}

void CursorOff() {
  TConsoleUpdate Update;
  ConsoleEmit("\x1b[?1c");
}
