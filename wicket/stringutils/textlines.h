// Splitting text into lines the way every text from outside is read: the reader's settings
// file and feed body, and the drop files. CR, LF and CR LF each end one line, LF CR ends
// two, and every other byte (zero and 0x1A included) is an ordinary byte of a line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// The lines of AText without their line ends. A line end at the very end of the text makes
// no further empty line, empty lines inside the text are kept, and an empty text gives no
// lines at all: "a\r\n\nb" gives "a", "", "b"; "a\n" gives "a"; "\n" gives one empty line.
// At most AMaxLines lines are made; the rest of the text is not looked at.
std::vector<std::string> SplitLines(std::string_view AText, size_t AMaxLines = SIZE_MAX);
