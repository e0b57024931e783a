// Tamblin Reader: the main program of the RSS door. It owns the order of a run: door start,
// settings, skin, fetch, scan, then the item loop one key at a time until the caller quits.
// Exit status 0 at every orderly end (a failed fetch and an empty feed included); 217 with
// the failure's text on standard error when anything else fails, such as a missing settings
// file. The door's exit handler still runs then and puts a socket caller's terminal in order.
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <memory>

#include "config.h"
#include "console/console.h"
#include "display.h"
#include "door/door.h"
#include "fetch.h"
#include "flow.h"
#include "scanner.h"
#include "skins.h"

static std::string ConfigFileName;

static void ReadItems() {
  int32_t Current = 0;
  for (;;) {
    DoorTextColour(3);
    ShowItem(Current, ItemCount);
    DoorTextColour(0);  // black on black while waiting: nothing the caller types shows
    TItemCommand Command = icNone;
    while (Command == icNone) Command = ItemCommandForKey(DoorReadKey(), ExitOnEnter);
    if (Command == icQuit) return;
    if (Command == icAbout) About();
    Current = ItemAfterCommand(Command, Current, ItemCount);
  }
}

static void RunReader(int AArgc, const char* const* AArgs) {
  DoorOnCLP = ReaderOnCLP;  // -V: https only from a server the system's trust store vouches for
  DoorStartup();
  ConfigFileName = ConfigFileFromArgs(AArgc, AArgs);
  LoadConfig(ConfigFileName);  // no handler: a missing file ends the run with 217
  DoorClrScr();
  SeedRandom(static_cast<uint64_t>(std::time(nullptr)));
  SkinFile = ChooseSkin(SkinFile);
  if (!SkinFile.empty()) {
    DisplaySkin(SkinFile);
  } else {
    DoorWriteLn("No ANSI skins found.");
  }
  // Top left over the skin, on black: where a fetch error or an empty-feed notice stands.
  DoorGotoXY(0, 0);
  DoorTextBackground(0);

  std::unique_ptr<std::vector<std::string>, TFeedRelease> FeedGuard(&Feed);
  try {
    RSSText = SimpleGet(FeedUrl);
  } catch (const std::exception& E) {
    DoorWriteLn(std::string("Error fetching RSS: ") + E.what());
    DoorShutdown();
    std::exit(0);
  }
  ScanFeedItems();
  if (ItemCount == 0) {
    DoorWriteLn("No items found in RSS feed.");
  } else {
    ReadItems();
  }
  FeedGuard.reset();
  DoorShutdown();
}

int main(int argc, char** argv) {
  try {
    RunReader(argc, argv);
  } catch (const std::exception& E) {
    ConsoleRestoreTerminal();  // so that the text reads as a line on the sysop's terminal
    std::fprintf(stderr, "%s\n", E.what());
    std::exit(217);
  } catch (...) {
    ConsoleRestoreTerminal();
    std::fputs("Unknown failure\n", stderr);
    std::exit(217);
  }
  return 0;
}
