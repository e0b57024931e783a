// Drop-file readers: the small text files a BBS leaves to tell a door who the caller is and
// how to reach them. Each reader walks its format's fixed lines and fills DoorDropInfo.
//
// Common contract of the four readers:
// - A file that can't be opened leaves DoorDropInfo untouched.
// - LF, CR and CR LF each end a line; bytes are taken as they are, text fields are not trimmed.
// - A file shorter than its format is fine: missing lines read as empty, so numbers take their
//   defaults and names become empty. Lines after the format's last one are never read.
// - Number lines go through StrToIntDef: the whole line must be the number, so "30 " with a
//   trailing blank gives the default.
// - Minutes are turned into seconds with saturation: a minutes value whose seconds don't fit
//   32 bits gives 2147483647 (or -2147483648), never a wrapped number.
// - Only the first 1 MiB of a file is looked at, so a path to an endless device can't hang
//   start-up. A read error part-way leaves the fields of the unread lines as they were.
// - RealNameOrAlias and AliasOrRealName are not touched; DoorStartup derives them.
#pragma once

#include <string>

#include "dropinfo.h"

// DOOR32.SYS, 11 lines: connection type and handle, baud, record, names, security, minutes
// left, emulation, node.
void ReadDoor32(const std::string& AFileName);
// DOOR.SYS, 52 lines: port "COM<n>:" (n > 0 also sets ComType 1), node, baud, real name,
// security, seconds left, graphics mode "GR", record, alias.
void ReadDoorSys(const std::string& AFileName);
// DORINFO*.DEF, 13 lines: port "COM<n>" (n > 0 also sets ComType 1), "<baud> BAUD,...",
// first and last name, emulation, security, minutes left.
void ReadDorInfo(const std::string& AFileName);
// INFO.*, 14 lines: record, graphics level, FAIRY flag, minutes left, alias, first and last
// name, connection handle, baud, connection kind (LOCAL/TELNET/WC5), CLEAN MODE flag.
void ReadLordInfo(const std::string& AFileName);
