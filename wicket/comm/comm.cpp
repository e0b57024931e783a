// The comm link over an inherited socket descriptor: the telnet announcements at open, a
// polled 1024-byte receive with line-end normalising, unbuffered sends with 0xFF doubling,
// and the carrier flag. This module owns the receive buffer and the descriptor number; it
// never opens or accepts a connection of its own.
#include "comm.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <ctime>

namespace {

// One receive takes at most this many bytes, so the buffer never holds more.
constexpr size_t RECEIVE_BLOCK_SIZE = 1024;

// Received, normalised bytes not yet delivered: FBuffer[FBufferPos..]. Reading by position
// keeps delivering a block linear instead of shifting the string for every byte.
std::string FBuffer;
size_t FBufferPos = 0;
bool FCarrier = true;
int32_t FCommNumber = -1;

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

void SleepMilliseconds(int AMs) {
  const timespec Pause{AMs / 1000, (AMs % 1000) * 1000000L};
  nanosleep(&Pause, nullptr);
}

// One poll of the descriptor for input, waiting up to ATimeoutMs (negative: no limit).
// poll() rather than select(): the number comes from outside and may exceed what a descriptor
// set can hold. A number that is not open counts as nothing to read, like a failed wait. poll
// ignores a negative number and waits out the time, but reports any other at once (POLLNVAL);
// that wait is slept out here, or a key-wait loop around it would spin. A pending error or
// hang-up counts as readable so that the receive can report it.
bool WaitReadable(int ATimeoutMs) {
  pollfd Poll{};
  Poll.fd = FCommNumber;
  Poll.events = POLLIN;
  if (poll(&Poll, 1, ATimeoutMs) <= 0) return false;
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

// One send of the whole block, result ignored: a short or failed send never changes the
// carrier. MSG_NOSIGNAL: a caller who hung up must not kill the door with SIGPIPE; the loss
// is found by the next receive instead.
void SendOnce(const void* AData, size_t ALength) {
  if (ALength > 0) (void)send(FCommNumber, AData, ALength, MSG_NOSIGNAL);
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
  SendOnce(Doubled.data(), Doubled.size());
}

void CommWriteRaw(std::string_view AText) { SendOnce(AText.data(), AText.size()); }

void CommWriteBlock(const void* Block, int32_t BlockLen) {
  if (BlockLen > 0) SendOnce(Block, static_cast<size_t>(BlockLen));
}

void CommFlushOutBuffer() {}
void CommPurgeOutBuffer() {}
void CommSetBaud(int32_t ABaud) { (void)ABaud; }

int32_t CommHandle() { return FCommNumber; }

bool CommWaitForData(int32_t ATimeoutMs) {
  if (!BufferEmpty()) return true;
  if (!WaitReadable(ATimeoutMs < 0 ? -1 : ATimeoutMs)) return false;
  ReceiveData();
  return !BufferEmpty();
}
