// The forked-door test rig: a door child on a socketpair or a stdout pipe, and the caller's
// read and send helpers with time limits, so that a broken door fails a test instead of
// hanging it.
#include "doorlink_testutil.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <thread>

#include "comm/comm.h"
#include "door/doorstate.h"

namespace {

bool WaitReadable(int AFd, int ATimeoutMs) {
  pollfd Poll{AFd, POLLIN, 0};
  int Result;
  do Result = poll(&Poll, 1, ATimeoutMs);
  while (Result < 0 && errno == EINTR);
  return Result > 0;
}

[[noreturn]] void EndChild() {
  std::fflush(stdout);
  std::fflush(stderr);
  _exit(::testing::Test::HasFailure() ? 1 : 0);
}

TDoorChild StartChild(const std::function<void()>& ADoorSide, int ASocketType, bool AWithLink,
                      bool ACaptureStdout, bool AFeedStdin = false) {
  TDoorChild Child;
  int Pair[2] = {-1, -1};
  int Out[2] = {-1, -1};
  int In[2] = {-1, -1};
  if (AWithLink && socketpair(AF_UNIX, ASocketType, 0, Pair) != 0) ADD_FAILURE() << "socketpair failed";
  if (ACaptureStdout && pipe(Out) != 0) ADD_FAILURE() << "pipe failed";
  if (AFeedStdin && pipe(In) != 0) ADD_FAILURE() << "pipe failed";
  std::fflush(stdout);
  Child.Pid = fork();
  if (Child.Pid == 0) {
    if (AWithLink) close(Pair[0]);
    if (ACaptureStdout) {
      dup2(Out[1], STDOUT_FILENO);
      close(Out[0]);
      close(Out[1]);
    }
    if (AFeedStdin) {
      dup2(In[0], STDIN_FILENO);
      close(In[0]);
      close(In[1]);
    }
    StdIO = !AWithLink;
    if (AWithLink) CommOpen(Pair[1]);
    ADoorSide();
    EndChild();
  }
  if (AWithLink) {
    close(Pair[1]);
    Child.CallerFd = Pair[0];
    std::string Opening;
    if (ASocketType == SOCK_SEQPACKET) {
      Opening = ReadPacket(Pair[0]);  // two sends, binary first
      Opening += ReadPacket(Pair[0]);
    } else {
      Opening = ReadAtLeast(Pair[0], 6);
    }
    EXPECT_EQ(HexBytes(Opening), HexBytes(kDoorLinkAnnouncements));
  }
  if (ACaptureStdout) {
    close(Out[1]);
    Child.OutputFd = Out[0];
  }
  if (AFeedStdin) {
    close(In[0]);
    Child.InputFd = In[1];
  }
  return Child;
}

}  // namespace

TDoorChild StartDoorOnLink(const std::function<void()>& ADoorSide, int ASocketType, bool ACaptureStdout) {
  return StartChild(ADoorSide, ASocketType, true, ACaptureStdout);
}

TDoorChild StartDoorOnStdout(const std::function<void()>& ADoorSide, bool AFeedStdin) {
  return StartChild(ADoorSide, SOCK_STREAM, false, true, AFeedStdin);
}

int FinishDoor(TDoorChild& AChild, int ATimeoutMs) {
  int Code = -1;
  const auto Deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ATimeoutMs);
  for (;;) {
    int Status = 0;
    const pid_t Done = waitpid(AChild.Pid, &Status, WNOHANG);
    if (Done == AChild.Pid) {
      Code = WIFEXITED(Status) ? WEXITSTATUS(Status) : 128 + WTERMSIG(Status);
      break;
    }
    if (std::chrono::steady_clock::now() > Deadline) {
      kill(AChild.Pid, SIGKILL);
      waitpid(AChild.Pid, &Status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (AChild.CallerFd >= 0) close(AChild.CallerFd);
  if (AChild.OutputFd >= 0) close(AChild.OutputFd);
  if (AChild.InputFd >= 0) close(AChild.InputFd);
  AChild.CallerFd = AChild.OutputFd = AChild.InputFd = -1;
  return Code;
}

void SendToDoor(int AFd, const std::string& ABytes) {
  size_t Done = 0;
  while (Done < ABytes.size()) {
    // send() where it can, so that a door that has died can't kill the test with SIGPIPE.
    ssize_t Sent = send(AFd, ABytes.data() + Done, ABytes.size() - Done, MSG_NOSIGNAL);
    if (Sent < 0 && errno == ENOTSOCK) Sent = write(AFd, ABytes.data() + Done, ABytes.size() - Done);
    if (Sent <= 0) {
      ADD_FAILURE() << "send to the door failed";
      return;
    }
    Done += static_cast<size_t>(Sent);
  }
}

std::string ReadAtLeast(int AFd, size_t ACount, int ATimeoutMs) {
  std::string Result;
  const auto Deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ATimeoutMs);
  while (Result.size() < ACount) {
    const auto Left =
        std::chrono::duration_cast<std::chrono::milliseconds>(Deadline - std::chrono::steady_clock::now());
    if (Left.count() <= 0 || !WaitReadable(AFd, static_cast<int>(Left.count()))) break;
    char Block[4096];
    const ssize_t Got = read(AFd, Block, std::min(sizeof Block, ACount - Result.size()));
    if (Got <= 0) return Result;
    Result.append(Block, static_cast<size_t>(Got));
  }
  if (ACount == SIZE_MAX) ADD_FAILURE() << "the door's output did not end in time";
  return Result;
}

std::string ReadUntilClosed(int AFd, int ATimeoutMs) { return ReadAtLeast(AFd, SIZE_MAX, ATimeoutMs); }

std::string ReadPacket(int AFd, int ATimeoutMs) {
  if (!WaitReadable(AFd, ATimeoutMs)) return {};
  char Block[65536];
  const ssize_t Got = recv(AFd, Block, sizeof Block, 0);
  return Got > 0 ? std::string(Block, static_cast<size_t>(Got)) : std::string();
}

double MonotonicMs() {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

std::string HexBytes(const std::string& ABytes) {
  std::string Result;
  char Cell[4];
  for (unsigned char C : ABytes) {
    std::snprintf(Cell, sizeof Cell, "%02X ", C);
    Result += Cell;
  }
  if (!Result.empty()) Result.pop_back();
  return Result;
}
