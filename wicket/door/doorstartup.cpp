// Door startup and shutdown: the command line, the choice of mode, the link's opening and
// closing, and the process's exit hook with the door's own handler in it. This module owns
// DoorExitProc and its runner, and whether this process has already let go of the link; the
// signals and the terminal belong to the console, which it takes over first.
#include "doorstartup.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <fstream>
#include <iterator>

#include "comm/comm.h"
#include "console/console.h"
#include "crt2/crt2.h"
#include "doorend.h"
#include "doorinput.h"
#include "dooroutput.h"
#include "dropfiles/dropfiles.h"
#include "stringutils/strbasics.h"

TDoorProc DoorExitProc = nullptr;

namespace {

// Set once DoorClose has closed the link: the descriptor number may belong to something else
// by the time the exit handler runs, so nothing may be written to it or closed again.
bool FLinkClosed = false;
bool FExitRunnerArmed = false;
std::terminate_handler FOldTerminate = nullptr;

void RunExitProcs() {
  while (DoorExitProc != nullptr) {
    const TDoorProc Proc = DoorExitProc;
    DoorExitProc = nullptr;
    Proc();
  }
}

// An unhandled exception ends the process without exit(): run the same chain, then let the
// handler that was there before finish the job (the console's restores the terminal, the
// standard one aborts).
void OnTerminate() {
  RunExitProcs();
  if (FOldTerminate != nullptr) FOldTerminate();
  std::abort();
}

void ArmExitRunner() {
  if (FExitRunnerArmed) return;
  FExitRunnerArmed = true;
  std::atexit(RunExitProcs);
  FOldTerminate = std::set_terminate(OnTerminate);
}

// The console takes over the terminal and the signals first; then the runtime's orderly end is
// hooked into the console's end of input and into the link's waits for a slow caller.
void TakeOverConsole() {
  ConsoleInit();
  ConsoleOnInputEnd = DoorEndForHangup;
  CommOnWriteWait = DoorWriteWaitChecks;
}

// A stop of the start-up: its lines on the local console, never to the caller, then the
// process ends as every door run does.
[[noreturn]] void StopRun(const std::vector<std::string>& ALines) {
  std::string Reason;
  for (const std::string& Line : ALines) Reason += (Reason.empty() ? "" : " ") + Trim(Line);
  DoorLogEnd(Reason);
  ClrScr();
  std::string Text = "\n";
  for (const std::string& Line : ALines) Text += Line + "\n";
  Text += "\n";
  ConsoleWrite(Text);
  Delay(DoorStopPauseMs());
  std::exit(0);
}

bool FileExists(const std::string& APath) {
  struct stat Info {};
  return !APath.empty() && stat(APath.c_str(), &Info) == 0 && !S_ISDIR(Info.st_mode);
}

// The drop-file path of the mode choice: the reader is picked by the text in the path.
void ReadDropFile(const TDoorCommandLine& ACommandLine) {
  const std::string& Path = ACommandLine.DropFile;
  const std::string Upper = UpperCaseAscii(Path);
  const bool Exists = FileExists(Path);
  if (Exists && Upper.find("DOOR32.SYS") != std::string::npos)
    ReadDoor32(Path);
  else if (Exists && Upper.find("DOOR.SYS") != std::string::npos)
    ReadDoorSys(Path);
  else if (Exists && Upper.find("DORINFO") != std::string::npos)
    ReadDorInfo(Path);
  else if (Exists && Upper.find("INFO.") != std::string::npos)
    ReadLordInfo(Path);
  else
    StopRun({"  Drop File Does Not Exist Or Is Not Supported:", "  " + Path});

  const uint8_t ComType = DoorDropInfo.ComType;
  if (ComType == 0) {
    StdIO = true;
  } else if (ComType == 1 || ComType == 2) {
    if (ACommandLine.ForceStdio || DoorDropInfo.ComNum == -1)
      StdIO = true;
    else if (DoorDropInfo.ComNum >= 0)
      StdIO = false;
    else
      StopRun({"  Invalid comm number: " + std::to_string(DoorDropInfo.ComNum)});
  }
  // Any other connection type leaves StdIO as it stands.
}

}  // namespace

TDoorCommandLine DoorReadCommandLine(const std::vector<std::string>& AArguments) {
  TDoorCommandLine Result;
  for (const std::string& Argument : AArguments) {
    if (Argument.size() < 2 || (Argument[0] != '-' && Argument[0] != '/')) continue;
    const uint8_t Letter = UpperCaseAscii(static_cast<uint8_t>(Argument[1]));
    const std::string Value = Argument.substr(2);
    switch (Letter) {
      case '?':
        Result.Local = false;
        break;
      case 'D':
        Result.Local = false;
        Result.DropFile = Value;
        break;
      case 'N':
        Result.Node = StrToIntDef(Value, 0);
        break;
      case 'S':
        Result.Local = false;
        Result.Socket = StrToIntDef(Value, -1);
        break;
      case 'X':
        Result.ForceStdio = true;
        break;
      default:
        if (DoorOnCLP != nullptr) DoorOnCLP(Letter, Value);
    }
  }
  return Result;
}

std::vector<std::string> DoorCommandLineArguments() {
  std::ifstream In("/proc/self/cmdline", std::ios::binary);
  const std::string All((std::istreambuf_iterator<char>(In)), std::istreambuf_iterator<char>());
  // Each argument ends with a zero byte; an empty argument is an empty piece.
  std::vector<std::string> Arguments;
  size_t Start = 0;
  while (Start < All.size()) {
    size_t End = All.find('\0', Start);
    if (End == std::string::npos) End = All.size();
    Arguments.push_back(All.substr(Start, End - Start));
    Start = End + 1;
  }
  return Arguments;
}

std::string DoorProgramName() {
  const std::vector<std::string> Arguments = DoorCommandLineArguments();
  std::string Path = Arguments.empty() ? std::string() : Arguments[0];
  if (Path.empty()) {
    char Buffer[4096];
    const ssize_t N = readlink("/proc/self/exe", Buffer, sizeof(Buffer));
    if (N > 0) Path.assign(Buffer, static_cast<size_t>(N));
  }
  const size_t Slash = Path.rfind('/');
  return Slash == std::string::npos ? Path : Path.substr(Slash + 1);
}

void DoorStartup() {
  std::vector<std::string> Arguments = DoorCommandLineArguments();
  if (!Arguments.empty()) Arguments.erase(Arguments.begin());
  DoorStartupArgs(Arguments);
}

void DoorStartupArgs(const std::vector<std::string>& AArguments) {
  TakeOverConsole();
  ArmExitRunner();

  const TDoorCommandLine CommandLine = DoorReadCommandLine(AArguments);

  if (CommandLine.Local) {
    DoorDropInfo.Node = CommandLine.Node;
    StdIO = true;
    if (DoorOnLocalLogin != nullptr) {
      DoorOnLocalLogin();
      DoorClrScr();
    }
  } else if (CommandLine.Socket >= 0 && CommandLine.Node > 0) {
    DoorDropInfo.ComNum = CommandLine.Socket;
    DoorDropInfo.ComType = 2;
    DoorDropInfo.Node = CommandLine.Node;
    StdIO = false;
  } else if (CommandLine.Socket == -1 && CommandLine.Node > 0) {
    DoorDropInfo.ComNum = -1;
    DoorDropInfo.ComType = 2;
    DoorDropInfo.Node = CommandLine.Node;
    StdIO = true;
  } else if (!CommandLine.DropFile.empty()) {
    ReadDropFile(CommandLine);
  } else {
    if (DoorOnUsage != nullptr) DoorOnUsage();
    DoorLogEnd("usage shown (no mode on the command line)");  // when a program's own hook returned
    std::exit(0);
  }

  // Stamped after the login, so that typing a name counts neither as idle time nor against
  // the time limit.
  DoorLastKey.Time = DoorNow();
  DoorSession.TimeOn = DoorNow();

  DoorDropInfo.RealNameOrAlias = DoorDropInfo.RealName.empty() ? DoorDropInfo.Alias : DoorDropInfo.RealName;
  DoorDropInfo.AliasOrRealName = DoorDropInfo.Alias.empty() ? DoorDropInfo.RealName : DoorDropInfo.Alias;

  if (StdIO) return;

  if (!DoorOpenComm()) StopRun({"  No Carrier Detected"});

  OldExitProc = DoorExitProc;
  DoorExitProc = NewExitProc;

  DoorSession.Events = true;
  DoorSession.EventsTime = 0;  // the first watch pass checks at once
  DoorClrScr();
}

void DoorShutdown() {
  DoorClose(false);
  DoorLiteBarOptions.clear();
  DoorLiteBarOptions.shrink_to_fit();
}

bool DoorOpenComm() {
  if (StdIO) return true;
  FLinkClosed = false;
  CommOpen(DoorDropInfo.ComNum);
  return CommCarrier();
}

void DoorClose(bool ADisconnect) {
  if (StdIO || FLinkClosed) return;
  FLinkClosed = true;
  // The last words first: a BBS that takes the line back (or closes it with keys unread) at
  // once would cut them off. Bounded, and not at all when the caller is gone.
  CommDrainOutput(DoorDrainMs());
  CommClose(ADisconnect);
}

bool DoorStdio() { return StdIO; }

void NewExitProc() {
  DoorExitProc = OldExitProc;
  if (FLinkClosed) {
    // Nothing can reach the caller any more; keep only the local record in step.
    SetTextAttr(7);
    return;
  }
  DoorTextAttr(7);
  DoorCursorDown(255);
  DoorCursorLeft(255);
  if (!StdIO) DoorClose(false);
}
