// The ANSI interpreter's parser and the carrying out of finished sequences on the local console.
// It owns the parser state, the parameters of the running sequence, the attribute saved by the
// conceal code and the one saved cursor position.
#include "ansiinterp.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "ansi/ansi.h"
#include "console/console.h"
#include "crt2/crt2.h"
#include "stringutils/strbasics.h"

enum class TAnsiParserState { None, HaveEscape, HaveBracket };

static TAnsiParserState AnsiParserState = TAnsiParserState::None;
// Digits of the parameter being read; "0" at the start of each parameter. Digits beyond what any
// number can use are not kept: such a parameter reads as 0 anyway.
static std::string AnsiBuffer = "0";
static bool AnsiBufferTooLong = false;
static std::vector<int32_t> AnsiParams = {0};  // element 0 is a placeholder
static uint8_t AnsiAttr = 7;
static int32_t AnsiXY = 257;  // column in bits 0-7, row in bits 8-15

static const size_t MAX_NUMBER_TEXT = 256;

static void StartParam() {
  AnsiBuffer = "0";
  AnsiBufferTooLong = false;
}

static void AddAnsiParam(int32_t AValue) { AnsiParams.push_back(AValue); }

static int32_t BufferValue() { return AnsiBufferTooLong ? 0 : StrToIntDef(AnsiBuffer, 0); }

static int32_t WindowWidth() { return WindMaxX - WindMinX + 1; }
static int32_t WindowHeight() { return WindMaxY - WindMinY + 1; }

static void GotoClipped(int64_t AX, int64_t AY) {
  GotoXY(static_cast<uint8_t>(AX), static_cast<uint8_t>(AY));
}

static void SelectGraphicRendition() {
  for (size_t I = 1; I < AnsiParams.size(); ++I) {
    int32_t P = AnsiParams[I];
    uint8_t Attr = GetTextAttr();
    switch (P) {
      case 0:
        NormVideo();
        SetTextAttr(TextAttr);
        break;
      case 1:
        HighVideo();
        SetTextAttr(TextAttr);
        break;
      case 5:
      case 6:
        SetTextAttr(static_cast<uint8_t>(Attr | 0x80));
        break;
      case 7:
      case 27:
        SetTextAttr(static_cast<uint8_t>(((Attr & 0x70) >> 4) + ((Attr & 7) << 4)));
        break;
      case 8:
        AnsiAttr = Attr;
        SetTextAttr(0);
        break;
      case 22:
        LowVideo();
        SetTextAttr(TextAttr);
        break;
      case 25:
        SetTextAttr(static_cast<uint8_t>(Attr & 0x7F));
        break;
      case 28:
        SetTextAttr(AnsiAttr);
        break;
      default:
        if (P >= 30 && P <= 37) {
          int32_t C = ANSI_COLOURS[P - 30];
          if ((Attr & 15) > 7) C += 8;
          SetTextColour(static_cast<uint8_t>(C));
        } else if (P >= 40 && P <= 47) {
          SetTextBackground(static_cast<uint8_t>(ANSI_COLOURS[P - 40]));
        }
    }
  }
}

static void HandleCode(uint8_t ACode) {
  const int64_t P1 = AnsiParams[1];
  const int64_t N = std::max<int64_t>(P1, 1);
  const int64_t X = WhereX(), Y = WhereY();
  switch (ACode) {
    case 'A':
      GotoClipped(X, std::max<int64_t>(Y - N, 1));
      break;
    case 'B':
      GotoClipped(X, std::min<int64_t>(Y + N, WindowHeight()));
      break;
    case 'C':
      GotoClipped(std::min<int64_t>(X + N, WindowWidth()), Y);
      break;
    case 'D':
      GotoClipped(std::max<int64_t>(X - N, 1), Y);
      break;
    case 'E':
      GotoClipped(1, std::min<int64_t>(Y + N, WindowHeight()));
      break;
    case 'F':
      GotoClipped(1, std::max<int64_t>(Y - N, 1));
      break;
    case 'G':
      if (N <= WindowWidth()) GotoClipped(N, Y);
      break;
    case 'H':
    case 'f':
      while (AnsiParams.size() < 3) AddAnsiParam(0);
      GotoClipped(std::max<int64_t>(AnsiParams[2], 1) & 255, std::max<int64_t>(AnsiParams[1], 1) & 255);
      break;
    case 'J':
      if (P1 == 2) ClrScr();
      break;
    case 'K':
      if (P1 == 0) ClrEol();
      break;
    case 'L':
      InsLine(static_cast<int32_t>(std::min<int64_t>(N, WindowHeight())));
      break;
    case 'M':
      DelLine(static_cast<int32_t>(std::min<int64_t>(N, WindowHeight())));
      break;
    case 'h':
      if (P1 == 25) CursorOn();
      break;
    case 'l':
      if (P1 == 25) CursorOff();
      break;
    case 'm':
      SelectGraphicRendition();
      break;
    case 's':
      AnsiXY = static_cast<int32_t>(X + 256 * Y);
      break;
    case 'u':
      GotoXY(static_cast<uint8_t>(AnsiXY & 255), static_cast<uint8_t>((AnsiXY >> 8) & 255));
      break;
    default:
      break;  // "n" and every other final byte: no effect, no answer
  }
}

void AnsiWrite(std::string_view AText) {
  TConsoleUpdate Update;
  std::string Pending;
  for (char Byte : AText) {
    uint8_t B = static_cast<uint8_t>(Byte);
    switch (AnsiParserState) {
      case TAnsiParserState::None:
        if (B == 0x1B) {
          ConsoleWrite(Pending);
          Pending.clear();
          AnsiParserState = TAnsiParserState::HaveEscape;
        } else {
          Pending += Byte;
        }
        break;
      case TAnsiParserState::HaveEscape:
        if (B == '[') {
          StartParam();
          AnsiParams.resize(1);
          AnsiParserState = TAnsiParserState::HaveBracket;
        } else {
          AnsiParserState = TAnsiParserState::None;
        }
        break;
      case TAnsiParserState::HaveBracket:
        if (B == ' ' || B == '<' || B == '=' || B == '>' || B == '?') {
          break;
        } else if (B >= '0' && B <= '9') {
          if (AnsiBuffer.size() < MAX_NUMBER_TEXT) {
            AnsiBuffer += Byte;
          } else {
            AnsiBufferTooLong = true;
          }
        } else if (B == ';') {
          AddAnsiParam(BufferValue());
          StartParam();
        } else {
          AddAnsiParam(BufferValue());
          StartParam();
          AnsiParserState = TAnsiParserState::None;
          HandleCode(B);
        }
        break;
    }
  }
  ConsoleWrite(Pending);
}

void AnsiWriteLn(std::string_view AText) {
  std::string Line(AText);
  Line += "\r\n";
  AnsiWrite(Line);
}
