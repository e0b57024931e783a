// Skins and the About view. A skin is an ANSI picture in the folder "skins" below the current
// directory that frames the text box; when the settings name none, one is picked at random.
// The About view is painted into the text box and waits for one key. This module owns the
// random generator behind the pick, which the main flow seeds once per run.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// The About view's two body texts, as the caller reads them.
extern const std::string_view ABOUT_TEXT_1;
extern const std::string_view ABOUT_TEXT_2;

// Seeds the generator behind GetRandomAnsFile; the program passes the clock in whole seconds.
void SeedRandom(uint64_t ASeed);

// True when APath, with every link and ".." resolved, is a regular file inside the folder
// ADir or one of its sub-folders. A setting can then name nothing but a skin: not a file
// elsewhere (passwords, logs), and not a device or a FIFO that would feed or stall the door.
bool IsSkinFileIn(const std::string& ADir, const std::string& APath);

// The path (ADir + "/" + name) of one file in ADir whose name ends in ".ans", byte for byte,
// chosen with equal chances; empty when ADir is missing, unreadable or holds no such file.
// Names that begin with "." and anything IsSkinFileIn(ADir, path) refuses are left out, so a
// pick is always a file the door can send.
std::string GetRandomAnsFile(const std::string& ADir);

// The skin a run paints: "skins/" + AConfigured when the settings name one (the name is always
// taken inside "skins", whatever it holds), else a random one from "skins", else empty.
std::string ChooseSkin(const std::string& AConfigured);

// Shows the skin at APath, as ChooseSkin gives it, through the door's file display, when
// IsSkinFileIn("skins", APath). Any other path reads to the caller exactly as a missing skin
// file does ("Error reading "APath": File not found", "Hit a key to continue", one key).
void DisplaySkin(const std::string& APath);

// Paints the About view into the text box, waits for one key and drops it. Leaves the item
// counter and the command line as they were; the caller repaints the item afterwards.
void About();
