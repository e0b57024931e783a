// Caller bytes through the door's real key path: the bytes go down a socketpair, the link
// takes them in and normalises line ends, and DoorReadKey decodes escape sequences into keys.
// Every key must match what the key decoder makes of the same bytes, normalised per receive
// block, and nothing may be left over. Two "Z" bytes close each input so that no read has to
// wait out an unfinished sequence.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "comm/comm.h"
#include "door/door.h"

namespace {

constexpr size_t MAX_INPUT_BYTES = 65536;  // well within the socket's buffer
constexpr size_t RECEIVE_BLOCK = 1024;

int GCaller = -1;

void OpenLinkOnce() {
  if (GCaller >= 0) return;
  int Pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, Pair) != 0) abort();
  int Size = 1 << 20;
  setsockopt(Pair[0], SOL_SOCKET, SO_SNDBUF, &Size, sizeof Size);
  setsockopt(Pair[1], SOL_SOCKET, SO_RCVBUF, &Size, sizeof Size);
  GCaller = Pair[0];
  StdIO = false;
  CommOpen(Pair[1]);
  char Opening[6];
  if (recv(GCaller, Opening, sizeof Opening, MSG_WAITALL) != 6) abort();
}

struct TKey {
  uint8_t Ch;
  bool Extended;
};

std::vector<TKey> Expected(const std::string& AWire) {
  std::string Delivered;
  for (size_t Start = 0; Start < AWire.size(); Start += RECEIVE_BLOCK)
    Delivered += CommNormaliseLineEnds(std::string_view(AWire).substr(Start, RECEIVE_BLOCK));
  std::vector<TKey> Keys;
  TDoorEscapeState State = esNone;
  size_t I = 0;
  while (I < Delivered.size()) {
    const TDoorKeyStep Step = DoorKeyDecodeByte(State, static_cast<uint8_t>(Delivered[I]));
    if (Step.Consumed) ++I;
    if (Step.HasKey) Keys.push_back({Step.Ch, Step.Extended});
  }
  if (State != esNone) abort();  // the closing bytes always finish a sequence
  return Keys;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  if (ASize > MAX_INPUT_BYTES) return 0;
  OpenLinkOnce();
  const std::string Wire = std::string(reinterpret_cast<const char*>(AData), ASize) + "ZZ";
  const std::vector<TKey> Keys = Expected(Wire);
  if (send(GCaller, Wire.data(), Wire.size(), 0) != static_cast<ssize_t>(Wire.size())) abort();
  for (const TKey& Want : Keys) {
    const uint8_t Got = DoorReadKey();
    if (Got != Want.Ch || DoorLastKey.Ch != Want.Ch || DoorLastKey.Extended != Want.Extended) abort();
    if (DoorLastKey.Location != lkUser) abort();
  }
  if (Keys.empty() || Keys.back().Ch != 'Z' || Keys.back().Extended) abort();
  if (CommCharAvail()) abort();  // every byte was used
  return 0;
}
