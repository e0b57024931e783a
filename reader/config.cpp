// The settings reader: presets, the positional lines of the settings file, and the
// program-wide settings they fill. The file is read once at start, before anything is shown.
#include "config.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "stringutils/strbasics.h"
#include "stringutils/textlines.h"

std::string FeedUrl;
std::string SkinFile;
int32_t FeedBgColor = 7;
int32_t TitleColor = 15;
int32_t DateColor = 11;
int32_t BodyTextColor = 14;
int32_t CommandColor = 14;
bool ExitOnEnter = false;
int32_t PageColor = 15;
int32_t PageBgColor = 1;
int32_t MaxItems = 50;

namespace {

// The fallback of lines 9 to 11 when a line is there but holds no number: not their preset.
constexpr int32_t BAD_VALUE_FALLBACK = 7;

void PresetConfig() {
  FeedUrl.clear();
  SkinFile.clear();
  FeedBgColor = 7;
  TitleColor = 15;
  DateColor = 11;
  BodyTextColor = 14;
  CommandColor = 14;
  ExitOnEnter = false;
  PageColor = 15;
  PageBgColor = 1;
  MaxItems = 50;
}

// UTF-16 (without its mark) as UTF-8; see ParseConfigText for the rules.
std::string Utf16ToUtf8(std::string_view ABytes, bool ABigEndian) {
  const size_t Units = ABytes.size() / 2;  // an odd last byte is no code unit
  auto Unit = [&](size_t AIndex) -> uint32_t {
    const auto B0 = static_cast<uint8_t>(ABytes[2 * AIndex]);
    const auto B1 = static_cast<uint8_t>(ABytes[2 * AIndex + 1]);
    return ABigEndian ? (B0 << 8u) | B1 : (B1 << 8u) | B0;
  };
  std::string Out;
  Out.reserve(Units);
  for (size_t I = 0; I < Units; ++I) {
    const uint32_t U = Unit(I);
    if (U >= 0xD800 && U <= 0xDBFF && I + 1 < Units) {
      const uint32_t Low = Unit(I + 1);
      if (Low >= 0xDC00 && Low <= 0xDFFF) {
        AppendUtf8(Out, 0x10000 + ((U - 0xD800) << 10) + (Low - 0xDC00));
        ++I;
        continue;
      }
    }
    AppendUtf8(Out, U >= 0xD800 && U <= 0xDFFF ? 0xFFFD : U);
  }
  return Out;
}

// The file's text as bytes, with any byte-order mark taken off and UTF-16 made UTF-8.
std::string DecodeConfigBytes(std::string_view ABytes) {
  if (ABytes.substr(0, 3) == "\xEF\xBB\xBF") return std::string(ABytes.substr(3));
  if (ABytes.substr(0, 2) == "\xFF\xFE") return Utf16ToUtf8(ABytes.substr(2), false);
  if (ABytes.substr(0, 2) == "\xFE\xFF") return Utf16ToUtf8(ABytes.substr(2), true);
  return std::string(ABytes);
}

int32_t ParseNumber(const std::string& ALine, int32_t AFallback) {
  return StrToIntDef(Trim(ALine), AFallback);
}

bool ParseYes(const std::string& ALine) {
  const std::string Value = Trim(ALine);
  return Value == "Y" || Value == "y";
}

[[noreturn]] void ThrowUnableToOpen(const std::string& AFileName, int AError) {
  throw std::runtime_error("Unable to open file \"" + AFileName + "\": " + std::strerror(AError));
}

// Every setting lives in the first eleven lines of a file of a few hundred bytes. Reading
// stops here, so that a device named by mistake ("@/dev/zero") cannot take all memory.
constexpr size_t MAX_CONFIG_BYTES = 16u << 20;

// The whole file (up to MAX_CONFIG_BYTES), or a throw with the system's reason. A folder
// opens on this system but can't be read; it fails here with its read error, as the sysop
// would expect.
std::string ReadConfigFile(const std::string& AFileName) {
  const int Fd = ::open(AFileName.c_str(), O_RDONLY | O_CLOEXEC);
  if (Fd < 0) ThrowUnableToOpen(AFileName, errno);
  std::string Bytes;
  char Buffer[4096];
  while (Bytes.size() < MAX_CONFIG_BYTES) {
    const ssize_t Got = ::read(Fd, Buffer, sizeof Buffer);
    if (Got > 0) {
      Bytes.append(Buffer, static_cast<size_t>(Got));
    } else if (Got == 0) {
      break;
    } else if (errno != EINTR) {
      const int Error = errno;
      ::close(Fd);
      ThrowUnableToOpen(AFileName, Error);
    }
  }
  ::close(Fd);
  return Bytes;
}

}  // namespace

void ParseConfigText(std::string_view ABytes) {
  PresetConfig();
  const std::vector<std::string> Lines = SplitLines(DecodeConfigBytes(ABytes));
  // Each line is tested against the count by itself: a short file keeps the presets of the
  // lines it lacks, and a bad number in one line does not stop the lines after it.
  const size_t Count = Lines.size();
  if (Count >= 1) FeedUrl = Trim(Lines[0]);
  if (Count >= 2) SkinFile = Trim(Lines[1]);
  if (Count >= 3) FeedBgColor = ParseNumber(Lines[2], 7);
  if (Count >= 4) TitleColor = ParseNumber(Lines[3], 15);
  if (Count >= 5) DateColor = ParseNumber(Lines[4], 11);
  if (Count >= 6) BodyTextColor = ParseNumber(Lines[5], 14);
  if (Count >= 7) CommandColor = ParseNumber(Lines[6], 14);
  if (Count >= 8) ExitOnEnter = ParseYes(Lines[7]);
  if (Count >= 9) PageColor = ParseNumber(Lines[8], BAD_VALUE_FALLBACK);
  if (Count >= 10) PageBgColor = ParseNumber(Lines[9], BAD_VALUE_FALLBACK);
  if (Count >= 11) MaxItems = ParseNumber(Lines[10], BAD_VALUE_FALLBACK);
}

void LoadConfig(const std::string& AFileName) {
  PresetConfig();
  ParseConfigText(ReadConfigFile(AFileName));
}
