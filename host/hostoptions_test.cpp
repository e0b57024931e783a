// wicket-host's command line, placeholders and DOOR32.SYS: what a sysop types and what a door
// reads back through the library's own drop-file reader.
#include "hostoptions.h"

#include <gtest/gtest.h>

#include <climits>
#include <filesystem>
#include <fstream>

#include "door/doorstate.h"
#include "dropfiles/dropfiles.h"
#include "testsupport.h"

namespace {

std::vector<std::string> Words(const std::string& AText) {
  std::vector<std::string> Result;
  std::string Word;
  for (char Ch : AText) {
    if (Ch == ' ') {
      if (!Word.empty()) Result.push_back(Word);
      Word.clear();
    } else {
      Word += Ch;
    }
  }
  if (!Word.empty()) Result.push_back(Word);
  return Result;
}

TEST(HostOptions, AcceptedCommandLines) {
  struct TCase {
    const char* Args;
    std::string Address;
    int32_t Port, Nodes, Limit, Grace, Minutes;  // Limit: the seconds the host allows a session
    bool Utf8;
    const char* Command;  // first word of the door command
  } Cases[] = {
      // Without a session limit the caller's minutes bound the session, and the door gets the
      // grace time to end on its own when they are up.
      {"-- door", "127.0.0.1", 2323, 4, 3603, 3, 60, false, "door"},
      {"--listen 127.0.0.1:0 -- door -S{fd}", "127.0.0.1", 0, 4, 3603, 3, 60, false, "door"},
      {"--listen=0.0.0.0:23 --nodes=1 -- d", "0.0.0.0", 23, 1, 3603, 3, 60, false, "d"},
      {"--listen 4000 -- d", "127.0.0.1", 4000, 4, 3603, 3, 60, false, "d"},
      {"--listen :4001 -- d", "127.0.0.1", 4001, 4, 3603, 3, 60, false, "d"},
      {"--nodes 255 --session-limit 90 -- d", "127.0.0.1", 2323, 255, 90, 3, 2, false, "d"},
      {"--session-limit 60 --grace 0 -- d", "127.0.0.1", 2323, 4, 60, 0, 1, false, "d"},
      {"--session-limit 60 --minutes 5 -- d", "127.0.0.1", 2323, 4, 60, 3, 5, false, "d"},
      {"--session-limit 0 -- d", "127.0.0.1", 2323, 4, 0, 3, 60, false, "d"},
      {"--minutes 0 --grace 1 -- d", "127.0.0.1", 2323, 4, 1, 1, 0, false, "d"},
      {"--minutes 35791394 --grace 3600 -- d", "127.0.0.1", 2323, 4, INT32_MAX, 3600, 35791394, false, "d"},
      {"--utf8 --nodes 2 -- d", "127.0.0.1", 2323, 2, 3603, 3, 60, true, "d"},
      // A door option that looks like one of the host's stays the door's.
      {"-- d --nodes 9 --utf8", "127.0.0.1", 2323, 4, 3603, 3, 60, false, "d"},
  };
  for (const TCase& C : Cases) {
    SCOPED_TRACE(C.Args);
    THostOptions Options;
    std::string Error;
    ASSERT_EQ(HostParseArgs(Words(C.Args), Options, Error), hpRun) << Error;
    EXPECT_EQ(Options.ListenAddress, C.Address);
    EXPECT_EQ(Options.ListenPort, C.Port);
    EXPECT_EQ(Options.Nodes, C.Nodes);
    EXPECT_EQ(HostSessionSeconds(Options), C.Limit);
    EXPECT_EQ(Options.GraceSeconds, C.Grace);
    EXPECT_EQ(HostMinutesLeft(Options), C.Minutes);
    EXPECT_EQ(Options.Utf8, C.Utf8);
    EXPECT_EQ(Options.Command.front(), C.Command);
  }
}

TEST(HostOptions, RefusedCommandLinesNameTheProblem) {
  struct TCase {
    std::vector<std::string> Args;
    const char* InError;
  } Cases[] = {
      {{}, "no door command"},
      {{"--nodes", "2"}, "no door command"},
      {{"--"}, "no door command"},
      {{"--", ""}, "no door command"},
      {{"door"}, "after \"--\""},
      {{"--nodes", "0", "--", "d"}, "--nodes"},
      {{"--nodes", "256", "--", "d"}, "--nodes"},
      {{"--nodes", "$10", "--", "d"}, "--nodes"},
      {{"--nodes", " 2", "--", "d"}, "--nodes"},
      {{"--session-limit", "-1", "--", "d"}, "--session-limit"},
      {{"--grace", "x", "--", "d"}, "--grace"},
      {{"--listen", "localhost:23", "--", "d"}, "IPv4"},
      {{"--listen", "127.0.0.1:65536", "--", "d"}, "port"},
      {{"--listen", "127.0.0.1:", "--", "d"}, "port"},
      {{"--listen", "127.0.0.1:2x", "--", "d"}, "port"},
      {{"--bbs-name", "two\r\nlines", "--", "d"}, "line break"},
      {{"--alias", "a\nb", "--", "d"}, "line break"},
      {{"--frobnicate", "1", "--", "d"}, "unknown option"},
      {{"--nodes"}, "needs a value"},
  };
  for (const TCase& C : Cases) {
    THostOptions Options;
    std::string Error;
    EXPECT_EQ(HostParseArgs(C.Args, Options, Error), hpError) << C.InError;
    EXPECT_NE(Error.find(C.InError), std::string::npos) << Error;
  }
}

TEST(HostOptions, HelpWinsOverEverythingBeforeTheCommand) {
  THostOptions Options;
  std::string Error;
  EXPECT_EQ(HostParseArgs({"--nodes", "2", "--help"}, Options, Error), hpHelp);
  EXPECT_EQ(HostParseArgs({"-h"}, Options, Error), hpHelp);
  EXPECT_EQ(HostParseArgs({"--", "door", "--help"}, Options, Error), hpRun);
  EXPECT_NE(HostUsage().find("{door32}"), std::string::npos);
}

TEST(HostOptions, PlaceholdersAreFilledWhereverTheyStand) {
  struct TCase {
    const char* Arg;
    const char* Expanded;
  } Cases[] = {
      {"-S{fd}", "-S7"},
      {"-N{node}", "-N12"},
      {"-D{door32}", "-D/tmp/x/node12/DOOR32.SYS"},
      {"{fd}{node}{fd}", "7127"},
      {"{FD} {fd", "{FD} {fd"},
      {"{{fd}}", "{7}"},
      {"@tamblin.cfg", "@tamblin.cfg"},
      {"", ""},
  };
  for (const TCase& C : Cases) {
    const auto Result = HostExpandCommand({"door", C.Arg}, 7, 12, "/tmp/x/node12/DOOR32.SYS");
    ASSERT_EQ(Result.size(), 2u);
    EXPECT_EQ(Result[0], "door");
    EXPECT_EQ(Result[1], C.Expanded) << C.Arg;
  }
  // A path that itself holds a placeholder is not read a second time.
  EXPECT_EQ(HostExpandCommand({"{door32}"}, 3, 1, "/t/{node}/D")[0], "/t/{node}/D");
}

TEST(HostOptions, Door32TextHasElevenCrLfLinesInTheirOrder) {
  THostOptions Options;
  Options.BbsName = "Night Owl";
  Options.RealName = "Ada Lovelace";
  Options.Alias = "Countess";
  Options.Security = 50;
  Options.Baud = 115200;
  Options.UserRecord = 42;
  Options.SessionLimit = 61;
  EXPECT_EQ(HostDoor32Text(Options, 9, 3),
            "2\r\n9\r\n115200\r\nNight Owl\r\n42\r\nAda Lovelace\r\nCountess\r\n50\r\n2\r\n1\r\n3\r\n");
}

// The file the host writes is the file a Wicket door reads: every field lands where the door
// runtime expects it, so a door started with -D{door32} runs on the socket on the right node.
TEST(HostOptions, Door32ReadsBackThroughTheLibrary) {
  TTempDir Dir;
  THostOptions Options;
  Options.Minutes = 7;
  const auto Path = Dir.Path / "DOOR32.SYS";
  WriteWholeFile(Path, HostDoor32Text(Options, 5, 2));

  DoorDropInfo = TDoorDropInfo();
  ReadDoor32(Path.string());
  EXPECT_EQ(DoorDropInfo.ComType, 2);
  EXPECT_EQ(DoorDropInfo.ComNum, 5);
  EXPECT_EQ(DoorDropInfo.Baud, 38400);
  EXPECT_EQ(DoorDropInfo.RecPos, 0);
  EXPECT_EQ(DoorDropInfo.RealName, "Test Caller");
  EXPECT_EQ(DoorDropInfo.Alias, "Tester");
  EXPECT_EQ(DoorDropInfo.Access, 10);
  EXPECT_EQ(DoorDropInfo.MaxSeconds, 7 * 60);
  EXPECT_EQ(DoorDropInfo.Emulation, etANSI);
  EXPECT_EQ(DoorDropInfo.Node, 2);
}

}  // namespace
