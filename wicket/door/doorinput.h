// Door input and events: the one way in for the caller's keys, and the runtime's heartbeat.
// Keys come from the socket link or, in stdio mode, from the local console; a remote
// terminal's cursor sequences ESC [ A/B/C/D become the same one-byte codes as the local
// arrow keys. While the application waits for a key, DoorKeyPressed watches the carrier,
// the idle limit and the time limit at most once a second and calls the DoorOn... hooks.
//
// This module owns the pacing of that wait. A waiting door sleeps on the link's descriptor (in
// stdio mode, in the console's wait for a key) until a byte arrives or the next once-a-second
// check falls due, so an idle node costs about one wake-up a second and keys still return at once.
#pragma once

#include <cstdint>

// True when a key can be read now. Runs the once-a-second checks first (they may call the
// hooks, and a default stop hook ends the process). Never blocks.
bool DoorKeyPressed();

// Waits for one key and returns it; DoorLastKey then describes it (Ch, Extended, Location
// lkUser, Time). Arrow keys come as Ch 0x48 up, 0x50 down, 0x4D right, 0x4B left with
// Extended true. A lone ESC from the link is returned as 0x1B once no "[" has followed it
// within about 500 ms. The checks of DoorKeyPressed run throughout the wait.
uint8_t DoorReadKey();

// Whole seconds since DoorLastKey.Time (the last key read, or the start of the run).
int32_t DoorSecondsIdle();
// DoorDropInfo.MaxSeconds less the whole seconds since DoorSession.TimeOn; below 0 once the
// time is overrun.
int32_t DoorSecondsLeft();
// True in stdio mode; on a socket link, false once the link has seen the caller go.
bool DoorCarrier();

// The checks that run while a send waits for a slow caller (the comm link's CommOnWriteWait,
// set by DoorStartup): a hang-up or an end request ends the run as DoorEndForHangup (doorend.h) does, and
// on a socket link the idle and time limits call DoorOnTimeOut and DoorOnTimeUp, at most once
// a second. Warnings are not given from here: they would land in the middle of the text.
void DoorWriteWaitChecks();

// Whole seconds between two door date-times, in either order: the difference in days plus
// half a millisecond, times 86400, truncated. Saturates at the 32-bit maximum, so that a
// never-set time (0, far in the past) reads as "very long ago" rather than wrapping.
int32_t DoorSecondsBetween(double AFirst, double ASecond);

// How many milliseconds a key wait may sleep from now before the next once-a-second check
// is due, 1 to 1000. The wake-up falls on the millisecond the check becomes due, nudged
// past a whole-second step of the time-left and idle counts when one is that close, so that
// every pass reads a fresh second of each: a warning second is never skipped or read twice.
int32_t DoorMillisecondsToNextCheck();

// Decoding of link bytes into keys, one byte at a time, for DoorReadKey and for tools that
// need the same rules on bytes they already hold. The state says how much of an escape
// sequence has been seen.
enum TDoorEscapeState : uint8_t { esNone = 0, esEscape = 1, esBracket = 2 };

struct TDoorKeyStep {
  bool HasKey = false;  // a key came out of this step: Ch and Extended describe it
  uint8_t Ch = 0;
  bool Extended = false;
  bool Consumed = true;  // false: the byte was only looked at and is the start of the next key
};

// Feeds the next link byte. From esNone a byte other than ESC is a key; ESC starts a
// sequence. After ESC, "[" continues it and any other byte gives the key ESC and stays
// unconsumed. After ESC "[", the byte ends the sequence: A/B/C/D give the arrow keys, any
// other byte drops all three.
TDoorKeyStep DoorKeyDecodeByte(TDoorEscapeState& AState, uint8_t AByte);
// No byte came within the wait: after ESC the key is ESC; after ESC "[" both are dropped.
TDoorKeyStep DoorKeyDecodeTimeout(TDoorEscapeState& AState);
