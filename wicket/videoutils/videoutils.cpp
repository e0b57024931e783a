// Cell access on the local console over the 80 x 25 grid. Each write runs in a frame that saves
// the door's attribute, the window and the cursor, opens the whole grid, does its one job through
// the console's text output, and puts everything back.
#include "videoutils.h"

#include <algorithm>
#include <string>

#include "crt2/crt2.h"

static const int32_t GRID_WIDTH = 80;
static const int32_t GRID_HEIGHT = 25;

// The grid as far as the real console reaches.
static int32_t GridWidth() { return std::min(GRID_WIDTH, ScreenWidth); }
static int32_t GridHeight() { return std::min(GRID_HEIGHT, ScreenHeight); }

static bool OnGrid(uint8_t AX, uint8_t AY) {
  if (AX < 1 || AX > GRID_WIDTH || AY < 1 || AY > GRID_HEIGHT) return false;
  ConsoleInit();
  return AX <= GridWidth() && AY <= GridHeight();
}

struct TCellFrame {
  bool NeedWindow = false;
  uint8_t Attr = 7;
  int32_t MinX = 1, MinY = 1, MaxX = 1, MaxY = 1;
  uint8_t WhereX = 1, WhereY = 1;  // window-relative, for the way back through GotoXY
  TConsoleCursor Cursor;           // absolute, with a pending wrap of the door's own stream
};

static TCellFrame OpenFrame(uint8_t AX, uint8_t AY) {
  TCellFrame F;
  F.NeedWindow = WindMinX > 1 || WindMinY > 1 || WindMaxX < GridWidth() || WindMaxY < GridHeight();
  F.Attr = GetTextAttr();
  F.MinX = WindMinX;
  F.MinY = WindMinY;
  F.MaxX = WindMaxX;
  F.MaxY = WindMaxY;
  F.WhereX = WhereX();
  F.WhereY = WhereY();
  F.Cursor = ConsoleGetCursor();
  if (F.NeedWindow) {
    Window(1, 1, static_cast<uint8_t>(GridWidth()), static_cast<uint8_t>(GridHeight()));
  }
  GotoXY(AX, AY);
  return F;
}

static void CloseFrame(const TCellFrame& AFrame) {
  SetTextAttr(AFrame.Attr);
  if (AFrame.NeedWindow) {
    Window(static_cast<uint8_t>(AFrame.MinX), static_cast<uint8_t>(AFrame.MinY),
           static_cast<uint8_t>(AFrame.MaxX), static_cast<uint8_t>(AFrame.MaxY));
  }
  // The way back goes through GotoXY like the way there, so that redirected output gets its LF
  // when the cursor returns to the row below the one written; then the exact cursor, which GotoXY
  // cannot express when the door's stream left it waiting to wrap.
  GotoXY(AFrame.WhereX, AFrame.WhereY);
  ConsoleSetCursor(AFrame.Cursor);
}

void FastWrite(std::string_view ALine, uint8_t AX, uint8_t AY, uint8_t AAttr) {
  if (!OnGrid(AX, AY)) return;
  TConsoleUpdate Update;
  size_t Length = std::min<size_t>(ALine.size(), static_cast<size_t>(GridWidth() - AX + 1));
  TCellFrame Frame = OpenFrame(AX, AY);
  SetTextAttr(AAttr);
  // The last cell of the bottom row would scroll the screen.
  if (AY == GRID_HEIGHT) Length = std::min<size_t>(Length, static_cast<size_t>(GRID_WIDTH - 1 - AX + 1));
  if (AY == ScreenHeight && AX + static_cast<int32_t>(Length) - 1 >= ScreenWidth) {
    Length = static_cast<size_t>(ScreenWidth - AX);
  }
  ConsoleWrite(ALine.substr(0, Length));
  CloseFrame(Frame);
}

uint8_t GetAttrAt(uint8_t AX, uint8_t AY) {
  if (!OnGrid(AX, AY)) return 7;
  return ConsoleBuf[(AY - 1) * ScreenWidth + (AX - 1)].Attr;
}

uint8_t GetCharAt(uint8_t AX, uint8_t AY) {
  if (!OnGrid(AX, AY)) return ' ';
  return ConsoleBuf[(AY - 1) * ScreenWidth + (AX - 1)].Ch;
}

void SetAttrAt(uint8_t AAttr, uint8_t AX, uint8_t AY) {
  if (!OnGrid(AX, AY)) return;
  TConsoleUpdate Update;
  TCellFrame Frame = OpenFrame(AX, AY);
  SetTextAttr(AAttr);
  ConsoleWrite(std::string(1, static_cast<char>(GetCharAt(AX, AY))));
  CloseFrame(Frame);
}

void SetCharAt(uint8_t ACh, uint8_t AX, uint8_t AY) {
  if (!OnGrid(AX, AY)) return;
  TConsoleUpdate Update;
  TCellFrame Frame = OpenFrame(AX, AY);
  SetTextAttr(GetAttrAt(AX, AY));
  ConsoleWrite(std::string(1, static_cast<char>(ACh)));
  CloseFrame(Frame);
}

void GotoXYAbs(uint16_t AXY) {
  GotoXY(static_cast<uint8_t>((AXY & 255) + 1), static_cast<uint8_t>((AXY >> 8) + 1));
}

uint16_t WhereXYAbs() { return static_cast<uint16_t>((WhereX() - 1) + 256 * (WhereY() - 1)); }

void ScreenSave(TScreenBuffer& AScreenBuffer) {
  for (uint8_t Y = 1; Y <= GRID_HEIGHT; ++Y) {
    for (uint8_t X = 1; X <= GRID_WIDTH; ++X) {
      AScreenBuffer[Y - 1][X - 1] = {GetCharAt(X, Y), GetAttrAt(X, Y)};
    }
  }
}

void ScreenRestore(const TScreenBuffer& AScreenBuffer) {
  TConsoleUpdate Update;
  for (uint8_t Y = 1; Y <= GRID_HEIGHT; ++Y) {
    for (uint8_t X = 1; X <= GRID_WIDTH; ++X) {
      const TCharInfo& Cell = AScreenBuffer[Y - 1][X - 1];
      FastWrite(std::string_view(reinterpret_cast<const char*>(&Cell.Ch), 1), X, Y, Cell.Attr);
    }
  }
}

uint16_t ScreenSizeX() { return GRID_WIDTH; }
uint16_t ScreenSizeY() { return GRID_HEIGHT; }

void CursorHide() { CursorOff(); }
void CursorShow() { CursorOn(); }
