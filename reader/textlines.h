// Splitting text into lines the way the reader reads every text it is given: the settings
// file, and the feed body (the scanner reads it in place with the same line ends; its fuzz
// target holds it against these lines). CR, LF and CR LF each end one line, LF CR ends two,
// and every other byte (zero and 0x1A included) is an ordinary byte of a line.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// The lines of AText without their line ends. A line end at the very end of the text makes
// no further empty line, empty lines inside the text are kept, and an empty text gives no
// lines at all: "a\r\n\nb" gives "a", "", "b"; "a\n" gives "a"; "\n" gives one empty line.
std::vector<std::string> SplitLines(std::string_view AText);
