// The whole-process door rig: a forked child with its console on a pipe and the caller on a
// socketpair, outputs gathered with poll until the child has gone.
#include "doorprocess_testutil.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace {

int FReportFd = -1;

void WriteAllTo(int AFd, const std::string& AText) {
  size_t Done = 0;
  while (Done < AText.size()) {
    const ssize_t N = write(AFd, AText.data() + Done, AText.size() - Done);
    if (N > 0)
      Done += static_cast<size_t>(N);
    else if (!(N < 0 && errno == EINTR))
      return;
  }
}

// Reads what AFd has now into AInto; false at end of file or error.
bool Drain(int AFd, std::string& AInto) {
  char Buffer[4096];
  const ssize_t N = read(AFd, Buffer, sizeof(Buffer));
  if (N > 0) {
    AInto.append(Buffer, static_cast<size_t>(N));
    return true;
  }
  return N < 0 && (errno == EINTR || errno == EAGAIN);
}

}  // namespace

void DoorReport(const std::string& AText) { WriteAllTo(FReportFd, AText); }

TDoorProcessRun RunDoorProcess(const std::function<void(int ADoorFd)>& ADoorSide,
                               const TDoorProcessOptions& AOptions) {
  TDoorProcessRun Run;
  int Link[2], Out[2], Report[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, Link) != 0 || pipe(Out) != 0 || pipe(Report) != 0) return Run;
  std::fflush(stdout);
  std::fflush(stderr);
  const auto Start = std::chrono::steady_clock::now();
  const pid_t Pid = fork();
  if (Pid == 0) {
    close(Link[0]);
    close(Out[0]);
    close(Report[0]);
    dup2(Out[1], STDOUT_FILENO);
    close(Out[1]);
    const int Null = open("/dev/null", O_RDONLY);
    dup2(Null, STDIN_FILENO);
    close(Null);
    FReportFd = Report[1];
    // Nothing of the test framework may catch what the door side throws: an exception that
    // leaves it is unhandled, as it would be in a door's main().
    [&]() noexcept { ADoorSide(Link[1]); }();
    std::exit(0);
  }
  close(Out[1]);
  close(Report[1]);
  if (AOptions.KeepBbsCopy)
    Run.BbsFd = Link[1];
  else
    close(Link[1]);
  if (!AOptions.CallerKeys.empty())
    (void)send(Link[0], AOptions.CallerKeys.data(), AOptions.CallerKeys.size(), MSG_NOSIGNAL);

  const auto Deadline = Start + std::chrono::milliseconds(AOptions.TimeoutMs);
  bool OutOpen = true, ReportOpen = true, CallerOpen = true;
  int Status = 0;
  bool Ended = false;
  while (!Ended || OutOpen || ReportOpen) {
    if (!Ended && waitpid(Pid, &Status, WNOHANG) == Pid) {
      Ended = true;
      Run.Ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - Start).count();
    }
    if (std::chrono::steady_clock::now() > Deadline) break;
    pollfd Polls[3] = {{OutOpen ? Out[0] : -1, POLLIN, 0},
                       {ReportOpen ? Report[0] : -1, POLLIN, 0},
                       {CallerOpen ? Link[0] : -1, POLLIN, 0}};
    if (poll(Polls, 3, 10) <= 0) continue;
    if (Polls[0].revents != 0) OutOpen = Drain(Out[0], Run.Console);
    if (Polls[1].revents != 0) ReportOpen = Drain(Report[0], Run.Report);
    if (Polls[2].revents != 0) {
      CallerOpen = Drain(Link[0], Run.Caller);
      if (!CallerOpen) Run.CallerClosed = true;
    }
  }
  if (!Ended) {
    kill(Pid, SIGKILL);
    waitpid(Pid, &Status, 0);
  } else {
    Run.ExitCode = WIFEXITED(Status) ? WEXITSTATUS(Status) : 128 + WTERMSIG(Status);
  }
  // What the caller's end still holds once the child is gone.
  fcntl(Link[0], F_SETFL, O_NONBLOCK);
  while (CallerOpen) {
    char Buffer[4096];
    const ssize_t N = read(Link[0], Buffer, sizeof(Buffer));
    if (N > 0) {
      Run.Caller.append(Buffer, static_cast<size_t>(N));
      continue;
    }
    if (N == 0) Run.CallerClosed = true;
    break;
  }
  fcntl(Link[0], F_SETFL, 0);
  close(Out[0]);
  close(Report[0]);
  if (AOptions.KeepCallerEnd)
    Run.CallerFd = Link[0];
  else
    close(Link[0]);
  return Run;
}
