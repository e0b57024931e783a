// Test helper for the local console and the modules above it: runs a piece of console code in a
// forked child whose standard input and output are a pseudo-terminal (or pipes, for redirected
// output), and hands back every byte the child wrote, what the child reported, its exit status and
// the terminal's mode before and after. The console's process-wide state (termios, signal
// handlers, exit handlers) thus never touches the test process. Header-only, so that the tests of
// crt2, videoutils and ansi can use it too.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "console/console.h"

struct TChildRun;

struct TChildOptions {
  bool Pty = true;  // false: standard output and input are pipes
  uint16_t Cols = 80;
  uint16_t Rows = 25;
  // Sent on the terminal when the child asks for the cursor; empty: the child gets no answer.
  std::string CursorReport = "\x1b[1;1R";
  // Keys for the child: on a pty sent after the cursor question (the terminal is raw by then), on a
  // pipe written at once.
  std::string Input;
  bool CloseInput = false;  // pipe: end of file after Input
  // Called whenever output has arrived, with the run so far (Pid, Master, Slave, Output set).
  std::function<void(TChildRun&)> OnOutput;
  int TimeoutMs = 15000;
};

struct TChildRun {
  pid_t Pid = -1;
  int Master = -1;  // pty only; -1 once closed
  int Slave = -1;   // pty only: the parent's own hold on the terminal, for termios checks
  std::string Output;
  std::string Report;
  int Status = 0;
  bool TimedOut = false;
  struct termios Before = {};
  struct termios After = {};
};

inline void TestWriteAll(int AFd, const std::string& AData) {
  size_t Done = 0;
  while (Done < AData.size()) {
    ssize_t N = write(AFd, AData.data() + Done, AData.size() - Done);
    if (N <= 0) return;
    Done += static_cast<size_t>(N);
  }
}

// Reads what AFd has now; false at end of file or error.
inline bool TestReadSome(int AFd, std::string& AInto) {
  char Buf[4096];
  ssize_t N = read(AFd, Buf, sizeof(Buf));
  if (N <= 0) return false;
  AInto.append(Buf, static_cast<size_t>(N));
  return true;
}

// Runs ABody in a child with the console on a pty or pipes. The body's result is the report; the
// child then ends with exit(0), so the console's exit handler runs as in a real program.
inline TChildRun RunConsoleChild(const TChildOptions& AOptions, const std::function<std::string()>& ABody) {
  TChildRun Run;
  int ReportPipe[2];
  if (pipe(ReportPipe) != 0) std::abort();
  int OutPipe[2] = {-1, -1}, InPipe[2] = {-1, -1};
  if (AOptions.Pty) {
    struct winsize Size = {AOptions.Rows, AOptions.Cols, 0, 0};
    if (openpty(&Run.Master, &Run.Slave, nullptr, nullptr, &Size) != 0) std::abort();
    tcgetattr(Run.Slave, &Run.Before);
  } else {
    if (pipe(OutPipe) != 0 || pipe(InPipe) != 0) std::abort();
  }
  std::fflush(nullptr);
  Run.Pid = fork();
  if (Run.Pid == 0) {
    close(ReportPipe[0]);
    if (AOptions.Pty) {
      dup2(Run.Slave, 0);
      dup2(Run.Slave, 1);
      close(Run.Slave);
      close(Run.Master);
    } else {
      dup2(InPipe[0], 0);
      dup2(OutPipe[1], 1);
      close(InPipe[0]);
      close(InPipe[1]);
      close(OutPipe[0]);
      close(OutPipe[1]);
    }
    std::string Report = ABody();
    TestWriteAll(ReportPipe[1], Report);
    close(ReportPipe[1]);
    std::exit(0);
  }
  close(ReportPipe[1]);
  int OutFd = Run.Master;
  if (!AOptions.Pty) {
    close(InPipe[0]);
    close(OutPipe[1]);
    OutFd = OutPipe[0];
    TestWriteAll(InPipe[1], AOptions.Input);
    if (AOptions.CloseInput) close(InPipe[1]);
  }
  bool Asked = false, Exited = false, OutOpen = true, ReportOpen = true;
  auto Deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(AOptions.TimeoutMs);
  while (OutOpen || ReportOpen || !Exited) {
    if (std::chrono::steady_clock::now() > Deadline) {
      Run.TimedOut = true;
      kill(Run.Pid, SIGKILL);
      waitpid(Run.Pid, &Run.Status, 0);
      break;
    }
    if (!Exited && waitpid(Run.Pid, &Run.Status, WNOHANG) == Run.Pid) Exited = true;
    OutFd = AOptions.Pty ? Run.Master : OutFd;
    if (OutFd < 0) OutOpen = false;
    struct pollfd Fds[2] = {{OutOpen ? OutFd : -1, POLLIN, 0}, {ReportOpen ? ReportPipe[0] : -1, POLLIN, 0}};
    int Ready = poll(Fds, 2, Exited ? 50 : 10);
    bool Got = false;
    if (OutOpen && (Fds[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
      Got = TestReadSome(OutFd, Run.Output);
      if (!Got) OutOpen = false;
    }
    if (ReportOpen && (Fds[1].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
      if (!TestReadSome(ReportPipe[0], Run.Report)) ReportOpen = false;
    }
    // On a pty the output never ends by itself (we hold the slave): stop once the child is gone and
    // nothing more comes.
    if (AOptions.Pty && Exited && Ready == 0) OutOpen = false;
    if (AOptions.Pty && !Asked && Run.Output.find("\x1b[6n") != std::string::npos) {
      Asked = true;
      TestWriteAll(Run.Master, AOptions.CursorReport + AOptions.Input);
    }
    if (Got && AOptions.OnOutput) AOptions.OnOutput(Run);
  }
  close(ReportPipe[0]);
  if (AOptions.Pty) {
    tcgetattr(Run.Slave, &Run.After);
    if (Run.Master >= 0) close(Run.Master);
    close(Run.Slave);
  } else {
    close(OutPipe[0]);
    if (!AOptions.CloseInput) close(InPipe[1]);
  }
  return Run;
}

// What follows the console's start-up bytes (the cursor question, ESC "[H" without an answer, and
// the final ESC "[m").
inline std::string AfterConsoleStart(const std::string& AOutput) {
  size_t At = AOutput.find("\x1b[m");
  return At == std::string::npos ? AOutput : AOutput.substr(At + 3);
}

// Child side: the characters of a row of the shadow, columns AX1 to AX2; a never-written cell (0)
// shows as ".".
inline std::string ShadowText(int32_t AY, int32_t AX1 = 1, int32_t AX2 = -1) {
  if (AX2 < 0) AX2 = ScreenWidth;
  std::string Text;
  for (int32_t X = AX1; X <= AX2; ++X) {
    char Ch = static_cast<char>(ConsoleBuf[(AY - 1) * ScreenWidth + (X - 1)].Ch);
    Text += Ch == 0 ? '.' : Ch;
  }
  return Text;
}

inline uint8_t ShadowAttr(int32_t AX, int32_t AY) {
  return ConsoleBuf[(AY - 1) * ScreenWidth + (AX - 1)].Attr;
}

// Child side: "label: got <a>, want <b>\n" when they differ, else nothing.
template <typename T>
inline std::string Mismatch(const std::string& ALabel, const T& AGot, const T& AWant) {
  if (AGot == AWant) return "";
  return ALabel + ": got '" + std::to_string(AGot) + "', want '" + std::to_string(AWant) + "'\n";
}
inline std::string Mismatch(const std::string& ALabel, const std::string& AGot, const std::string& AWant) {
  if (AGot == AWant) return "";
  return ALabel + ": got '" + AGot + "', want '" + AWant + "'\n";
}
inline std::string Mismatch(const std::string& ALabel, const std::string& AGot, const char* AWant) {
  return Mismatch(ALabel, AGot, std::string(AWant));
}

// Escapes for readable failure messages: ESC as "\e", other control bytes as "\xNN".
inline std::string Visible(const std::string& AText) {
  std::string Out;
  for (unsigned char C : AText) {
    if (C == 0x1b) {
      Out += "\\e";
    } else if (C < 0x20 || C >= 0x7f) {
      char Buf[8];
      std::snprintf(Buf, sizeof(Buf), "\\x%02X", C);
      Out += Buf;
    } else {
      Out += static_cast<char>(C);
    }
  }
  return Out;
}
