// The bit rules of the attribute shadow against the console's own attribute. Nothing here starts
// the console: the setters only change the two attribute bytes.
#include "crt2/crt2.h"

#include <gtest/gtest.h>

#include "console/console.h"

namespace {

TEST(Crt2, SettersKeepTheirBits) {
  struct TCase {
    const char* Name;
    uint8_t Start;  // both attributes before
    void (*Setter)(uint8_t);
    uint8_t Value;
    uint8_t WantDoor;     // GetTextAttr after
    uint8_t WantConsole;  // TextAttr after
  };
  const auto High = [](uint8_t) { HighVideo(); };
  const auto Low = [](uint8_t) { LowVideo(); };
  const auto Norm = [](uint8_t) { NormVideo(); };
  const TCase Cases[] = {
      {"colour 20: blink on the console only", 0x07, SetTextColour, 20, 0x04, 0x84},
      {"colour 0x8C keeps bit 7 for the door", 0x17, SetTextColour, 0x8C, 0x9C, 0x9C},
      {"colour keeps the background, drops blink of the door", 0x97, SetTextColour, 2, 0x12, 0x12},
      {"background keeps blink and bright", 0x8E, SetTextBackground, 0x0B, 0xBE, 0xBE},
      {"background above 7 wraps into three bits", 0x07, SetTextBackground, 9, 0x17, 0x17},
      {"attr sets both", 0x07, SetTextAttr, 0xCF, 0xCF, 0xCF},
      {"high video: console only", 0x07, High, 0, 0x07, 0x0F},
      {"high video on a background sets blink", 0x17, High, 0, 0x17, 0x9F},
      {"low video: console only", 0x0F, Low, 0, 0x0F, 0x07},
      {"norm video: console only", 0x9E, Norm, 0, 0x9E, 0x07},
  };
  for (const TCase& Case : Cases) {
    SCOPED_TRACE(Case.Name);
    SetTextAttr(Case.Start);
    Case.Setter(Case.Value);
    EXPECT_EQ(GetTextAttr(), Case.WantDoor);
    EXPECT_EQ(TextAttr, Case.WantConsole);
  }
  EXPECT_EQ(ConsoleBuf, nullptr);  // none of this took over the terminal
}

}  // namespace
