// Text through DoorWrite with pipe and Seth codes on, to a socketpair whose far end a thread
// reads all the time, as a caller's terminal does: a short text of many codes turns into
// thousands of small sends, which would otherwise fill the socket and stall the run. The first
// byte picks the switches (pipe codes, Seth codes, sixel display); the rest is the text.
// Checks what must hold whatever the text:
//  - with no notation active, the caller gets the text itself, 0xFF doubled;
//  - with Seth codes on, no backtick reaches the caller (each one starts a code or is dropped),
//    except for a text that is a lone backtick.
// The timed Seth codes (pauses and the spinner) are turned into unknown codes so that an input
// can't stall the run; the key pause is fed from keys queued on the link.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

#include "comm/comm.h"
#include "crt2/crt2.h"
#include "door/door.h"

namespace {

constexpr size_t MAX_INPUT_BYTES = 4096;  // keeps one run short

int GCaller = -1;
std::mutex GShownLock;  // held around every receive, so that the bytes keep their order
std::string GShown;

void ReceiveWaiting() {
  char Block[65536];
  ssize_t N;
  while ((N = recv(GCaller, Block, sizeof Block, 0)) > 0) GShown.append(Block, static_cast<size_t>(N));
}

void CallerTerminal() {
  for (;;) {
    pollfd Poll{GCaller, POLLIN, 0};
    poll(&Poll, 1, 100);
    std::lock_guard<std::mutex> Lock(GShownLock);
    ReceiveWaiting();
  }
}

void OpenLinkOnce() {
  if (GCaller >= 0) return;
  int Pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, Pair) != 0) abort();
  int Size = 4 << 20;
  setsockopt(Pair[1], SOL_SOCKET, SO_SNDBUF, &Size, sizeof Size);
  setsockopt(Pair[0], SOL_SOCKET, SO_RCVBUF, &Size, sizeof Size);
  GCaller = Pair[0];
  StdIO = false;
  CommOpen(Pair[1]);
  fcntl(GCaller, F_SETFL, fcntl(GCaller, F_GETFL) | O_NONBLOCK);
  std::thread(CallerTerminal).detach();
}

// Everything the caller has received and the target not yet looked at.
std::string Drain() {
  std::lock_guard<std::mutex> Lock(GShownLock);
  ReceiveWaiting();
  std::string Got;
  Got.swap(GShown);
  return Got;
}

std::string Doubled(const std::string& AText) {
  std::string Out;
  for (char C : AText) {
    Out += C;
    if (static_cast<uint8_t>(C) == 0xFF) Out += C;
  }
  return Out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  if (ASize == 0 || ASize > MAX_INPUT_BYTES) return 0;
  OpenLinkOnce();
  Drain();
  const uint8_t Switches = AData[0];
  std::string Text(reinterpret_cast<const char*>(AData + 1), ASize - 1);
  size_t Pauses = 0;
  for (size_t I = 0; I + 1 < Text.size(); ++I) {
    if (Text[I] != '`') continue;
    char& Code = Text[I + 1];
    if (Code == 'l' || Code == 'w' || Code == '|') Code = 'z';
    Pauses += Code == 'k';
  }
  if (Pauses > 0 && send(GCaller, std::string(Pauses, 'x').data(), Pauses, 0) != static_cast<ssize_t>(Pauses))
    abort();

  DoorSession.PipeWrite = (Switches & 1) != 0;
  DoorSession.SethWrite = (Switches & 2) != 0;
  DisplayingSixel = (Switches & 4) != 0;
  SetTextAttr(Switches >> 1);
  DoorWrite(Text);
  DisplayingSixel = false;
  while (CommCharAvail()) CommReadChar();  // keys the pauses did not use

  const std::string Got = Drain();
  const bool Plain = (!DoorSession.PipeWrite && !DoorSession.SethWrite) || (Switches & 4) != 0;
  if (Plain && Got != Doubled(Text)) abort();
  if (DoorSession.SethWrite && (Switches & 4) == 0 && Text != "`" && Got.find('`') != std::string::npos)
    abort();
  return 0;
}
