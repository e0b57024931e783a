// The local console: the sysop's text screen on standard output and the keyboard on standard
// input, written directly over termios (no curses). It owns the terminal's mode, the tracked
// cursor, the current window, the attribute of the next text (`TextAttr`) and `ConsoleBuf`, a
// shadow of every cell, so that screen reads never ask the terminal.
//
// Start: the layer takes over descriptors 0 and 1 in ConsoleInit(). Every operation below that
// touches the screen, the cursor or the keyboard runs ConsoleInit() itself on first use, so a
// program may simply start calling them; the door runtime calls ConsoleInit() early in its
// startup so that the terminal is set up before anything else is shown. The pure attribute
// operations (TextColor, TextBackground, HighVideo, LowVideo, NormVideo) need no start.
//
// What ConsoleInit() does, once per process:
//  - `OutputRedir` when descriptor 1 is no terminal; `InputRedir` when descriptor 0 is no
//    terminal, or both are terminals but different ones.
//  - The screen size comes from the terminal on descriptor 1 (80 x 25 when redirected, when the
//    request fails or reports 0; at most 255 x 255 are used). `ConsoleBuf` is zeroed.
//  - Unless `OutputRedir`: the terminal on descriptor 1 goes into full raw mode (no echo, no line
//    editing, no signals from keys, no CR LF translation of output); the cursor is asked for with
//    ESC "[6n" (at most 1000 ms; not when input is redirected, since the answer would arrive
//    elsewhere); without an answer the cursor counts as (1, 1) and ESC "[H" is sent. Then
//    ESC "[m". Keys typed while waiting for the answer are kept for ReadKey.
//  - The terminal is put back (the termios found at start) on every way out of the process: at
//    exit() and the end of main (atexit), on std::terminate (an unhandled exception: restored,
//    then the previous terminate handler runs), and on SIGQUIT (restored, then the signal is
//    raised again with its default action). Before exit, output still queued on the terminal
//    is given up to 2 s to leave (not when output failed, input has ended or SIGHUP came).
//  - SIGHUP, SIGTERM and SIGINT become an orderly end request, installed before the cursor
//    question: the terminal is restored at once, ConsoleEndSignal() tells which signal came, and
//    ConsoleSignalFd() turns readable so that any wait can wake. The console's own waits honour
//    it: KeyPressed reports true, ReadKey ends the process as at the end of input, Delay returns
//    early, and writes to descriptor 1 stop waiting. SIGPIPE is ignored, so a reader of
//    descriptor 1 that has gone makes a failed write. Signals that were ignored or had a handler
//    at start are left alone; a program that installs its own later takes over their duty and
//    should call ConsoleRestoreTerminal().
//
// With `OutputRedir` (a pipe, a file, a socket) the same code runs: cursor and shadow are tracked
// and nothing fails, but no colour, cursor position, clearing or repaint sequence is sent. Text
// bytes and the cursor shape sequences go to descriptor 1, and GotoXY sends a single LF when it
// moves exactly one row down.
//
// A descriptor 0 or 1 that is closed at start is opened on /dev/null, so that no file or socket
// the program opens later takes its place: such a door reads the end of its input at once.
//
// Output is gathered in a buffer of up to 1024 bytes and written to descriptor 1 at the end of
// each write operation (or of the outermost ConsoleBeginUpdate/ConsoleEndUpdate pair). Every
// byte is written, in order, however slowly the reader takes them, with one exception: when the
// reader takes nothing for ConsoleWriteStallMs(), or a signal asks the run to end while a write
// waits, that output and all later output to descriptor 1 is dropped.
//
// Coordinates count from 1. Positions passed to GotoXY and WhereX/WhereY are relative to the
// current window; `WindMin*`, `WindMax*` and ConsoleGetCursor() are absolute.
#pragma once

#include <poll.h>

#include <cstdint>
#include <string_view>
#include <vector>

// One screen cell.
struct TCharInfo {
  uint8_t Ch = 0;
  uint8_t Attr = 0;  // PC layout: bits 0-3 foreground, 4-6 background, 7 blink
};

// The state of the layer. Read freely; change only through the operations below (SetTextAttr
// of crt2 writes `TextAttr`). Values other than `TextAttr` are meaningful after ConsoleInit().
extern uint8_t TextAttr;                                // attribute of the next text; 7 at start
extern int32_t WindMinX, WindMinY, WindMaxX, WindMaxY;  // current window, inclusive
extern int32_t ScreenWidth, ScreenHeight;               // real size of the console
extern TCharInfo* ConsoleBuf;  // ScreenWidth x ScreenHeight cells, row after row; never freed
extern bool OutputRedir, InputRedir;

// Takes over the terminal as described above. Runs once; later calls do nothing.
void ConsoleInit();
// Sends what is left in the buffer and puts the terminal back into the mode found at start.
// Runs from atexit by itself. Afterwards the operations still work (the shadow stays valid, for
// exit handlers that still write), but the terminal stays in its original mode.
void ConsoleDone();
// Only the termios restore, async-signal-safe: for a program's own signal handlers.
void ConsoleRestoreTerminal();

// The signal (SIGHUP, SIGTERM or SIGINT) that first asked the run to end; 0 while none has.
int ConsoleEndSignal();
// The read end of the pipe the end-request handler writes to: readable (for good) once an end
// was requested; -1 before ConsoleInit(). For a program's own polls; never read or close it.
int ConsoleSignalFd();
// How long a write may wait for a reader that takes nothing before its output counts as lost:
// WICKET_WRITE_STALL_MS from the environment (read once), 60000 ms when not set. Program-wide,
// for the console's descriptor 1 and the caller's socket alike.
int32_t ConsoleWriteStallMs();
// Waits up to ATimeoutMs (negative: no limit) until AFd takes output; an end request wakes it
// early. True when AFd is ready (or failed, so that the write reports it).
bool ConsoleWaitWritable(int AFd, int ATimeoutMs);

// Groups several operations into one write operation: the output is sent once, at the outermost
// ConsoleEndUpdate. Pairs may nest; every Begin needs its End.
void ConsoleBeginUpdate();
void ConsoleEndUpdate();
// The same pair for one scope.
struct TConsoleUpdate {
  TConsoleUpdate() { ConsoleBeginUpdate(); }
  ~TConsoleUpdate() { ConsoleEndUpdate(); }
  TConsoleUpdate(const TConsoleUpdate&) = delete;
  TConsoleUpdate& operator=(const TConsoleUpdate&) = delete;
};

// The console's text output. Each byte goes to the cursor in `TextAttr`, into the shadow, and
// moves the cursor on; text wraps at the right edge of the window, and a write beyond the bottom
// of the window scrolls the window up by one line. BS (08) moves one column left, not beyond
// column 1 of the screen; TAB (09) writes blanks up to the next multiple of 8 columns of the
// window (not past its right edge); CR (0D) goes to the window's left edge; LF (0A) to the
// window's left edge on the next row, scrolling at its bottom; BEL (07) is passed on. Escape
// sequences are not interpreted (that is AnsiWrite's job): any other byte is a character. On a
// terminal, byte 00 shows as a blank and the remaining control bytes as "?", so that the terminal
// never acts on them; the shadow keeps the bytes as given.
void ConsoleWrite(std::string_view AText);

// The door's stdio output. AText goes to descriptor 1 byte for byte, unchanged and in order with
// the console's own output, also when `OutputRedir`. The layer reads the bytes the way a terminal
// would (printable bytes, BS, TAB, CR, LF, and the CSI sequences for cursor moves, erasing,
// inserting and deleting lines, saving and restoring the cursor, and colours), so that the
// tracked cursor and `ConsoleBuf` keep following the screen. It works on the whole screen,
// ignoring the current window; a sequence split over two calls is completed by the second.
// `TextAttr` is not changed: colours in AText form their own attribute, which the stored cells
// get. Only when the console's own operations changed the terminal's colours or cursor since the
// last call are they put back first, so that AText continues where the previous AText ended.
void ConsoleWriteRaw(std::string_view AText);

// The tracked cursor, absolute, with a pending line wrap (the last column was written by
// ConsoleWriteRaw and the next character goes to the next row). For frames that change the
// cursor and must put it back exactly.
struct TConsoleCursor {
  int32_t X = 1;
  int32_t Y = 1;
  bool Pending = false;
};
TConsoleCursor ConsoleGetCursor();
void ConsoleSetCursor(TConsoleCursor ACursor);

// Cursor and window. GotoXY ignores a position of 0 or beyond the window's width or height.
void GotoXY(uint8_t AX, uint8_t AY);
uint8_t WhereX();
uint8_t WhereY();
// Makes the absolute rectangle the current window and puts the cursor at its (1, 1). Ignored when
// AX1 > AX2, AY1 > AY2, a corner is 0, AX2 > ScreenWidth or AY2 > ScreenHeight.
void Window(uint8_t AX1, uint8_t AY1, uint8_t AX2, uint8_t AY2);
// Clears the window with blanks in `TextAttr`, cursor to the window's (1, 1).
void ClrScr();
// Clears from the cursor to the window's right edge; the cursor stays.
void ClrEol();
// Inserts ACount empty lines at the cursor's row of the window (lines below move down, the last
// ones are lost), or removes ACount lines there (lines below move up, empty lines appear at the
// bottom). One call with a count is the same as that many calls.
void InsLine(int32_t ACount = 1);
void DelLine(int32_t ACount = 1);

// Attribute of the next text: no output now; the next text written brings the terminal up to date.
void TextColor(uint8_t AColour);       // (c & 0x0F) | (TextAttr & 0x70), plus 0x80 if c > 15
void TextBackground(uint8_t AColour);  // ((c << 4) & 0x70) | (TextAttr & 0x8F)
void HighVideo();                      // TextColor(TextAttr | 8)
void LowVideo();                       // TextColor(TextAttr & 0x77)
void NormVideo();                      // TextColor(7), TextBackground(0)

// Cursor shape: ESC "[?2c" shows the cursor, ESC "[?1c" hides it (also sent when redirected).
void CursorOn();
void CursorOff();

// Keys. KeyPressed never waits: true when ReadKey has a key ready, and also once standard input
// has ended (end of file, or an error such as EIO after a pty's master closed), so that a polling
// loop goes on to ReadKey. ReadKey waits without spinning the processor. Keys that have no byte
// come as 0 followed by their PC scan code on the next call: 72 up, 80 down, 77 right, 75 left,
// 71 Home, 79 End, 73 PgUp, 81 PgDn, 82 Ins, 83 Del, 59-68 F1-F10, 133 F11, 134 F12 (cursor and
// function keys in the CSI and SS3 forms of xterm, VT220 and the Linux console; modifiers are
// ignored). A lone ESC comes as 27 when nothing follows within 50 ms; other escape sequences are
// dropped. Byte 7F (the Backspace key of most terminals) comes as 08, and byte 00 as 0 then 3.
// All other bytes come as they are, Enter as 13 on a raw terminal.
// When standard input has ended (or an end was requested) and every key read before has been
// handed out, ReadKey ends the process: it calls ConsoleOnInputEnd if set, puts the terminal back
// and calls exit(0), so a door whose caller or terminal has gone ends like any orderly door run,
// with its exit handlers.
bool KeyPressed();
uint8_t ReadKey();
// True once standard input has ended (keys read before may still be waiting).
bool ConsoleInputEnded();
// Waits up to ATimeoutMs (negative: no limit) until KeyPressed() would report true: a key is
// ready, standard input has ended, or an end was requested (a request wakes the wait at once).
// Sleeps on descriptor 0 and on the signal pipe, never spins: bytes that make no key yet (the
// start of an escape sequence) are kept, and a lone ESC becomes its key when its 50 ms are up.
// Returns KeyPressed().
bool ConsoleWaitForKey(int32_t ATimeoutMs);
// True once standard input has ended or its terminal or pipe has hung up, without reading or
// consuming a key the sysop typed. Never blocks.
bool ConsoleInputGone();
// For a program's own long waits: adds to APoll the signal pipe (POLLIN; readable once an end
// was requested), and with AInput also descriptor 0 with no events, so that only its hang-up
// or error (POLLHUP, POLLERR) wakes the poll, never a typed key. Never read from or close them.
void ConsoleAddEndWatch(std::vector<pollfd>& APoll, bool AInput);
// Run by ReadKey just before it ends the process for the end of input; the door runtime's
// orderly end for a hang-up. nullptr: nothing.
extern void (*ConsoleOnInputEnd)();

// Waits AMilliseconds; an end request that comes during the wait ends it early (one already
// pending does not). The one sleep of the library.
void Delay(uint16_t AMilliseconds);

// Sleeps 10 ms at a time until the kernel has sent what AFd still holds (the count the ioctl
// AQueueRequest reports: TIOCOUTQ for a terminal, SIOCOUTQ for a socket), the query fails,
// ATimeoutMs have passed, or AStop (when given) says the bytes can't leave any more. For the
// last words of a run, which must not be cut off by the process ending under them.
void ConsoleWaitOutputQueueEmpty(int AFd, unsigned long AQueueRequest, int32_t ATimeoutMs,
                                 bool (*AStop)() = nullptr);
