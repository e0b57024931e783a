// Wicket example door: the smallest complete door program, meant to be read from top to bottom
// by anyone writing their own. It starts the session, asks the caller's name in a line editor,
// offers a light-bar menu, shows the sysop's status bar, and returns the caller to the BBS.
//
// Run it by hand for a local session:   wicket-example
// A BBS starts it for a caller with a socket:   wicket-example -N1 -S<descriptor>
// or with a drop file naming the socket:   wicket-example -D/bbs/node1/door32.sys
// Options of its own: -I<seconds> sets the idle limit (300 by default).
#include <string>

#include "ansi/ansi.h"
#include "door/door.h"
#include "stringutils/stringutils.h"

namespace {

// The door runtime hands every option it does not know to this hook, letter upper-cased.
void OnOwnOption(uint8_t AKey, const std::string& AValue) {
  if (AKey == 'I') DoorSession.MaxIdle = StrToIntDef(AValue, DoorSession.MaxIdle);
}

// Writes AText at column 3 of row ARow over whatever an earlier answer left there.
void ShowAnswer(uint8_t ARow, const std::string& AText) {
  DoorGotoXY(3, ARow);
  DoorWrite(AText + AnsiClrEol());
}

}  // namespace

int main() {
  // Hooks are set before DoorStartup, which may already call them (options, local login).
  DoorOnCLP = OnOwnOption;
  DoorProgramNameAndVersion = "Wicket example door";

  // Reads the command line and the drop file, opens the link; the usage screen and the
  // failures end the process here. From now on the caller's facts are in DoorDropInfo.
  DoorStartup();

  DoorClrScr();
  DoorWriteLn("|0BWicket example door|07, node " + std::to_string(DoorDropInfo.Node));
  DoorWriteLn();

  // A field of 30 cells for up to 40 characters, bright white on blue, with the name the BBS
  // gave as default. ESC keeps the default, Enter takes what was typed.
  DoorWrite("  |0AYour name:|07 ");
  std::string Name = DoorInput(DoorDropInfo.AliasOrRealName, DOOR_INPUT_CHARS_ALL, 0, 30, 40, 0x1F);
  if (Name.empty()) Name = "stranger";
  DoorWriteLn("  Hello, |0F" + Name + "|07!");
  DoorWriteLn();
  DoorWriteLn("  Move with the arrow keys (or 8 and 2), Enter chooses, Q leaves:");

  DoorLiteBarOptions = {" How much time do I have left? ", " What is my idle limit?        ",
                        " Goodbye                       "};
  const int32_t GoodbyeRow = 2;
  for (;;) {
    // The status bar is the sysop's: it goes to the local console, which in stdio mode is
    // the caller's own screen, so it is drawn only when the caller is on the link.
    if (!DoorStdio() && DoorOnStatusBar != nullptr) DoorOnStatusBar();

    DoorGotoXY(3, 7);
    const bool Chosen = DoorLiteBar(static_cast<int32_t>(DoorLiteBarOptions.size()));
    if (!Chosen || DoorLiteBarIndex == GoodbyeRow) break;
    if (DoorLiteBarIndex == 0)
      ShowAnswer(11, "|0EYou have " + SecToHMS(DoorSecondsLeft()) + " left.|07");
    else
      ShowAnswer(11, "|0EYou may stay idle for " + std::to_string(DoorSession.MaxIdle) + " seconds.|07");
  }

  DoorGotoXY(1, 13);
  DoorWriteLn("  Goodbye, " + Name + ". Returning to the BBS...");
  // Lets go of the link; the BBS keeps its own copy of the socket for the caller.
  DoorShutdown();
  return 0;
}
