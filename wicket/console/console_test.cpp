// The local console on a real pseudo-terminal and on pipes: the bytes the terminal receives, the
// shadow buffer and cursor the layer keeps, keys, and the terminal mode on every way out. Every
// case runs in a forked child (console_testutil.h), so termios, signal and exit handlers of this
// test process are never touched.
#include <fcntl.h>
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

std::string ExitText(int AStatus) {
  return WIFEXITED(AStatus) ? "exit " + std::to_string(WEXITSTATUS(AStatus))
                            : "signal " + std::to_string(WTERMSIG(AStatus));
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
    return Say({"size", ScreenWidth, ScreenHeight, "window", WindMaxX, WindMaxY, "cursor", Cursor(),
                "redirected", OutputRedir, InputRedir, "raw", IsRaw(Mode), "key", ReadKey(), ShadowText(30)});
  });
  EXPECT_EQ(Run.Report,
            "size 100 30 window 100 30 cursor 10,5 redirected 0 0 raw 1 key 107 " + std::string(100, '.'));
  EXPECT_EQ(Visible(Run.Output), Visible("\x1b[6n\x1b[m"));
}

TEST(ConsoleStart, WithoutAnswerHomesTheCursor) {
  TChildOptions Options;
  Options.Cols = Options.Rows = 0;  // a terminal that does not know its size
  Options.CursorReport = "";
  const auto Started = std::chrono::steady_clock::now();
  TChildRun Run = RunConsoleChild(Options, [] {
    ConsoleInit();
    const std::string Home = Cursor();
    ConsoleWrite("ab");
    return Say({ScreenWidth, ScreenHeight, Home, Cursor(), ShadowText(1, 1, 3)});
  });
  EXPECT_GE(std::chrono::steady_clock::now() - Started, std::chrono::milliseconds(900));
  EXPECT_EQ(Run.Report, "80 25 1,1 3,1 ab.");
  EXPECT_EQ(Visible(Run.Output), Visible("\x1b[6n\x1b[H\x1b[mab"));
}

// Each way out of the process puts the terminal back into the mode it had before the door.
TEST(ConsoleStart, TerminalRestoredOnEveryWayOut) {
  static void (*Throw)() = [] { throw std::runtime_error("unhandled in a door"); };
  const struct {
    void (*Body)();
    int Signal;  // sent while the child waits for a key; 0: the key is sent instead
    const char* Want;
  } Cases[] = {
      {[] {}, 0, "exit 0"},
      {[] { std::exit(3); }, 0, "exit 3"},
      {[] { [&]() noexcept { Throw(); }(); }, 0, "signal 6"},
      {[] {}, SIGQUIT, "signal 3"},
  };
  for (const auto& Case : Cases) {
    SCOPED_TRACE(Case.Want);
    bool RawWhileRunning = false;
    TChildOptions Options;
    Options.OnOutput = [&](TChildRun& ARun) {
      if (RawWhileRunning || ARun.Output.find("ready") == std::string::npos) return;
      termios Mode;
      tcgetattr(ARun.Slave, &Mode);
      RawWhileRunning = IsRaw(Mode);
      if (Case.Signal != 0) kill(ARun.Pid, Case.Signal);
      if (Case.Signal == 0) TestWriteAll(ARun.Master, "g");
    };
    TChildRun Run = RunConsoleChild(Options, [&] {
      ConsoleWrite("ready");
      ReadKey();  // until the parent has looked at the terminal
      Case.Body();
      return std::string();
    });
    EXPECT_TRUE(RawWhileRunning);
    EXPECT_FALSE(IsRaw(Run.After));
    EXPECT_TRUE(SameMode(Run.After, Run.Before));
    EXPECT_EQ(ExitText(Run.Status), Case.Want);
  }
}

// A door that put the terminal back itself (to run another program, say) and changed it after
// that keeps its change: the way out restores once only.
TEST(ConsoleStart, TerminalRestoredOnceOnly) {
  TChildRun Run = RunConsoleChild({}, [] {
    ConsoleInit();
    ConsoleRestoreTerminal();
    termios Mode;
    tcgetattr(1, &Mode);
    Mode.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(1, TCSANOW, &Mode);
    return std::string();
  });
  EXPECT_EQ(Run.After.c_lflag & ECHO, 0u);
  EXPECT_NE(Run.Before.c_lflag & ECHO, 0u);
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
  EXPECT_EQ(ExitText(Run.Status), "exit 0");
}

// The bytes a terminal receives for each operation, after start-up at (1, 1) in attribute 7.
TEST(ConsoleOutput, BytesOnTheTerminal) {
  const struct {
    const char* Name;
    std::string Want;
    void (*Body)();
  } Cases[] = {
      {"plain text needs no colour; control bytes other than CR LF BS BEL are not passed on",
       "hi\r\nbc\b\bd\a ?[2J", [] { ConsoleWrite(std::string("hi\r\nbc\b\bd\a\0\x1b[2J", 15)); }},
      {"colour comes with the next text, blink from a colour above 15", "\x1b[0;1;33;44mx\x1b[0;5;31;44my",
       [] {
         TextColor(14);
         TextBackground(1);
         ConsoleWrite("x");
         TextColor(4 + 16);
         ConsoleWrite("y");
       }},
      {"goto outside the window is ignored; wrap at the right edge, scroll at the bottom",
       "\x1b[1;79Hxy\x1b[2;1Hz\x1b[25;1Ha\r\nb",
       [] {
         GotoXY(81, 1);
         GotoXY(0, 1);
         GotoXY(1, 26);
         GotoXY(79, 1);
         ConsoleWrite("xyz");
         GotoXY(1, 25);
         ConsoleWrite("a\nb");
       }},
      {"clear screen and line, cursor shape", "\x1b[0;37;44m\x1b[H\x1b[2J\x1b[1;5H\x1b[K\x1b[?1c\x1b[?2c",
       [] {
         TextBackground(1);
         ClrScr();
         GotoXY(5, 1);
         ClrEol();
         CursorOff();
         CursorOn();
       }},
      {"a window from column 1 but not the whole screen is cleared row by row; a cursor set on the "
       "last column waits for a wrap only there",
       "\x1b[24;1H\x1b[K\x1b[25;1H\x1b[K\x1b[24;1H\x1b[1;5Hx",
       [] {
         Window(1, 24, 80, 25);
         ClrScr();
         ConsoleSetCursor({5, 1, true});
         ConsoleWrite("x");
       }},
      {"a pending wrap given back to the door's stream is made again by writing the last cell anew",
       "\x1b[1;80Hx\r\nz\x1b[1;80Hxy",
       [] {
         ConsoleWriteRaw("\x1b[1;80Hx");
         ConsoleWrite("\r\nz");
         ConsoleSetCursor({80, 1, true});
         ConsoleWriteRaw("y");
       }},
      {"clearing a narrow window or its line end writes blanks",
       "\x1b[2;3H  \x1b[3;3H  \x1b[2;3H\x1b[1;1H\x1b[2;8H   \x1b[2;8H",
       [] {
         Window(3, 2, 4, 3);
         ClrScr();
         Window(1, 1, 10, 5);
         GotoXY(8, 2);
         ClrEol();
       }},
  };
  for (const auto& Case : Cases) {
    SCOPED_TRACE(Case.Name);
    TChildRun Run = RunConsoleChild({}, [&] {
      ConsoleInit();
      Case.Body();
      return std::string();
    });
    EXPECT_EQ(Visible(AfterConsoleStart(Run.Output)), Visible(Case.Want));
  }
}

// Redirected output: text and cursor shape, no colour, clearing or positioning, and the cursor and
// shadow still kept.
TEST(ConsoleOutput, RedirectedSendsTextOnly) {
  TChildRun Run = RunConsoleChild(OnPipes(), [] {
    ConsoleInit();
    const std::string Start = Say({"redirected", OutputRedir, InputRedir, "size", ScreenWidth, ScreenHeight});
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
    return Say({Start, "cursor", Cursor(), ShadowText(1, 1, 3), ShadowAttr(1, 1)});
  });
  EXPECT_EQ(Run.Report, "redirected 1 1 size 80 25 cursor 2,1 z   14");
  EXPECT_EQ(Visible(Run.Output), Visible("a\r\nb       c\x1b[?1c\n\nz"));
}

// Shadow and cursor after text output in windows; the same on a terminal or a pipe.
TEST(ConsoleOutput, ShadowFollowsTextInWindows) {
  const struct {
    const char* Name;
    const char* Want;
    std::string (*Body)();
  } Cases[] = {
      {"wrap and scroll inside a window", "def. g  . 2,2",
       [] {
         Window(1, 1, 3, 2);
         ConsoleWrite("abcdefg");
         return Say({ShadowText(1, 1, 4), ShadowText(2, 1, 4), Cursor()});
       }},
      {"tab stops count from the window's left edge, and stop at its right edge", "..        x. abcdefghi x.",
       [] {
         Window(3, 1, 20, 5);
         ConsoleWrite("\tx");
         Window(1, 3, 10, 5);
         ConsoleWrite("abcdefghi\tx");
         return Say({ShadowText(1, 1, 12), ShadowText(3, 1, 10) + ShadowText(4, 1, 2)});
       }},
      {"backspace stops at column 1 of the screen; CR and LF go to the window's left edge", "x.. .cb. .d.",
       [] {
         Window(5, 1, 20, 5);
         ConsoleWrite("\b\b\b\b\b\bx");
         Window(5, 2, 20, 5);
         ConsoleWrite("ab\rc\nd");
         return Say({ShadowText(1, 1, 3), ShadowText(2, 4, 7), ShadowText(3, 4, 6)});
       }},
      {"insert and delete lines", "1 23|13  |    .",
       [] {
         ConsoleWrite("1\r\n2\r\n3\r\n4");
         Window(1, 1, 80, 4);
         GotoXY(1, 2);
         InsLine();
         const std::string Inserted = ShadowColumn(1, 1, 4);
         DelLine(2);
         const std::string Deleted = ShadowColumn(1, 1, 4);
         GotoXY(1, 1);
         InsLine(99);
         return Inserted + "|" + Deleted + "|" + ShadowColumn(1, 1, 5);
       }},
      {"clear screen and line use the current attribute", "71 71 39 3,2",
       [] {
         TextBackground(4);
         ClrScr();
         GotoXY(3, 2);
         TextBackground(2);
         ClrEol();
         return Say({ShadowAttr(80, 25), ShadowAttr(2, 2), ShadowAttr(3, 2), Cursor()});
       }},
      {"window-relative positions; invalid windows and positions are ignored", "10 5 20 8 q 4,2",
       [] {
         Window(10, 5, 20, 8);
         GotoXY(3, 2);
         ConsoleWrite("q");
         Window(1, 1, 80, 30);
         Window(5, 1, 4, 10);
         Window(0, 1, 10, 10);
         Window(1, 1, 81, 25);
         GotoXY(12, 1);
         return Say({WindMinX, WindMinY, WindMaxX, WindMaxY, ShadowText(6, 12, 12), Cursor()});
       }},
  };
  for (bool Pty : {true, false}) {
    for (const auto& Case : Cases) {
      SCOPED_TRACE(std::string(Case.Name) + (Pty ? " on a terminal" : " on a pipe"));
      TChildRun Run = RunConsoleChild(Pty ? TChildOptions() : OnPipes(), [&] {
        ConsoleInit();
        return Case.Body();
      });
      EXPECT_EQ(Run.Report, Case.Want);
    }
  }
}

// The door's own stream: bytes untouched, and the console's cursor and shadow follow them.
TEST(ConsoleWriteRaw, PassesBytesAndFollowsThem) {
  const std::string Parts[] = {"\x1b[1;33;44mHi\x1b[0m\r\n\x1b[3;5Hx\x1b[2",
                               ";3Hy\x1b[1;78Habc",  // the sequence split over two calls, then a pending wrap
                               "d\x1b[s\x1b[10;10H\x1b[u\x1b[K"};
  for (bool Pty : {true, false}) {
    SCOPED_TRACE(Pty ? "terminal" : "pipe");
    TChildRun Run = RunConsoleChild(Pty ? TChildOptions() : OnPipes(), [&] {
      ConsoleInit();
      ConsoleWriteRaw(Parts[0]);
      ConsoleWriteRaw(Parts[1]);
      const TConsoleCursor Pending = ConsoleGetCursor();
      const std::string Split = ShadowText(2, 3, 3);
      ConsoleWriteRaw(Parts[2]);
      return Say({ShadowText(1, 1, 3), ShadowAttr(1, 1), ShadowText(3, 5, 5), ShadowAttr(5, 3), Split,
                  "pending", Pending.X, Pending.Pending, "then", ShadowText(2, 1, 3), Cursor(), TextAttr});
    });
    EXPECT_EQ(Run.Report, "Hi. 30 x 7 y pending 80 1 then d   2,2 7");
    EXPECT_EQ(Visible(AfterConsoleStart(Run.Output)), Visible(Parts[0] + Parts[1] + Parts[2]));
  }
}

// The shadow follows the door's own ANSI text the way a terminal would: each row starts from a
// cleared screen with the cursor at home; the report is rows 1 and 2 (columns 1-8), the cursor,
// and the attributes of cells (1,1) and (2,1).
TEST(ConsoleWriteRaw, FollowsSequencesLikeATerminal) {
  const struct {
    std::string Bytes;
    const char* Want;
  } Cases[] = {
      {"abcdefgh\x1b[1;3H\x1b[K", "ab      /         3,1 7 7"},
      {"abcdefgh\x1b[1;3H\x1b[1K", "   defgh/         3,1 7 7"},
      {"abcdefgh\x1b[1;3H\x1b[2K", "        /         3,1 7 7"},
      {"abcdefgh\r\nijk\x1b[1;3H\x1b[J", "ab      /         3,1 7 7"},
      {"abcdefgh\r\nijk\x1b[2;2H\x1b[1J", "        /  k      2,2 7 7"},
      {"abcdefgh\r\nijk\x1b[3J", "        /         4,2 7 7"},
      {"abcdefgh\x1b[1;3H\x1b[2@", "ab  cdef/         3,1 7 7"},
      {"abcdefgh\x1b[1;3H\x1b[2P", "abefgh  /         3,1 7 7"},
      {"\x1b[2;1Hwxyz\x1b[1;3H\x1b[2P", "        /wxyz     3,1 7 7"},
      {"abcdefgh\x1b[1;3H\x1b[3X", "ab   fgh/         3,1 7 7"},
      {"ab\r\ncd\x1b[1;5H\x1b[L", "        /ab       1,1 7 7"},
      {"ab\r\ncd\x1b[1;5H\x1b[M", "cd      /         1,1 7 7"},
      {"x\x1b[2;4H\x1b[s\x1b[H\x1b[uy\x1b"
       "7\x1b[H\x1b"
       "8z",
       "x       /   yz    6,2 7 7"},
      {"a\x1b[5Cb\x1b[3Dc\x1b[Ad\x1b[2Be\x1b[1Ff\x1b[E", "a   cdb /f        1,3 7 7"},
      {"\x1b[2;3fa\x1b[5Gb\x1b[d"
       "c\x1b[7`d",
       "     cd /  a b    8,1 7 7"},
      {"\tx\x1b[H\by\x0by\rz\x0cw", "y       /zy       3,3 7 7"},
      {"a\x1b[1;3H\tb", "a       /         10,1 7 7"},
      {"\x1b[1;33;44ma\x1b[0;95;101mb\r\n\x1b[7mc\x1b[5;22;25m", "ab      /c        2,2 30 92"},
      {"\x1b[92mx\x1b[39;49;1;5mx\x1b[38;5;1mq\r\n\x1b[1m\x1b[100md", "xxq     /d        2,2 10 143"},
      {"\x1b[?25la\x1b(Bb\x1b[1 qc\x1b#8d\x1b[12\x18"
       "e",
       "abcde   /         6,1 7 7"},
      {"a\x1b[2\x08;1Hb", "a       /b        2,2 7 7"},
      {"ab\rc\x1b[2Hd\x1b(/Be", "cb      /de       3,2 7 7"},  // "/" is still an intermediate
      {"\x1b[1;80Hx\nyz", "        /         2,3 7 7"},        // LF ends a pending wrap
  };
  std::string Want;
  for (const auto& Case : Cases) Want += std::string(Case.Want) + "|";
  TChildRun Run = RunConsoleChild(OnPipes(), [&] {
    ConsoleInit();
    std::string Report;
    for (const auto& Case : Cases) {
      ConsoleWriteRaw("\x1b[0m\x1b[2J\x1b[H");
      ConsoleWriteRaw(Case.Bytes);
      Report += Say({ShadowText(1, 1, 8) + "/" + ShadowText(2, 1, 8), Cursor(), ShadowAttr(1, 1),
                     ShadowAttr(1, 2)}) +
                "|";
    }
    return Report;
  });
  EXPECT_EQ(Run.Report, Want);
}

TEST(ConsoleKeys, DecodesCursorAndFunctionKeysToScanCodes) {
  TChildOptions Options;
  Options.Input = std::string(
      "a\x1b[A\x1b[B\x1b[C\x1b[D\x1bOP\x1b[6~\x1b[1~\x1b[8~\x1b[3~\x1b[16~\x1b[24~\x7f\x1b[1;5C"
      "\x1b[99~\x1b[12;40R\x1b[[Bz\r\0",
      69);
  // Every number of the "~" form, the four that name no key among them.
  Options.Input +=
      "\x1b[2~\x1b[4~\x1b[5~\x1b[7~\x1b[9~\x1b[10~\x1b[11~\x1b[13~\x1b[14~\x1b[15~\x1b[16~"
      "\x1b[17~\x1b[18~\x1b[19~\x1b[20~\x1b[21~\x1b[22~\x1b[23~\x1b[25~";
  TChildRun Run = RunConsoleChild(Options, [] { return Keys(58); });
  EXPECT_EQ(Run.Report,
            "97 0 72 0 80 0 77 0 75 0 59 0 81 0 71 0 79 0 83 0 134 8 0 77 0 60 122 13 0 3 "
            "0 82 0 79 0 73 0 71 0 59 0 61 0 62 0 63 0 64 0 65 0 66 0 67 0 68 0 133 ");
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

// The wait of a door's key loop: it wakes for a key (also one typed during the wait, and a lone
// ESC once its 50 ms are up), for the end of input, and otherwise sleeps out its time; bytes
// that make no key (an unknown sequence) don't end it. ConsoleInputGone tells an ended input
// from one that is merely quiet, and consumes no key.
TEST(ConsoleKeys, WaitForKeyWakesForKeysAndTheEndOnly) {
  const struct {
    const char* Name;
    bool Pty;
    std::string Input;
    bool CloseInput;
    std::string TypedWhileWaiting;
    int32_t TimeoutMs;
    std::string Want;
  } Cases[] = {
      {"a key already typed", true, "x", false, "", 10000, "key quick 120 here"},
      {"a key typed during the wait", true, "", false, "k", 10000, "key quick 107 here"},
      {"a lone escape", true, "\x1b", false, "", 10000, "key quick 27 here"},
      {"nothing comes", true, "", false, "", 300, "none slept here"},
      {"an unknown sequence only", true, "\x1b[99~", false, "", 300, "none slept here"},
      {"input ended, keys first", false, "y", true, "", 10000, "key quick 121 gone"},
  };
  for (const auto& Case : Cases) {
    SCOPED_TRACE(Case.Name);
    TChildOptions Options = Case.Pty ? TChildOptions() : OnPipes();
    Options.Input = Case.Input;
    Options.CloseInput = Case.CloseInput;
    const std::string Typed = Case.TypedWhileWaiting;
    Options.OnOutput = [Typed](TChildRun& ARun) {
      if (!Typed.empty() && ARun.Output.find("waiting") != std::string::npos &&
          ARun.Output.find("done") == std::string::npos)
        TestWriteAll(ARun.Master, Typed);
    };
    const int32_t TimeoutMs = Case.TimeoutMs;
    TChildRun Run = RunConsoleChild(Options, [TimeoutMs] {
      ConsoleInit();
      Delay(100);  // the pipe's bytes are in, and the pty's after the cursor answer
      ConsoleWrite("waiting");
      const auto Start = std::chrono::steady_clock::now();
      const bool Key = ConsoleWaitForKey(TimeoutMs);
      const auto Ms =
          std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - Start);
      ConsoleWrite("done");
      std::string Report = Key ? "key " : "none ";
      Report += Ms.count() < TimeoutMs / 2 ? "quick " : Ms.count() >= TimeoutMs ? "slept " : "early ";
      if (Key) Report += Keys(1);
      Report += ConsoleInputGone() ? "gone" : "here";
      return Report;
    });
    EXPECT_EQ(Run.Report, Case.Want);
  }
}

// A door whose input has gone ends by itself with exit code 0 instead of waiting for ever: end of
// file on a pipe (keys still buffered come first), or the terminal gone.
TEST(ConsoleKeys, EndOfInputEndsTheDoor) {
  TChildOptions Options = OnPipes();
  Options.Input = "xy";
  Options.CloseInput = true;
  TChildRun Run = RunConsoleChild(Options, [] {
    while (!KeyPressed()) Delay(1);
    const std::string Got = Keys(2);
    while (!ConsoleInputEnded()) KeyPressed();
    ConsoleWrite(Got + (KeyPressed() ? "pressed" : "quiet"));
    ReadKey();
    ConsoleWrite("not reached");
    return std::string();
  });
  EXPECT_EQ(Run.Output, "120 121 pressed");
  EXPECT_EQ(ExitText(Run.Status), "exit 0");

  Options = TChildOptions();
  Options.OnOutput = [](TChildRun& ARun) {
    if (ARun.Output.find("waiting") == std::string::npos || ARun.Master < 0) return;
    close(ARun.Master);
    ARun.Master = -1;
  };
  Run = RunConsoleChild(Options, [] {
    ConsoleWrite("waiting");
    ReadKey();
    return std::string("not reached");
  });
  EXPECT_EQ(Run.Report, "");
  EXPECT_EQ(ExitText(Run.Status), "exit 0");

  // Started with its input closed: the next file opened must not become the keyboard.
  Run = RunConsoleChild(OnPipes(), [] {
    close(0);
    ConsoleInit();
    const int Fd = open("/dev/zero", O_RDONLY);
    ConsoleWrite(Fd == 0 ? "taken " : "kept ");
    ReadKey();
    return std::string("not reached");
  });
  EXPECT_EQ(Run.Output, "kept ");
  EXPECT_EQ(ExitText(Run.Status), "exit 0");
}

}  // namespace
