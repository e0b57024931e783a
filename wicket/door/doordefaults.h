// The handlers that stand in the door's hook variables until an application replaces them:
// the local login, the usage screen, the three stops that end a run, and the status bar.
// The stops and the usage screen end the process with exit code 0, so on a socket link the
// door's exit handler still runs after them.
#pragma once

// Carrier lost: tells only the local console (the link is dead), waits 2500 ms, exit code 0.
void DefaultOnHangup();
// Local mode: the login screen through DoorWrite, then asks for a name (letters and blanks,
// 40 at most, "SYSOP" offered, ESC keeps it) until one is given, and sets
// DoorDropInfo.RealName and DoorDropInfo.Alias to it.
void DefaultOnLocalLogin();
// Draws the status bar on row 25 of the local console with FastWrite: name, program, idle time,
// time left. Touches neither the link nor the cursor.
void DefaultOnStatusBar();
// Idle limit exceeded: tells the caller, waits 2500 ms, exit code 0.
void DefaultOnTimeOut();
// Time spent: tells the caller, waits 2500 ms, exit code 0.
void DefaultOnTimeUp();
// No mode could be chosen from the command line: clears the local console, shows the usage
// lines with the program's own name, exit code 0.
void DefaultOnUsage();
