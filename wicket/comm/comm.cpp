// The comm link over an inherited socket descriptor: the telnet announcements at open, a
// polled 1024-byte receive with line-end normalising, unbuffered sends with 0xFF doubling,
// and the carrier flag. This module owns the receive buffer and the descriptor number; it
// never opens or accepts a connection of its own.
#include "comm.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>

#include "console/console.h"

namespace {

// One receive takes at most this many bytes, so the buffer never holds more.
constexpr size_t RECEIVE_BLOCK_SIZE = 1024;

// Received, normalised bytes not yet delivered: FBuffer[FBufferPos..]. Reading by position
// keeps delivering a block linear instead of shifting the string for every byte.
std::string FBuffer;
size_t FBufferPos = 0;
bool FCarrier = true;
int32_t FCommNumber = -1;
// Set when a send gave up on a caller who took nothing for the stall bound: later sends are
// dropped at once instead of waiting out the bound again.
bool FSendLost = false;
// True while CommOnWriteWait runs: what it sends doesn't wait for room or call it again.
bool FInWaitHook = false;
// When the caller last took bytes, or the send began.
std::chrono::steady_clock::time_point FLastProgress;

bool BufferEmpty() { return FBufferPos >= FBuffer.size(); }

// Replaces every non-overlapping ALead AFollow pair, left to right, by ALead alone.
void DropFollowerInPlace(std::string& AText, char ALead, char AFollow) {
  size_t Out = 0;
  size_t I = 0;
  while (I < AText.size()) {
    const char C = AText[I];
    AText[Out++] = C;
    I += (C == ALead && I + 1 < AText.size() && AText[I + 1] == AFollow) ? 2 : 1;
  }
  AText.resize(Out);
}

void SleepMilliseconds(int AMs) { Delay(static_cast<uint16_t>(std::clamp(AMs, 0, 65535))); }

// One poll of the descriptor for input, waiting up to ATimeoutMs (negative: no limit).
// poll() rather than select(): the number comes from outside and may exceed what a descriptor
// set can hold. A number that is not open counts as nothing to read, like a failed wait. poll
// ignores a negative number and waits out the time, but reports any other at once (POLLNVAL);
// that wait is slept out here, or a key-wait loop around it would spin. A pending error or
// hang-up counts as readable so that the receive can report it.
bool WaitReadable(int ATimeoutMs) {
  // An end request wakes a wait, so that the key wait looks at it at once.
  const int SignalFd = ATimeoutMs != 0 && ConsoleEndSignal() == 0 ? ConsoleSignalFd() : -1;
  pollfd Polls[2] = {{FCommNumber, POLLIN, 0}, {SignalFd, POLLIN, 0}};
  const pollfd& Poll = Polls[0];
  if (poll(Polls, 2, ATimeoutMs) <= 0 || Poll.revents == 0) return false;
  if ((Poll.revents & POLLNVAL) != 0) {
    if (ATimeoutMs > 0) SleepMilliseconds(ATimeoutMs);
    return false;
  }
  return (Poll.revents & (POLLIN | POLLHUP | POLLERR)) != 0;
}

// Takes one block from the socket into the (empty) buffer. Called only when the buffer is
// empty; it replaces it. A failed or empty receive is the one sign that the caller has gone.
void ReceiveData() {
  if (!WaitReadable(0)) return;
  char ReadArray[RECEIVE_BLOCK_SIZE];
  const ssize_t NumRead = recv(FCommNumber, ReadArray, sizeof ReadArray, 0);
  if (NumRead <= 0) {
    FCarrier = false;
    return;
  }
  FBuffer = CommNormaliseLineEnds(std::string_view(ReadArray, static_cast<size_t>(NumRead)));
  FBufferPos = 0;
}

void RunWaitHook() {
  if (CommOnWriteWait == nullptr || FInWaitHook) return;
  FInWaitHook = true;
  CommOnWriteWait();
  FInWaitHook = false;
}

// Sends the whole block, in order, however slowly the caller takes it. Each send is
// non-blocking, and the wait for room is a poll that an end request also wakes, so the door's
// checks (CommOnWriteWait) keep running while the caller is slow. A caller who takes nothing
// for the stall bound counts as gone: the carrier drops and the rest is lost. Once an end was
// requested, a full socket is not waited for. A failed send is ignored (the read side finds the
// loss). MSG_NOSIGNAL: a caller who hung up must not kill the door with SIGPIPE.
void SendAll(const void* AData, size_t ALength) {
  using TClock = std::chrono::steady_clock;
  if (ALength == 0 || FSendLost) return;
  const char* Data = static_cast<const char*>(AData);
  FLastProgress = TClock::now();
  size_t Done = 0;
  while (Done < ALength) {
    const ssize_t Sent = send(FCommNumber, Data + Done, ALength - Done, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (Sent > 0) {
      Done += static_cast<size_t>(Sent);
      FLastProgress = TClock::now();
      continue;
    }
    if (Sent < 0 && errno == EINTR) continue;
    // Sends of the wait hook are the words of a run that is ending: they don't wait either.
    if (Sent == 0 || (errno != EAGAIN && errno != EWOULDBLOCK) || ConsoleEndSignal() != 0 || FInWaitHook)
      return;
    const auto Waited = std::chrono::duration_cast<std::chrono::milliseconds>(TClock::now() - FLastProgress);
    const int64_t Left = ConsoleWriteStallMs() - static_cast<int64_t>(Waited.count());
    if (Left <= 0) {
      FCarrier = false;
      FSendLost = true;
      RunWaitHook();
      return;
    }
    ConsoleWaitWritable(FCommNumber, static_cast<int>(std::min<int64_t>(Left, 1000)));
    RunWaitHook();
  }
}

void WaitForByte() {
  while (BufferEmpty()) {
    SleepMilliseconds(1);
    ReceiveData();
  }
}

}  // namespace

std::string CommNormaliseLineEnds(std::string_view ABlock) {
  std::string Result(ABlock);
  DropFollowerInPlace(Result, '\r', '\n');
  DropFollowerInPlace(Result, '\r', '\0');
  for (char& C : Result)
    if (C == '\n') C = '\r';
  return Result;
}

void CommOpen(int32_t ACommNumber) {
  FCommNumber = ACommNumber;
  // However the BBS left the descriptor, sends must block until the system takes the data,
  // or a slow caller would lose output. A failure here is ignored; the open goes on.
  const int Flags = fcntl(FCommNumber, F_GETFL);
  if (Flags != -1) fcntl(FCommNumber, F_SETFL, Flags & ~O_NONBLOCK);
  CommWriteRaw(std::string_view("\xFF\xFB\x00", 3));
  CommWriteRaw(std::string_view("\xFF\xFB\x01", 3));
}

void CommClose(bool ADisconnect) {
  if (ADisconnect) shutdown(FCommNumber, SHUT_RDWR);
  close(FCommNumber);
}

bool CommCarrier() { return FCarrier; }

bool CommCharAvail() {
  if (BufferEmpty()) ReceiveData();
  return !BufferEmpty();
}

uint8_t CommPeekChar() {
  WaitForByte();
  return static_cast<uint8_t>(FBuffer[FBufferPos]);
}

uint8_t CommReadChar() {
  WaitForByte();
  return static_cast<uint8_t>(FBuffer[FBufferPos++]);
}

void CommWrite(std::string_view AText) {
  std::string Doubled;
  Doubled.reserve(AText.size() + 8);
  for (char C : AText) {
    Doubled += C;
    if (static_cast<uint8_t>(C) == 0xFF) Doubled += C;
  }
  SendAll(Doubled.data(), Doubled.size());
}

void CommWriteRaw(std::string_view AText) { SendAll(AText.data(), AText.size()); }

void CommWriteBlock(const void* Block, int32_t BlockLen) {
  if (BlockLen > 0) SendAll(Block, static_cast<size_t>(BlockLen));
}

void CommFlushOutBuffer() {}
void CommPurgeOutBuffer() {}
void CommSetBaud(int32_t ABaud) { (void)ABaud; }

int32_t CommHandle() { return FCommNumber; }

void (*CommOnWriteWait)() = nullptr;

bool CommOutputStalled() { return FSendLost; }

// The caller is known to be gone: the read side found the peer closed, the peer has shut the
// connection, or the BBS hung the caller up. A caller whose carrier was dropped only for a
// stalled send may merely be slow.
static bool CallerKnownGone() {
  return (!FCarrier && !FSendLost) || ConsoleEndSignal() == SIGHUP || CommPeerGone();
}

bool CommPeerGone() {
  pollfd Poll{FCommNumber, POLLRDHUP, 0};
  // A descriptor that is not open (POLLNVAL) says nothing of the peer; its reads and the
  // drain's queue query fail by themselves.
  return poll(&Poll, 1, 0) > 0 && (Poll.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

void CommAddHangupWatch(std::vector<pollfd>& APoll) { APoll.push_back({FCommNumber, POLLRDHUP, 0}); }

void CommDrainOutput(int32_t ATimeoutMs) {
  ConsoleWaitOutputQueueEmpty(FCommNumber, SIOCOUTQ, ATimeoutMs, CallerKnownGone);
}

bool CommWaitForData(int32_t ATimeoutMs) {
  if (!BufferEmpty()) return true;
  if (!WaitReadable(ATimeoutMs < 0 ? -1 : ATimeoutMs)) return false;
  ReceiveData();
  return !BufferEmpty();
}
