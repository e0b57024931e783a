// The local console on a real pseudo-terminal and on pipes: the bytes the terminal receives, the
// shadow buffer and cursor the layer keeps, keys, and the terminal mode on every way out. Every
// case runs in a forked child (console_testutil.h), so termios, signal and exit handlers of this
// test process are never touched.
#include <gtest/gtest.h>

#include <stdexcept>

#include "console/console.h"
#include "console/console_testutil.h"

namespace {

std::string Keys(int ACount) {
  std::string Out;
  for (int I = 0; I < ACount; ++I) Out += std::to_string(ReadKey()) + " ";
  return Out;
}

bool SameMode(const termios& A, const termios& B) {
  return A.c_iflag == B.c_iflag && A.c_oflag == B.c_oflag && A.c_cflag == B.c_cflag &&
         A.c_lflag == B.c_lflag && A.c_cc[VMIN] == B.c_cc[VMIN] && A.c_cc[VTIME] == B.c_cc[VTIME];
}

bool IsRaw(const termios& A) {
  return (A.c_oflag & OPOST) == 0 && (A.c_lflag & (ICANON | ECHO | ISIG | IEXTEN)) == 0 &&
         (A.c_iflag & (ICRNL | IXON)) == 0;
}

TEST(ConsoleStart, TakesSizeAndCursorFromTheTerminal) {
  TChildOptions Options;
  Options.Cols = 100;
  Options.Rows = 30;
  Options.CursorReport = "k\x1b[5;10R";  // a key typed before the answer is kept
  TChildRun Run = RunConsoleChild(Options, [] {
    ConsoleInit();
    termios Mode;
    tcgetattr(1, &Mode);
    return Mismatch("width", ScreenWidth, 100) + Mismatch("height", ScreenHeight, 30) +
           Mismatch("x", static_cast<int>(WhereX()), 10) + Mismatch("y", static_cast<int>(WhereY()), 5) +
           Mismatch("window", WindMaxX * 1000 + WindMaxY, 100030) +
           Mismatch("output redirected", OutputRedir, false) +
           Mismatch("input redirected", InputRedir, false) + Mismatch("raw", IsRaw(Mode), true) +
           Mismatch("typed key", static_cast<int>(ReadKey()), static_cast<int>('k')) +
           Mismatch("shadow zeroed", ShadowText(30), std::string(100, '.'));
  });
  EXPECT_EQ(Run.Report, "");
  EXPECT_EQ(Visible(Run.Output), Visible("\x1b[6n\x1b[m"));
  EXPECT_TRUE(SameMode(Run.After, Run.Before));
}

TEST(ConsoleStart, WithoutAnswerHomesTheCursor) {
  TChildOptions Options;
  Options.Cols = 0;  // a terminal that does not know its size
  Options.Rows = 0;
  Options.CursorReport = "";
  auto Started = std::chrono::steady_clock::now();
  TChildRun Run = RunConsoleChild(Options, [] {
    ConsoleInit();
    return Mismatch("size", ScreenWidth * 1000 + ScreenHeight, 80025) +
           Mismatch("cursor", WhereX() * 1000 + WhereY(), 1001);
  });
  auto Waited = std::chrono::steady_clock::now() - Started;
  EXPECT_EQ(Run.Report, "");
  EXPECT_EQ(Visible(Run.Output), Visible("\x1b[6n\x1b[H\x1b[m"));
  EXPECT_GE(Waited, std::chrono::milliseconds(900));
}

// Each way out of the process puts the terminal back into the mode it had before the door.
TEST(ConsoleStart, TerminalRestoredOnEveryWayOut) {
  struct TCase {
    const char* Name;
    std::function<void()> Body;
    int Signal;      // sent while the child waits for a key; 0: the key is sent instead
    bool Signalled;  // the child ends by a signal (the one sent, or SIGABRT)
    int Code;        // exit code or signal number
  };
  static void (*Throw)() = [] { throw std::runtime_error("unhandled in a door"); };
  const TCase Cases[] = {
      {"end of main", [] {}, 0, false, 0},
      {"exit from a handler", [] { std::exit(3); }, 0, false, 3},
      {"unhandled exception", [] { [&]() noexcept { Throw(); }(); }, 0, true, SIGABRT},
      {"SIGTERM", [] {}, SIGTERM, true, SIGTERM},
      {"SIGHUP", [] {}, SIGHUP, true, SIGHUP},
      {"SIGINT", [] {}, SIGINT, true, SIGINT},
  };
  for (const TCase& Case : Cases) {
    SCOPED_TRACE(Case.Name);
    bool RawWhileRunning = false;
    TChildOptions Options;
    Options.OnOutput = [&](TChildRun& ARun) {
      if (RawWhileRunning || ARun.Output.find("ready") == std::string::npos) return;
      termios Mode;
      tcgetattr(ARun.Slave, &Mode);
      RawWhileRunning = IsRaw(Mode);
      if (Case.Signal != 0) {
        kill(ARun.Pid, Case.Signal);
      } else {
        TestWriteAll(ARun.Master, "g");
      }
    };
    TChildRun Run = RunConsoleChild(Options, [&] {
      ConsoleWrite("ready");
      ReadKey();  // until the parent has looked at the terminal
      Case.Body();
      return std::string();
    });
    ASSERT_FALSE(Run.TimedOut);
    EXPECT_TRUE(RawWhileRunning);
    EXPECT_FALSE(IsRaw(Run.After));
    EXPECT_TRUE(SameMode(Run.After, Run.Before));
    if (Case.Signalled) {
      ASSERT_TRUE(WIFSIGNALED(Run.Status));
      EXPECT_EQ(WTERMSIG(Run.Status), Case.Code);
    } else {
      ASSERT_TRUE(WIFEXITED(Run.Status));
      EXPECT_EQ(WEXITSTATUS(Run.Status), Case.Code);
    }
  }
}

TEST(ConsoleStart, IgnoredHangupStaysIgnored) {
  TChildRun Run = RunConsoleChild({}, [] {
    signal(SIGHUP, SIG_IGN);
    ConsoleInit();
    raise(SIGHUP);
    ConsoleWrite("alive");
    return std::string();
  });
  EXPECT_EQ(AfterConsoleStart(Run.Output), "alive");
  EXPECT_TRUE(WIFEXITED(Run.Status));
}

// The bytes a terminal receives for each operation, after start-up at (1, 1) in attribute 7.
TEST(ConsoleOutput, BytesOnTheTerminal) {
  struct TCase {
    const char* Name;
    std::function<void()> Body;
    std::string Want;
  };
  const TCase Cases[] = {
      {"plain text needs no colour", [] { ConsoleWrite("hi"); }, "hi"},
      {"colour comes with the next text",
       [] {
         TextColor(14);
         TextBackground(1);
         ConsoleWrite("x");
       },
       "\x1b[0;1;33;44mx"},
      {"blink from a colour above 15",
       [] {
         TextColor(4 + 16);
         ConsoleWrite("x");
       },
       "\x1b[0;5;31;40mx"},
      {"goto", [] { GotoXY(5, 3); }, "\x1b[3;5H"},
      {"goto outside the window is ignored",
       [] {
         GotoXY(81, 1);
         GotoXY(0, 1);
         GotoXY(1, 26);
       },
       ""},
      {"line feed, carriage return, backspace", [] { ConsoleWrite("a\r\nbc\b\bd"); }, "a\r\nbc\b\bd"},
      {"wrap at the right edge",
       [] {
         GotoXY(79, 1);
         ConsoleWrite("xyz");
       },
       "\x1b[1;79Hxy\x1b[2;1Hz"},
      {"scroll at the bottom",
       [] {
         GotoXY(1, 25);
         ConsoleWrite("a\nb");
       },
       "\x1b[25;1Ha\r\nb"},
      {"control bytes are not passed on", [] { ConsoleWrite(std::string("a\0\x1b[2J", 6)); }, "a ?[2J"},
      {"bell", [] { ConsoleWrite("\a"); }, "\a"},
      {"clear screen",
       [] {
         TextBackground(1);
         ClrScr();
       },
       "\x1b[0;37;44m\x1b[H\x1b[2J"},
      {"clear to end of line",
       [] {
         GotoXY(5, 1);
         ClrEol();
       },
       "\x1b[1;5H\x1b[K"},
      {"clear to end of line in a narrow window",
       [] {
         Window(1, 1, 10, 5);
         GotoXY(8, 2);
         ClrEol();
       },
       "\x1b[2;8H   \x1b[2;8H"},
      {"clear a narrow window",
       [] {
         Window(3, 2, 4, 3);
         ClrScr();
       },
       "\x1b[2;3H  \x1b[3;3H  \x1b[2;3H"},
      {"cursor shape",
       [] {
         CursorOff();
         CursorOn();
       },
       "\x1b[?1c\x1b[?2c"},
  };
  for (const TCase& Case : Cases) {
    SCOPED_TRACE(Case.Name);
    TChildRun Run = RunConsoleChild({}, [&] {
      ConsoleInit();
      Case.Body();
      return std::string();
    });
    EXPECT_EQ(Visible(AfterConsoleStart(Run.Output)), Visible(Case.Want));
  }
}

// Redirected output: text only, whatever the operations, and the cursor and shadow still kept.
TEST(ConsoleOutput, RedirectedSendsTextOnly) {
  TChildOptions Options;
  Options.Pty = false;
  TChildRun Run = RunConsoleChild(Options, [] {
    ConsoleInit();
    std::string Report = Mismatch("output redirected", OutputRedir, true) +
                         Mismatch("input redirected", InputRedir, true) +
                         Mismatch("size", ScreenWidth * 1000 + ScreenHeight, 80025);
    TextColor(14);
    ConsoleWrite("a\r\nb\tc");
    ClrEol();
    CursorOff();
    InsLine();
    GotoXY(1, 3);  // one row down: LF
    GotoXY(1, 5);  // two rows down: nothing
    GotoXY(7, 6);  // one row down, another column: LF
    GotoXY(1, 6);
    ClrScr();
    ConsoleWrite("z");
    return Report + Mismatch("cursor", WhereX() * 1000 + WhereY(), 2001) +
           Mismatch("row 1", ShadowText(1, 1, 3), "z  ") +
           Mismatch("attr", static_cast<int>(ShadowAttr(1, 1)), 14);
  });
  EXPECT_EQ(Run.Report, "");
  EXPECT_EQ(Visible(Run.Output), Visible("a\r\nb       c\n\nz"));
}

// Shadow and cursor after text output in windows; the same on a terminal or a pipe.
TEST(ConsoleOutput, ShadowFollowsTextInWindows) {
  struct TCase {
    const char* Name;
    std::function<std::string()> Body;
  };
  const TCase Cases[] = {
      {"wrap and scroll inside a window",
       [] {
         Window(1, 1, 3, 2);
         ConsoleWrite("abcdefg");
         return Mismatch("row 1", ShadowText(1, 1, 4), "def.") +
                Mismatch("row 2", ShadowText(2, 1, 4), "g  .") +
                Mismatch("cursor", WhereX() * 1000 + WhereY(), 2002);
       }},
      {"tab stops count from the window's left edge",
       [] {
         Window(3, 1, 20, 5);
         ConsoleWrite("\tx");
         return Mismatch("row", ShadowText(1, 1, 12), "..        x.");
       }},
      {"tab stops at the window's right edge",
       [] {
         Window(1, 1, 10, 5);
         ConsoleWrite("abcdefghi\tx");
         return Mismatch("rows", ShadowText(1, 1, 10) + ShadowText(2, 1, 2), "abcdefghi x.");
       }},
      {"backspace stops at column 1 of the screen, not of the window",
       [] {
         Window(5, 1, 20, 5);
         ConsoleWrite("\b\b\b\b\b\bx");
         return Mismatch("row", ShadowText(1, 1, 3), "x..");
       }},
      {"carriage return and line feed go to the window's left edge",
       [] {
         Window(5, 2, 20, 5);
         ConsoleWrite("ab\rc\nd");
         return Mismatch("row 2", ShadowText(2, 4, 7), ".cb.") +
                Mismatch("row 3", ShadowText(3, 4, 6), ".d.");
       }},
      {"insert and delete lines",
       [] {
         ConsoleWrite("1\r\n2\r\n3\r\n4");
         Window(1, 1, 80, 4);
         GotoXY(1, 2);
         InsLine();
         std::string Inserted =
             ShadowText(1, 1, 1) + ShadowText(2, 1, 1) + ShadowText(3, 1, 1) + ShadowText(4, 1, 1);
         DelLine(2);
         std::string Deleted =
             ShadowText(1, 1, 1) + ShadowText(2, 1, 1) + ShadowText(3, 1, 1) + ShadowText(4, 1, 1);
         GotoXY(1, 1);
         InsLine(99);
         return Mismatch("inserted", Inserted, "1 23") + Mismatch("deleted", Deleted, "13  ") +
                Mismatch("all inserted", ShadowText(1, 1, 1) + ShadowText(4, 1, 1) + ShadowText(5, 1, 1),
                         "  .");
       }},
      {"clear screen and line use the current attribute",
       [] {
         TextBackground(4);
         ClrScr();
         GotoXY(3, 2);
         TextBackground(2);
         ClrEol();
         return Mismatch("clrscr attr", static_cast<int>(ShadowAttr(80, 25)), 0x47) +
                Mismatch("clreol attr", ShadowAttr(3, 2) * 256 + ShadowAttr(2, 2), 0x2747) +
                Mismatch("cursor", WhereX() * 1000 + WhereY(), 3002);
       }},
      {"invalid windows are ignored",
       [] {
         Window(1, 1, 80, 30);
         Window(5, 1, 4, 10);
         Window(0, 1, 10, 10);
         Window(1, 1, 81, 25);
         return Mismatch("window", WindMinX * 1000000 + WindMinY * 10000 + WindMaxX * 100 + WindMaxY,
                         1018025);
       }},
      {"window-relative positions",
       [] {
         Window(10, 5, 20, 8);
         GotoXY(3, 2);
         ConsoleWrite("q");
         GotoXY(12, 1);
         return Mismatch("cell", ShadowText(6, 12, 12), "q") +
                Mismatch("where", WhereX() * 1000 + WhereY(), 4002);
       }},
  };
  for (bool Pty : {true, false}) {
    for (const TCase& Case : Cases) {
      SCOPED_TRACE(std::string(Case.Name) + (Pty ? " on a terminal" : " on a pipe"));
      TChildOptions Options;
      Options.Pty = Pty;
      TChildRun Run = RunConsoleChild(Options, [&] {
        ConsoleInit();
        return Case.Body();
      });
      EXPECT_EQ(Run.Report, "");
    }
  }
}

// The door's own stream: bytes untouched, and the console's cursor and shadow follow them.
TEST(ConsoleWriteRaw, PassesBytesAndFollowsThem) {
  for (bool Pty : {true, false}) {
    SCOPED_TRACE(Pty ? "terminal" : "pipe");
    TChildOptions Options;
    Options.Pty = Pty;
    const std::string Text = "\x1b[1;33;44mHi\x1b[0m\r\n\x1b[3;5Hx\x1b[2";
    TChildRun Run = RunConsoleChild(Options, [&] {
      ConsoleInit();
      ConsoleWriteRaw(Text);
      ConsoleWriteRaw(";3Hy\x1b[1;78Habc");  // the sequence split over two calls, then a pending wrap
      TConsoleCursor Pending = ConsoleGetCursor();
      std::string Split = ShadowText(2, 3, 3);
      ConsoleWriteRaw("d\x1b[s\x1b[10;10H\x1b[u\x1b[K");
      return Mismatch("H", static_cast<int>(ShadowAttr(1, 1)), 0x1E) +
             Mismatch("row 1", ShadowText(1, 1, 3), "Hi.") +
             Mismatch("row 3", ShadowText(3, 5, 5) + std::to_string(ShadowAttr(5, 3)), "x7") +
             Mismatch("split sequence", Split, "y") +
             Mismatch("pending", Pending.X * 10 + Pending.Pending, 801) +
             Mismatch("wrapped, then erased", ShadowText(2, 1, 3), "d  ") +
             Mismatch("cursor", WhereX() * 1000 + WhereY(), 2002) +
             Mismatch("text attr", static_cast<int>(TextAttr), 7);
    });
    EXPECT_EQ(Run.Report, "");
    EXPECT_EQ(Visible(AfterConsoleStart(Run.Output)),
              Visible(Text + ";3Hy\x1b[1;78Habc" + "d\x1b[s\x1b[10;10H\x1b[u\x1b[K"));
  }
}

// A status-bar write between two pieces of the door's stream: the terminal is put back where the
// stream left it, in the stream's colours.
TEST(ConsoleWriteRaw, ResumesAfterTheConsolesOwnOutput) {
  TChildRun Run = RunConsoleChild({}, [] {
    ConsoleInit();
    ConsoleWriteRaw("hello");
    ConsoleBeginUpdate();  // what FastWrite does
    TConsoleCursor Saved = ConsoleGetCursor();
    GotoXY(1, 25);
    TextAttr = 0x70;
    ConsoleWrite("S");
    TextAttr = 7;
    ConsoleSetCursor(Saved);
    ConsoleEndUpdate();
    ConsoleWriteRaw("!");
    return Mismatch("row 1", ShadowText(1, 1, 7), "hello!.");
  });
  EXPECT_EQ(Run.Report, "");
  EXPECT_EQ(Visible(AfterConsoleStart(Run.Output)),
            Visible("hello\x1b[25;1H\x1b[0;30;47mS\x1b[1;6H\x1b[0;37;40m!"));
}

TEST(ConsoleKeys, DecodesCursorAndFunctionKeysToScanCodes) {
  TChildOptions Options;
  Options.Input =
      std::string("a\x1b[A\x1b[B\x1b[C\x1b[D\x1bOP\x1b[6~\x7f\x1b[1;5C\x1b[99~\x1b[12;40R\x1b[[Bz\r\0", 47);
  TChildRun Run = RunConsoleChild(Options, [] { return Keys(22); });
  EXPECT_EQ(Run.Report, "97 0 72 0 80 0 77 0 75 0 59 0 81 8 0 77 0 60 122 13 0 3 ");
}

TEST(ConsoleKeys, LoneEscapeAndAltKey) {
  TChildOptions Options;
  Options.Input = "\x1b";
  Options.OnOutput = [](TChildRun& ARun) {
    if (ARun.Output.find("esc") != std::string::npos && ARun.Output.find("alt") == std::string::npos) {
      TestWriteAll(ARun.Master, "\x1bx");
    }
  };
  TChildRun Run = RunConsoleChild(Options, [] {
    std::string Got = Keys(1);
    ConsoleWrite("esc");
    return Got + Keys(2);
  });
  EXPECT_EQ(Run.Report, "27 27 120 ");
}

// A door whose input has gone ends by itself with exit code 0 instead of waiting for ever.
TEST(ConsoleKeys, EndOfInputEndsTheDoor) {
  {
    SCOPED_TRACE("end of file on a pipe");
    TChildOptions Options;
    Options.Pty = false;
    Options.Input = "xy";
    Options.CloseInput = true;
    TChildRun Run = RunConsoleChild(Options, [] {
      while (!KeyPressed()) Delay(1);
      std::string Got = Keys(2);
      while (!ConsoleInputEnded()) KeyPressed();
      ConsoleWrite(Got + (KeyPressed() ? "pressed" : "quiet"));
      ReadKey();
      ConsoleWrite("not reached");
      return std::string();
    });
    EXPECT_EQ(Run.Output, "120 121 pressed");
    ASSERT_TRUE(WIFEXITED(Run.Status));
    EXPECT_EQ(WEXITSTATUS(Run.Status), 0);
  }
  {
    SCOPED_TRACE("terminal gone");
    TChildOptions Options;
    Options.OnOutput = [](TChildRun& ARun) {
      if (ARun.Output.find("waiting") == std::string::npos || ARun.Master < 0) return;
      close(ARun.Master);
      ARun.Master = -1;
    };
    TChildRun Run = RunConsoleChild(Options, [] {
      ConsoleWrite("waiting");
      ReadKey();
      ConsoleWrite("not reached");
      return std::string("not reached");
    });
    EXPECT_EQ(Run.Report, "");
    ASSERT_TRUE(WIFEXITED(Run.Status));
    EXPECT_EQ(WEXITSTATUS(Run.Status), 0);
  }
}

}  // namespace
