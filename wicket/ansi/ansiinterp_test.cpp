// The ANSI interpreter on the local console: each case runs in a forked child with the console on
// a pipe and checks the shadow, the cursor and the attributes there; one case checks the bytes on
// a pseudo-terminal.
#include "ansi/ansiinterp.h"

#include <gtest/gtest.h>

#include "console/console_testutil.h"
#include "crt2/crt2.h"

namespace {

std::string Cursor() { return std::to_string(WhereX()) + "," + std::to_string(WhereY()); }
std::string Attrs() { return std::to_string(GetTextAttr()) + "/" + std::to_string(TextAttr); }

struct TCase {
  const char* Name;
  std::function<std::string()> Body;  // writes and checks; returns the mismatches
};

const TCase Cases[] = {
    {"text, home, text",
     [] {
       GotoXY(5, 5);
       AnsiWrite("ab\x1b[1;1Hcd");
       return Mismatch("row 5", ShadowText(5, 5, 6), "ab") + Mismatch("row 1", ShadowText(1, 1, 3), "cd.") +
              Mismatch("cursor", Cursor(), "3,1");
     }},
    {"sequence split over two calls",
     [] {
       AnsiWrite("x\x1b");
       std::string Before = ShadowText(1, 1, 1);
       AnsiWrite("[2Jy");
       return Mismatch("before", Before, "x") + Mismatch("row 1", ShadowText(1, 1, 2), "y ") +
              Mismatch("cursor", Cursor(), "2,1");
     }},
    {"ESC and another byte vanish",
     [] {
       AnsiWrite("\x1bxz");
       return Mismatch("row 1", ShadowText(1, 1, 2), "z.");
     }},
    {"a second ESC is dropped, the rest is text",
     [] {
       AnsiWrite("\x1b\x1b[2J");
       return Mismatch("row 1", ShadowText(1, 1, 4), "[2J.");
     }},
    {"ESC ends an open sequence without effect",
     [] {
       AnsiWrite("\x1b[\x1b[2J");
       return Mismatch("row 1", ShadowText(1, 1, 4), "[2J.");
     }},
    {"control bytes end a sequence and are consumed",
     [] {
       AnsiWrite("ab\x1b[\rc");
       return Mismatch("row 1", ShadowText(1, 1, 3), "abc");
     }},
    {"home forms inside a window",
     [] {
       Window(10, 10, 50, 20);
       std::string R;
       AnsiWrite("\x1b[5;5H\x1b[H");
       R += Mismatch("H", Cursor(), "1,1");
       AnsiWrite("\x1b[5;5H\x1b[;H");
       R += Mismatch(";H", Cursor(), "1,1");
       AnsiWrite("\x1b[5H");
       R += Mismatch("5H", Cursor(), "1,5");
       AnsiWrite("\x1b[3;7f");
       return R + Mismatch("f", Cursor(), "7,3") +
              Mismatch("absolute", ConsoleGetCursor().X * 100 + ConsoleGetCursor().Y, 1612);
     }},
    {"rows and columns are bytes",
     [] {
       std::string R;
       AnsiWrite("\x1b[281;1H");
       R += Mismatch("281", Cursor(), "1,25");
       AnsiWrite("\x1b[256;1H");
       R += Mismatch("256", Cursor(), "1,25");
       AnsiWrite("\x1b[99999999999;4H");  // too large for 32 bits: 0, so row 1
       R += Mismatch("overflow", Cursor(), "4,1");
       AnsiWrite("\x1b[" + std::string(300, '0') + "5;9H");  // too long a number reads as 0
       return R + Mismatch("long", Cursor(), "9,1");
     }},
    {"relative moves stop at the window's edges",
     [] {
       std::string R;
       GotoXY(3, 3);
       AnsiWrite("\x1b[0A");
       R += Mismatch("0A", Cursor(), "3,2");
       AnsiWrite("\x1b[A\x1b[A\x1b[A");
       R += Mismatch("A at row 1", Cursor(), "3,1");
       AnsiWrite("\x1b[100C");
       R += Mismatch("100C", Cursor(), "80,1");
       AnsiWrite("\x1b[2147483647B");
       R += Mismatch("B", Cursor(), "80,25");
       AnsiWrite("\x1b[5D\x1b[2F");
       R += Mismatch("D, F", Cursor(), "1,23");
       AnsiWrite("\x1b[9G\x1b[1E");
       R += Mismatch("G, E", Cursor(), "1,24");
       AnsiWrite("\x1b[9G\x1b[100G");
       return R + Mismatch("100G ignored", Cursor(), "9,24");
     }},
    {"erase line and screen only in their listed forms",
     [] {
       AnsiWrite("abcdef\x1b[1;3H\x1b[2K\x1b[1K\x1b[0J\x1b[1J");
       std::string Kept = ShadowText(1, 1, 6);
       AnsiWrite("\x1b[0K");
       std::string Zero = ShadowText(1, 1, 6);
       AnsiWrite("x\x1b[1;2H\x1b[K");
       return Mismatch("kept", Kept, "abcdef") + Mismatch("0K", Zero, "ab    ") +
              Mismatch("K", ShadowText(1, 1, 4), "a   ") + Mismatch("cursor", Cursor(), "2,1");
     }},
    {"insert and delete lines",
     [] {
       AnsiWrite("1\r\n2\r\n3\r\n4\x1b[2;1H\x1b[2L");
       std::string Inserted = ShadowText(1, 1, 1) + ShadowText(2, 1, 1) + ShadowText(3, 1, 1) +
                              ShadowText(4, 1, 1) + ShadowText(5, 1, 1);
       AnsiWrite("\x1b[M");
       return Mismatch("inserted", Inserted, "1  23") +
              Mismatch("deleted", ShadowText(2, 1, 1) + ShadowText(3, 1, 1) + ShadowText(4, 1, 1), " 23");
     }},
    {"saved cursor: one slot, window-relative",
     [] {
       std::string R;
       GotoXY(7, 7);
       AnsiWrite("\x1b[u");
       R += Mismatch("u before s", Cursor(), "1,1");
       Window(20, 10, 60, 20);
       AnsiWrite("\x1b[4;6H\x1b[s\x1b[1;1H");
       Window(1, 1, 80, 25);
       AnsiWrite("\x1b[u");
       R += Mismatch("after a window change", Cursor(), "6,4");
       AnsiWrite("\x1b[2;2H\x1b[s\x1b[9;9H\x1b[s\x1b[u");
       return R + Mismatch("last save wins", Cursor(), "9,9");
     }},
    {"colours",
     [] {
       std::string R;
       SetTextAttr(0x07);
       AnsiWrite("\x1b[1;31ma");
       R += Mismatch("bright red", Attrs(), "12/12") +
            Mismatch("cell", static_cast<int>(ShadowAttr(1, 1)), 12);
       AnsiWrite("\x1b[0;31m");
       R += Mismatch("plain red after a reset", Attrs(), "4/4");
       AnsiWrite("\x1b[44;33m");
       R += Mismatch("brown on blue", Attrs(), "22/22");
       AnsiWrite("\x1b[5m");
       R += Mismatch("blink", Attrs(), "150/150");
       AnsiWrite("\x1b[25m");
       R += Mismatch("blink off", Attrs(), "22/22");
       AnsiWrite("\x1b[22m");  // LowVideo, with a background: the console's blink rule
       R += Mismatch("low video", Attrs(), "150/150");
       AnsiWrite("\x1b[0m\x1b[2;3;4;21;24;38;39;48;99m");
       return R + Mismatch("ignored codes", Attrs(), "7/7");
     }},
    {"reverse and conceal",
     [] {
       std::string R;
       SetTextAttr(0x1E);
       AnsiWrite("\x1b[7m");
       R += Mismatch("reverse drops bright", Attrs(), "97/97");
       SetTextAttr(0x16);
       AnsiWrite("\x1b[7m\x1b[27m");
       R += Mismatch("twice gives back", Attrs(), "22/22");
       AnsiWrite("\x1b[8m");
       R += Mismatch("concealed", Attrs(), "0/0");
       AnsiWrite("\x1b[28m");
       R += Mismatch("revealed", Attrs(), "22/22");
       AnsiWrite("\x1b[8m\x1b[8m\x1b[28m");
       return R + Mismatch("second conceal saves 0", Attrs(), "0/0");
     }},
    {"line end",
     [] {
       AnsiWriteLn("x");
       AnsiWriteLn("\x1b[31");  // the CR ends the sequence: no colour, and the CR is gone
       return Mismatch("cursor", Cursor(), "1,3") + Mismatch("attr", Attrs(), "7/7");
     }},
};

TEST(AnsiWrite, CarriesOutSequencesOnTheConsole) {
  for (const TCase& Case : Cases) {
    SCOPED_TRACE(Case.Name);
    TChildOptions Options;
    Options.Pty = false;
    TChildRun Run = RunConsoleChild(Options, [&] {
      ConsoleInit();
      return Case.Body();
    });
    EXPECT_EQ(Run.Report, "");
  }
}

// What reaches a terminal: cursor codes only for 25, no answer to a status request, and the
// console's own sequences rather than the text's.
TEST(AnsiWrite, BytesOnTheTerminal) {
  TChildRun Run = RunConsoleChild({}, [] {
    AnsiWrite("\x1b[?25l\x1b[25l\x1b[?25h\x1b[7l\x1b[?7h\x1b[6n\x1b[5n\x1b[1;33mA\x1b[2;1HB");
    return std::string();
  });
  EXPECT_EQ(Visible(AfterConsoleStart(Run.Output)),
            Visible("\x1b[?1c\x1b[?1c\x1b[?2c\x1b[0;1;33;40mA\x1b[2;1HB"));
}

}  // namespace
