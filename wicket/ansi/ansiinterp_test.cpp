// The ANSI interpreter on the local console: each case runs in a forked child with the console on
// a pipe and reports the shadow, the cursor and the attributes there after each step; one case
// checks the bytes on a pseudo-terminal.
#include "ansi/ansiinterp.h"

#include <gtest/gtest.h>

#include "console/console_testutil.h"
#include "crt2/crt2.h"

namespace {

std::string Attrs() { return std::to_string(GetTextAttr()) + "/" + std::to_string(TextAttr); }
std::string Absolute() {
  return std::to_string(ConsoleGetCursor().X) + "," + std::to_string(ConsoleGetCursor().Y);
}

// Child side: AnsiWrite(AText), then what AProbe sees.
std::string After(const std::string& AText, std::string (*AProbe)() = Cursor) {
  AnsiWrite(AText);
  return AProbe();
}

const struct {
  const char* Name;
  std::string Want;
  std::string (*Body)();  // the steps, with what was seen after each
} Cases[] = {
    {"text, home, text", "3,1 ab cd.",
     [] {
       GotoXY(5, 5);
       return Say({After("ab\x1b[1;1Hcd"), ShadowText(5, 5, 6), ShadowText(1, 1, 3)});
     }},
    {"sequence split over two calls", "2,1 x 2,1 y ",
     [] {
       return Say({After("x\x1b"), ShadowText(1, 1, 1), After("[2Jy"), ShadowText(1, 1, 2)});
     }},
    // ESC and another byte vanish; a second ESC is dropped and the rest is text; ESC or a control
    // byte ends an open sequence without effect, and is consumed.
    {"broken sequences", "z...[2J.[2J.abc.",
     [] {
       AnsiWrite("\x1bxz\r\n\x1b\x1b[2J\r\n\x1b[\x1b[2J\r\nab\x1b[\rc");
       return ShadowText(1, 1, 4) + ShadowText(2, 1, 4) + ShadowText(3, 1, 4) + ShadowText(4, 1, 4);
     }},
    {"home forms inside a window (window-relative, then absolute)", "1,1 1,1 1,5 7,3 16,12",
     [] {
       Window(10, 10, 50, 20);
       return Say({After("\x1b[5;5H\x1b[H"), After("\x1b[5;5H\x1b[;H"), After("\x1b[5H"), After("\x1b[3;7f"),
                   Absolute()});
     }},
    {"rows and columns are bytes; a number too large or too long reads as 0", "1,25 1,25 4,1 9,1",
     [] {
       return Say({After("\x1b[281;1H"), After("\x1b[256;1H"), After("\x1b[99999999999;4H"),
                   After("\x1b[" + std::string(300, '0') + "5;9H")});
     }},
    {"relative moves stop at the window's edges; G beyond it is ignored", "3,2 3,1 80,1 80,25 1,23 1,24 9,24",
     [] {
       GotoXY(3, 3);
       return Say({After("\x1b[0A"), After("\x1b[A\x1b[A\x1b[A"), After("\x1b[100C"),
                   After("\x1b[2147483647B"), After("\x1b[5D\x1b[2F"), After("\x1b[9G\x1b[1E"),
                   After("\x1b[9G\x1b[100G")});
     }},
    {"erase line and screen only in their listed forms", "abcdef|3,1 ab    |3,1 a     |2,1",
     [] {
       const auto Row = [] { return ShadowText(1, 1, 6) + "|" + Cursor(); };
       return Say({After("abcdef\x1b[1;3H\x1b[2K\x1b[1K\x1b[0J\x1b[1J", Row), After("\x1b[0K", Row),
                   After("x\x1b[1;2H\x1b[K", Row)});
     }},
    {"insert and delete lines", "1  23 1 234",
     [] {
       const auto Column = [] { return ShadowColumn(1, 1, 5); };
       return Say({After("1\r\n2\r\n3\r\n4\x1b[2;1H\x1b[2L", Column), After("\x1b[M", Column)});
     }},
    {"saved cursor: one slot, window-relative", "1,1 6,4 9,9",
     [] {
       GotoXY(7, 7);
       const std::string BeforeSave = After("\x1b[u");
       Window(20, 10, 60, 20);
       AnsiWrite("\x1b[4;6H\x1b[s\x1b[1;1H");
       Window(1, 1, 80, 25);
       return Say({BeforeSave, After("\x1b[u"), After("\x1b[2;2H\x1b[s\x1b[9;9H\x1b[s\x1b[u")});
     }},
    {"colours; low video with a background gives the console's blink",
     "12/12 12 4/4 22/22 150/150 22/22 150/150 112/112 7/7 7/7",
     [] {
       SetTextAttr(0x07);
       return Say({After("\x1b[1;31ma", Attrs), ShadowAttr(1, 1), After("\x1b[0;31m", Attrs),
                   After("\x1b[44;33m", Attrs), After("\x1b[5m", Attrs), After("\x1b[25m", Attrs),
                   After("\x1b[22m", Attrs), After("\x1b[0;47;30m", Attrs), After("\x1b[40;37m", Attrs),
                   After("\x1b[0m\x1b[2;3;4;21;24;38;39;48;99m", Attrs)});
     }},
    {"reverse drops bright and twice gives back; conceal, and a second one saves 0",
     "97/97 22/22 0/0 22/22 0/0",
     [] {
       SetTextAttr(0x1E);
       const std::string Reversed = After("\x1b[7m", Attrs);
       SetTextAttr(0x16);
       return Say({Reversed, After("\x1b[7m\x1b[27m", Attrs), After("\x1b[8m", Attrs),
                   After("\x1b[28m", Attrs), After("\x1b[8m\x1b[8m\x1b[28m", Attrs)});
     }},
    {"line end; the CR ends an open sequence without colour", "1,3 7/7",
     [] {
       AnsiWriteLn("x");
       AnsiWriteLn("\x1b[31");
       return Say({Cursor(), Attrs()});
     }},
};

TEST(AnsiWrite, CarriesOutSequencesOnTheConsole) {
  for (const auto& Case : Cases) {
    SCOPED_TRACE(Case.Name);
    TChildRun Run = RunConsoleChild(OnPipes(), [&] {
      ConsoleInit();
      return Case.Body();
    });
    EXPECT_EQ(Run.Report, Case.Want);
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
