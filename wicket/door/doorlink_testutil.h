// Test rig for the door's input and output: the door side runs in a forked child on one end
// of a real socketpair (or with standard output on a pipe), the test plays the caller on the
// other end. Each run is a fresh process, so the link's one-way carrier flag, the door's
// globals and the hooks a test sets never leak into the next test.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

// The three telnet announcement bytes pairs the link sends when it opens.
inline const std::string kDoorLinkAnnouncements("\xFF\xFB\x00\xFF\xFB\x01", 6);

struct TDoorChild {
  pid_t Pid = -1;
  int CallerFd = -1;  // the caller's end of the link; -1 for a stdout run
  int OutputFd = -1;  // read end of the child's standard output; -1 unless captured
  int InputFd = -1;   // write end of the child's standard input; -1 unless given
};

// Forks the door side. In the child: StdIO false, the link opened with CommOpen on the
// door's end of a socketpair of ASocketType (SOCK_STREAM, or SOCK_SEQPACKET to see each send
// as one packet), ADoorSide run, then _exit with 0, or 1 if a test expectation failed in it.
// With ACaptureStdout the child's standard output goes to a pipe. In the parent the
// announcements have been read off and checked already.
TDoorChild StartDoorOnLink(const std::function<void()>& ADoorSide, int ASocketType,
                           bool ACaptureStdout = false);
// Forks the door side in stdio mode (StdIO true, no link) with standard output on a pipe,
// and with AFeedStdin also standard input, so that the test types the keys.
TDoorChild StartDoorOnStdout(const std::function<void()>& ADoorSide, bool AFeedStdin = false);

// Waits for the child to end (killing it after ATimeoutMs) and closes the test's ends.
// Returns its exit code, or 128 + signal number, or -1 when it had to be killed.
int FinishDoor(TDoorChild& AChild, int ATimeoutMs = 10000);

// Writes all of ABytes to the socket or pipe AFd.
void SendToDoor(int AFd, const std::string& ABytes);
// Reads until at least ACount bytes have come, AFd reaches end of file, or ATimeoutMs passes.
std::string ReadAtLeast(int AFd, size_t ACount, int ATimeoutMs = 5000);
// Everything until end of file; a door whose output doesn't end in time fails the test.
std::string ReadUntilClosed(int AFd, int ATimeoutMs = 10000);
// One packet of a SOCK_SEQPACKET socket; empty at end of file or after ATimeoutMs.
std::string ReadPacket(int AFd, int ATimeoutMs = 5000);

// Milliseconds on a monotonic clock, for timing inside a door child.
double MonotonicMs();
// Readable bytes as "41 1B 5B" for failure messages.
std::string HexBytes(const std::string& ABytes);
