// Fuzz target for the four drop-file readers. The input is written to a file and read through
// the same path a BBS's drop file takes, by each reader in turn, from fresh start values.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "dropfiles/dropfiles.h"

namespace {

std::string TempPath() {
  const char* Base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  return std::string(Base) + "/fuzz_dropfiles." + std::to_string(getpid());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  static const std::string Path = TempPath();
  static const bool Registered = (std::atexit([] { unlink(Path.c_str()); }), true);
  (void)Registered;
  FILE* F = std::fopen(Path.c_str(), "wb");
  if (F == nullptr) return 0;
  if (ASize > 0) std::fwrite(AData, 1, ASize, F);
  std::fclose(F);

  for (void (*Reader)(const std::string&) : {ReadDoor32, ReadDoorSys, ReadDorInfo, ReadLordInfo}) {
    DoorDropInfo = TDoorDropInfo{};
    DoorDropInfo.AliasOrRealName = "derived";
    Reader(Path);
    // The derived names belong to start-up, never to a reader.
    if (DoorDropInfo.AliasOrRealName != "derived" || !DoorDropInfo.RealNameOrAlias.empty()) __builtin_trap();
  }
  return 0;
}
