// Test helper for the local console and the modules above it: runs a piece of console code in a
// forked child whose standard input and output are a pseudo-terminal (or pipes, for redirected
// output), and hands back every byte the child wrote, what the child reported, its exit status and
// the terminal's mode before and after. The console's process-wide state (termios, signal
// handlers, exit handlers) thus never touches the test process. Header-only, so that the tests of
// the modules above the console can use it too.
#pragma once

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
#include <initializer_list>
#include <string>
#include <type_traits>

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
};

struct TChildRun {
  pid_t Pid = -1;
  int Master = -1;  // pty only; a callback may close it and set -1
  int Slave = -1;   // pty only: the parent's own hold on the terminal, for termios checks
  std::string Output;
  std::string Report;
  int Status = 0;
  struct termios Before = {};
  struct termios After = {};
};

// The options for a child whose standard input and output are pipes.
inline TChildOptions OnPipes() {
  TChildOptions Options;
  Options.Pty = false;
  return Options;
}

inline void TestWriteAll(int AFd, const std::string& AData) {
  for (size_t Done = 0; Done < AData.size();) {
    const ssize_t N = write(AFd, AData.data() + Done, AData.size() - Done);
    if (N <= 0) return;
    Done += static_cast<size_t>(N);
  }
}

// Runs ABody in a child with the console on a pty or pipes. The body's result is the report; the
// child then ends with exit(0), so the console's exit handler runs as in a real program.
inline TChildRun RunConsoleChild(const TChildOptions& AOptions, const std::function<std::string()>& ABody) {
  TChildRun Run;
  int Report[2], Out[2] = {-1, -1}, In[2] = {-1, -1};
  if (pipe(Report) != 0) std::abort();
  if (AOptions.Pty) {
    struct winsize Size = {AOptions.Rows, AOptions.Cols, 0, 0};
    if (openpty(&Run.Master, &Run.Slave, nullptr, nullptr, &Size) != 0) std::abort();
    tcgetattr(Run.Slave, &Run.Before);
  } else if (pipe(Out) != 0 || pipe(In) != 0) {
    std::abort();
  }
  std::fflush(nullptr);
  Run.Pid = fork();
  if (Run.Pid == 0) {
    dup2(AOptions.Pty ? Run.Slave : In[0], 0);
    dup2(AOptions.Pty ? Run.Slave : Out[1], 1);
    for (int Fd : {Run.Master, Run.Slave, In[0], In[1], Out[0], Out[1], Report[0]}) {
      if (Fd >= 0) close(Fd);
    }
    TestWriteAll(Report[1], ABody());
    close(Report[1]);
    std::exit(0);
  }
  close(Report[1]);
  if (!AOptions.Pty) {
    close(In[0]);
    close(Out[1]);
    TestWriteAll(In[1], AOptions.Input);
    if (AOptions.CloseInput) {
      close(In[1]);
      In[1] = -1;
    }
  }
  bool Asked = false, Exited = false, OutOpen = true, ReportOpen = true;
  const auto Deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
  while (OutOpen || ReportOpen || !Exited) {
    if (std::chrono::steady_clock::now() > Deadline) {
      kill(Run.Pid, SIGKILL);
      waitpid(Run.Pid, &Run.Status, 0);
      break;
    }
    if (!Exited && waitpid(Run.Pid, &Run.Status, WNOHANG) == Run.Pid) Exited = true;
    const int OutFd = AOptions.Pty ? Run.Master : Out[0];
    OutOpen = OutOpen && OutFd >= 0;
    struct pollfd Fds[2] = {{OutOpen ? OutFd : -1, POLLIN, 0}, {ReportOpen ? Report[0] : -1, POLLIN, 0}};
    const int Ready = poll(Fds, 2, Exited ? 50 : 10);
    char Buf[4096];
    ssize_t Got = 0;
    if (Fds[0].revents != 0 && (Got = read(OutFd, Buf, sizeof Buf)) <= 0) OutOpen = false;
    if (Got > 0) Run.Output.append(Buf, static_cast<size_t>(Got));
    ssize_t GotReport = 0;
    if (Fds[1].revents != 0 && (GotReport = read(Report[0], Buf, sizeof Buf)) <= 0) ReportOpen = false;
    if (GotReport > 0) Run.Report.append(Buf, static_cast<size_t>(GotReport));
    // On a pty the output never ends by itself (we hold the slave): stop once the child is gone and
    // nothing more comes.
    if (AOptions.Pty && Exited && Ready == 0) OutOpen = false;
    if (AOptions.Pty && !Asked && Run.Output.find("\x1b[6n") != std::string::npos) {
      Asked = true;
      TestWriteAll(Run.Master, AOptions.CursorReport + AOptions.Input);
    }
    if (Got > 0 && AOptions.OnOutput) AOptions.OnOutput(Run);
  }
  close(Report[0]);
  if (AOptions.Pty) tcgetattr(Run.Slave, &Run.After);
  for (int Fd : {Run.Master, Run.Slave, Out[0], In[1]}) {
    if (Fd >= 0) close(Fd);
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

// Child side: the characters of column AX from row AY1 to AY2, as ShadowText shows them.
inline std::string ShadowColumn(int32_t AX, int32_t AY1, int32_t AY2) {
  std::string Text;
  for (int32_t Y = AY1; Y <= AY2; ++Y) Text += ShadowText(Y, AX, AX);
  return Text;
}

inline uint8_t ShadowAttr(int32_t AX, int32_t AY) {
  return ConsoleBuf[(AY - 1) * ScreenWidth + (AX - 1)].Attr;
}

// Child side: the window-relative cursor as "X,Y".
inline std::string Cursor() { return std::to_string(WhereX()) + "," + std::to_string(WhereY()); }

// The pieces as text (numbers in decimal), joined by blanks: a compact snapshot of state for a
// child to report. A braced list runs its parts in order, so steps may be interleaved with them.
struct TSay {
  std::string Text;
  TSay(const std::string& AText) : Text(AText) {}
  TSay(const char* AText) : Text(AText) {}
  template <typename T, typename = std::enable_if_t<std::is_arithmetic_v<T>>>
  TSay(T ANumber) : Text(std::to_string(static_cast<int64_t>(ANumber))) {}
};
inline std::string Say(std::initializer_list<TSay> AParts) {
  std::string Out;
  for (const TSay& Part : AParts) Out += (Out.empty() ? "" : " ") + Part.Text;
  return Out;
}

// Escapes for readable failure messages: ESC as "\e", other control bytes as "\xNN".
inline std::string Visible(const std::string& AText) {
  std::string Out;
  for (unsigned char C : AText) {
    char Buf[8] = {static_cast<char>(C), 0};
    if (C == 0x1b) std::snprintf(Buf, sizeof(Buf), "\\e");
    if (C != 0x1b && (C < 0x20 || C >= 0x7f)) std::snprintf(Buf, sizeof(Buf), "\\x%02X", C);
    Out += Buf;
  }
  return Out;
}
