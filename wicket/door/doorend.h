// The end of a run against the program's will: how the door runtime and the program's own long
// waits learn that the caller has gone or the run was told to end, the orderly way out for it,
// the one line every such end leaves in the system log, and the length of the stop pauses.
#pragma once

#include <poll.h>

#include <cstdint>
#include <string>
#include <vector>

// For a program's own long waits (a network fetch): adds to APoll the descriptors that turn
// ready when the run may have to end: the console's signal self-pipe (POLLIN), and the
// caller's link (a socket: POLLRDHUP, so typed keys don't count; stdio: fd 0 with no events,
// so only POLLHUP/POLLERR count). Never read from or close them.
void DoorAddHangupWatch(std::vector<pollfd>& APoll);
// True once the caller is gone (hang-up signal, the socket closed by the peer, the pty or
// input pipe hung up) or the run was told to end (SIGTERM, SIGINT). Never blocks, never
// consumes a key the caller typed.
bool DoorHangupPending();
// Ends the run the orderly way for a pending hang-up: logs it, runs the door's hang-up hook
// (DoorOnHangup; by default the process ends with exit 0 through the exit handlers). Returns
// only if the program emptied that hook.
void DoorEndForHangup();

// Leaves "node N: <AReason>" in the system log (identity: the program's name, facility
// LOG_USER), for a run that ends other than by DoorShutdown. Once per run: a second call is
// ignored. With WICKET_LOG_FILE set in the environment the line (prefixed by the program's
// name and ": ") is appended to that file instead, for tests.
void DoorLogEnd(const std::string& AReason);

// The pause of the stops that end a run with a message (the default hang-up, time-out and
// time-up handlers, the start-up failures): WICKET_STOP_PAUSE_MS from the environment, read once,
// 2500 ms when it is not set. Tests turn it down.
uint16_t DoorStopPauseMs();

// The longest wait at the end of a link run for its last output to reach a caller who reads
// slowly, before the link is let go: WICKET_DRAIN_MS from the environment, read once, 2000 ms
// when it is not set. Tests whose caller never reads turn it down.
uint16_t DoorDrainMs();
