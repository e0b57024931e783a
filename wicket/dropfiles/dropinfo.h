// The caller as the BBS described them: the record the drop-file readers fill and the door
// runtime reads. It lives here, beneath the door, because the readers are its first writers;
// the door's state header brings it to every door module and to applications through door.h.
#pragma once

#include <cstdint>
#include <string>

enum TDoorEmulationType : uint8_t { etANSI = 0, etASCII = 1 };

// The caller as the BBS described them, from a drop file or the command line.
// Emulation, Clean, Fairy, RecPos, Access and Baud are kept for the application only.
struct TDoorDropInfo {
  int32_t Access = 0;
  std::string Alias;
  std::string AliasOrRealName;  // derived by DoorStartup
  int32_t Baud = 0;
  bool Clean = false;
  int32_t ComNum = 0;   // socket handle of the link; -1 means stdio mode
  uint8_t ComType = 0;  // 0 local, 1 serial, 2 socket (3 may come from an INFO.* file)
  TDoorEmulationType Emulation = etANSI;
  bool Fairy = false;
  int32_t MaxSeconds = 3600;  // counted from DoorSession.TimeOn
  int32_t Node = 0;
  std::string RealName;
  std::string RealNameOrAlias;  // derived by DoorStartup
  int32_t RecPos = 0;
};

// One per process, holding the defaults above before main() runs (for now it is defined with
// the rest of the door's state, in door/doorstate.cpp).
extern TDoorDropInfo DoorDropInfo;
