// Fuzz target for the settings reader. Each input is parsed from memory and also written to
// a file and read back through LoadConfig; both ways must give the same settings.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <tuple>

#include "config.h"

namespace {

std::string TempPath() {
  const char* Base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  return std::string(Base) + "/fuzz_config." + std::to_string(getpid());
}

auto Settings() {
  return std::make_tuple(FeedUrl, SkinFile, FeedBgColor, TitleColor, DateColor, BodyTextColor, CommandColor,
                         ExitOnEnter, PageColor, PageBgColor, MaxItems);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  static const std::string Path = TempPath();
  static const bool Registered = (std::atexit([] { unlink(Path.c_str()); }), true);
  (void)Registered;

  const std::string Bytes(reinterpret_cast<const char*>(AData), ASize);
  ParseConfigText(Bytes);
  const auto FromMemory = Settings();

  FILE* F = std::fopen(Path.c_str(), "wb");
  if (F == nullptr) return 0;
  if (ASize > 0) std::fwrite(AData, 1, ASize, F);
  std::fclose(F);
  LoadConfig(Path);
  if (Settings() != FromMemory) {
    std::fprintf(stderr, "LoadConfig and ParseConfigText disagree\n");
    std::abort();
  }
  return 0;
}
