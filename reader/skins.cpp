// Skins and the About view: the random pick among the skin files, the one check every skin
// passes before it is shown, and the About text painted with the item display's wrap and
// centring.
#include "skins.h"

#include <dirent.h>

#include <filesystem>
#include <memory>
#include <random>
#include <vector>

#include "config.h"
#include "display.h"
#include "door/door.h"
#include "version.h"

const std::string_view ABOUT_TEXT_1 =
    "This project started because Dale Orchard of Lantern BBS made a great RSS feed. There are "
    "plenty of RSS readers out there, but none did exactly what I wanted, so I decided to build my "
    "own. I made it fully customizable and able to work with any feed, but my main goal was to "
    "create something specifically tailored for the BBS news feed.";
const std::string_view ABOUT_TEXT_2 =
    "Thanks to Kestrel for giving me the keys to the kingdom with the lookup table for strange and "
    "unicode characters. Still going strong in 2025! Get the latest version from "
    "https://github.com/tamblin/reader!";

namespace fs = std::filesystem;

namespace {

constexpr std::string_view SKIN_DIR = "skins";
constexpr std::string_view SKIN_SUFFIX = ".ans";
constexpr std::string_view ABOUT_AUTHOR = "Tamblin Reader by Morgan Vale";
constexpr std::string_view ABOUT_PROMPT = "*** Press Any Key To Continue Reading ***";

std::mt19937_64 FRandom;

struct TDirCloser {
  void operator()(DIR* ADir) const { closedir(ADir); }
};

bool IsSkinName(std::string_view AName) {
  return AName.size() >= SKIN_SUFFIX.size() && AName.front() != '.' &&
         AName.substr(AName.size() - SKIN_SUFFIX.size()) == SKIN_SUFFIX;
}

// The words the door shows for a skin file that isn't there, byte for byte as its file
// display reports a missing file.
void ReportMissingSkin(const std::string& APath) {
  DoorWriteLn("Error reading \"" + APath + "\": File not found");
  DoorWriteLn("Hit a key to continue");
  DoorReadKey();
}

uint8_t Colour(int32_t ASetting) { return static_cast<uint8_t>(ASetting); }

}  // namespace

void SeedRandom(uint64_t ASeed) { FRandom.seed(ASeed); }

bool IsSkinFileIn(const std::string& ADir, const std::string& APath) {
  // Both sides resolved, links and "..", so that what counts is where the bytes really lie.
  std::error_code Error;
  const fs::path Dir = fs::canonical(ADir, Error);
  if (Error) return false;
  const fs::path File = fs::canonical(APath, Error);
  if (Error) return false;
  std::string Inside = Dir.string();
  if (Inside.back() != '/') Inside += '/';
  return File.string().starts_with(Inside) && fs::is_regular_file(File, Error);
}

std::string GetRandomAnsFile(const std::string& ADir) {
  const std::string ListDir = !ADir.empty() && ADir.back() == '/' ? ADir : ADir + "/";
  std::unique_ptr<DIR, TDirCloser> Dir(opendir(ListDir.c_str()));
  if (!Dir) return "";
  std::vector<std::string> Found;
  while (const dirent* Entry = readdir(Dir.get())) {
    if (!IsSkinName(Entry->d_name)) continue;
    std::string Path = ADir + "/" + Entry->d_name;
    if (IsSkinFileIn(ADir, Path)) Found.push_back(std::move(Path));
  }
  if (Found.empty()) return "";
  std::uniform_int_distribution<size_t> Pick(0, Found.size() - 1);
  return Found[Pick(FRandom)];
}

std::string ChooseSkin(const std::string& AConfigured) {
  if (AConfigured.empty()) return GetRandomAnsFile(std::string(SKIN_DIR));
  return std::string(SKIN_DIR) + "/" + AConfigured;
}

void DisplaySkin(const std::string& APath) {
  if (IsSkinFileIn(std::string(SKIN_DIR), APath))
    DoorDisplayFile(APath);
  else
    ReportMissingSkin(APath);
}

void About() {
  ClearBox();
  DoorTextColour(Colour(TitleColor));
  DoorGotoY(StartY + 1);
  DoorWriteCentered2("About (ver " + std::string(Version) + ")");
  DoorGotoY(StartY + 2);
  DoorWriteCentered2(ABOUT_AUTHOR);

  DoorGotoXY(StartX + 1, StartY + 4);
  DoorTextColour(Colour(BodyTextColor));
  DoorWriteLnWrapped(ABOUT_TEXT_1);
  DoorWriteLn();
  DoorGotoX(StartX + 1);
  DoorWriteLnWrapped(ABOUT_TEXT_2);

  DoorTextColour(Colour(CommandColor));
  DoorWriteLn();
  DoorWriteCentered2(ABOUT_PROMPT);
  DoorReadKey();
}
