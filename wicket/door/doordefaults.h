// The handlers that stand in the door's hook variables until an application replaces them:
// the local login, the usage screen, the three stops that end a run, and the status bar.
#pragma once

// Carrier lost: tells the local console, waits, ends the process with exit code 0.
void DefaultOnHangup();
// Local mode: asks for the caller's name and sets DoorDropInfo.RealName and .Alias to it.
void DefaultOnLocalLogin();
// Draws the status bar on row 25 of the local console; touches neither the link nor the cursor.
void DefaultOnStatusBar();
// Idle limit exceeded: tells the caller, waits, ends the process with exit code 0.
void DefaultOnTimeOut();
// Time spent: tells the caller, waits, ends the process with exit code 0.
void DefaultOnTimeUp();
// No mode could be chosen from the command line: shows the usage lines, ends with exit code 0.
void DefaultOnUsage();
