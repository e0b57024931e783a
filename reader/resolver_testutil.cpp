// A host name whose lookup the tests control: getaddrinfo of a name that ends in ".stall.test"
// never answers (it sleeps a minute, then fails as a resolver that gave up); every other name
// goes on to the system's getaddrinfo. Linked into each reader test binary it stands in for the
// system's function there; built as a preload library (tests/CMakeLists.txt) it does the same
// for a real tamblin run. Only the lookup is replaced: the fetch's own code around it runs as
// it does for a caller.
#include <dlfcn.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

struct addrinfo;

extern "C" int getaddrinfo(const char* AName, const char* AService, const addrinfo* AHints,
                           addrinfo** AResult) {
  static const char StallSuffix[] = ".stall.test";
  constexpr size_t SuffixLength = sizeof StallSuffix - 1;
  const size_t Length = AName != nullptr ? std::strlen(AName) : 0;
  if (Length >= SuffixLength && std::strcmp(AName + Length - SuffixLength, StallSuffix) == 0) {
    // A signal does not cut it short: a real lookup goes on waiting for its name server.
    for (const time_t End = time(nullptr) + 60; time(nullptr) < End;) sleep(1);
    return -3;  // EAI_AGAIN
  }
  using TGetAddrInfo = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
  static const auto Next = reinterpret_cast<TGetAddrInfo>(dlsym(RTLD_NEXT, "getaddrinfo"));
  return Next(AName, AService, AHints, AResult);
}
