// The door's default hook handlers.
//
// TEMPORARY: these bodies are minimal stand-ins so that the library links and a run ends
// cleanly. They are to be completed with their real screens (local login dialogue, usage
// screen, status bar, the coloured stop messages with their 2500 ms pause) once door output
// and input exist.
#include "doordefaults.h"

#include <cstdio>
#include <cstdlib>

#include "doorstate.h"

// TEMPORARY: to be completed.
void DefaultOnHangup() {
  std::fputs("\n   Caller Dropped Carrier.  Returning To BBS...\n", stderr);
  std::exit(0);
}

// TEMPORARY: to be completed; the real one asks for the name with DoorInput.
void DefaultOnLocalLogin() {
  DoorDropInfo.RealName = "SYSOP";
  DoorDropInfo.Alias = "SYSOP";
}

// TEMPORARY: to be completed; draws nothing yet.
void DefaultOnStatusBar() {}

// TEMPORARY: to be completed.
void DefaultOnTimeOut() {
  std::fputs("\n  Idle Time Limit Exceeded.  Returning To BBS...\n", stderr);
  std::exit(0);
}

// TEMPORARY: to be completed.
void DefaultOnTimeUp() {
  std::fputs("\n  Your Time Has Expired.  Returning To BBS...\n", stderr);
  std::exit(0);
}

// TEMPORARY: to be completed with the full usage screen on the local console.
void DefaultOnUsage() {
  std::fputs("\n USAGE: <program> <PARAMETERS>   (-D dropfile, -N node -S socket, -L local, -X stdio)\n",
             stderr);
  std::exit(0);
}
