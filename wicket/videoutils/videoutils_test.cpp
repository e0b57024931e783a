// Cell access on the local console, in forked children with the console on a pipe (shadow,
// cursor, attribute) or on a pseudo-terminal (the bytes a status-bar write sends, and consoles
// smaller than the grid).
#include "videoutils/videoutils.h"

#include <gtest/gtest.h>

#include "console/console_testutil.h"
#include "crt2/crt2.h"

namespace {

std::string RunOnPipe(const std::function<std::string()>& ABody) {
  TChildOptions Options;
  Options.Pty = false;
  return RunConsoleChild(Options, ABody).Report;
}

std::string Cursor() { return std::to_string(WhereX()) + "," + std::to_string(WhereY()); }

TEST(FastWrite, CutsAtTheEdgesAndSparesTheLastCell) {
  struct TCase {
    uint8_t X, Y;
    size_t Written;  // cells changed
  };
  const TCase Cases[] = {
      {1, 1, 80},  {75, 1, 6}, {80, 1, 1}, {1, 24, 80}, {1, 25, 79}, {75, 25, 5},
      {80, 25, 0}, {81, 1, 0}, {0, 1, 0},  {1, 0, 0},   {1, 26, 0},  {255, 255, 0},
  };
  for (const TCase& Case : Cases) {
    SCOPED_TRACE(std::to_string(Case.X) + "," + std::to_string(Case.Y));
    std::string Report = RunOnPipe([&] {
      SetTextAttr(0x1F);
      GotoXY(3, 4);
      FastWrite(std::string(100, 'w'), Case.X, Case.Y, 0x4E);
      size_t Written = 0;
      bool AllInAttr = true;
      for (int32_t Y = 1; Y <= 25; ++Y) {
        for (int32_t X = 1; X <= 80; ++X) {
          if (ConsoleBuf[(Y - 1) * 80 + X - 1].Ch != 'w') continue;
          ++Written;
          AllInAttr = AllInAttr && ConsoleBuf[(Y - 1) * 80 + X - 1].Attr == 0x4E;
        }
      }
      return Mismatch("written", Written, Case.Written) + Mismatch("attr", AllInAttr, true) +
             Mismatch("first cell", Written == 0 || GetCharAt(Case.X, Case.Y) == 'w', true) +
             Mismatch("cursor", Cursor(), "3,4") +
             Mismatch("door attr", static_cast<int>(GetTextAttr()), 0x1F) +
             Mismatch("console attr", static_cast<int>(TextAttr), 0x1F);
    });
    EXPECT_EQ(Report, "");
  }
}

TEST(FastWrite, InsideAWindowLeavesWindowCursorAndAttr) {
  std::string Report = RunOnPipe([] {
    Window(10, 5, 30, 15);
    GotoXY(4, 3);
    SetTextColour(14);
    TextBackground(1);  // the console's attribute parts from the door's; the frame restores the door's
    FastWrite("status", 2, 25, 0x70);
    SetCharAt('#', 1, 1);
    SetAttrAt(0x2A, 3, 25);
    return Mismatch("window", WindMinX * 1000000 + WindMinY * 10000 + WindMaxX * 100 + WindMaxY, 10053015) +
           Mismatch("cursor", Cursor(), "4,3") +
           Mismatch("door attr", static_cast<int>(GetTextAttr()), 0x0E) +
           Mismatch("console attr", static_cast<int>(TextAttr), 0x0E) +
           Mismatch("text", ShadowText(25, 1, 8), ".status.") +
           Mismatch("char kept by SetAttrAt", static_cast<int>(GetCharAt(3, 25)), static_cast<int>('t')) +
           Mismatch("attr set", static_cast<int>(GetAttrAt(3, 25)), 0x2A) +
           Mismatch("never-written cell keeps attr 0", static_cast<int>(GetAttrAt(1, 1)), 0) +
           Mismatch("char set", static_cast<int>(GetCharAt(1, 1)), static_cast<int>('#'));
  });
  EXPECT_EQ(Report, "");
}

TEST(CellAccess, ReadsAndPositions) {
  std::string Report = RunOnPipe([] {
    std::string R = Mismatch("char out of range", static_cast<int>(GetCharAt(0, 1)), 0x20) +
                    Mismatch("attr out of range", static_cast<int>(GetAttrAt(81, 1)), 7) +
                    Mismatch("char row 26", static_cast<int>(GetCharAt(1, 26)), 0x20) +
                    Mismatch("never written", GetCharAt(5, 5) * 256 + GetAttrAt(5, 5), 0) +
                    Mismatch("size", ScreenSizeX() * 100 + ScreenSizeY(), 8025);
    GotoXYAbs(0x0407);
    R += Mismatch("GotoXYAbs", Cursor(), "8,5") +
         Mismatch("WhereXYAbs", static_cast<int>(WhereXYAbs()), 0x0407);
    GotoXYAbs(0);
    R += Mismatch("GotoXYAbs 0", Cursor(), "1,1");
    Window(11, 11, 40, 20);
    GotoXYAbs(0x0102);
    R += Mismatch("window-relative", ConsoleGetCursor().X * 100 + ConsoleGetCursor().Y, 1312) +
         Mismatch("WhereXYAbs in window", static_cast<int>(WhereXYAbs()), 0x0102);
    return R;
  });
  EXPECT_EQ(Report, "");
}

TEST(CellAccess, SaveAndRestoreBringBackAllButTheLastCell) {
  std::string Report = RunOnPipe([] {
    for (int32_t Y = 1; Y <= 25; ++Y) {
      for (int32_t X = 1; X <= 80; ++X) {
        ConsoleBuf[(Y - 1) * 80 + X - 1] = {static_cast<uint8_t>('A' + (X + Y) % 26),
                                            static_cast<uint8_t>(X + Y)};
      }
    }
    TScreenBuffer Saved;
    ScreenSave(Saved);
    TextAttr = 0x07;
    ClrScr();
    ScreenRestore(Saved);
    int Wrong = 0;
    for (uint8_t Y = 1; Y <= 25; ++Y) {
      for (uint8_t X = 1; X <= 80; ++X) {
        bool Same = GetCharAt(X, Y) == Saved[Y - 1][X - 1].Ch && GetAttrAt(X, Y) == Saved[Y - 1][X - 1].Attr;
        if (!Same && !(X == 80 && Y == 25)) ++Wrong;
      }
    }
    return Mismatch("cells not restored", Wrong, 0) +
           Mismatch("last cell", static_cast<int>(GetCharAt(80, 25)), 0x20) +
           Mismatch("saved row 3", std::string(reinterpret_cast<const char*>(&Saved[2][0].Ch), 1), "E");
  });
  EXPECT_EQ(Report, "");
}

// The bytes of a status-bar write: there and back, nothing else.
TEST(FastWrite, BytesOnTheTerminal) {
  TChildRun Run = RunConsoleChild({}, [] {
    GotoXY(5, 2);
    FastWrite("12:00", 70, 25, 0x1F);
    return std::string();
  });
  EXPECT_EQ(Visible(AfterConsoleStart(Run.Output)),
            Visible("\x1b[2;5H\x1b[25;70H\x1b[0;1;37;44m12:00\x1b[2;5H"));
}

// A console smaller than the grid: no read outside the buffer, no write that wraps or scrolls.
TEST(CellAccess, SmallConsole) {
  TChildOptions Options;
  Options.Cols = 40;
  Options.Rows = 10;
  TChildRun Run = RunConsoleChild(Options, [] {
    std::string R = Mismatch("char beyond", static_cast<int>(GetCharAt(41, 1)), 0x20) +
                    Mismatch("attr beyond", static_cast<int>(GetAttrAt(1, 11)), 7);
    FastWrite(std::string(20, 'a'), 30, 1, 7);
    FastWrite(std::string(40, 'b'), 1, 10, 7);
    FastWrite("c", 41, 2, 7);
    FastWrite("d", 1, 11, 7);
    SetCharAt('e', 41, 3);
    Window(2, 2, 5, 5);
    FastWrite("f", 3, 4, 7);
    TScreenBuffer Saved;
    ScreenSave(Saved);
    ScreenRestore(Saved);
    return R + Mismatch("row 1", ShadowText(1, 28, 40), "..aaaaaaaaaaa") +
           Mismatch("row 10", ShadowText(10, 38, 40), "bb.") +
           Mismatch("row 2", ShadowText(2), std::string(40, '.')) + Mismatch("f", ShadowText(4, 3, 3), "f") +
           Mismatch("window", WindMinX * 1000 + WindMaxY, 2005);
  });
  EXPECT_EQ(Run.Report, "");
}

}  // namespace
