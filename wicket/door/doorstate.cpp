// The door runtime's process-wide state with its start values, and the one place the runtime
// reads the clock. Nothing here acts; other door modules read and write these variables. The
// hook variables declared here start out in doordefaults.cpp, beside their default handlers.
#include "doorstate.h"

#include <ctime>

TDoorDropInfo DoorDropInfo;
TDoorLastKey DoorLastKey;
TDoorMOREPrompts DoorMOREPrompts;
TDoorSession DoorSession;

int32_t DoorLiteBarIndex = 0;
std::vector<std::string> DoorLiteBarOptions;
std::string DoorProgramNameAndVersion = "Wicket v13.09.02";
bool DisplayingSixel = false;
void (*OldExitProc)() = nullptr;
bool StdIO = true;

const std::string DOOR_INPUT_CHARS_ALL =
    " !\"#$%&'()*+,-./0123456789:;<=>?@ABCDEFGHIJKLMNOPQRSTUVWXYZ[\\]^_`abcdefghijklmnopqrstuvwxyz{|}~";
const std::string DOOR_INPUT_CHARS_ALPHA = "qwertyuiopasdfghjklzxcvbnmQWERTYUIOPASDFGHJKLZXCVBNM";
const std::string DOOR_INPUT_CHARS_NUMERIC = "1234567890";
const std::string DOOR_INPUT_CHARS_FILENAME =
    " !#$%&'()+,-.0123456789:;=@ABCDEFGHIJKLMNOPQRSTUVWXYZ[\\]^_abcdefghijklmnopqrstuvwxyz{}~";

TDoorClock DoorClock = DoorRealClock;

// Days from the date-time origin, 1899-12-30, to the Unix epoch, 1970-01-01.
static constexpr double UNIX_EPOCH_DAYS = 25569.0;
static constexpr int64_t MILLISECONDS_PER_DAY = 86400000;

double DoorRealClock() {
  timespec Now{};
  clock_gettime(CLOCK_REALTIME, &Now);
  tm Local{};
  localtime_r(&Now.tv_sec, &Local);
  // Whole milliseconds, so that two readings a few ms apart differ by exactly that much.
  const int64_t LocalMs = (static_cast<int64_t>(Now.tv_sec) + Local.tm_gmtoff) * 1000 + Now.tv_nsec / 1000000;
  // Floor division keeps dates before 1970 on the right day.
  int64_t Days = LocalMs / MILLISECONDS_PER_DAY;
  int64_t Rest = LocalMs % MILLISECONDS_PER_DAY;
  if (Rest < 0) {
    Rest += MILLISECONDS_PER_DAY;
    --Days;
  }
  return UNIX_EPOCH_DAYS + static_cast<double>(Days) + static_cast<double>(Rest) / MILLISECONDS_PER_DAY;
}

double DoorNow() { return DoorClock != nullptr ? DoorClock() : DoorRealClock(); }
