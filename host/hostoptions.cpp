// wicket-host's command line, the door command's placeholders and the DOOR32.SYS text. Pure
// text work: the options are read into a THostOptions that the event loop then only reads.
#include "hostoptions.h"

#include <arpa/inet.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <utility>

#include "stringutils/strbasics.h"

namespace {

// One option that takes a number: its name, where the value goes and the range it must be in.
struct TNumberOption {
  const char* Name;
  int32_t THostOptions::*Field;
  int32_t Min;
  int32_t Max;
};

const TNumberOption NUMBER_OPTIONS[] = {
    {"--nodes", &THostOptions::Nodes, 1, 255},
    {"--session-limit", &THostOptions::SessionLimit, 0, 86400 * 7},
    {"--grace", &THostOptions::GraceSeconds, 0, 3600},
    {"--baud", &THostOptions::Baud, 0, INT32_MAX},
    {"--user-record", &THostOptions::UserRecord, 1, INT32_MAX},
    {"--security", &THostOptions::Security, 0, INT32_MAX},
    {"--minutes", &THostOptions::Minutes, 0, 35791394},  // still fits in seconds
};

struct TTextOption {
  const char* Name;
  std::string THostOptions::*Field;
  bool DropFileLine;  // lands on a line of DOOR32.SYS, so it may not hold a line end
};

const TTextOption TEXT_OPTIONS[] = {
    {"--cwd", &THostOptions::WorkDir, false},
    {"--bbs-name", &THostOptions::BbsName, true},
    {"--real-name", &THostOptions::RealName, true},
    {"--alias", &THostOptions::Alias, true},
};

// "ADDR:PORT", ":PORT" or "PORT"; the address must be a dotted IPv4 address.
bool ParseListen(const std::string& AValue, THostOptions& AOptions, std::string& AError) {
  std::string Address = AOptions.ListenAddress;
  std::string Port = AValue;
  const size_t Colon = AValue.rfind(':');
  if (Colon != std::string::npos) {
    Address = AValue.substr(0, Colon);
    Port = AValue.substr(Colon + 1);
    if (Address.empty()) Address = "127.0.0.1";
  }
  in_addr Parsed{};
  if (inet_pton(AF_INET, Address.c_str(), &Parsed) != 1) {
    AError = "--listen: \"" + Address + "\" is not an IPv4 address";
    return false;
  }
  const int32_t Number = StrToIntDef(Port, -1);
  if (Port.empty() || Port.find_first_not_of("0123456789") != std::string::npos || Number < 0 ||
      Number > 65535) {
    AError = "--listen: \"" + Port + "\" is not a port number (0 to 65535)";
    return false;
  }
  AOptions.ListenAddress = Address;
  AOptions.ListenPort = Number;
  return true;
}

bool SetNumber(const TNumberOption& AOption, const std::string& AValue, THostOptions& AOptions,
               std::string& AError) {
  // Decimal only: a sysop typing "010" means ten, and StrToIntDef would read "$10" as sixteen.
  const int32_t Number = StrToIntDef(AValue, INT32_MIN);
  if (AValue.empty() || AValue.find_first_not_of("0123456789") != std::string::npos || Number == INT32_MIN ||
      Number < AOption.Min || Number > AOption.Max) {
    AError = std::string(AOption.Name) + ": \"" + AValue + "\" is not a number from " +
             std::to_string(AOption.Min) + " to " + std::to_string(AOption.Max);
    return false;
  }
  AOptions.*AOption.Field = Number;
  return true;
}

}  // namespace

THostParseResult HostParseArgs(const std::vector<std::string>& AArguments, THostOptions& AOptions,
                               std::string& AError) {
  size_t I = 0;
  for (; I < AArguments.size(); ++I) {
    const std::string& Arg = AArguments[I];
    if (Arg == "--") {
      ++I;
      break;
    }
    if (Arg == "--help" || Arg == "-h") return hpHelp;
    if (Arg == "--utf8") {
      AOptions.Utf8 = true;
      continue;
    }
    if (Arg.rfind("--", 0) != 0) {
      AError = "\"" + Arg + "\": the door command goes after \"--\"";
      return hpError;
    }
    std::string Name = Arg;
    std::string Value;
    const size_t Equals = Arg.find('=');
    if (Equals != std::string::npos) {
      Name = Arg.substr(0, Equals);
      Value = Arg.substr(Equals + 1);
    } else {
      if (I + 1 >= AArguments.size()) {
        AError = Name + " needs a value";
        return hpError;
      }
      Value = AArguments[++I];
    }

    bool Known = false;
    bool Ok = true;
    if (Name == "--listen") {
      Known = true;
      Ok = ParseListen(Value, AOptions, AError);
    }
    for (const TNumberOption& Option : NUMBER_OPTIONS) {
      if (Name != Option.Name) continue;
      Known = true;
      Ok = SetNumber(Option, Value, AOptions, AError);
    }
    for (const TTextOption& Option : TEXT_OPTIONS) {
      if (Name != Option.Name) continue;
      Known = true;
      if (Option.DropFileLine && Value.find_first_of("\r\n") != std::string::npos) {
        AError = Name + ": a line break can't stand on a line of DOOR32.SYS";
        Ok = false;
      } else {
        AOptions.*Option.Field = Value;
      }
    }
    if (!Known) {
      AError = "unknown option \"" + Name + "\"";
      return hpError;
    }
    if (!Ok) return hpError;
  }
  AOptions.Command.assign(AArguments.begin() + static_cast<std::ptrdiff_t>(I), AArguments.end());
  if (AOptions.Command.empty() || AOptions.Command[0].empty()) {
    AError = "no door command: give it after \"--\"";
    return hpError;
  }
  return hpRun;
}

std::string HostUsage() {
  return "Usage: wicket-host [options] -- DOOR [ARGUMENTS...]\n"
         "Runs a door for every telnet caller, as a BBS would, without a BBS.\n"
         "\n"
         "Each caller gets the lowest free node and a run of DOOR, which inherits the caller's\n"
         "socket as a plain descriptor (with --utf8, a socket of the host's that it relays).\n"
         "In DOOR and its arguments these are replaced:\n"
         "  {fd}      the socket's descriptor number        e.g. -S{fd}\n"
         "  {node}    the node number, 1 and up             e.g. -N{node}\n"
         "  {door32}  the path of a DOOR32.SYS written for this session (comm type 2)\n"
         "The door's standard input and output are /dev/null, its standard error is the host's.\n"
         "When the door ends, the host writes \"Back at the host.\" and hangs up.\n"
         "\n"
         "Options:\n"
         "  --listen ADDR:PORT    where to listen (127.0.0.1:2323; port 0: any free port)\n"
         "  --nodes N             callers at once, 1 to 255 (4); more are told all are busy\n"
         "  --session-limit SECS  hang the door up after SECS seconds (0: no limit); not given:\n"
         "                        after the minutes left and the grace time, so that a door\n"
         "                        first ends on its own when the caller's time is up\n"
         "  --grace SECS          from SIGHUP to SIGKILL, at a limit and at stop (3)\n"
         "  --utf8                for callers whose terminal is UTF-8: the door's CP437 text\n"
         "                        reaches them as UTF-8, its telnet commands untouched\n"
         "  --cwd DIR             the door's working directory (the host's own); a DOOR given\n"
         "                        as a relative path is still found from the host's own\n"
         "DOOR32.SYS contents:\n"
         "  --bbs-name TEXT       (Wicket Host)      --baud N          (38400)\n"
         "  --real-name TEXT      (Test Caller)      --alias TEXT      (Tester)\n"
         "  --user-record N       (1)                --security N      (10)\n"
         "  --minutes N           minutes left (the session limit rounded up, or 60)\n"
         "  --help                this text\n"
         "\n"
         "Example: wicket-host --listen 127.0.0.1:2323 --cwd run -- ./tamblin -S{fd} -N{node} @tamblin.cfg\n"
         "then: telnet 127.0.0.1 2323. SIGINT or SIGTERM hangs up every door and stops the host.\n";
}

int32_t HostMinutesLeft(const THostOptions& AOptions) {
  if (AOptions.Minutes >= 0) return AOptions.Minutes;
  if (AOptions.SessionLimit > 0) return (AOptions.SessionLimit + 59) / 60;
  return 60;
}

int32_t HostSessionSeconds(const THostOptions& AOptions) {
  if (AOptions.SessionLimit >= 0) return AOptions.SessionLimit;
  const int64_t Seconds = int64_t{HostMinutesLeft(AOptions)} * 60 + AOptions.GraceSeconds;
  return static_cast<int32_t>(std::min<int64_t>(Seconds, INT32_MAX));
}

std::vector<std::string> HostExpandCommand(const std::vector<std::string>& ACommand, int32_t ASocket,
                                           int32_t ANode, const std::string& ADoor32Path) {
  const std::pair<std::string, std::string> Placeholders[] = {
      {"{fd}", std::to_string(ASocket)},
      {"{node}", std::to_string(ANode)},
      {"{door32}", ADoor32Path},
  };
  std::vector<std::string> Result;
  Result.reserve(ACommand.size());
  for (const std::string& Arg : ACommand) {
    // One pass from left to right, so that a replacement (a path holding "{node}") is never
    // read again as a placeholder.
    std::string Expanded;
    size_t At = 0;
    while (At < Arg.size()) {
      bool Replaced = false;
      for (const auto& [Name, Value] : Placeholders) {
        if (Arg.compare(At, Name.size(), Name) != 0) continue;
        Expanded += Value;
        At += Name.size();
        Replaced = true;
        break;
      }
      if (!Replaced) Expanded += Arg[At++];
    }
    Result.push_back(std::move(Expanded));
  }
  return Result;
}

std::string HostDoor32Text(const THostOptions& AOptions, int32_t ASocket, int32_t ANode) {
  const std::string Lines[] = {
      "2",  // telnet
      std::to_string(ASocket),
      std::to_string(AOptions.Baud),
      AOptions.BbsName,
      std::to_string(AOptions.UserRecord),
      AOptions.RealName,
      AOptions.Alias,
      std::to_string(AOptions.Security),
      std::to_string(HostMinutesLeft(AOptions)),
      "1",  // ANSI
      std::to_string(ANode),
  };
  std::string Text;
  for (const std::string& Line : Lines) Text += Line + "\r\n";
  return Text;
}
