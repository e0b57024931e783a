// Fuzz target for the door's command-line reading: the input is split at zero bytes into
// arguments, as the system hands them to a program, and read as DoorStartup reads them. What
// must hold for any command line: unknown options reach the application's hook with an
// upper-cased letter that isn't one of the door's own, and each value the reading keeps was
// glued to its option's letter in one argument.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "door/doorstartup.h"
#include "door/doorstate.h"

namespace {

std::vector<std::string> FArguments;
size_t FHookCalls = 0;

bool IsOption(const std::string& AArgument) {
  return AArgument.size() >= 2 && (AArgument[0] == '-' || AArgument[0] == '/');
}

void CheckUnknownOption(uint8_t AKey, const std::string& AValue) {
  ++FHookCalls;
  if (AKey >= 'a' && AKey <= 'z') __builtin_trap();
  for (uint8_t Own : {'?', 'D', 'N', 'S', 'X'})
    if (AKey == Own) __builtin_trap();
  // The value is the rest of some option argument with this letter.
  for (const std::string& Argument : FArguments)
    if (IsOption(Argument) && Argument.substr(2) == AValue) return;
  __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  const std::string Input(reinterpret_cast<const char*>(AData), ASize);
  FArguments.clear();
  size_t Start = 0;
  while (Start <= Input.size()) {
    size_t End = Input.find('\0', Start);
    if (End == std::string::npos) End = Input.size();
    FArguments.push_back(Input.substr(Start, End - Start));
    Start = End + 1;
  }

  size_t Options = 0;
  for (const std::string& Argument : FArguments) Options += IsOption(Argument) ? 1 : 0;
  FHookCalls = 0;
  DoorOnCLP = CheckUnknownOption;
  const TDoorCommandLine Got = DoorReadCommandLine(FArguments);
  if (FHookCalls > Options) __builtin_trap();

  bool Found = Got.DropFile.empty();
  for (const std::string& Argument : FArguments)
    if (IsOption(Argument) && (Argument[1] == 'D' || Argument[1] == 'd') &&
        Argument.substr(2) == Got.DropFile)
      Found = true;
  if (!Found) __builtin_trap();
  // Only -S can move the socket away from "not given", and only -D, -S and -? end local mode.
  if (Got.Local && (Got.Socket != -99 || !Got.DropFile.empty())) __builtin_trap();
  return 0;
}
