// Fuzz target for the fetch's response reader: status line, headers, bodies by length and
// chunked decoding, fed from memory in pieces whose size the first input byte picks, so that
// every split between reads is reached. A finding is a crash, a sanitizer report, a hang, or an
// exception of another type than the reader's failure texts.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string_view>

#include "fetch.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  if (ASize == 0) return 0;
  // 0 serves everything in one read; otherwise pieces of 1 to 255 bytes.
  TMemorySource Memory{std::string_view(reinterpret_cast<const char*>(AData) + 1, ASize - 1), AData[0]};
  try {
    const std::string Body = ReadHttpResponse(MemorySource(Memory));
    if (Body.size() > Memory.Data.size()) __builtin_trap();  // a body is never more than came in
  } catch (const std::runtime_error&) {
  }
  return 0;
}
