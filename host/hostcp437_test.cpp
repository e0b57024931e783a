// The relay's translation as a UTF-8 caller receives it: CP437 glyphs turned into UTF-8 while
// the door's telnet commands and ANSI sequences arrive exactly as sent, however the door's
// writes happen to be cut into chunks.
#include "hostcp437.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(HostCp437, TextIsTranslatedAndTelnetPassesWhereverTheStreamIsCut) {
  struct TCase {
    std::string Door;
    std::string Caller;
  } Cases[] = {
      // Controls and ANSI sequences are the door's, byte for byte.
      {"\x1b[1;31mA\r\n\b\a\t\x7f", "\x1b[1;31mA\r\n\b\a\t\x7f"},
      // Shades, full block, accented and Greek letters: two and three UTF-8 bytes.
      {"\xb0\xdb\x80\xe1\xfe", "\u2591\u2588\u00c7\u00df\u25a0"},
      // A doubled IAC is the text byte 0xFF, the no-break space of CP437.
      {"a\xff\xff"
       "b",
       "a\u00a0b"},
      // Negotiation passes as telnet: WILL ECHO, DO with the option byte 0xFF, a bare NOP.
      {"\xff\xfb\x01\xdb\xff\xfd\xff\xdb\xff\xf1\xdb", "\xff\xfb\x01\u2588\xff\xfd\xff\u2588\xff\xf1\u2588"},
      // A subnegotiation is untouched to its IAC SE, a doubled IAC inside it included.
      {"\xff\xfa\x18\x01\xb0\xff\xff\xb0\xff\xf0\xb0", "\xff\xfa\x18\x01\xb0\xff\xff\xb0\xff\xf0\u2591"},
  };
  for (const TCase& C : Cases) {
    SCOPED_TRACE(testing::PrintToString(C.Door));
    for (size_t Cut = 0; Cut <= C.Door.size(); ++Cut) {
      THostTelnetUtf8 State;
      std::string Out;
      HostCp437ToUtf8(State, std::string_view(C.Door).substr(0, Cut), Out);
      HostCp437ToUtf8(State, std::string_view(C.Door).substr(Cut), Out);
      EXPECT_EQ(Out, C.Caller) << "cut at " << Cut;
    }
  }
}

}  // namespace
