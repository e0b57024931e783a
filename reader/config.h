// The reader's settings: the eleven positional lines of the settings file ("tamblin.cfg"
// unless an "@" argument names another) and the program-wide values they set. This module
// owns those values; everybody else only reads them after LoadConfig has run.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Line 1: the feed's URL, trimmed.
extern std::string FeedUrl;
// Line 2: the skin's file name inside "skins", trimmed; empty means a random skin.
extern std::string SkinFile;
// Lines 3 to 7: PC text colours (only the low bits reach the screen; no range is checked).
extern int32_t FeedBgColor;
extern int32_t TitleColor;
extern int32_t DateColor;
extern int32_t BodyTextColor;
extern int32_t CommandColor;
// Line 8: Enter ends the item loop like Q; only "Y" or "y" (blanks around allowed) set it.
extern bool ExitOnEnter;
// Lines 9 and 10: colours of the item counter.
extern int32_t PageColor;
extern int32_t PageBgColor;
// Line 11: the most items the scan takes; 0 or less still takes the first one.
extern int32_t MaxItems;

// Resets every setting to its preset, then reads AFileName and sets each setting whose line
// the file has. A line that is there but holds no valid number gives that setting its
// fallback (7 for lines 9 to 11); a file shorter than a line leaves that setting's preset.
// Throws std::runtime_error with the text `Unable to open file "NAME": REASON`, REASON
// being the system's error text, when the file can't be opened or read; the presets stay.
void LoadConfig(const std::string& AFileName);

// Resets every setting to its preset and applies the settings file whose whole content is
// ABytes. LoadConfig reads the file and hands its bytes to this.
//
// A leading UTF-8 byte-order mark is dropped and the rest taken as it stands. A leading
// UTF-16 mark (FF FE little-endian, FE FF big-endian) makes the rest UTF-16, which is turned
// into UTF-8, the form file names and URLs take on this system: a surrogate pair becomes its
// four-byte sequence, a lone surrogate becomes U+FFFD (EF BF BD), and an odd last byte is
// dropped. Without a mark the bytes are taken as they stand.
void ParseConfigText(std::string_view ABytes);
