// The ANSI interpreter: shows text holding ANSI escape sequences on the local console. Plain bytes
// go through the console's text output; each CSI sequence is carried out with the console's
// operations, inside the current window. Only CSI sequences are known (an ESC followed by anything
// but "[" is dropped), nothing is ever answered, and there is no scrolling region.
//
// The parser state lives between calls: a sequence split over two AnsiWrite calls is completed by
// the second, and text that ends inside a sequence leaves the parser waiting.
//
// Colour codes act on both attributes of the local console (crt2's GetTextAttr and the console's
// TextAttr): SGR 0, 1 and 22 (NormVideo, HighVideo, LowVideo) are followed by
// SetTextAttr(TextAttr), so that the brightness test of SGR 30-37 sees them and "ESC[0;31m"
// after a bright colour gives plain red.
#pragma once

#include <string_view>

// Interprets AText on the local console; one write operation on the console.
void AnsiWrite(std::string_view AText);
// AnsiWrite of AText followed by CR LF.
void AnsiWriteLn(std::string_view AText);
