// Cell access on the local console, in forked children with the console on a pipe (shadow,
// cursor, attribute) or on a pseudo-terminal (the bytes a status-bar write sends, and consoles
// smaller than the grid).
#include "videoutils/videoutils.h"

#include <gtest/gtest.h>

#include "console/console_testutil.h"
#include "crt2/crt2.h"

namespace {

std::string RunOnPipe(const std::function<std::string()>& ABody) {
  return RunConsoleChild(OnPipes(), ABody).Report;
}

std::string WindowText() { return Say({WindMinX, WindMinY, WindMaxX, WindMaxY}); }

// A status-bar write is cut at the screen's edges, spares the last cell (writing it would scroll),
// and leaves the cursor and both attributes alone.
TEST(FastWrite, CutsAtTheEdgesAndSparesTheLastCell) {
  const struct {
    uint8_t X, Y;
    int Written;  // cells changed
  } Cases[] = {{1, 1, 80}, {75, 1, 6}, {1, 24, 80}, {75, 25, 5}, {80, 25, 0},
               {81, 1, 0}, {0, 1, 0},  {1, 0, 0},   {1, 26, 0}};
  for (const auto& Case : Cases) {
    SCOPED_TRACE(std::to_string(Case.X) + "," + std::to_string(Case.Y));
    const std::string Report = RunOnPipe([&] {
      SetTextAttr(0x1F);
      GotoXY(3, 4);
      FastWrite(std::string(100, 'w'), Case.X, Case.Y, 0x4E);
      int Written = 0, InAttr = 0;
      for (int32_t I = 0; I < 80 * 25; ++I) {
        Written += ConsoleBuf[I].Ch == 'w';
        InAttr += ConsoleBuf[I].Ch == 'w' && ConsoleBuf[I].Attr == 0x4E;
      }
      return Say({Written, InAttr, Written == 0 || GetCharAt(Case.X, Case.Y) == 'w', Cursor(), GetTextAttr(),
                  TextAttr});
    });
    EXPECT_EQ(Report, Say({Case.Written, Case.Written, 1, "3,4", 0x1F, 0x1F}));
  }
}

TEST(FastWrite, InsideAWindowLeavesWindowCursorAndAttr) {
  const std::string Report = RunOnPipe([] {
    Window(10, 5, 30, 15);
    GotoXY(4, 3);
    SetTextColour(14);
    TextBackground(1);  // the console's attribute parts from the door's; the frame restores the door's
    FastWrite("status", 2, 25, 0x70);
    SetCharAt('#', 1, 1);
    SetAttrAt(0x2A, 3, 25);
    return Say({WindowText(), Cursor(), GetTextAttr(), TextAttr, ShadowText(25, 1, 8), GetCharAt(3, 25),
                GetAttrAt(3, 25), GetCharAt(1, 1), GetAttrAt(1, 1)});
  });
  // SetAttrAt keeps the character, SetCharAt the never-written attribute 0.
  EXPECT_EQ(Report, Say({"10 5 30 15", "4,3", 14, 14, ".status.", 't', 0x2A, '#', 0}));
}

TEST(CellAccess, ReadsAndPositions) {
  const std::string Report = RunOnPipe([] {
    const std::string Reads = Say({GetCharAt(0, 1), GetAttrAt(81, 1), GetCharAt(1, 26), GetCharAt(5, 5),
                                   GetAttrAt(5, 5), ScreenSizeX(), ScreenSizeY()});
    GotoXYAbs(0x0407);
    const std::string Abs = Say({Cursor(), WhereXYAbs()});
    GotoXYAbs(0);
    const std::string Zero = Cursor();
    Window(11, 11, 40, 20);
    GotoXYAbs(0x0102);
    return Say({Reads, Abs, Zero, ConsoleGetCursor().X, ConsoleGetCursor().Y, WhereXYAbs()});
  });
  // Outside the screen: blank in attribute 7; never written: 0 and 0.
  EXPECT_EQ(Report, Say({"32 7 32 0 0 80 25", "8,5", 0x0407, "1,1", 13, 12, 0x0102}));
}

TEST(CellAccess, SaveAndRestoreBringBackAllButTheLastCell) {
  const std::string Report = RunOnPipe([] {
    ConsoleInit();  // the shadow is written directly below
    for (int32_t I = 0; I < 80 * 25; ++I) {
      ConsoleBuf[I] = {static_cast<uint8_t>('A' + (I % 80 + I / 80 + 2) % 26), static_cast<uint8_t>(I)};
    }
    TScreenBuffer Saved;
    ScreenSave(Saved);
    TextAttr = 0x07;
    ClrScr();
    ScreenRestore(Saved);
    int Wrong = 0;
    for (uint8_t Y = 1; Y <= 25; ++Y) {
      for (uint8_t X = 1; X <= 80; ++X) {
        const TCharInfo& Cell = Saved[Y - 1][X - 1];
        Wrong += GetCharAt(X, Y) != Cell.Ch || GetAttrAt(X, Y) != Cell.Attr;
      }
    }
    return Say({Wrong, GetCharAt(80, 25), Saved[2][0].Ch});
  });
  EXPECT_EQ(Report, Say({1, ' ', 'E'}));  // all but the last cell, which stays blank
}

// The bytes of a status-bar write in the middle of the door's own stream: there and back, then the
// stream's colours again before its next byte; nothing else.
TEST(FastWrite, BytesOnTheTerminal) {
  TChildRun Run = RunConsoleChild({}, [] {
    ConsoleWriteRaw("hello");
    FastWrite("12:00", 70, 25, 0x1F);
    ConsoleWriteRaw("!");
    return ShadowText(1, 1, 7);
  });
  EXPECT_EQ(Run.Report, "hello!.");
  EXPECT_EQ(Visible(AfterConsoleStart(Run.Output)),
            Visible("hello\x1b[25;70H\x1b[0;1;37;44m12:00\x1b[1;6H\x1b[0;37;40m!"));
}

// Redirected output sees the frame's moves as a printer would: a LF for each move to the row below,
// on the way there and on the way back (after the window, whose top left corner it starts from).
TEST(FastWrite, RedirectedSendsTheLineFeedsOfItsMoves) {
  const struct {
    uint8_t WindowY, CursorY, Row;
    const char* Want;
  } Cases[] = {{1, 1, 2, "\nx"}, {1, 3, 2, "x\n"}, {1, 5, 9, "x"}, {2, 2, 10, "x\n"}, {2, 1, 10, "x"}};
  for (const auto& Case : Cases) {
    SCOPED_TRACE(std::to_string(Case.WindowY) + "," + std::to_string(Case.CursorY));
    const TChildRun Run = RunConsoleChild(OnPipes(), [&] {
      Window(1, Case.WindowY, 80, 25);
      GotoXY(1, Case.CursorY);
      ConsoleWrite("|\r");  // moves before this point are not part of the case
      FastWrite("x", 1, Case.Row, 7);
      return Cursor();
    });
    EXPECT_EQ(Visible(Run.Output.substr(Run.Output.find('|') + 2)), Visible(Case.Want));
    EXPECT_EQ(Run.Report, "1," + std::to_string(Case.CursorY));
  }
}

// A console smaller than the grid: no read outside the buffer, no write that wraps or scrolls.
TEST(CellAccess, SmallConsole) {
  TChildOptions Options;
  Options.Cols = 40;
  Options.Rows = 10;
  TChildRun Run = RunConsoleChild(Options, [] {
    const std::string Reads = Say({GetCharAt(41, 1), GetAttrAt(1, 11)});
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
    return Say({Reads, ShadowText(1, 28, 40), ShadowText(10, 38, 40), ShadowText(2) == std::string(40, '.'),
                ShadowText(4, 3, 3), WindMinX, WindMaxY});
  });
  EXPECT_EQ(Run.Report, "32 7 ..aaaaaaaaaaa bb. 1 f 2 5");
}

}  // namespace
