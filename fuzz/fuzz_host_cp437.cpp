// A door's output through wicket-host's UTF-8 relay. The input is cut into writes (the first
// byte picks their length, 1..256, as the door's writes could reach the relay); the result
// must not depend on where the cuts fall, and no byte may grow past three UTF-8 bytes.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "hostcp437.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  if (ASize == 0) return 0;
  const size_t WriteLen = 1 + AData[0] % 256;
  const std::string_view Input(reinterpret_cast<const char*>(AData + 1), ASize - 1);

  THostTelnetUtf8 Whole;
  std::string Expected;
  HostCp437ToUtf8(Whole, Input, Expected);

  THostTelnetUtf8 Cut;
  std::string Out;
  for (size_t Start = 0; Start < Input.size(); Start += WriteLen)
    HostCp437ToUtf8(Cut, Input.substr(Start, WriteLen), Out);
  if (Out != Expected || Cut.State != Whole.State || Out.size() > 3 * Input.size()) std::abort();
  return 0;
}
