// Fuzz target for the ANSI interpreter and the console's raw stream: arbitrary text, in an
// arbitrary window, split at an arbitrary point, must never touch memory outside the shadow buffer
// and must leave the cursor and window on the screen.
//
// The console runs on a pseudo-terminal whose other end a helper thread drains (and answers the
// cursor question), so every terminal path of the console is exercised. Environment, read once:
//   FUZZ_CONSOLE_PIPE=1     standard output to /dev/null instead (the redirected paths)
//   FUZZ_CONSOLE_SIZE=WxH   the terminal's size (default 80x25)
//
// Input: byte 0 flags (bit 0: also through ConsoleWriteRaw; bit 1: a FastWrite; bits 2-4 all set: a
// ScreenSave/ScreenRestore round), bytes 1-4 a window, byte 5 the split point, the rest text.
#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>

#include "ansi/ansiinterp.h"
#include "console/console.h"
#include "crt2/crt2.h"
#include "videoutils/videoutils.h"

static void DrainTerminal(int AMaster) {
  std::string Tail;
  bool Answered = false;
  char Buf[65536];
  for (;;) {
    ssize_t N = read(AMaster, Buf, sizeof(Buf));
    // libFuzzer's timers interrupt reads; a drain that stopped then would let the terminal
    // fill up and block the console's next write.
    if (N < 0 && errno == EINTR) continue;
    if (N <= 0) return;
    Tail.append(Buf, static_cast<size_t>(N));
    // Only the console's own start-up question is answered. Inputs that carry the same bytes
    // would be answered too, and replies nobody reads would fill the terminal's input queue
    // until this write blocked and the drain stopped.
    if (!Answered && Tail.find("\x1b[6n") != std::string::npos) {
      if (write(AMaster, "\x1b[3;7R", 6) != 6) return;
      Answered = true;
    }
    if (Tail.size() > 16) Tail.erase(0, Tail.size() - 16);
  }
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const char* Pipe = std::getenv("FUZZ_CONSOLE_PIPE");
  if (Pipe != nullptr && std::strcmp(Pipe, "1") == 0) {
    int Null = open("/dev/null", O_RDWR);
    dup2(Null, 0);
    dup2(Null, 1);
    close(Null);
  } else {
    struct winsize Size = {25, 80, 0, 0};
    unsigned W = 0, H = 0;
    const char* SizeText = std::getenv("FUZZ_CONSOLE_SIZE");
    if (SizeText != nullptr && std::sscanf(SizeText, "%ux%u", &W, &H) == 2) {
      Size.ws_col = static_cast<unsigned short>(W);
      Size.ws_row = static_cast<unsigned short>(H);
    }
    int Master = -1, Slave = -1;
    if (openpty(&Master, &Slave, nullptr, nullptr, &Size) != 0) std::abort();
    dup2(Slave, 0);
    dup2(Slave, 1);
    close(Slave);
    std::thread(DrainTerminal, Master).detach();
  }
  ConsoleInit();
  return 0;
}

static void CheckConsole() {
  TConsoleCursor C = ConsoleGetCursor();
  bool Ok = C.X >= 1 && C.X <= ScreenWidth && C.Y >= 1 && C.Y <= ScreenHeight && WindMinX >= 1 &&
            WindMinY >= 1 && WindMinX <= WindMaxX && WindMinY <= WindMaxY && WindMaxX <= ScreenWidth &&
            WindMaxY <= ScreenHeight && WhereX() >= 1 && WhereY() >= 1;
  if (!Ok) __builtin_trap();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  if (ASize < 6) return 0;
  const uint8_t Flags = AData[0];
  std::string_view Text(reinterpret_cast<const char*>(AData + 6), ASize - 6);
  const size_t Split = Text.size() * AData[5] / 255;

  Window(1, 1, static_cast<uint8_t>(ScreenWidth), static_cast<uint8_t>(ScreenHeight));
  GotoXY(1, 1);
  SetTextAttr(7);
  Window(AData[1], AData[2], AData[3], AData[4]);

  AnsiWrite(Text.substr(0, Split));
  CheckConsole();
  AnsiWrite(Text.substr(Split));
  CheckConsole();
  AnsiWrite("x");  // every parser state ends on this byte, so the next input starts clean
  if ((Flags & 1) != 0) {
    ConsoleWriteRaw(Text.substr(0, Split));
    ConsoleWriteRaw(Text.substr(Split));
    CheckConsole();
    ConsoleWriteRaw("x");
  }
  if ((Flags & 2) != 0) {
    FastWrite(Text.substr(0, 100), AData[1], AData[2], AData[3]);
    SetCharAt(AData[4], AData[2], AData[1]);
    SetAttrAt(AData[5], AData[3], AData[4]);
    CheckConsole();
  }
  if ((Flags & 0x1C) == 0x1C) {
    static TScreenBuffer Saved;
    ScreenSave(Saved);
    ScreenRestore(Saved);
    CheckConsole();
  }
  return 0;
}
