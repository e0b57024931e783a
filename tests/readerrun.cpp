// The runner behind the end-to-end tests: fork and exec of the real program with its standard
// streams (and the link) on descriptors the test reads concurrently, so a long session never
// stalls on a full pipe, and a run that hangs is killed after its time limit.
#include "readerrun.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <string_view>

#include "screenmodel.h"
#include "testsupport.h"

namespace {

// The descriptor number the link has in the door process.
constexpr int CHILD_LINK_FD = 3;

double NowMs() {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// Writes the caller's keys. A run that ends before reading them (a missing settings file)
// has closed its end already: the write fails, and the SIGPIPE it raises is blocked in this
// thread and taken back, so it neither kills the test nor reaches the program's disposition.
void WriteAll(int AFd, const std::string& ABytes) {
  sigset_t Pipe, Old;
  sigemptyset(&Pipe);
  sigaddset(&Pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &Pipe, &Old);
  size_t Done = 0;
  while (Done < ABytes.size()) {
    const ssize_t Put = write(AFd, ABytes.data() + Done, ABytes.size() - Done);
    if (Put <= 0) break;
    Done += static_cast<size_t>(Put);
  }
  const timespec Now{0, 0};
  while (sigtimedwait(&Pipe, nullptr, &Now) == SIGPIPE) {
  }
  pthread_sigmask(SIG_SETMASK, &Old, nullptr);
}

}  // namespace

std::string SettingsText(const std::string& AUrl, const std::string& ASkin,
                         const std::vector<std::string>& ARest) {
  std::vector<std::string> Lines = {AUrl, ASkin, "7", "15", "11", "14", "14", "N", "15", "1", "50"};
  for (size_t I = 0; I < ARest.size() && I + 2 < Lines.size(); ++I) Lines[I + 2] = ARest[I];
  std::string Text;
  for (const auto& Line : Lines) Text += Line + "\n";
  return Text;
}

std::vector<std::string> TamblinEnvironment(const std::vector<std::string>& AExtra) {
  // A variable set here replaces the test's own, and AExtra replaces the rig's: the first of
  // two would win.
  std::vector<std::string> Set = AExtra;
  const auto IsSet = [&](std::string_view AVar) {
    for (const std::string& S : Set)
      if (AVar.substr(0, AVar.find('=') + 1) == S.substr(0, S.find('=') + 1)) return true;
    return false;
  };
  for (const char* Rig : {"WICKET_STOP_PAUSE_MS=0", "WICKET_DRAIN_MS=0"})
    if (!IsSet(Rig)) Set.push_back(Rig);
  std::vector<std::string> Env;
  for (char** Var = environ; *Var != nullptr; ++Var)
    if (!IsSet(*Var)) Env.push_back(*Var);
  Env.insert(Env.end(), Set.begin(), Set.end());
  return Env;
}

std::vector<char*> EnvironmentPointers(std::vector<std::string>& AEnvironment) {
  std::vector<char*> Pointers;
  for (std::string& Var : AEnvironment) Pointers.push_back(Var.data());
  Pointers.push_back(nullptr);
  return Pointers;
}

TReaderRunResult RunTamblin(const TReaderRunSetup& ASetup) {
  int Out[2], Err[2], In[2], Link[2] = {-1, -1};
  if (pipe2(Out, O_CLOEXEC) != 0 || pipe2(Err, O_CLOEXEC) != 0 || pipe2(In, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe failed");
  }
  if (ASetup.Link == rlSocket && socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, Link) != 0) {
    throw std::runtime_error("socketpair failed");
  }
  const std::string Program = (BuildDir() / ASetup.Program).string();
  std::vector<std::string> Args = {Program};
  Args.push_back(ASetup.Link == rlSocket ? "-S" + std::to_string(CHILD_LINK_FD) : "-S-1");
  Args.push_back("-N1");
  Args.insert(Args.end(), ASetup.Args.begin(), ASetup.Args.end());
  std::vector<char*> Argv;
  for (auto& Arg : Args) Argv.push_back(Arg.data());
  Argv.push_back(nullptr);
  const std::string Dir = ASetup.WorkDir.string();
  const std::filesystem::path Log = ASetup.WorkDir / "door.log";
  std::filesystem::remove(Log);
  std::vector<std::string> Extra = ASetup.Environment;
  Extra.push_back("WICKET_LOG_FILE=" + Log.string());
  std::vector<std::string> Env = TamblinEnvironment(Extra);
  const std::vector<char*> Envp = EnvironmentPointers(Env);

  const double Start = NowMs();
  const pid_t Pid = fork();
  if (Pid < 0) throw std::runtime_error("fork failed");
  if (Pid == 0) {
    // Only async-signal-safe calls from here to exec. dup2 clears close-on-exec on the copies.
    dup2(In[0], 0);
    dup2(Out[1], 1);
    dup2(Err[1], 2);
    if (Link[1] >= 0) dup2(Link[1], CHILD_LINK_FD);
    if (chdir(Dir.c_str()) != 0) _exit(126);
    execve(Program.c_str(), Argv.data(), Envp.data());
    _exit(127);
  }
  close(In[0]);
  close(Out[1]);
  close(Err[1]);
  if (Link[1] >= 0) close(Link[1]);

  TReaderRunResult Result;
  int KeysFd = ASetup.Link == rlSocket ? Link[0] : In[1];
  WriteAll(KeysFd, ASetup.Keys);
  // The caller stays until the run ends: a closed standard input (like a closed link) is a
  // caller who hung up, and the door would end early for it. On a link standard input is
  // simply empty.

  struct TSource {
    int Fd;
    std::string* Into;
  };
  std::vector<TSource> Sources = {{Out[0], ASetup.Link == rlSocket ? &Result.Stdout : &Result.Screen},
                                  {Err[0], &Result.Stderr}};
  if (Link[0] >= 0) Sources.push_back({Link[0], &Result.Wire});
  bool Killed = false;
  while (!Sources.empty()) {
    const double Left = ASetup.TimeoutMs - (NowMs() - Start);
    if (Left <= 0) {
      kill(Pid, SIGKILL);
      Killed = true;
      break;
    }
    std::vector<pollfd> P;
    for (const auto& S : Sources) P.push_back({S.Fd, POLLIN, 0});
    if (poll(P.data(), P.size(), static_cast<int>(Left) + 1) <= 0) continue;
    for (size_t I = P.size(); I-- > 0;) {
      if (P[I].revents == 0) continue;
      char Buffer[65536];
      const ssize_t Got = read(Sources[I].Fd, Buffer, sizeof Buffer);
      if (Got > 0) {
        Sources[I].Into->append(Buffer, static_cast<size_t>(Got));
      } else {
        close(Sources[I].Fd);
        Sources.erase(Sources.begin() + static_cast<long>(I));
      }
    }
  }
  for (const auto& S : Sources) close(S.Fd);
  int Status = 0;
  waitpid(Pid, &Status, 0);
  close(In[1]);
  Result.WallMs = NowMs() - Start;
  if (Killed) {
    Result.ExitCode = -1;
  } else if (WIFEXITED(Status)) {
    Result.ExitCode = WEXITSTATUS(Status);
  } else if (WIFSIGNALED(Status)) {
    Result.ExitCode = 128 + WTERMSIG(Status);
  }
  if (ASetup.Link == rlSocket) Result.Screen = TelnetPayload(Result.Wire);
  if (std::filesystem::exists(Log)) Result.Log = ReadWholeFile(Log);
  return Result;
}
