// The orderly end for a hang-up or an end request, the checks a slow write runs, and the one
// system-log line of a run that ends against the program's will. This module owns whether that
// line has been written.
#include "doorend.h"

#include <syslog.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "comm/comm.h"
#include "console/console.h"
#include "doorinput.h"
#include "doorstate.h"

namespace {

bool FEndLogged = false;
double FLastWriteCheck = 0;

std::string EndReason() {
  switch (ConsoleEndSignal()) {
    case SIGHUP:
      return "hang-up (SIGHUP)";
    case SIGTERM:
      return "ended by SIGTERM";
    case SIGINT:
      return "ended by SIGINT";
    default:
      break;
  }
  if (!StdIO && CommOutputStalled()) return "caller stopped reading (output stalled), carrier dropped";
  return "caller hung up";
}

bool PollSaysGone(int AFd, short AEvents, short AGone) {
  pollfd Poll{AFd, AEvents, 0};
  return AFd >= 0 && poll(&Poll, 1, 0) > 0 && (Poll.revents & AGone) != 0;
}

}  // namespace

void DoorAddHangupWatch(std::vector<pollfd>& APoll) {
  if (ConsoleSignalFd() >= 0) APoll.push_back({ConsoleSignalFd(), POLLIN, 0});
  if (StdIO)
    APoll.push_back({STDIN_FILENO, 0, 0});
  else
    APoll.push_back({CommHandle(), POLLRDHUP, 0});
}

bool DoorHangupPending() {
  if (ConsoleEndSignal() != 0) return true;
  if (StdIO) return ConsoleInputEnded() || PollSaysGone(STDIN_FILENO, 0, POLLHUP | POLLERR);
  return !CommCarrier() || PollSaysGone(CommHandle(), POLLRDHUP, POLLRDHUP | POLLHUP | POLLERR);
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

uint16_t DoorStopPauseMs() {
  static const uint16_t Pause = [] {
    const char* Value = std::getenv("WICKET_STOP_PAUSE_MS");
    if (Value == nullptr || *Value == '\0') return uint16_t{2500};
    char* End = nullptr;
    const long Ms = std::strtol(Value, &End, 10);
    return *End == '\0' && Ms >= 0 && Ms <= 65535 ? static_cast<uint16_t>(Ms) : uint16_t{2500};
  }();
  return Pause;
}

void DoorWriteWaitChecks() {
  if (ConsoleEndSignal() != 0 || !DoorCarrier()) {
    DoorEndForHangup();
    return;
  }
  if (!DoorSession.Events || DoorSecondsBetween(DoorNow(), FLastWriteCheck) < 1) return;
  FLastWriteCheck = DoorNow();
  if (DoorSession.DoIdleCheck && DoorSecondsIdle() > DoorSession.MaxIdle && DoorOnTimeOut != nullptr)
    DoorOnTimeOut();
  if (DoorSecondsLeft() < 1 && DoorOnTimeUp != nullptr) DoorOnTimeUp();
}
