// The attribute shadow: the one text attribute that the door runtime and the ANSI sequence
// builders read (`FTextAttr`), kept beside the local console's `TextAttr`. Its setters change both;
// the console's own HighVideo/LowVideo/NormVideo change only `TextAttr`, so the two can part.
// None of these writes anything or starts the console: the next text written on the console
// brings the terminal up to date.
#pragma once

#include <cstdint>

// The door's current attribute; 7 at start (the console's `TextAttr` if that is above 0).
uint8_t GetTextAttr();
// Both the console's `TextAttr` and the door's attribute become AAttr.
void SetTextAttr(uint8_t AAttr);
// TextColor(AColour) on the console; the door's attribute becomes
// (AColour & 0x8F) | (attribute & 0x70). So 20 sets the console's blink bit, not the door's.
void SetTextColour(uint8_t AColour);
// TextBackground(AColour) on the console; the door's attribute becomes
// ((AColour << 4) & 0x70) | (attribute & 0x8F).
void SetTextBackground(uint8_t AColour);
