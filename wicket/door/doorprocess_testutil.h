// Test rig for whole door processes: the door side runs in a forked child with its standard
// output (the local console) on a pipe, standard input empty, and one end of a socketpair as
// the caller's link; the test holds the caller's end and, if it likes, the BBS's own copy of
// the door's end. The child leaves by exit(), so the process's exit handlers run as in a real
// door; what it wants to tell the test goes through DoorReport().
#pragma once

#include <functional>
#include <string>

struct TDoorProcessRun {
  int ExitCode = -1;          // exit code, 128 + signal, or -1 when it had to be killed
  std::string Console;        // everything the child wrote on its standard output
  std::string Report;         // everything the child passed to DoorReport, in order
  std::string Caller;         // everything that reached the caller's end of the link
  bool CallerClosed = false;  // the caller's end saw end of file
  double Ms = 0;              // from the fork to the child's end
  int BbsFd = -1;             // the BBS's copy of the door's end, when kept; the test closes it
  int CallerFd = -1;          // the caller's end, when kept open for the test; the test closes it
};

struct TDoorProcessOptions {
  std::string CallerKeys;      // sent on the link right after the start
  bool KeepBbsCopy = false;    // the test keeps its copy of the door's end (as a BBS does)
  bool KeepCallerEnd = false;  // hand the caller's end to the test instead of closing it
  int TimeoutMs = 10000;
};

// Forks; in the child runs ADoorSide with the number of the door's end of the link, then
// exit(0). Collects the three outputs until the child has ended.
TDoorProcessRun RunDoorProcess(const std::function<void(int ADoorFd)>& ADoorSide,
                               const TDoorProcessOptions& AOptions = {});

// In a door child: passes AText to the test (TDoorProcessRun::Report).
void DoorReport(const std::string& AText);
