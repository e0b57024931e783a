// The line editor and the light bar: DoorInput's field with its painting and echo, and
// DoorLiteBar's highlight over DoorLiteBarOptions. Neither keeps state beyond its call except
// DoorLiteBarIndex, which belongs to the door state.
#include "doorinputline.h"

#include <algorithm>

#include "ansi/ansi.h"
#include "crt2/crt2.h"
#include "doorinput.h"
#include "dooroutput.h"
#include "doorstate.h"
#include "stringutils/strbasics.h"

namespace {

constexpr uint8_t BACKSPACE = 0x08;
constexpr uint8_t CTRL_Y = 0x19;
constexpr uint8_t ESCAPE = 0x1B;
constexpr uint8_t ENTER = 0x0D;

constexpr uint8_t PLAIN_ATTR = 15;
constexpr uint8_t HIGHLIGHT_BACKGROUND = 1;  // blue

// The field of one DoorInput call.
struct TInputField {
  std::string S;
  uint8_t PasswordCharacter = 0;
  size_t VisibleLength = 0;
  uint8_t XOffset = 0;  // cells the cursor stands right of the field's first cell
};

// What the field shows for ACount characters of the text ending at its end.
std::string Shown(const TInputField& AField, size_t ACount) {
  if (AField.PasswordCharacter != 0) return std::string(ACount, static_cast<char>(AField.PasswordCharacter));
  return AField.S.substr(AField.S.size() - ACount);
}

// Repaints the whole field from its first cell, each piece in a write of its own.
void UpdateText(TInputField& AField) {
  if (AField.XOffset > 0) DoorWrite(AnsiCursorLeft(AField.XOffset));
  if (AField.S.size() >= AField.VisibleLength) {
    DoorWrite(Shown(AField, AField.VisibleLength));
    AField.XOffset = static_cast<uint8_t>(AField.VisibleLength);
  } else {
    const size_t Blanks = AField.VisibleLength - AField.S.size();
    DoorWrite(Shown(AField, AField.S.size()));
    DoorWrite(std::string(Blanks, ' '));
    DoorWrite(AnsiCursorLeft(static_cast<uint8_t>(Blanks)));
    AField.XOffset = static_cast<uint8_t>(AField.S.size());
  }
}

// Moves the cursor to the left end of row AIndex, counted from the saved first row.
void GoToRow(int32_t AIndex) {
  DoorCursorRestore();
  if (AIndex > 0) DoorCursorDown(static_cast<uint8_t>(AIndex));
}

// An index the application left out of range draws nothing rather than reading past the list.
void DrawRow(int32_t AIndex) {
  if (AIndex >= 0 && static_cast<size_t>(AIndex) < DoorLiteBarOptions.size())
    DoorWrite(DoorLiteBarOptions[static_cast<size_t>(AIndex)]);
  DoorTextAttr(PLAIN_ATTR);
}

// Puts the current row back to plain, steps by ADelta and highlights the new row.
void MoveHighlight(int32_t ADelta) {
  GoToRow(DoorLiteBarIndex);
  DrawRow(DoorLiteBarIndex);
  DoorLiteBarIndex += ADelta;
  GoToRow(DoorLiteBarIndex);
  DoorTextBackground(HIGHLIGHT_BACKGROUND);
  DrawRow(DoorLiteBarIndex);
}

}  // namespace

std::string DoorInput(const std::string& ADefaultText, const std::string& AAllowedCharacters,
                      uint8_t APasswordCharacter, uint8_t AVisibleLength, uint8_t AMaxLength, uint8_t AAttr) {
  const std::string Default = ADefaultText.substr(0, AMaxLength);
  TInputField Field;
  Field.S = Default;
  Field.PasswordCharacter = APasswordCharacter;
  Field.VisibleLength = AVisibleLength;
  const uint8_t SavedAttr = GetTextAttr();
  DoorTextAttr(AAttr);
  UpdateText(Field);

  uint8_t Ch = 0;
  do {
    Ch = DoorReadKey();
    if (Ch == BACKSPACE && !Field.S.empty()) {
      Field.S.pop_back();
      if (Field.S.size() >= Field.VisibleLength) {
        UpdateText(Field);
      } else {
        DoorWrite("\b \b");
        --Field.XOffset;
      }
    } else if (Ch == CTRL_Y && !Field.S.empty()) {
      Field.S.clear();
      UpdateText(Field);
    } else if (AAllowedCharacters.find(static_cast<char>(Ch)) != std::string::npos &&
               Field.S.size() < AMaxLength) {
      Field.S.push_back(static_cast<char>(Ch));
      if (Field.S.size() > Field.VisibleLength) {
        UpdateText(Field);
      } else {
        DoorWrite(std::string(1, static_cast<char>(APasswordCharacter != 0 ? APasswordCharacter : Ch)));
        ++Field.XOffset;
      }
    }
  } while (Ch != ESCAPE && Ch != ENTER);

  DoorTextAttr(SavedAttr);
  DoorWriteLn();
  return Ch == ESCAPE ? Default : Field.S;
}

bool DoorLiteBar(int32_t APageSize) {
  bool Accepted = true;
  DoorTextAttr(PLAIN_ATTR);
  DoorCursorSave();

  const int32_t RowCount = static_cast<int32_t>(std::min<size_t>(DoorLiteBarOptions.size(), INT32_MAX));
  for (int32_t I = 0; I < RowCount && I < APageSize; ++I) {
    if (I > 0) GoToRow(I);
    if (I == DoorLiteBarIndex) DoorTextBackground(HIGHLIGHT_BACKGROUND);
    DrawRow(I);
  }

  uint8_t Key = 0;
  do {
    Key = UpperCaseAscii(DoorReadKey());
    if (Key == '8' || Key == '4' || Key == 'H' || Key == 'K') {
      if (DoorLiteBarIndex > 0) MoveHighlight(-1);
    } else if (Key == '2' || Key == '6' || Key == 'M' || Key == 'P') {
      // In 64 bits: a page size of INT32_MIN must stop the move, not overflow.
      if (DoorLiteBarIndex < int64_t{APageSize} - 1 && DoorLiteBarIndex < RowCount - 1) MoveHighlight(1);
    } else if (Key == 'Q') {
      Accepted = false;
      break;
    }
  } while (Key != ENTER);

  DoorCursorRestore();
  return Accepted;
}
