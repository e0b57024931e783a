// Byte-exact search used by the reader's text passes (line splitting, the item scanner and
// every step of the text cleaner), which between them search each byte of a feed many
// times; it has to be much faster than a plain loop and must not slow down on any input.
#pragma once

#include <cstddef>
#include <string_view>

// The first position at or after AFrom where ANeedle stands in AText, or
// std::string_view::npos. An empty needle is found at AFrom (if AFrom is inside the text).
// Time is linear in the searched span times at most the needle's length.
size_t FindBytes(std::string_view AText, std::string_view ANeedle, size_t AFrom = 0);

// The first position at or after AFrom of AByte, or std::string_view::npos.
size_t FindByte(std::string_view AText, char AByte, size_t AFrom = 0);
