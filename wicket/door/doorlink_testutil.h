// Test rig for doors: a door side, a piece of code or a whole program, runs in a forked child
// with one end of a real socketpair as the caller's link, its console on pipes or on a
// pseudo-terminal, and a report pipe back to the test. The test holds the caller's end and, if
// it likes, the BBS's own copy of the door's end. Each run is a fresh process, so the link's
// one-way carrier flag, the door's globals, its exit handlers and its signal and terminal
// settings never reach the test or the next run. Header-only, so that the example door's tests
// can use it too.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "comm/comm.h"
#include "door/doorstate.h"

// The two telnet announcements the link sends when it opens.
inline const std::string DOOR_LINK_ANNOUNCEMENTS("\xFF\xFB\x00\xFF\xFB\x01", 6);

inline double MonotonicMs() {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

inline bool WaitReadable(int AFd, int ATimeoutMs) {
  pollfd Poll{AFd, POLLIN, 0};
  return poll(&Poll, 1, ATimeoutMs) > 0;
}

// Reads AFd into ASeen until ASeen holds ANeedle, AFd ends (end of file, or EIO from a pty), or
// ATimeoutMs passes; true when found.
inline bool WaitFor(int AFd, std::string& ASeen, const std::string& ANeedle, int ATimeoutMs = 5000) {
  const double Deadline = MonotonicMs() + ATimeoutMs;
  while (ASeen.find(ANeedle) == std::string::npos) {
    const int Left = static_cast<int>(Deadline - MonotonicMs());
    if (Left <= 0 || !WaitReadable(AFd, Left)) return false;
    char Block[4096];
    const ssize_t Got = read(AFd, Block, sizeof Block);
    if (Got <= 0) return false;
    ASeen.append(Block, static_cast<size_t>(Got));
  }
  return true;
}

// What AFd gives until it ends or ATimeoutMs passes.
inline std::string ReadRest(int AFd, int ATimeoutMs = 5000) {
  std::string Seen;
  WaitFor(AFd, Seen, std::string("\0never\0", 7), ATimeoutMs);
  return Seen;
}

// One packet (of a SOCK_SEQPACKET socket), at most AMax bytes; empty at the end or after ATimeoutMs.
inline std::string ReadPacket(int AFd, int ATimeoutMs = 5000, size_t AMax = 65536) {
  std::string Packet(AMax, '\0');
  const ssize_t Got = WaitReadable(AFd, ATimeoutMs) ? recv(AFd, Packet.data(), AMax, 0) : -1;
  Packet.resize(Got > 0 ? static_cast<size_t>(Got) : 0);
  return Packet;
}

// Writes all of ABytes to a socket, pipe or pty; a door that has died can't kill the test with
// SIGPIPE.
inline void Send(int AFd, const std::string& ABytes) {
  for (size_t Done = 0; Done < ABytes.size();) {
    ssize_t Sent = send(AFd, ABytes.data() + Done, ABytes.size() - Done, MSG_NOSIGNAL);
    if (Sent < 0 && errno == ENOTSOCK) Sent = write(AFd, ABytes.data() + Done, ABytes.size() - Done);
    if (Sent <= 0) {
      ADD_FAILURE() << "send to the door failed";
      return;
    }
    Done += static_cast<size_t>(Sent);
  }
}

inline void CloseEnd(int& AFd) {
  if (AFd >= 0) close(AFd);
  AFd = -1;
}

// Readable bytes as "41 1B 5B" for failure messages.
inline std::string HexBytes(const std::string& ABytes) {
  const char* Digits = "0123456789ABCDEF";
  std::string Result;
  for (unsigned char C : ABytes) Result += {' ', Digits[C >> 4], Digits[C & 15]};
  return Result.substr(Result.empty() ? 0 : 1);
}

// In a door child: the write end of the report pipe (DoorReport).
inline int GDoorReportFd = -1;
// In a door child: passes AText to the test (TDoorRun::Report after FinishDoor).
inline void DoorReport(const std::string& AText) { Send(GDoorReportFd, AText); }

struct TDoorRunOptions {
  bool OnLink = false;           // the child opens the link (StdIO false, CommOpen) before the door side
  int SocketType = SOCK_STREAM;  // SOCK_SEQPACKET: each send of the door arrives as one packet
  bool Pty = false;              // console on a cooked 80x25 pty, its controlling terminal
  bool KeepBbsCopy = false;      // the test keeps a copy of the door's end, as a BBS does
};

// One door child. The door side gets the number of the door's end of the link; when it returns
// the child ends by exit() (so the process's exit handlers run as in a real door) with code 1 if
// an expectation failed in it, else 0. An exception that leaves the door side is unhandled, as in
// a door's main(). With OnLink the announcements have been read off and checked on return.
struct TDoorRun {
  pid_t Pid = -1;
  int Caller = -1;  // the caller's end of the link
  int Bbs = -1;     // the BBS's copy of the door's end (KeepBbsCopy)
  int Input = -1;   // write end of the console's input pipe (not with Pty)
  int Output = -1;  // read end of the console's output pipe, or the pty's master
  int ReportFd = -1;
  termios PtyBefore{};  // the pty's mode before the child could touch it
  double StartMs = MonotonicMs();
  // Filled by FinishDoor: everything on each end that the test did not read itself.
  std::string Console, Report, Heard;
  bool CallerClosed = false;  // the caller's end saw end of file
  double Ms = 0;              // from the start to the child's end

  TDoorRun(const std::function<void(int ADoorFd)>& ADoorSide, const TDoorRunOptions& AOptions = {}) {
    int Link[2], In[2] = {-1, -1}, Out[2] = {-1, -1}, Rep[2];
    std::string Slave;
    if (socketpair(AF_UNIX, AOptions.SocketType, 0, Link) != 0 || pipe(Rep) != 0) std::abort();
    if (AOptions.Pty) {
      Out[0] = posix_openpt(O_RDWR | O_NOCTTY);
      if (Out[0] < 0 || grantpt(Out[0]) != 0 || unlockpt(Out[0]) != 0) std::abort();
      Slave = ptsname(Out[0]);
      tcgetattr(Out[0], &PtyBefore);
      winsize Size{25, 80, 0, 0};
      ioctl(Out[0], TIOCSWINSZ, &Size);
    } else if (pipe(In) != 0 || pipe(Out) != 0) {
      std::abort();
    }
    std::fflush(nullptr);
    Pid = fork();
    if (Pid == 0) {
      for (int Fd : {Link[0], In[1], Out[0], Rep[0]}) CloseEnd(Fd);
      if (AOptions.Pty) {
        setsid();
        In[0] = Out[1] = open(Slave.c_str(), O_RDWR);
        ioctl(In[0], TIOCSCTTY, 0);
      }
      dup2(In[0], STDIN_FILENO);
      dup2(Out[1], STDOUT_FILENO);
      if (In[0] > STDOUT_FILENO) close(In[0]);
      if (Out[1] > STDOUT_FILENO && Out[1] != In[0]) close(Out[1]);
      GDoorReportFd = Rep[1];
      stdout = stderr;  // the framework's words from the child stay out of the door's console
      // No test sleeps through a stop's pause, waits out the end of a run for a caller who never
      // reads, or writes to the machine's system log, unless it sets these itself.
      setenv("WICKET_STOP_PAUSE_MS", "0", 0);
      setenv("WICKET_DRAIN_MS", "0", 0);
      setenv("WICKET_LOG_FILE", "/dev/null", 0);
      if (AOptions.OnLink) {
        StdIO = false;
        CommOpen(Link[1]);
      }
      [&]() noexcept { ADoorSide(Link[1]); }();
      std::fflush(nullptr);
      std::exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    for (int Fd : {In[0], Out[1], Rep[1]}) CloseEnd(Fd);
    Caller = Link[0];
    Input = In[1];
    Output = Out[0];
    ReportFd = Rep[0];
    if (AOptions.KeepBbsCopy)
      Bbs = Link[1];
    else
      close(Link[1]);
    if (!AOptions.OnLink) return;
    std::string Opening;  // two sends, one packet each on SOCK_SEQPACKET
    for (int I = 0; I < 6 && Opening.size() < 6; ++I) Opening += ReadPacket(Caller, 5000, 6 - Opening.size());
    EXPECT_EQ(HexBytes(Opening), HexBytes(DOOR_LINK_ANNOUNCEMENTS));
  }
  TDoorRun(const TDoorRun&) = delete;
  TDoorRun& operator=(const TDoorRun&) = delete;
  ~TDoorRun() {
    if (Pid > 0 && waitpid(Pid, nullptr, WNOHANG) == 0) {
      kill(Pid, SIGKILL);
      waitpid(Pid, nullptr, 0);
    }
    for (int* Fd : {&Caller, &Bbs, &Input, &Output, &ReportFd}) CloseEnd(*Fd);
  }
};

// Waits for the child to end (killing it after ATimeoutMs), meanwhile draining its console and
// report so that it can't block on them; then gathers what is left unread on the console, the
// report and the caller's end. Returns the exit code, 128 + signal number, or -1 when it had to
// be killed. Closes nothing: the ends stay the test's until the run goes out of scope.
inline int FinishDoor(TDoorRun& ARun, int ATimeoutMs = 10000) {
  const double Deadline = MonotonicMs() + ATimeoutMs;
  const std::pair<int, std::string*> Ends[] = {
      {ARun.Output, &ARun.Console}, {ARun.ReportFd, &ARun.Report}, {ARun.Caller, &ARun.Heard}};
  auto Drain = [](int AFd, std::string& AInto) {  // what AFd has now; false once it has ended
    char Block[4096];
    for (ssize_t Got; WaitReadable(AFd, 0); AInto.append(Block, static_cast<size_t>(Got)))
      if ((Got = read(AFd, Block, sizeof Block)) <= 0) return false;
    return true;
  };
  int Status = 0;
  bool Ended = false;
  while (!(Ended = waitpid(ARun.Pid, &Status, WNOHANG) == ARun.Pid) && MonotonicMs() < Deadline) {
    for (const auto& [Fd, Into] : Ends)
      if (Fd >= 0) Drain(Fd, *Into);
    usleep(5000);
  }
  if (!Ended) kill(ARun.Pid, SIGKILL), waitpid(ARun.Pid, &Status, 0);
  ARun.Ms = MonotonicMs() - ARun.StartMs;
  for (const auto& [Fd, Into] : Ends)
    if (Fd >= 0 && !Drain(Fd, *Into) && Fd == ARun.Caller) ARun.CallerClosed = true;
  return !Ended ? -1 : WIFEXITED(Status) ? WEXITSTATUS(Status) : 128 + WTERMSIG(Status);
}
