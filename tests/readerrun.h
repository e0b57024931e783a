// Runs of the real tamblin program for the end-to-end tests: the program is started in a
// working folder of the test's choosing, the test plays the caller (keys in, screen bytes out)
// either on standard input and output (stdio mode) or over a socketpair (a socket link, as a
// BBS hands it down), and gets back everything the run wrote and how it ended.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

enum TReaderLink { rlStdio, rlSocket };

struct TReaderRunSetup {
  std::filesystem::path WorkDir;  // the run's current directory
  std::vector<std::string> Args;  // after the link options ("-S-1 -N1" or "-S3 -N1")
  std::string Keys;               // what the caller types, sent at once
  TReaderLink Link = rlStdio;
  int TimeoutMs = 20000;                 // the run is killed after this
  std::string Program = "tamblin";       // which program of the build folder runs
  std::vector<std::string> Environment;  // "NAME=value" each, over the rig's own
};

struct TReaderRunResult {
  std::string Screen;  // what reached the caller: standard output, or the link's payload
  std::string Wire;    // on a link: the bytes as they came over the socket, telnet framing included
  std::string Stdout;  // on a link: standard output (the door must leave it alone)
  std::string Stderr;
  std::string Log;    // the line the run left for the system log, if any (WICKET_LOG_FILE)
  int ExitCode = -1;  // exit status, 128 + signal number, or -1 when the run had to be killed
  double WallMs = 0;
};

// The environment every tamblin run of the tests gets: the test's own, with the door's local
// pauses (2.5 s at each stop) and its wait for a caller who doesn't read the last line turned off, and AExtra
// ("NAME=value" each) in place of any variable of the same name.
std::vector<std::string> TamblinEnvironment(const std::vector<std::string>& AExtra = {});
// The same as the pointer array execve takes; valid while AEnvironment lives.
std::vector<char*> EnvironmentPointers(std::vector<std::string>& AEnvironment);

// Starts BuildDir()/ASetup.Program as the setup says and waits for it to end.
TReaderRunResult RunTamblin(const TReaderRunSetup& ASetup);

// A settings file of eleven lines: the feed URL, the skin and nine numbers or flags as given
// (missing ones are the presets: 7 15 11 14 14 N 15 1 50).
std::string SettingsText(const std::string& AUrl, const std::string& ASkin,
                         const std::vector<std::string>& ARest = {});
