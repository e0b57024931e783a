// The main flow's decisions: the settings file and the reader's own option from the command
// line, the item loop's keys and moves.
#include "flow.h"

#include "fetch.h"
#include "stringutils/strbasics.h"

std::string ConfigFileFromArgs(int AArgc, const char* const* AArgs) {
  std::string Name = DEFAULT_CONFIG_FILE;
  for (int I = 1; I < AArgc; ++I) {
    if (AArgs[I][0] == '@') Name = AArgs[I] + 1;
  }
  return Name;
}

void ReaderOnCLP(uint8_t AKey, const std::string&) {
  if (AKey == 'V') FetchVerifyPeer = true;
}

TItemCommand ItemCommandForKey(uint8_t AKey, bool AExitOnEnter) {
  if (AExitOnEnter && AKey == '\r') return icQuit;
  switch (UpperCaseAscii(AKey)) {
    case 'A':
      return icAbout;
    case 'N':
      return icNext;
    case 'P':
      return icPrevious;
    case 'Q':
      return icQuit;
    default:
      return icNone;
  }
}

int32_t ItemAfterCommand(TItemCommand ACommand, int32_t ACurrent, int32_t ACount) {
  if (ACommand == icNext && ACurrent < ACount - 1) return ACurrent + 1;
  if (ACommand == icPrevious && ACurrent > 0) return ACurrent - 1;
  return ACurrent;
}
