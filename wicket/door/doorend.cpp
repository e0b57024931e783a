// The orderly end for a hang-up or an end request, and the one system-log line of a run that
// ends against the program's will. This module owns whether that line has been written.
#include "doorend.h"

#include <syslog.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "comm/comm.h"
#include "console/console.h"
#include "doorstate.h"

namespace {

bool FEndLogged = false;

// The reason logged for each signal that asks the run to end.
constexpr struct {
  int Signal;
  const char* Reason;
} SIGNAL_REASONS[] = {
    {SIGHUP, "hang-up (SIGHUP)"},
    {SIGTERM, "ended by SIGTERM"},
    {SIGINT, "ended by SIGINT"},
};

std::string EndReason() {
  for (const auto& Entry : SIGNAL_REASONS)
    if (Entry.Signal == ConsoleEndSignal()) return Entry.Reason;
  if (!StdIO && CommOutputStalled()) return "caller stopped reading (output stalled), carrier dropped";
  return "caller hung up";
}

}  // namespace

void DoorAddHangupWatch(std::vector<pollfd>& APoll) {
  ConsoleAddEndWatch(APoll, StdIO);
  if (!StdIO) CommAddHangupWatch(APoll);
}

bool DoorHangupPending() {
  if (ConsoleEndSignal() != 0) return true;
  if (StdIO) return ConsoleInputGone();
  return !CommCarrier() || CommPeerGone();
}

void DoorEndForHangup() {
  DoorLogEnd(EndReason());
  if (DoorOnHangup != nullptr) DoorOnHangup();
}

void DoorLogEnd(const std::string& AReason) {
  if (FEndLogged) return;
  FEndLogged = true;
  const std::string Line = "node " + std::to_string(DoorDropInfo.Node) + ": " + AReason;
  const char* File = std::getenv("WICKET_LOG_FILE");
  if (File != nullptr && *File != '\0') {
    if (std::FILE* Out = std::fopen(File, "a")) {
      std::fprintf(Out, "%s: %s\n", program_invocation_short_name, Line.c_str());
      std::fclose(Out);
    }
    return;
  }
  openlog(program_invocation_short_name, LOG_PID, LOG_USER);
  syslog(LOG_NOTICE, "%s", Line.c_str());
  closelog();
}

// A length in milliseconds from the environment, 0 to 65535; ADefault when it is unset or not
// such a number.
static uint16_t EnvironmentMs(const char* AName, uint16_t ADefault) {
  const char* Value = std::getenv(AName);
  if (Value == nullptr || *Value == '\0') return ADefault;
  char* End = nullptr;
  const long Ms = std::strtol(Value, &End, 10);
  return *End == '\0' && Ms >= 0 && Ms <= 65535 ? static_cast<uint16_t>(Ms) : ADefault;
}

uint16_t DoorStopPauseMs() {
  static const uint16_t Pause = EnvironmentMs("WICKET_STOP_PAUSE_MS", 2500);
  return Pause;
}

uint16_t DoorDrainMs() {
  static const uint16_t Drain = EnvironmentMs("WICKET_DRAIN_MS", 2000);
  return Drain;
}
