// Fuzz target for the feed URL splitter and the request built from it: any configured text must
// give parts or the invalid-port failure, and a request that keeps the framing of its lines.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "fetch.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  const std::string Url(reinterpret_cast<const char*>(AData), ASize);
  try {
    const TUrlParts Parts = SplitUrl(Url);
    const std::string Request = BuildGetRequest(Parts);
    if (!Request.starts_with("GET /") || !Request.ends_with("\r\nConnection: close\r\n\r\n"))
      __builtin_trap();
  } catch (const std::runtime_error&) {
  }
  return 0;
}
