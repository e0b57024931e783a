// The door's default hook handlers: the local login, the usage screen, the three stops that
// end a run against the caller's will, and the sysop's status bar. They hold the words the
// sysop and the caller see; an application that wants other words replaces the hook.
#include "doordefaults.h"

#include <cstdlib>
#include <string>

#include "console/console.h"
#include "crt2/crt2.h"
#include "doorend.h"
#include "doorinput.h"
#include "doorinputline.h"
#include "dooroutput.h"
#include "doorstartup.h"
#include "doorstate.h"
#include "stringutils/stringutils.h"
#include "videoutils/videoutils.h"

namespace {

constexpr uint8_t STATUS_ROW = 25;

// The letters of DOOR_INPUT_CHARS_ALPHA and a blank: a name may have several words.
const std::string LOGIN_NAME_CHARACTERS = "qwertyuiopasdfghjklzxcvbnmQWERTYUIOPASDFGHJKLZXCVBNM ";

// The two stops that speak to the caller over whatever link the run has.
[[noreturn]] void StopWithMessageToCaller(const std::string& AMessage, const std::string& AReason) {
  DoorLogEnd(AReason);
  DoorTextAttr(15);
  DoorClrScr();
  DoorWriteLn();
  DoorWriteLn(AMessage);
  Delay(DoorStopPauseMs());
  std::exit(0);
}

std::string PadRight(std::string AText, size_t AWidth) {
  if (AText.size() < AWidth) AText.append(AWidth - AText.size(), ' ');
  return AText;
}

}  // namespace

// The hook variables with their start values: each empty one, or the default handler of this
// module that stands in it until the application replaces it.
TDoorCLPProc DoorOnCLP = nullptr;
TDoorProc DoorOnHangup = DefaultOnHangup;
TDoorProc DoorOnLocalLogin = DefaultOnLocalLogin;
TDoorProc DoorOnStatusBar = DefaultOnStatusBar;
TDoorSysopKeyFunc DoorOnSysopKey = nullptr;
TDoorProc DoorOnTimeOut = DefaultOnTimeOut;
TDoorWarningProc DoorOnTimeOutWarning = nullptr;
TDoorProc DoorOnTimeUp = DefaultOnTimeUp;
TDoorWarningProc DoorOnTimeUpWarning = nullptr;
TDoorProc DoorOnUsage = DefaultOnUsage;

void DefaultOnHangup() {
  DoorLogEnd("caller hung up");
  // In stdio mode the console is the caller's own screen, which has gone: nobody to tell.
  if (StdIO) std::exit(0);
  // The link is dead: only the sysop can be told; no pause when a signal asked for the end.
  SetTextAttr(15);
  ClrScr();
  ConsoleWrite("\n   Caller Dropped Carrier.  Returning To BBS...\n");
  if (ConsoleEndSignal() == 0) Delay(DoorStopPauseMs());
  std::exit(0);
}

void DefaultOnLocalLogin() {
  DoorTextAttr(7);
  DoorClrScr();
  DoorWriteLn();
  DoorWriteLn();
  DoorWriteLn("  |1F  LOCAL LOGIN - FOR NODE " + std::to_string(DoorDropInfo.Node) + "|07");
  DoorWriteLn();
  DoorWriteLn();
  DoorWriteLn("  |09Run " + DoorProgramName() + " /? for command-line usage help|07");
  DoorWriteLn();
  std::string Name;
  do {
    DoorWrite("  |0AName or handle |0F:|07 ");
    Name = DoorInput("SYSOP", LOGIN_NAME_CHARACTERS, 0, 40, 40, 31);
  } while (Name.empty());
  DoorDropInfo.RealName = Name;
  DoorDropInfo.Alias = Name;
}

void DefaultOnStatusBar() {
  std::string Frame(80, ' ');
  for (size_t Column : {1, 29, 49, 63, 80}) Frame[Column - 1] = '\xFE';
  FastWrite(Frame, 1, STATUS_ROW, 0x1E);
  FastWrite(PadRight(DoorDropInfo.RealName, 22), 3, STATUS_ROW, 0x1F);
  FastWrite(DoorProgramNameAndVersion, 31, STATUS_ROW, 0x1F);
  FastWrite(PadRight("Idle: " + SecToMS(DoorSecondsIdle()), 11), 51, STATUS_ROW, 0x1F);
  FastWrite("Left: " + SecToHMS(DoorSecondsLeft()), 65, STATUS_ROW, 0x1F);
}

void DefaultOnTimeOut() {
  StopWithMessageToCaller("  Idle Time Limit Exceeded.  Returning To BBS...", "idle time limit exceeded");
}

void DefaultOnTimeUp() {
  StopWithMessageToCaller("  Your Time Has Expired.  Returning To BBS...", "time limit reached");
}

void DefaultOnUsage() {
  const std::string Name = DoorProgramName();
  // The console may be the caller's own terminal, and a BBS seldom shows it to anyone: the
  // sysop finds the short form in the system log.
  DoorLogEnd("usage shown (no mode on the command line): " + Name +
             " -D<drop file> | -N<node> -S<socket> | -L [-X]");
  ClrScr();
  ConsoleWrite(
      "\n"
      " USAGE: " +
      Name +
      " <PARAMETERS>\n"
      "\n"
      " Load settings from a dropfile (DOOR32.SYS, DOOR.SYS, DORINFO*.DEF or INFO.*)\n"
      "  -D         PATH\\FILENAME OF DROPFILE\n"
      " Example: " +
      Name +
      " -DC:\\BBS\\NODE1\\DOOR32.SYS\n"
      "\n"
      " Pass settings on command-line\n"
      "  -N         NODE NUMBER\n"
      "  -S         SOCKET HANDLE\n"
      " Example: " +
      Name +
      " -N1 -S1000\n"
      "\n"
      " Run in local mode\n"
      "  -L         LOCAL MODE\n"
      " Example: " +
      Name +
      " -L\n"
      "\n"
      " Optional parameters\n"
      "  -X         DISABLE COMM ROUTINES (STDIO MODE)\n"
      "\n");
  std::exit(0);
}
