// The decisions of the reader's main flow, kept apart from tamblin.cpp so that they can be
// tested without running a door: which settings file and options the command line names, and
// what a key means in the item loop.
#pragma once

#include <cstdint>
#include <string>

// The settings file used when no "@" argument names one; looked up in the current directory.
inline constexpr const char* DEFAULT_CONFIG_FILE = "tamblin.cfg";

// The settings file named on the command line: every argument that begins with "@" names it,
// the last one wins, and the rest of the argument is taken as it stands ("@" alone names the
// empty path, which then can't be opened). AArgs[0] is the program and is not looked at;
// empty arguments are passed over. DEFAULT_CONFIG_FILE when no argument begins with "@".
std::string ConfigFileFromArgs(int AArgc, const char* const* AArgs);

// The reader's own command-line option, for DoorOnCLP (set before DoorStartup): -V (any case,
// any value behind it) has https feeds fetched only from a server whose certificate the
// system trusts for the URL's host. Letters the door passes on that mean nothing here, such as
// the -L of the usage screen, are passed over.
void ReaderOnCLP(uint8_t AKey, const std::string& AValue);

// What a key does in the item loop.
enum TItemCommand : uint8_t { icNone, icAbout, icNext, icPrevious, icQuit };

// The command of AKey as DoorReadKey returned it. Letters count in either case; Enter quits
// only when AExitOnEnter is set; every other byte is icNone and must leave no trace. An
// arrow key arrives as its PC code, so Down (0x50, "P") means previous, while Up, Right and
// Left (0x48, 0x4D, 0x4B) mean nothing.
TItemCommand ItemCommandForKey(uint8_t AKey, bool AExitOnEnter);

// The item on screen after ACommand, for ACount items: N and P stop at the ends (no wrap-around),
// and every other command leaves ACurrent alone.
int32_t ItemAfterCommand(TItemCommand ACommand, int32_t ACurrent, int32_t ACount);
