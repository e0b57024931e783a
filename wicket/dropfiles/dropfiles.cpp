// Drop-file readers for DOOR32.SYS, DOOR.SYS, DORINFO*.DEF and INFO.*. This module owns no
// state: it reads a file once at start-up and writes the caller's facts into DoorDropInfo.
// Files come from many BBS packages, hand-edited or half-written, so every byte sequence must
// read without a crash and every number that doesn't parse falls back to its format's default.
#include "dropfiles.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string_view>
#include <vector>

#include "stringutils/strbasics.h"
#include "stringutils/textlines.h"

namespace {

// Real drop files are a few hundred bytes; the cap keeps a path to a device or a giant file
// from stalling the start of the run.
constexpr size_t MAX_DROP_FILE_BYTES = 1 << 20;

// The lines of a drop file, as far as they could be read.
struct TDropLines {
  std::vector<std::string> Lines;
  // A read error cut the file short: lines past Lines were never read, as opposed to being
  // missing from a short file.
  bool CutShort = false;

  // Whether line ANumber (from 1) may be acted on: it was read, or the file simply ended.
  bool Has(size_t ANumber) const { return ANumber <= Lines.size() || !CutShort; }
  // Line ANumber (from 1); a line past the end of the file reads as empty.
  std::string_view Line(size_t ANumber) const {
    return ANumber <= Lines.size() ? std::string_view(Lines[ANumber - 1]) : std::string_view();
  }
};

// Reads the first AMaxLines lines of AFileName. False when the file can't be opened.
bool LoadDropLines(const std::string& AFileName, size_t AMaxLines, TDropLines& AResult) {
  // Non-blocking, so that a FIFO without a writer reads as empty instead of waiting forever;
  // regular files behave as usual.
  const int Fd = open(AFileName.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (Fd < 0) return false;
  std::string Data;
  bool Failed = false;
  char Chunk[4096];
  while (Data.size() < MAX_DROP_FILE_BYTES) {
    const ssize_t Got = read(Fd, Chunk, sizeof Chunk);
    if (Got < 0 && errno == EINTR) continue;
    if (Got < 0) {
      Failed = true;
      break;
    }
    if (Got == 0) break;
    Data.append(Chunk, static_cast<size_t>(Got));
  }
  close(Fd);
  if (Data.size() > MAX_DROP_FILE_BYTES) Data.resize(MAX_DROP_FILE_BYTES);
  // Data cut by a read error ends in a line whose end was never read: that line is left out.
  if (Failed) Data.resize(Data.find_last_of("\r\n") + 1);  // npos + 1: nothing at all
  AResult.Lines = SplitLines(Data, AMaxLines);
  AResult.CutShort = Failed;
  return true;
}

// BBSes that mean "unlimited" write minute counts like 99999999; their seconds must not wrap
// into a negative limit that would end the run at once.
int32_t MinutesToSeconds(int32_t AMinutes) { return SaturateToInt32(static_cast<int64_t>(AMinutes) * 60); }

// Record numbers are counted from 1 in the file and from 0 in DoorDropInfo.
int32_t RecordFromOne(std::string_view ALine) { return SaturateToInt32(int64_t{StrToIntDef(ALine, 1)} - 1); }

// 1-based Copy(AText, AIndex, ACount) of a byte string: out-of-range parts give less or nothing.
std::string_view Copy(std::string_view AText, size_t AIndex, int64_t ACount) {
  if (AIndex < 1 || AIndex > AText.size() || ACount <= 0) return {};
  return AText.substr(AIndex - 1, static_cast<size_t>(ACount));
}

// A port line gives the descriptor number; a number above 0 also marks a link.
void SetPort(std::string_view ANumberText) {
  DoorDropInfo.ComNum = StrToIntDef(ANumberText, 0);
  if (DoorDropInfo.ComNum > 0) DoorDropInfo.ComType = 1;
}

}  // namespace

void ReadDoor32(const std::string& AFileName) {
  constexpr size_t Count = 11;
  TDropLines File;
  if (!LoadDropLines(AFileName, Count, File)) return;
  TDoorDropInfo& D = DoorDropInfo;
  for (size_t N = 1; N <= Count && File.Has(N); ++N) {
    const std::string_view L = File.Line(N);
    switch (N) {
      case 1:
        D.ComType = static_cast<uint8_t>(StrToIntDef(L, 0));
        break;
      case 2:
        D.ComNum = StrToIntDef(L, -1);
        break;
      case 3:
        D.Baud = StrToIntDef(L, 38400);
        break;
      case 5:
        D.RecPos = RecordFromOne(L);
        break;
      case 6:
        D.RealName = L;
        break;
      case 7:
        D.Alias = L;
        break;
      case 8:
        D.Access = StrToIntDef(L, 0);
        break;
      case 9:
        D.MaxSeconds = MinutesToSeconds(StrToIntDef(L, 0));
        break;
      case 10:
        D.Emulation = StrToIntDef(L, 1) == 0 ? etASCII : etANSI;
        break;
      case 11:
        D.Node = StrToIntDef(L, 0);
        break;
      default:
        break;  // BBS identification: not used
    }
  }
}

void ReadDoorSys(const std::string& AFileName) {
  constexpr size_t Count = 52;
  TDropLines File;
  if (!LoadDropLines(AFileName, Count, File)) return;
  TDoorDropInfo& D = DoorDropInfo;
  for (size_t N = 1; N <= Count && File.Has(N); ++N) {
    const std::string_view L = File.Line(N);
    switch (N) {
      // "COM1:": the digits between "COM" and the closing colon.
      case 1:
        SetPort(Copy(L, 4, static_cast<int64_t>(L.size()) - 4));
        break;
      case 4:
        D.Node = StrToIntDef(L, 0);
        break;
      case 5:
        D.Baud = StrToIntDef(L, 38400);
        break;
      case 10:
        D.RealName = L;
        break;
      case 15:
        D.Access = StrToIntDef(L, 0);
        break;
      case 18:
        D.MaxSeconds = StrToIntDef(L, 0);
        break;
      case 20:
        D.Emulation = UpperCaseAscii(L) == "GR" ? etANSI : etASCII;
        break;
      case 26:
        D.RecPos = RecordFromOne(L);
        break;
      case 36:
        D.Alias = L;
        break;
      default:
        break;  // the many lines this door has no use for
    }
  }
}

void ReadDorInfo(const std::string& AFileName) {
  constexpr size_t Count = 13;
  TDropLines File;
  if (!LoadDropLines(AFileName, Count, File)) return;
  TDoorDropInfo& D = DoorDropInfo;
  for (size_t N = 1; N <= Count && File.Has(N); ++N) {
    const std::string_view L = File.Line(N);
    switch (N) {
      // "COM1": everything after "COM"; a trailing colon makes the number unreadable.
      case 4:
        SetPort(Copy(L, 4, static_cast<int64_t>(L.size()) - 3));
        break;
      case 5: {
        // "38400 BAUD,N,8,1": only a speed followed by a blank counts.
        const size_t Blank = L.find(' ');
        D.Baud = Blank == std::string_view::npos ? 38400 : StrToIntDef(L.substr(0, Blank), 38400);
        break;
      }
      case 7:
        D.Alias = L;
        break;
      case 8:
        D.RealName = D.Alias;
        if (!L.empty()) {
          D.RealName += ' ';
          D.RealName += L;
        }
        break;
      case 10:
        D.Emulation = StrToIntDef(L, 1) == 1 ? etANSI : etASCII;
        break;
      case 11:
        D.Access = StrToIntDef(L, 0);
        break;
      case 12:
        D.MaxSeconds = MinutesToSeconds(StrToIntDef(L, 0));
        break;
      default:
        break;  // BBS and sysop names, location, unused lines
    }
  }
}

void ReadLordInfo(const std::string& AFileName) {
  constexpr size_t Count = 14;
  TDropLines File;
  if (!LoadDropLines(AFileName, Count, File)) return;
  TDoorDropInfo& D = DoorDropInfo;
  for (size_t N = 1; N <= Count && File.Has(N); ++N) {
    const std::string_view L = File.Line(N);
    switch (N) {
      case 1:
        D.RecPos = StrToIntDef(L, 0);
        break;  // already counted from 0 here
      case 2:
        D.Emulation = StrToIntDef(L, 3) == 3 ? etANSI : etASCII;
        break;
      case 4:
        D.Fairy = UpperCaseAscii(L) == "FAIRY YES";
        break;
      case 5:
        D.MaxSeconds = MinutesToSeconds(StrToIntDef(L, 0));
        break;
      case 6:
        D.Alias = L;
        break;
      case 7:
        D.RealName = L;
        break;
      case 8:
        if (!L.empty()) {
          D.RealName += ' ';
          D.RealName += L;
        }
        break;
      case 9:
        D.ComNum = StrToIntDef(L, 0);
        break;
      case 10:
        D.Baud = StrToIntDef(L, 38400);
        break;
      case 12: {
        const std::string Kind = UpperCaseAscii(L);
        D.ComType = Kind == "LOCAL" ? 0 : Kind == "TELNET" ? 2 : Kind == "WC5" ? 3 : 1;
        break;
      }
      case 14:
        D.Clean = UpperCaseAscii(L) == "CLEAN MODE ON";
        break;
      default:
        break;  // unused lines
    }
  }
}
