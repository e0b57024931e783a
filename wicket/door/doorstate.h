// The door runtime's state: the facts about the caller, the session settings, the last key,
// the light-bar list, and the hook variables through which the runtime calls the application.
// Everything here is process-wide, one instance of each, holding its defaults before main()
// runs. An application steers the runtime by setting these fields and hooks; the drop-file
// readers and DoorStartup fill DoorDropInfo.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "dropfiles/dropinfo.h"

enum TDoorLastKeyType : uint8_t { lkNone = 0, lkSysop = 1, lkUser = 2 };

// The last key DoorReadKey handed out; the idle clock runs from Time.
struct TDoorLastKey {
  uint8_t Ch = 0;
  bool Extended = false;  // Ch is the code of a special key (arrows: 0x48 0x50 0x4D 0x4B)
  TDoorLastKeyType Location = lkNone;
  double Time = 0;
};

// Prompt texts kept for the application; the runtime never shows them itself.
struct TDoorMOREPrompts {
  std::string ASCII = " <MORE>";
  std::string ANSI = " |0A<|02MORE|0A>";
  int32_t ANSITextLength = 7;  // cells that ANSI fills once its pipe codes are converted
};

struct TDoorSession {
  bool DoIdleCheck = true;
  bool Events = false;     // DoorDoEvents watches the limits; DoorStartup sets it on a socket link
  double EventsTime = 0;   // when DoorDoEvents last did its checks
  int32_t MaxIdle = 300;   // seconds
  bool PipeWrite = true;   // DoorWrite converts pipe colour codes
  bool SethWrite = false;  // DoorWrite interprets Seth codes
  double TimeOn = 0;       // stamped by DoorStartup
};

extern TDoorLastKey DoorLastKey;
extern TDoorMOREPrompts DoorMOREPrompts;
extern TDoorSession DoorSession;

// Selected light-bar row, from 0; DoorLiteBar keeps it between calls.
extern int32_t DoorLiteBarIndex;
// Rows of the light bar, filled by the application; DoorShutdown empties it.
extern std::vector<std::string> DoorLiteBarOptions;
// Shown on the local status bar. Initially "Wicket v13.09.02".
extern std::string DoorProgramNameAndVersion;
// True while DoorDisplaySixel is sending a picture.
extern bool DisplayingSixel;
// The exit handler that the runtime's own exit handler replaced; nullptr when there was none.
extern void (*OldExitProc)();
// True: stdio mode, output to standard output and keys from the local console.
// False: the socket link is used.
extern bool StdIO;

// Characters allowed in DoorInput fields. Only membership counts, not order.
extern const std::string DOOR_INPUT_CHARS_ALL;       // every byte 0x20..0x7E (95)
extern const std::string DOOR_INPUT_CHARS_ALPHA;     // the 52 ASCII letters
extern const std::string DOOR_INPUT_CHARS_NUMERIC;   // the 10 digits
extern const std::string DOOR_INPUT_CHARS_FILENAME;  // ALL without " * / < > ? ` |  (87)

// Hook variables. nullptr means nothing is called. The application may replace any of them
// before DoorStartup or at any time after it.
using TDoorProc = void (*)();
using TDoorCLPProc = void (*)(uint8_t AKey, const std::string& AValue);
using TDoorSysopKeyFunc = bool (*)(uint8_t AKey);
using TDoorWarningProc = void (*)(uint8_t AMinutes);

extern TDoorCLPProc DoorOnCLP;                 // DoorStartup, for each option it doesn't know; empty
extern TDoorProc DoorOnHangup;                 // carrier lost; DefaultOnHangup
extern TDoorProc DoorOnLocalLogin;             // DoorStartup in local mode; DefaultOnLocalLogin
extern TDoorProc DoorOnStatusBar;              // the application only; DefaultOnStatusBar
extern TDoorSysopKeyFunc DoorOnSysopKey;       // the application only; empty
extern TDoorProc DoorOnTimeOut;                // over the idle limit; DefaultOnTimeOut
extern TDoorWarningProc DoorOnTimeOutWarning;  // minutes of idle time left; empty
extern TDoorProc DoorOnTimeUp;                 // time spent; DefaultOnTimeUp
extern TDoorWarningProc DoorOnTimeUpWarning;   // minutes of time left; empty
extern TDoorProc DoorOnUsage;                  // no mode could be chosen; DefaultOnUsage

// Date-times are days since 1899-12-30 00:00 in local time, as doubles; a whole day is 1.0.
using TDoorClock = double (*)();
// Reads the system clock in local time, to the millisecond.
double DoorRealClock();
// The clock every door operation reads through DoorNow. Tests that need time to pass on demand
// point it at their own function; nullptr falls back to DoorRealClock.
extern TDoorClock DoorClock;
// Now, as the door runtime sees it: DoorClock, or the real clock when that is empty.
double DoorNow();
