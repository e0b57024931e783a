// Tamblin Reader: the main program of the RSS door. It owns the order of a run: door start,
// settings, skin, fetch, scan, then the item loop one key at a time until the caller quits.
// Exit status 0 at every orderly end (a failed fetch, an empty feed and a hang-up included);
// 217 with the failure's text on standard error when anything else fails, such as a missing
// settings file. The door's exit handler still runs then and puts a socket caller's terminal in
// order. Every run that ends short of the items (a failed fetch, an empty feed, a settings
// failure) leaves its reason in the system log, since the BBS keeps only the exit status.
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <string>

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

// The feed into RSSText; false when the fetch failed, after the caller's screen and the log
// have its reason. A hang-up during the fetch ends it early with a failure of its own: the run
// then ends as the door ends every hung-up run, with nobody left to tell.
static bool FetchFeed() {
  try {
    RSSText = SimpleGet(FeedUrl);
    return true;
  } catch (const std::exception& E) {
    if (DoorHangupPending()) {
      DoorEndForHangup();
      return false;
    }
    const std::string Line = std::string("Error fetching RSS: ") + E.what();
    DoorWriteLn(Line);
    DoorLogEnd(Line);
    return false;
  }
}

static void RunReader(int AArgc, const char* const* AArgs) {
  DoorOnCLP = ReaderOnCLP;  // -V: https only from a server the system's trust store vouches for
  DoorStartup();
  // Every wait of the fetch also wakes on a hang-up, so that a caller who leaves while the feed
  // loads gets the node back at once instead of after the fetch's time-out.
  FetchAddWatch = DoorAddHangupWatch;
  FetchGiveUp = DoorHangupPending;
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

  // After a failed fetch or an empty feed the run ends at once, no key awaited; the door's
  // end lets its last line reach the caller before the BBS repaints.
  if (FetchFeed()) {
    ScanFeedItems();
    if (ItemCount == 0) {
      DoorWriteLn("No items found in RSS feed.");
      DoorLogEnd("No items found in RSS feed.");
    } else {
      ReadItems();
    }
  }
  DoorShutdown();
}

int main(int argc, char** argv) {
  try {
    RunReader(argc, argv);
  } catch (const std::exception& E) {
    // A failure that a hang-up caused (a wait cut short) is no failure of the run.
    if (DoorHangupPending()) DoorEndForHangup();
    ConsoleRestoreTerminal();  // so that the text reads as a line on the sysop's terminal
    // Standard error may be the caller's screen (a door on a pty) or nowhere the sysop looks:
    // the log has the reason too.
    std::fprintf(stderr, "%s\n", E.what());
    DoorLogEnd(E.what());
    std::exit(217);
  } catch (...) {
    if (DoorHangupPending()) DoorEndForHangup();
    ConsoleRestoreTerminal();
    std::fputs("Unknown failure\n", stderr);
    DoorLogEnd("Unknown failure");
    std::exit(217);
  }
  return 0;
}
