// The host's event loop: one process, one poll() loop, no threads. It listens for telnet
// callers, gives each the lowest free node, and runs the door command for it with the caller's
// socket inherited as a plain descriptor, the way a BBS hands a socket to a native door; with
// --utf8 the door gets one end of a socket pair instead and the host relays between it and the
// caller, turning the door's CP437 into UTF-8. The host keeps its own copy of every socket:
// when the door ends, whatever way, the host writes "Back at the host." on it and hangs up,
// which shows that the door gave the link back intact. No caller can make the loop wait.
//
// Process rules that hold for the whole run: every descriptor the host opens is close-on-exec
// except the one socket a door is given; every child is reaped; each door runs in its own
// process group so that a hang-up reaches its helpers too.
#pragma once

#include "hostoptions.h"

// Runs the host as AOptions says until SIGINT, SIGTERM or SIGHUP: then it stops listening,
// sends SIGHUP to every running door, gives them the grace period, kills what is left with
// SIGKILL, writes every caller its line, removes every session folder and returns 0. Returns 1
// at once, after a message on standard error, when it can't listen or --cwd is no folder.
// Session folders are made in $TMPDIR/wicket-host-UID (or /tmp/...); at start the folders
// there of hosts no longer running are removed.
// Logs one line per connect, door start, door end and refused caller on standard error.
// Installs signal handlers and ignores SIGPIPE for the process: call it once, from main.
int HostRun(const THostOptions& AOptions);
