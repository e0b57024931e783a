// Skins and the About view: the random pick among the skin files, and the About text painted
// with the item display's wrap and centring.
#include "skins.h"

#include <dirent.h>
#include <sys/stat.h>

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

bool IsRegularFile(const std::string& APath) {
  struct stat Info {};
  return stat(APath.c_str(), &Info) == 0 && S_ISREG(Info.st_mode);
}

uint8_t Colour(int32_t ASetting) { return static_cast<uint8_t>(ASetting); }

}  // namespace

void SeedRandom(uint64_t ASeed) { FRandom.seed(ASeed); }

std::string GetRandomAnsFile(const std::string& ADir) {
  const std::string ListDir = !ADir.empty() && ADir.back() == '/' ? ADir : ADir + "/";
  std::unique_ptr<DIR, TDirCloser> Dir(opendir(ListDir.c_str()));
  if (!Dir) return "";
  std::vector<std::string> Found;
  while (const dirent* Entry = readdir(Dir.get())) {
    if (!IsSkinName(Entry->d_name)) continue;
    std::string Path = ADir + "/" + Entry->d_name;
    if (IsRegularFile(Path)) Found.push_back(std::move(Path));
  }
  if (Found.empty()) return "";
  std::uniform_int_distribution<size_t> Pick(0, Found.size() - 1);
  return Found[Pick(FRandom)];
}

std::string ChooseSkin(const std::string& AConfigured) {
  if (AConfigured.empty()) return GetRandomAnsFile(std::string(SKIN_DIR));
  return std::string(SKIN_DIR) + "/" + AConfigured;
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
