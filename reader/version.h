// The reader's version: shown in the About view's title.
#pragma once

#include <string_view>

inline constexpr std::string_view Version = "2025.8.1";
