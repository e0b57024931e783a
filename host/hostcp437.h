// What a caller whose terminal speaks UTF-8 needs from a door that draws in CP437: the door's
// telnet stream turned into UTF-8 on its way to the caller, as BBSes do for such callers.
// Pure byte work, fed chunk by chunk as the door writes, so that it can be checked and fuzzed
// on its own; the relay in the event loop owns the sockets.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Unicode for CP437 bytes 0x80 to 0xFF, in byte order. scripts/demo reads this very table out
// of hostcp437.cpp for its local mode, so it stays sixteen hex values to a line.
extern const uint16_t CP437_HIGH[128];

// Where the door's telnet stream stands between two chunks: a command or subnegotiation may be
// cut anywhere. Starts as plain text.
struct THostTelnetUtf8 {
  uint8_t State = 0;
};

// Appends to AOut the UTF-8 form of AChunk, the next bytes of a door's telnet stream.
// Text bytes 0x80 to 0xFF become their CP437 glyph in UTF-8; text bytes below 0x80 (ESC
// sequences, CR, LF, BS, BEL, TAB included) pass as they are. A doubled IAC is the text byte
// 0xFF and becomes U+00A0 like any other; telnet commands, their option bytes and whole
// subnegotiations pass untouched, so the door's announcements reach the caller as telnet.
void HostCp437ToUtf8(THostTelnetUtf8& AState, std::string_view AChunk, std::string& AOut);
