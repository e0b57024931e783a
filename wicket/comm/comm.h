// The comm link: the door's one path to a remote caller, over a connected stream socket that
// the BBS hands down as a descriptor number. It owns that descriptor's use by this process,
// the receive buffer, and the carrier flag. Outbound text goes out unbuffered with 0xFF doubled;
// inbound bytes are received in blocks of up to 1024 and have their line ends normalised to a
// single CR. Telnet is spoken only as far as two announcements at open: nothing inbound is
// interpreted as a telnet command.
//
// Failures are never reported by result: the only trace a failure leaves is CommCarrier()
// turning false, when a receive fails or finds the peer closed, or when the caller has taken
// no output for the stall bound (ConsoleWriteStallMs()). All operations run on the door's
// single thread.
#pragma once

#include <poll.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Takes over ACommNumber (an open, connected stream socket inherited from the BBS): makes it
// blocking, keeping its other status flags (sends don't block: each passes MSG_DONTWAIT), then announces
// telnet IAC WILL TRANSMIT-BINARY (FF FB 00) and IAC WILL ECHO (FF FB 01) as two separate sends. Call once,
// before any other operation. Never fails: a bad descriptor shows only later, as lost carrier on input.
void CommOpen(int32_t ACommNumber);

// Gives up this process's hold on the descriptor (close). With ADisconnect true the connection
// itself is first shut down in both directions, which also ends it for every other holder; the
// door passes false so that the BBS's own copy stays usable. Safe to call twice. The carrier
// flag and the stored number keep their values.
void CommClose(bool ADisconnect);

// False once a receive has found the peer gone or failed; never true again after that.
// Does no I/O, so a door that only writes still sees true after the caller has left.
bool CommCarrier();

// True when a byte can be delivered at once. Looks at the socket (one zero-time poll and at
// most one receive) only when no received byte is waiting. Never blocks.
bool CommCharAvail();

// The next received byte, left in place / removed. Both wait without limit (sleeping 1 ms
// between polls) and never look at the carrier: call them only after CommCharAvail() has
// returned true, and they return at once.
uint8_t CommPeekChar();
uint8_t CommReadChar();

// How every send goes: all bytes, in order, however slowly the caller takes them; the wait for
// room is a poll that an end request of the console (ConsoleSignalFd) also wakes, and that
// runs CommOnWriteWait about once a second. A caller who takes nothing for ConsoleWriteStallMs()
// counts as gone: CommCarrier() turns false, the rest of the text is dropped and so is every
// later send. After an end request a full socket is not waited for (the rest is dropped).
// A failed send is ignored; a peer that has gone raises no broken-pipe signal.

// Sends AText with every 0xFF doubled to FF FF so that the telnet peer reads it as a data byte.
// Nothing else is translated: LF stays LF. An empty text sends nothing.
void CommWrite(std::string_view AText);
// Sends AText exactly as given (for telnet commands, whose IAC must stay single).
void CommWriteRaw(std::string_view AText);
// Sends BlockLen bytes from Block as they are; nothing when BlockLen <= 0.
void CommWriteBlock(const void* Block, int32_t BlockLen);

// Run while a send waits for the caller to take more (about once a second, at once after an
// end request, and once more when the stall bound is reached): the door runtime's checks,
// which may end the process. Sends made from inside it (the words of a run that is ending, on
// their way out of the process too) don't wait for room: what doesn't fit is dropped. nullptr:
// nothing.
extern void (*CommOnWriteWait)();
// True once a send has given up on a caller who took nothing for the stall bound.
bool CommOutputStalled();
// Waits, at most ATimeoutMs, until the system has sent everything queued on the socket (its
// send queue is empty), so that the last words of a run reach the caller before the process
// ends and the BBS takes the line back. Returns at once when the caller is known to be gone:
// a receive found the peer closed, the peer has shut the connection, or SIGHUP came.
void CommDrainOutput(int32_t ATimeoutMs);

// Writes are unbuffered and there is no line speed; these three do nothing.
void CommFlushOutBuffer();
void CommPurgeOutBuffer();
void CommSetBaud(int32_t ABaud);

// --- For a door runtime that wants to sleep instead of spinning -------------------------

// The descriptor given to CommOpen, or -1 before it. For callers that build their own poll
// set; read it only, never close it or change its flags.
int32_t CommHandle();

// Waits up to ATimeoutMs milliseconds (0: no wait; negative: no limit) for input, in one
// poll() on the descriptor. Returns at once with true when a received byte is already waiting.
// When the socket turns readable, takes one block in as CommCharAvail would and returns
// whether a byte is now deliverable. Returns false on time-out, early on an interrupting
// signal, and when the receive found the peer gone (CommCarrier() is then false). A descriptor
// that is not open never turns readable: the wait lasts the whole time-out (a negative one
// returns false at once). A closed peer keeps the socket readable, so once the carrier is
// lost this returns false at once: a key-wait loop must test CommCarrier() to avoid spinning.
bool CommWaitForData(int32_t ATimeoutMs);

// True when the peer has shut its side of the connection or the socket has failed, without
// receiving: typed keys waiting to be read don't count. Never blocks.
bool CommPeerGone();
// For a program's own long waits: adds to APoll the socket with POLLRDHUP, so that it turns
// ready when the peer shuts the connection, never for typed keys. Never read from or close it.
void CommAddHangupWatch(std::vector<pollfd>& APoll);

// The inbound line-end rule, applied to one received block on its own: three whole-block
// passes, each replacing every non-overlapping match from left to right, in this order:
// CR LF -> CR, then CR NUL -> CR, then LF -> CR. No memory is kept between blocks, so a
// CR at the end of one block and an LF at the start of the next arrive as CR CR.
std::string CommNormaliseLineEnds(std::string_view ABlock);
