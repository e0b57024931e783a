// The host's settings and the texts it builds from them: the command line of wicket-host, the
// door command with its placeholders filled in for one session, and the DOOR32.SYS a session's
// door is pointed at. Nothing here touches a socket or a process, so all of it can be checked
// on its own; the event loop (hostloop.h) does the rest.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Everything wicket-host is told on its command line. The defaults are a harmless test caller
// on a loopback port.
struct THostOptions {
  std::string ListenAddress = "127.0.0.1";  // IPv4 only
  int32_t ListenPort = 2323;                // 0: any free port (the log line names it)
  int32_t Nodes = 4;                        // node numbers 1..Nodes
  int32_t SessionLimit = -1;                // seconds per session, 0 for none, -1: from the minutes
  int32_t GraceSeconds = 3;                 // from SIGHUP to SIGKILL, at a limit and at stop
  std::string WorkDir;                      // the door's working directory; empty: the host's
  bool Utf8 = false;  // relay the door's output to the caller in UTF-8 instead of handing down the socket
  // What DOOR32.SYS tells the door about the caller.
  std::string BbsName = "Wicket Host";
  int32_t Baud = 38400;
  int32_t UserRecord = 1;
  std::string RealName = "Test Caller";
  std::string Alias = "Tester";
  int32_t Security = 10;
  int32_t Minutes = -1;              // -1: from SessionLimit (whole minutes, rounded up), else 60
  std::vector<std::string> Command;  // the door and its arguments, placeholders unexpanded
};

enum THostParseResult { hpRun, hpHelp, hpError };

// Reads AArguments (without the program's name). Options come first, as "--name value" or
// "--name=value"; "--" ends them and everything after it is the door command, which must not
// be empty. On hpError AError says what is wrong in one line; AOptions is then unreliable.
THostParseResult HostParseArgs(const std::vector<std::string>& AArguments, THostOptions& AOptions,
                               std::string& AError);

// The usage text for --help and after a command-line error, ending in a line break.
std::string HostUsage();

// The minutes left that DOOR32.SYS announces: Minutes when given, else the session limit in
// whole minutes rounded up, else 60.
int32_t HostMinutesLeft(const THostOptions& AOptions);

// The seconds after which the host hangs a session's door up, 0 for never: SessionLimit when
// given, else the minutes left and then the grace time, so that a door whose caller's time is
// up can say so and end on its own before the host steps in.
int32_t HostSessionSeconds(const THostOptions& AOptions);

// The door command for one session: in every argument, each "{fd}" becomes ASocket, "{node}"
// ANode and "{door32}" ADoor32Path, wherever they stand ("-S{fd}" gives "-S5"). Other text,
// other braces included, is kept as it is.
std::vector<std::string> HostExpandCommand(const std::vector<std::string>& ACommand, int32_t ASocket,
                                           int32_t ANode, const std::string& ADoor32Path);

// The eleven lines of DOOR32.SYS for a caller on ANode whose socket is ASocket: comm type 2
// (telnet), the handle, baud, BBS name, user record, real name, alias, security, minutes left,
// emulation 1 (ANSI), node; each line ended by CR LF.
std::string HostDoor32Text(const THostOptions& AOptions, int32_t ASocket, int32_t ANode);
