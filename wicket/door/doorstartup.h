// Door startup and shutdown: the first and last things a door run does. DoorStartup reads the
// command line, picks the run's mode (local login, socket link, stdio, or the usage screen),
// brings the link up and installs the exit handler that puts the caller's terminal in order on
// every way out of the process; DoorShutdown lets go of the link at the normal end.
//
// Modes, as DoorStartup leaves them:
//   local   no -D, -S or -? option          StdIO true,  Events false, no exit handler
//   socket  -S<fd> with -N<node> above 0,    StdIO false, Events true,  exit handler installed
//           or a drop file naming a link
//   stdio   -S-1 with -N<node> above 0, or   StdIO true,  Events false, no exit handler
//           a drop file with ComType 0, ComNum -1, or -X
//   usage   none of these                    DoorOnUsage, then the process ends with code 0
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "doorstate.h"

// What the options on a command line asked for, before a mode is chosen.
struct TDoorCommandLine {
  std::string DropFile;     // -D<path>
  bool ForceStdio = false;  // -X
  bool Local = true;        // cleared by -D, -S and -?
  int32_t Node = 0;         // -N<number>; 0 when the value is no number
  int32_t Socket = -99;     // -S<number>; -1 when the value is no number; -99: not given
};

// Reads AArguments (the program's arguments, without its own name) left to right. Each
// argument is one option: "-" or "/", a letter (upper-cased), and the value glued on behind it.
// Arguments shorter than 2 bytes or not starting with "-" or "/" are passed over, so "@file"
// reaches nobody here. Letters other than ?, D, N, S and X go to DoorOnCLP, if set, in order.
// A later option overrides an earlier one of the same letter.
TDoorCommandLine DoorReadCommandLine(const std::vector<std::string>& AArguments);

// The process's own command line, element 0 being the program as it was started; read from
// the system, so that DoorStartup needs no arguments. Empty if the system won't tell.
std::vector<std::string> DoorCommandLineArguments();
// The program's own file name without its directory, as shown on the login and usage screens.
std::string DoorProgramName();

// Starts the run from the process's command line. Call once, before any other door
// operation. Returns only if the run goes on; the usage screen and every failure end the
// process with exit code 0 (failures after a message on the local console and 2500 ms).
// Takes over the local console first (raw mode when it is a terminal, restored on every way
// out; SIGHUP, SIGTERM and SIGINT become an end request), then hooks the orderly end
// (DoorEndForHangup) into the console's end of input and the link's waits, so that a hang-up,
// an end request or a closed output pipe ends the run with exit code 0 and its exit handlers
// instead of killing it by signal.
void DoorStartup();
// DoorStartup with AArguments in place of the process's arguments (without the program name):
// for programs that keep their own argument list, and for tests.
void DoorStartupArgs(const std::vector<std::string>& AArguments);

// The normal end of a run: lets go of the link (DoorClose(false)) and empties
// DoorLiteBarOptions. The process goes on; the exit handler runs when it ends.
void DoorShutdown();

// In stdio mode true and nothing else; otherwise opens the link on DoorDropInfo.ComNum and
// returns whether it has a carrier.
bool DoorOpenComm();
// Gives up this process's hold on the link; with ADisconnect the connection is ended for every
// holder as well. First waits, at most 2 s, until the output sent so far has left the socket
// (not when the caller is known to be gone: see CommDrainOutput). The runtime itself passes
// false, so the BBS's copy of the socket stays usable. Does nothing in stdio mode, and nothing
// the second time.
void DoorClose(bool ADisconnect);
// The value of StdIO.
bool DoorStdio();

// The exit handler installed by DoorStartup on a socket link: puts OldExitProc back in
// DoorExitProc, leaves the caller in grey on black in the bottom left corner, and closes the
// link. Not for direct calls.
void NewExitProc();

// The process's exit hook. When the process ends (return from main, exit() anywhere, also
// inside a hook, or an unhandled exception), the hook is taken out and called, and again while
// the handler it called has left another one in its place; so a handler that chains puts its
// predecessor back here. DoorStartup arms the runner in every mode, for the rest of the
// process; a handler that an application sets before DoorStartup runs after the door's.
extern TDoorProc DoorExitProc;
