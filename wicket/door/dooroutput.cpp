// Door output: DoorWrite with its pipe and Seth codes, the screen and colour operations built
// on it, and the line-by-line file displays. This module owns the choice of destination for
// the caller's bytes: the link in socket mode, standard output in stdio mode, never both.
#include "dooroutput.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>

#include "ansi/ansi.h"
#include "comm/comm.h"
#include "console/console.h"
#include "crt2/crt2.h"
#include "doorinput.h"
#include "doorstate.h"
#include "stringutils/stringutils.h"

namespace {

constexpr char BACKTICK = '`';

// The prompt of the key pause and what wipes its eight cells afterwards.
constexpr std::string_view KEY_PAUSE_PROMPT = "`r0  `2<`0MORE`2>";
constexpr std::string_view KEY_PAUSE_WIPE = "\b\b\b\b\b\b\b\b        \b\b\b\b\b\b\b\b";
// A bar turning in one cell: each step shows a character, waits 100 ms and backs up.
constexpr std::string_view SPINNER = "|`w`d\\`w`d-`w`d/`w`d|`w`d\\`w`d-`w`d/`w`d|`w`d `d";

// What a Seth code does; Value is the colour or the milliseconds, Text the bytes written.
enum TSethAction : uint8_t { saColour, saBlinkColour, saClear, saWrite, saKeyPause, saPause };

struct TSethCode {
  char Code;  // the byte after the backtick
  TSethAction Action;
  uint16_t Value = 0;
  std::string_view Text = {};
};

// The one-byte Seth codes. The background code, which needs a third byte, is handled by the walk.
constexpr TSethCode SETH_CODES[] = {
    {'1', saColour, 1},         {'2', saColour, 2},         {'3', saColour, 3},  {'4', saColour, 4},
    {'5', saColour, 5},         {'6', saColour, 6},         {'7', saColour, 7},  {'8', saColour, 8},
    {'9', saColour, 9},         {'0', saColour, 10},        {'!', saColour, 11}, {'@', saColour, 12},
    {'#', saColour, 13},        {'$', saColour, 14},        {'%', saColour, 15}, {'*', saColour, 0},
    {'b', saBlinkColour, 4},    {'y', saBlinkColour, 14},   {'c', saClear},      {'d', saWrite, 0, "\b"},
    {'k', saKeyPause},          {'l', saPause, 500},        {'w', saPause, 100}, {'x', saWrite, 0, " "},
    {'\\', saWrite, 0, "\r\n"}, {'|', saWrite, 0, SPINNER},
};

void KeyPause() {
  DoorWrite(KEY_PAUSE_PROMPT);
  DoorReadKey();
  DoorWrite(KEY_PAUSE_WIPE);
}

// Carries out the Seth code ACode (the byte after the backtick); false when it is no code of
// the table.
bool RunSethCode(char ACode) {
  const TSethCode* Found = std::find_if(std::begin(SETH_CODES), std::end(SETH_CODES),
                                        [ACode](const TSethCode& AEntry) { return AEntry.Code == ACode; });
  if (Found == std::end(SETH_CODES)) return false;
  switch (Found->Action) {
    case saColour:
    case saBlinkColour:
      DoorTextColourAndBlink(static_cast<uint8_t>(Found->Value), Found->Action == saBlinkColour);
      break;
    case saClear:
      DoorTextAttr(7);
      DoorClrScr();
      DoorWrite("\r\n\r\n");
      break;
    case saWrite:
      DoorWrite(Found->Text);
      break;
    case saKeyPause:
      KeyPause();
      break;
    case saPause:
      Delay(Found->Value);
      break;
  }
  return true;
}

// Writes the text piece by piece, carrying out each Seth code where it stands.
void SethWalk(std::string_view AText) {
  while (!AText.empty()) {
    const size_t First = AText.find(BACKTICK);
    if (First == std::string_view::npos) {
      DoorWrite(AText);
      return;
    }
    if (First > 0) {
      DoorWrite(AText.substr(0, First));
      AText.remove_prefix(First);
    }
    while (!AText.empty() && AText.front() == BACKTICK) {
      if (AText.size() == 1) {
        AText = {};  // a trailing backtick is dropped
      } else if (RunSethCode(AText[1])) {
        AText.remove_prefix(2);
      } else if (AText.size() >= 3 && AText[1] == 'r') {
        if (AText[2] >= '0' && AText[2] <= '7') DoorTextBackground(static_cast<uint8_t>(AText[2] - '0'));
        AText.remove_prefix(3);
      } else {
        AText.remove_prefix(2);  // an unknown code is swallowed
      }
    }
  }
}

// The failure words shown to the caller: the two everyday cases in plain words, the rest in
// the system's own.
std::string FailureText(int AError) {
  switch (AError) {
    case ENOENT:
      return "File not found";
    case EACCES:
    case EPERM:
      return "Access denied";
    default:
      return std::strerror(AError);
  }
}

struct TFileCloser {
  void operator()(std::FILE* AFile) const { std::fclose(AFile); }
};

// Reads a text file by lines of any length: CR, LF and CR LF each end a line, also across
// the reader's block boundaries; every other byte, 0x1A and 0x00 included, is text.
struct TLineReader {
  std::unique_ptr<std::FILE, TFileCloser> File;
  char Block[65536];
  size_t Pos = 0;
  size_t Len = 0;
  bool Ended = false;
  int Error = 0;  // errno of a failed read, 0 while all is well
};

// True when a byte is waiting in the block, reading the next block if needed.
bool HaveByte(TLineReader& AReader) {
  if (AReader.Pos < AReader.Len) return true;
  if (AReader.Ended || AReader.Error != 0) return false;
  AReader.Pos = 0;
  AReader.Len = std::fread(AReader.Block, 1, sizeof AReader.Block, AReader.File.get());
  if (AReader.Len > 0) return true;
  if (std::ferror(AReader.File.get()))
    AReader.Error = errno != 0 ? errno : EIO;
  else
    AReader.Ended = true;
  return false;
}

// A displayed line keeps at most this many bytes and the rest of it is skipped, so that no
// file (one without line ends, a huge sparse one) can grow the door's memory without bound.
constexpr size_t DISPLAY_LINE_MAX = 1 << 20;

// The next line, without its line end, cut to DISPLAY_LINE_MAX bytes. Called only when
// HaveByte has said so.
std::string ReadLine(TLineReader& AReader) {
  std::string Line;
  while (HaveByte(AReader)) {
    const char* Start = AReader.Block + AReader.Pos;
    const size_t Avail = AReader.Len - AReader.Pos;
    size_t Run = 0;
    while (Run < Avail && Start[Run] != '\r' && Start[Run] != '\n') ++Run;
    Line.append(Start, std::min(Run, DISPLAY_LINE_MAX - Line.size()));
    AReader.Pos += Run;
    if (Run < Avail) {
      const char End = AReader.Block[AReader.Pos++];
      if (End == '\r' && HaveByte(AReader) && AReader.Block[AReader.Pos] == '\n') ++AReader.Pos;
      break;
    }
  }
  return Line;
}

void ReportFileFailure(const std::string& AFileName, int AError) {
  DoorWriteLn("Error reading \"" + AFileName + "\": " + FailureText(AError));
  DoorWriteLn("Hit a key to continue");
  DoorReadKey();
}

}  // namespace

void DoorWrite(std::string_view AText) {
  std::string Converted;
  if (DoorSession.PipeWrite && !DisplayingSixel && AText.size() >= 3 &&
      AText.find('|') != std::string_view::npos) {
    Converted = PipeToAnsi(AText);
    AText = Converted;
  }
  if (DoorSession.SethWrite && !DisplayingSixel && AText.size() >= 2 &&
      AText.find(BACKTICK) != std::string_view::npos) {
    SethWalk(AText);
    return;
  }
  if (AText.empty()) return;
  // Standard output through the console layer, which passes the bytes on unchanged and in
  // order with its own output, and follows them in its shadow of the screen.
  if (StdIO)
    ConsoleWriteRaw(AText);
  else
    CommWrite(AText);
}

void DoorWriteLn() { DoorWrite("\r\n"); }

void DoorWriteLn(std::string_view AText) {
  std::string Line(AText);
  Line += "\r\n";
  DoorWrite(Line);
}

void DoorWriteCentered(std::string_view AText) {
  const size_t Width = DoorSession.SethWrite ? SethStrip(AText).size() : AText.size();
  const int Column = Width >= 80 ? 0 : static_cast<int>((80 - Width) / 2);
  DoorGotoX(static_cast<uint8_t>(Column));
  DoorWrite(AText);
}

void DoorClrScr() { DoorWrite(AnsiClrScr()); }
void DoorCursorDown(uint8_t ACount) { DoorWrite(AnsiCursorDown(ACount)); }
void DoorCursorLeft(uint8_t ACount) { DoorWrite(AnsiCursorLeft(ACount)); }
void DoorCursorRight(uint8_t ACount) { DoorWrite(AnsiCursorRight(ACount)); }
void DoorCursorUp(uint8_t ACount) { DoorWrite(AnsiCursorUp(ACount)); }
void DoorCursorSave() { DoorWrite(AnsiCursorSave()); }
void DoorCursorRestore() { DoorWrite(AnsiCursorRestore()); }
void DoorGotoX(uint8_t AX) { DoorWrite(AnsiGotoX(AX)); }
void DoorGotoY(uint8_t AY) { DoorWrite(AnsiGotoY(AY)); }
void DoorGotoXY(uint8_t AX, uint8_t AY) { DoorWrite(AnsiGotoXY(AX, AY)); }

void DoorTextAttr(uint8_t AAttr) {
  SetTextAttr(AAttr);
  DoorWrite(AnsiTextAttr(AAttr));
}

void DoorTextBackground(uint8_t AColour) {
  SetTextBackground(AColour);
  DoorWrite(AnsiTextBackground(AColour));
}

void DoorTextColour(uint8_t AColour) {
  SetTextColour(AColour);
  DoorWrite(AnsiTextColour(AColour));
}

void DoorTextColourAndBlink(uint8_t AColour, bool ABlink) {
  SetTextColour(AColour);
  DoorWrite(AnsiTextColour(AColour));
  DoorWrite(AnsiBlink(ABlink));
}

// AFileName opened for display, or null with errno set. The open doesn't wait for a FIFO's
// writer, and only a regular file is taken: a device could feed the door forever and a FIFO
// stall it. A directory fails as reading one does; any other kind reads as a missing file.
static std::FILE* OpenDisplayFile(const std::string& AFileName) {
  const int Fd = open(AFileName.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (Fd < 0) return nullptr;
  struct stat Info {};
  int Refusal = 0;
  if (fstat(Fd, &Info) != 0)
    Refusal = errno;
  else if (S_ISDIR(Info.st_mode))
    Refusal = EISDIR;
  else if (!S_ISREG(Info.st_mode))
    Refusal = ENOENT;
  std::FILE* File = Refusal == 0 ? fdopen(Fd, "rb") : nullptr;
  if (File == nullptr) {
    if (Refusal == 0) Refusal = errno;
    close(Fd);
    errno = Refusal;
  }
  return File;
}

void DoorDisplayFile(const std::string& AFileName) {
  auto Reader = std::make_unique<TLineReader>();
  errno = 0;
  Reader->File.reset(OpenDisplayFile(AFileName));
  if (!Reader->File) {
    ReportFileFailure(AFileName, errno != 0 ? errno : EIO);
    return;
  }
  while (HaveByte(*Reader)) {
    const std::string Line = ReadLine(*Reader);
    if (Reader->Error != 0) break;
    DoorWrite(Line);
    if (HaveByte(*Reader)) DoorWriteLn();
  }
  if (Reader->Error != 0) ReportFileFailure(AFileName, Reader->Error);
}

void DoorDisplaySixel(const std::string& AFileName) {
  DisplayingSixel = true;
  DoorDisplayFile(AFileName);
  DisplayingSixel = false;
}
