// The ANSI sequence builders. Pure functions over their arguments and the
// door's current text attribute (GetTextAttr); every call yields the full
// sequence, even when the terminal is already in the requested state.
#include "ansi.h"

#include "crt2/crt2.h"
#include "stringutils/strbasics.h"

namespace {

// ESC "[" followed by ATail: every sequence here is a control sequence.
std::string Csi(const std::string& ATail) { return "\x1b[" + ATail; }

std::string Decimal(int32_t AValue) { return std::to_string(AValue); }

// ESC "[" ACount AFinal: the shape of every cursor move.
std::string CursorMove(uint8_t ACount, char AFinal) { return Csi(Decimal(ACount) + AFinal); }

}  // namespace

std::string AnsiClrEol() { return Csi("K"); }
std::string AnsiClrScr() { return Csi("2J") + AnsiGotoXY(1, 1); }

std::string AnsiCursorUp(uint8_t ACount) { return CursorMove(ACount, 'A'); }
std::string AnsiCursorDown(uint8_t ACount) { return CursorMove(ACount, 'B'); }
std::string AnsiCursorRight(uint8_t ACount) { return CursorMove(ACount, 'C'); }
std::string AnsiCursorLeft(uint8_t ACount) { return CursorMove(ACount, 'D'); }
std::string AnsiCursorSave() { return Csi("s"); }
std::string AnsiCursorRestore() { return Csi("u"); }

std::string AnsiGotoXY(uint8_t AX, uint8_t AY) { return Csi(Decimal(AY) + ";" + Decimal(AX) + "f"); }

std::string AnsiGotoX(uint8_t AX) {
  std::string Result = AnsiCursorLeft(255);
  if (AX > 1) Result += AnsiCursorRight(static_cast<uint8_t>(AX - 1));
  return Result;
}

std::string AnsiGotoY(uint8_t AY) {
  std::string Result = AnsiCursorUp(255);
  if (AY > 1) Result += AnsiCursorDown(static_cast<uint8_t>(AY - 1));
  return Result;
}

std::string AnsiTextBackground(uint8_t AColour) { return Csi(Decimal(ANSI_COLOURS[AColour % 8] + 40) + "m"); }

std::string AnsiTextColour(uint8_t AColour) {
  AColour %= 16;
  if (AColour >= 8) return Csi("1;" + Decimal(ANSI_COLOURS[AColour - 8] + 30) + "m");
  // Code 0 resets the background along with everything else, so set it again.
  return Csi("0;" + Decimal(ANSI_COLOURS[AColour] + 30) + "m") +
         AnsiTextBackground(static_cast<uint8_t>(GetTextAttr() >> 4));
}

std::string AnsiTextAttr(uint8_t AAttr) {
  return AnsiTextColour(AAttr & 15) + AnsiTextBackground(static_cast<uint8_t>(AAttr >> 4));
}

std::string AnsiBlink(bool ABlink) {
  if (ABlink) return Csi("5m");
  const uint8_t Attr = GetTextAttr();
  return Csi("0m") + AnsiTextBackground(static_cast<uint8_t>(Attr >> 4)) + AnsiTextColour(Attr & 15);
}

std::string PipeToAnsi(std::string_view AText) {
  if (AText.size() < 3) return std::string(AText);
  std::string Result;
  Result.reserve(AText.size() * 2);
  size_t I = 0;
  while (I < AText.size()) {
    const char C = AText[I];
    if (C == '|' && I + 2 < AText.size()) {
      const int32_t High = HexDigitValue(static_cast<uint8_t>(AText[I + 1]));
      const int32_t Low = HexDigitValue(static_cast<uint8_t>(AText[I + 2]));
      if (High >= 0 && Low >= 0) {
        Result += AnsiTextAttr(static_cast<uint8_t>((High * 16 + Low) & 0x7F));
        I += 3;
        continue;
      }
    }
    Result += C;
    ++I;
  }
  return Result;
}
