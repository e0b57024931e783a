// wicket-host: runs a Wicket door for telnet callers exactly as a BBS would hand it a caller,
// without a BBS. A test and demo tool for door authors: no users, no menus, nothing kept.
// This file is the program's entry: it reads the command line and hands over to the loop.
#include <cstdio>
#include <string>
#include <vector>

#include "hostloop.h"
#include "hostoptions.h"

int main(int argc, char** argv) {
  const std::vector<std::string> Arguments(argv + 1, argv + argc);
  THostOptions Options;
  std::string Error;
  switch (HostParseArgs(Arguments, Options, Error)) {
    case hpHelp:
      std::fputs(HostUsage().c_str(), stdout);
      return 0;
    case hpError:
      std::fprintf(stderr, "wicket-host: %s\n\n%s", Error.c_str(), HostUsage().c_str());
      return 2;
    case hpRun:
      break;
  }
  return HostRun(Options);
}
