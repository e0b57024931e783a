// The door's raw output stream on the local console: the bytes go to descriptor 1 unchanged, and
// this module follows them the way a terminal does, so that the tracked cursor and the shadow
// buffer stay true while the door writes its own ANSI text. It owns the stream's parser state, the
// attribute the stream's colour codes have built, and the stream's saved cursor.
#include <algorithm>

#include "ansicolours.h"
#include "consoleinternal.h"

enum class TStreamState { Ground, Escape, EscapeIntermediate, Csi };

static TStreamState FState = TStreamState::Ground;
static const int MAX_PARAMS = 16;
static int32_t FParams[MAX_PARAMS];
static int FParamCount = 0;    // parameters begun so far
static bool FPrivate = false;  // "<", "=", ">" or "?" seen: a private sequence, not for us
static bool FIntermediate = false;
static uint8_t FStreamAttr = 7;
static TConsoleCursor FSaved;

static TConsoleCursor& Cur() { return ConsoleCore.Cur; }

static void LineDown() {
  if (Cur().Y < ScreenHeight) {
    ++Cur().Y;
  } else {
    ConsoleShiftLines(1, 1, ScreenWidth, ScreenHeight, 1, FStreamAttr);
  }
}

static void PutPrintable(uint8_t ACh) {
  TConsoleCursor& C = Cur();
  if (C.Pending) {
    C.Pending = false;
    C.X = 1;
    LineDown();
  }
  ConsoleCell(C.X, C.Y) = {ACh, FStreamAttr};
  if (C.X >= ScreenWidth) {
    C.Pending = true;
  } else {
    ++C.X;
  }
}

static void Control(uint8_t AByte) {
  TConsoleCursor& C = Cur();
  switch (AByte) {
    case 0x08:
      C.Pending = false;
      if (C.X > 1) --C.X;
      break;
    case 0x09:
      C.Pending = false;
      C.X = std::min(ScreenWidth, ((C.X - 1) / 8 + 1) * 8 + 1);
      break;
    case 0x0A:
    case 0x0B:
    case 0x0C:
      C.Pending = false;
      LineDown();
      break;
    case 0x0D:
      C.Pending = false;
      C.X = 1;
      break;
    default:
      break;  // BEL and the rest paint nothing
  }
}

static void Blank(int32_t AX1, int32_t AX2, int32_t AY) {
  for (int32_t X = std::max(AX1, 1); X <= std::min(AX2, ScreenWidth); ++X)
    ConsoleCell(X, AY) = {' ', FStreamAttr};
}

static int32_t Param(int AIndex, int32_t ADefault) {
  if (AIndex >= FParamCount || FParams[AIndex] == 0) return ADefault;
  return FParams[AIndex];
}

static void SelectGraphicRendition() {
  uint8_t& A = FStreamAttr;
  if (FParamCount == 0) A = 7;
  for (int I = 0; I < FParamCount; ++I) {
    int32_t P = FParams[I];
    if (P == 0) {
      A = 7;
    } else if (P == 1) {
      A |= 0x08;
    } else if (P == 5 || P == 6) {
      A |= 0x80;
    } else if (P == 7) {
      A = static_cast<uint8_t>((A & 0x88) | ((A & 0x07) << 4) | ((A >> 4) & 0x07));
    } else if (P == 22) {
      A &= 0xF7;
    } else if (P == 25) {
      A &= 0x7F;
    } else if (P >= 30 && P <= 37) {
      A = static_cast<uint8_t>((A & 0xF8) | ANSI_COLOURS[P - 30]);
    } else if (P == 39) {
      A = static_cast<uint8_t>((A & 0xF8) | 7);
    } else if (P >= 40 && P <= 47) {
      A = static_cast<uint8_t>((A & 0x8F) | (ANSI_COLOURS[P - 40] << 4));
    } else if (P == 49) {
      A &= 0x8F;
    } else if (P >= 90 && P <= 97) {
      A = static_cast<uint8_t>((A & 0xF0) | 0x08 | ANSI_COLOURS[P - 90]);
    } else if (P >= 100 && P <= 107) {
      A = static_cast<uint8_t>((A & 0x8F) | (ANSI_COLOURS[P - 100] << 4));
    } else if (P == 38 || P == 48) {
      return;  // extended colours: the rest are their arguments
    }
  }
}

static void Execute(char AFinal) {
  if (FPrivate || FIntermediate) return;
  TConsoleCursor& C = Cur();
  if (AFinal == 'm') {
    SelectGraphicRendition();
    return;
  }
  const int32_t W = ScreenWidth, H = ScreenHeight;
  int32_t N = Param(0, 1);
  int32_t Mode = FParamCount > 0 ? FParams[0] : 0;
  C.Pending = false;
  switch (AFinal) {
    case 'A':
      C.Y = std::max(1, C.Y - N);
      break;
    case 'B':
    case 'e':
      C.Y = std::min(H, C.Y + N);
      break;
    case 'C':
    case 'a':
      C.X = std::min(W, C.X + N);
      break;
    case 'D':
      C.X = std::max(1, C.X - N);
      break;
    case 'E':
      C.Y = std::min(H, C.Y + N);
      C.X = 1;
      break;
    case 'F':
      C.Y = std::max(1, C.Y - N);
      C.X = 1;
      break;
    case 'G':
    case '`':
      C.X = std::min(W, N);
      break;
    case 'd':
      C.Y = std::min(H, N);
      break;
    case 'H':
    case 'f':
      C.Y = std::min(H, N);
      C.X = std::min(W, Param(1, 1));
      break;
    case 'J':
      if (Mode == 0) {
        Blank(C.X, W, C.Y);
        for (int32_t Y = C.Y + 1; Y <= H; ++Y) Blank(1, W, Y);
      } else if (Mode == 1) {
        for (int32_t Y = 1; Y < C.Y; ++Y) Blank(1, W, Y);
        Blank(1, C.X, C.Y);
      } else if (Mode == 2 || Mode == 3) {
        for (int32_t Y = 1; Y <= H; ++Y) Blank(1, W, Y);
      }
      break;
    case 'K':
      if (Mode == 0) Blank(C.X, W, C.Y);
      if (Mode == 1) Blank(1, C.X, C.Y);
      if (Mode == 2) Blank(1, W, C.Y);
      break;
    case 'L':
      ConsoleShiftLines(1, C.Y, W, H, -N, FStreamAttr);
      C.X = 1;
      break;
    case 'M':
      ConsoleShiftLines(1, C.Y, W, H, N, FStreamAttr);
      C.X = 1;
      break;
    case '@':
    case 'P': {
      TCharInfo* Row = &ConsoleCell(1, C.Y);
      int32_t Count = std::min(N, W - C.X + 1);
      if (AFinal == '@') {
        std::copy_backward(Row + C.X - 1, Row + W - Count, Row + W);
        std::fill_n(Row + C.X - 1, Count, TCharInfo{' ', FStreamAttr});
      } else {
        std::copy(Row + C.X - 1 + Count, Row + W, Row + C.X - 1);
        std::fill_n(Row + W - Count, Count, TCharInfo{' ', FStreamAttr});
      }
      break;
    }
    case 'X':
      Blank(C.X, C.X + std::min(N, W) - 1, C.Y);
      break;
    case 's':
      FSaved = C;
      break;
    case 'u':
      C = FSaved;
      break;
    default:
      break;
  }
}

static void StartCsi() {
  FState = TStreamState::Csi;
  FParamCount = 0;
  FPrivate = false;
  FIntermediate = false;
}

static void Feed(uint8_t AByte) {
  switch (FState) {
    case TStreamState::Ground:
      if (AByte == 0x1B) {
        FState = TStreamState::Escape;
      } else if (AByte < 0x20 || AByte == 0x7F) {
        Control(AByte);
      } else {
        PutPrintable(AByte);
      }
      return;
    case TStreamState::Escape:
      FState = TStreamState::Ground;
      if (AByte == '[') {
        StartCsi();
      } else if (AByte == '7') {
        FSaved = Cur();
      } else if (AByte == '8') {
        Cur() = FSaved;
      } else if (AByte == 0x1B) {
        FState = TStreamState::Escape;
      } else if (AByte >= 0x20 && AByte <= 0x2F) {
        FState = TStreamState::EscapeIntermediate;
      }
      return;
    case TStreamState::EscapeIntermediate:
      if (AByte == 0x1B) {
        FState = TStreamState::Escape;
      } else if (AByte < 0x20 || AByte > 0x2F) {
        FState = TStreamState::Ground;
      }
      return;
    case TStreamState::Csi:
      if (AByte >= '0' && AByte <= '9') {
        if (FParamCount == 0) FParams[FParamCount++] = 0;
        int32_t& P = FParams[FParamCount - 1];
        P = std::min(P * 10 + (AByte - '0'), 99999);
      } else if (AByte == ';' || AByte == ':') {
        if (FParamCount == 0) FParams[FParamCount++] = 0;
        if (FParamCount < MAX_PARAMS) FParams[FParamCount++] = 0;
      } else if (AByte >= 0x3C && AByte <= 0x3F) {
        FPrivate = true;
      } else if (AByte >= 0x20 && AByte <= 0x2F) {
        FIntermediate = true;
      } else if (AByte >= 0x40 && AByte <= 0x7E) {
        FState = TStreamState::Ground;
        Execute(static_cast<char>(AByte));
      } else if (AByte == 0x1B) {
        FState = TStreamState::Escape;
      } else if (AByte == 0x18 || AByte == 0x1A || AByte > 0x7E) {
        FState = TStreamState::Ground;
      } else {
        Control(AByte);  // terminals carry out control bytes met inside a sequence
      }
      return;
  }
}

void ConsoleWriteRaw(std::string_view AText) {
  TConsoleUpdate Update;
  TConsoleCore& C = ConsoleCore;
  if (!OutputRedir) {
    ConsoleSyncTermCursor();
    ConsoleSyncTermAttr(FStreamAttr);
  }
  ConsoleEmit(AText);
  for (char Byte : AText) Feed(static_cast<uint8_t>(Byte));
  if (OutputRedir) return;
  C.TermKnown = true;
  C.TermX = C.Cur.X;
  C.TermY = C.Cur.Y;
  C.TermPending = C.Cur.Pending;
  C.TermAttr = FStreamAttr;
}
