// The bit rules of the attribute shadow against the console's own attribute. Nothing here starts
// the console: the setters only change the two attribute bytes.
#include "crt2/crt2.h"

#include <gtest/gtest.h>

#include "console/console.h"

namespace {

enum class TSetter { Attr, Colour, Background, HighVideo, LowVideo, NormVideo };

TEST(Crt2, SettersKeepTheirBits) {
  struct TCase {
    const char* Name;
    uint8_t Start;  // both attributes before
    TSetter Setter;
    uint8_t Value;
    uint8_t WantDoor;     // GetTextAttr after
    uint8_t WantConsole;  // TextAttr after
  };
  const TCase Cases[] = {
      {"colour 14 on blue", 0x17, TSetter::Colour, 14, 0x1E, 0x1E},
      {"background 1 under yellow", 0x0E, TSetter::Background, 1, 0x1E, 0x1E},
      {"colour 20: blink on the console only", 0x07, TSetter::Colour, 20, 0x04, 0x84},
      {"colour 0x8C keeps bit 7 for the door", 0x17, TSetter::Colour, 0x8C, 0x9C, 0x9C},
      {"colour keeps the background, drops blink of the door", 0x97, TSetter::Colour, 2, 0x12, 0x12},
      {"background keeps blink and bright", 0x8E, TSetter::Background, 0x0B, 0xBE, 0xBE},
      {"background above 7 wraps into three bits", 0x07, TSetter::Background, 9, 0x17, 0x17},
      {"attr sets both", 0x07, TSetter::Attr, 0xCF, 0xCF, 0xCF},
      {"high video: console only", 0x07, TSetter::HighVideo, 0, 0x07, 0x0F},
      {"high video on a background sets blink", 0x17, TSetter::HighVideo, 0, 0x17, 0x9F},
      {"low video: console only", 0x0F, TSetter::LowVideo, 0, 0x0F, 0x07},
      {"norm video: console only", 0x9E, TSetter::NormVideo, 0, 0x9E, 0x07},
  };
  for (const TCase& Case : Cases) {
    SCOPED_TRACE(Case.Name);
    SetTextAttr(Case.Start);
    switch (Case.Setter) {
      case TSetter::Attr:
        SetTextAttr(Case.Value);
        break;
      case TSetter::Colour:
        SetTextColour(Case.Value);
        break;
      case TSetter::Background:
        SetTextBackground(Case.Value);
        break;
      case TSetter::HighVideo:
        HighVideo();
        break;
      case TSetter::LowVideo:
        LowVideo();
        break;
      case TSetter::NormVideo:
        NormVideo();
        break;
    }
    EXPECT_EQ(GetTextAttr(), Case.WantDoor);
    EXPECT_EQ(TextAttr, Case.WantConsole);
  }
  EXPECT_EQ(ConsoleBuf, nullptr);  // none of this took over the terminal
}

}  // namespace
