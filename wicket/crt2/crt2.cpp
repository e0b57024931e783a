// The attribute shadow `FTextAttr`: the attribute as the door believes it to be, set together
// with the local console's `TextAttr` and read back by the ANSI builders and the line editor.
#include "crt2.h"

#include "console/console.h"

// `TextAttr` is constant-initialised, so it is already set when this runs.
static uint8_t StartAttr() { return TextAttr > 0 ? TextAttr : 7; }

static uint8_t FTextAttr = StartAttr();

uint8_t GetTextAttr() { return FTextAttr; }

void SetTextAttr(uint8_t AAttr) {
  TextAttr = AAttr;
  FTextAttr = AAttr;
}

void SetTextColour(uint8_t AColour) {
  TextColor(AColour);
  FTextAttr = static_cast<uint8_t>((AColour & 0x8F) | (FTextAttr & 0x70));
}

void SetTextBackground(uint8_t AColour) {
  TextBackground(AColour);
  FTextAttr = static_cast<uint8_t>(((AColour << 4) & 0x70) | (FTextAttr & 0x8F));
}
