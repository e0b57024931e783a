// Drop-file readers against files as BBSes write them: every line with its default, short and
// long files, the three line-end conventions, and the odd values real systems put in them.
#include "dropfiles.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <functional>
#include <sstream>

#include "../door/doorstate.h"
#include "testsupport.h"

namespace {

using TReader = void (*)(const std::string&);

// Every field, so that a reader touching a field it shouldn't shows up in the diff.
std::string Describe(const TDoorDropInfo& A) {
  std::ostringstream S;
  S << "Access=" << A.Access << " Alias=[" << A.Alias << "] AliasOrRealName=[" << A.AliasOrRealName
    << "] Baud=" << A.Baud << " Clean=" << A.Clean << " ComNum=" << A.ComNum << " ComType=" << int{A.ComType}
    << " Emulation=" << int{A.Emulation} << " Fairy=" << A.Fairy << " MaxSeconds=" << A.MaxSeconds
    << " Node=" << A.Node << " RealName=[" << A.RealName << "] RealNameOrAlias=[" << A.RealNameOrAlias
    << "] RecPos=" << A.RecPos;
  return S.str();
}

// Start values unlike any default, so that both "set to default" and "left alone" are visible.
TDoorDropInfo Sentinel() {
  TDoorDropInfo D;
  D.Access = 11, D.Alias = "OLDALIAS", D.AliasOrRealName = "OLD1", D.Baud = 12, D.Clean = true;
  D.ComNum = 13, D.ComType = 9, D.Emulation = etASCII, D.Fairy = true, D.MaxSeconds = 14, D.Node = 15;
  D.RealName = "OLDREAL", D.RealNameOrAlias = "OLD2", D.RecPos = 16;
  return D;
}

// What each reader gives for an empty file, from the sentinel start.
TDoorDropInfo EmptyDoor32() {
  TDoorDropInfo D = Sentinel();
  D.ComType = 0, D.ComNum = -1, D.Baud = 38400, D.RecPos = 0, D.RealName = "", D.Alias = "";
  D.Access = 0, D.MaxSeconds = 0, D.Emulation = etANSI, D.Node = 0;
  return D;
}
TDoorDropInfo EmptyDoorSys() {
  TDoorDropInfo D = Sentinel();  // ComType stays: only a port above 0 sets it
  D.ComNum = 0, D.Node = 0, D.Baud = 38400, D.RealName = "", D.Access = 0, D.MaxSeconds = 0;
  D.Emulation = etASCII, D.RecPos = 0, D.Alias = "";
  return D;
}
TDoorDropInfo EmptyDorInfo() {
  TDoorDropInfo D = Sentinel();  // ComType stays, as in DOOR.SYS
  D.ComNum = 0, D.Baud = 38400, D.Alias = "", D.RealName = "", D.Emulation = etANSI, D.Access = 0;
  D.MaxSeconds = 0;
  return D;
}
TDoorDropInfo EmptyLordInfo() {
  TDoorDropInfo D = Sentinel();
  D.RecPos = 0, D.Emulation = etANSI, D.Fairy = false, D.MaxSeconds = 0, D.Alias = "", D.RealName = "";
  D.ComNum = 0, D.Baud = 38400, D.ComType = 1, D.Clean = false;
  return D;
}

struct TFormat {
  const char* Name;
  TReader Reader;
  size_t LineCount;
  TDoorDropInfo (*Empty)();
};

const TFormat FDoor32{"DOOR32.SYS", ReadDoor32, 11, EmptyDoor32};
const TFormat FDoorSys{"DOOR.SYS", ReadDoorSys, 52, EmptyDoorSys};
const TFormat FDorInfo{"DORINFO1.DEF", ReadDorInfo, 13, EmptyDorInfo};
const TFormat FLordInfo{"INFO.1", ReadLordInfo, 14, EmptyLordInfo};

class DropFiles : public ::testing::Test {
 protected:
  TTempDir Dir;

  void SetUp() override { DoorDropInfo = Sentinel(); }

  // Writes AData as the format's file and runs its reader from the sentinel start.
  TDoorDropInfo Read(const TFormat& AFormat, const std::string& AData) {
    const auto Path = Dir.Path / AFormat.Name;
    WriteWholeFile(Path, AData);
    DoorDropInfo = Sentinel();
    AFormat.Reader(Path.string());
    return DoorDropInfo;
  }

  // A file whose only non-empty line is ALine, holding AText.
  TDoorDropInfo ReadOneLine(const TFormat& AFormat, size_t ALine, const std::string& AText) {
    std::string Data;
    for (size_t N = 1; N < ALine; ++N) Data += "\r\n";
    return Read(AFormat, Data + AText + "\r\n");
  }
};

std::string Join(const std::vector<std::string>& ALines, const std::string& AEnd) {
  std::string Result;
  for (const auto& L : ALines) Result += L + AEnd;
  return Result;
}

// One line of one format, and what it does to the empty-file result.
struct TLineCase {
  const TFormat* Format;
  size_t Line;
  std::string Text;
  std::function<void(TDoorDropInfo&)> Change;
};

TEST_F(DropFiles, EmptyFileGivesEachFormatsDefaults) {
  for (const TFormat* F : {&FDoor32, &FDoorSys, &FDorInfo, &FLordInfo}) {
    SCOPED_TRACE(F->Name);
    EXPECT_EQ(Describe(Read(*F, "")), Describe(F->Empty()));
  }
}

TEST_F(DropFiles, EachLineFillsItsOwnFieldOnly) {
  const int32_t Max = INT32_MAX, Min = INT32_MIN;
  const std::vector<TLineCase> Cases = {
      // DOOR32.SYS
      {&FDoor32, 1, "2", [](auto& D) { D.ComType = 2; }},
      {&FDoor32, 1, "258", [](auto& D) { D.ComType = 2; }},  // kept in 8 bits
      {&FDoor32, 2, "1234", [](auto& D) { D.ComNum = 1234; }},
      {&FDoor32, 2, "$10", [](auto& D) { D.ComNum = 16; }},
      {&FDoor32, 3, "115200", [](auto& D) { D.Baud = 115200; }},
      {&FDoor32, 4, "Mystic BBS", [](auto&) {}},
      {&FDoor32, 5, "42", [](auto& D) { D.RecPos = 41; }},
      {&FDoor32, 5, "-2147483648", [Min](auto& D) { D.RecPos = Min; }},
      {&FDoor32, 6, " John  Doe ", [](auto& D) { D.RealName = " John  Doe "; }},  // not trimmed
      {&FDoor32, 7, "jd", [](auto& D) { D.Alias = "jd"; }},
      {&FDoor32, 8, "255", [](auto& D) { D.Access = 255; }},
      {&FDoor32, 9, "30", [](auto& D) { D.MaxSeconds = 1800; }},
      {&FDoor32, 9, "30 ", [](auto&) {}},  // trailing blank: the default
      {&FDoor32, 9, "99999999", [Max](auto& D) { D.MaxSeconds = Max; }},
      {&FDoor32, 9, "-99999999", [Min](auto& D) { D.MaxSeconds = Min; }},
      {&FDoor32, 9, "35791394", [](auto& D) { D.MaxSeconds = 2147483640; }},  // largest that fits
      {&FDoor32, 10, "0", [](auto& D) { D.Emulation = etASCII; }},
      {&FDoor32, 10, "2", [](auto&) {}},
      {&FDoor32, 11, "3", [](auto& D) { D.Node = 3; }},
      // DOOR.SYS
      {&FDoorSys, 1, "COM1:", [](auto& D) { D.ComNum = 1, D.ComType = 1; }},
      {&FDoorSys, 1, "COM12:", [](auto& D) { D.ComNum = 12, D.ComType = 1; }},
      {&FDoorSys, 1, "COM0:", [](auto&) {}},  // ComType stays: stdio mode
      {&FDoorSys, 1, "COM1", [](auto&) {}},   // the last character is taken as the colon
      {&FDoorSys, 1, "COM", [](auto&) {}},
      {&FDoorSys, 1, "COM-5:", [](auto& D) { D.ComNum = -5; }},
      {&FDoorSys, 2, "19200", [](auto&) {}},
      {&FDoorSys, 4, "7", [](auto& D) { D.Node = 7; }},
      {&FDoorSys, 5, "2400", [](auto& D) { D.Baud = 2400; }},
      {&FDoorSys, 10, "John Doe", [](auto& D) { D.RealName = "John Doe"; }},
      {&FDoorSys, 15, "100", [](auto& D) { D.Access = 100; }},
      {&FDoorSys, 18, "30", [](auto& D) { D.MaxSeconds = 30; }},
      {&FDoorSys, 18, "2147483647", [Max](auto& D) { D.MaxSeconds = Max; }},
      {&FDoorSys, 20, "GR", [](auto& D) { D.Emulation = etANSI; }},
      {&FDoorSys, 20, "gr", [](auto& D) { D.Emulation = etANSI; }},
      {&FDoorSys, 20, "NG", [](auto&) {}},
      {&FDoorSys, 20, "GR ", [](auto&) {}},
      {&FDoorSys, 26, "5", [](auto& D) { D.RecPos = 4; }},
      {&FDoorSys, 36, "jd", [](auto& D) { D.Alias = "jd"; }},
      {&FDoorSys, 52, "anything", [](auto&) {}},
      // DORINFO*.DEF
      {&FDorInfo, 1, "My BBS", [](auto&) {}},
      {&FDorInfo, 4, "COM2", [](auto& D) { D.ComNum = 2, D.ComType = 1; }},
      {&FDorInfo, 4, "COM1:", [](auto&) {}},  // the colon spoils the number
      {&FDorInfo, 4, "COM0", [](auto&) {}},
      {&FDorInfo, 5, "19200 BAUD,N,8,1", [](auto& D) { D.Baud = 19200; }},
      {&FDorInfo, 5, "19200", [](auto&) {}},  // no blank: the default
      {&FDorInfo, 5, "fast BAUD", [](auto&) {}},
      {&FDorInfo, 5, " 2400", [](auto&) {}},  // blank first: an empty number
      {&FDorInfo, 7, "FIRST", [](auto& D) { D.Alias = "FIRST", D.RealName = "FIRST"; }},
      {&FDorInfo, 8, "LAST", [](auto& D) { D.RealName = " LAST"; }},
      {&FDorInfo, 10, "0", [](auto& D) { D.Emulation = etASCII; }},
      {&FDorInfo, 10, "2", [](auto& D) { D.Emulation = etASCII; }},
      {&FDorInfo, 10, "1", [](auto&) {}},
      {&FDorInfo, 11, "20", [](auto& D) { D.Access = 20; }},
      {&FDorInfo, 12, "45", [](auto& D) { D.MaxSeconds = 2700; }},
      {&FDorInfo, 12, "2147483647", [Max](auto& D) { D.MaxSeconds = Max; }},
      // INFO.*
      {&FLordInfo, 1, "5", [](auto& D) { D.RecPos = 5; }},  // already from 0
      {&FLordInfo, 2, "0", [](auto& D) { D.Emulation = etASCII; }},
      {&FLordInfo, 2, "1", [](auto& D) { D.Emulation = etASCII; }},
      {&FLordInfo, 4, "fairy yes", [](auto& D) { D.Fairy = true; }},
      {&FLordInfo, 4, "FAIRY NO", [](auto&) {}},
      {&FLordInfo, 5, "60", [](auto& D) { D.MaxSeconds = 3600; }},
      {&FLordInfo, 5, "40000000", [Max](auto& D) { D.MaxSeconds = Max; }},
      {&FLordInfo, 6, "jd", [](auto& D) { D.Alias = "jd"; }},
      {&FLordInfo, 7, "FIRST", [](auto& D) { D.RealName = "FIRST"; }},
      {&FLordInfo, 8, "LAST", [](auto& D) { D.RealName = " LAST"; }},
      {&FLordInfo, 9, "7", [](auto& D) { D.ComNum = 7; }},
      {&FLordInfo, 10, "9600", [](auto& D) { D.Baud = 9600; }},
      {&FLordInfo, 12, "LOCAL", [](auto& D) { D.ComType = 0; }},
      {&FLordInfo, 12, "telnet", [](auto& D) { D.ComType = 2; }},
      {&FLordInfo, 12, "wc5", [](auto& D) { D.ComType = 3; }},
      {&FLordInfo, 12, "serial", [](auto&) {}},
      {&FLordInfo, 14, "Clean Mode On", [](auto& D) { D.Clean = true; }},
      {&FLordInfo, 14, "CLEAN MODE OFF", [](auto&) {}},
  };
  for (const auto& C : Cases) {
    SCOPED_TRACE(std::string(C.Format->Name) + " line " + std::to_string(C.Line) + " [" + C.Text + "]");
    TDoorDropInfo Expected = C.Format->Empty();
    C.Change(Expected);
    EXPECT_EQ(Describe(ReadOneLine(*C.Format, C.Line, C.Text)), Describe(Expected));
  }
}

// Typical files as BBS packages write them, with CR LF, a trailing empty line and lower case.
const std::vector<std::string> FDoor32Sample = {
    "2", "1234", "38400", "Mystic BBS 1.12", "7", "Jane Caller", "janec", "30", "99999", "1", "2"};

TEST_F(DropFiles, LineEndsOfEveryKindReadAlike) {
  const std::string Reference = Describe(Read(FDoor32, Join(FDoor32Sample, "\r\n")));
  EXPECT_NE(Reference, Describe(FDoor32.Empty()));
  for (const std::string End : {"\n", "\r", "\r\n"}) {
    EXPECT_EQ(Describe(Read(FDoor32, Join(FDoor32Sample, End))), Reference);
    // No line end after the last line, and extra lines after the format's last.
    std::string NoFinal = Join(FDoor32Sample, End);
    NoFinal.resize(NoFinal.size() - std::string(End).size());
    EXPECT_EQ(Describe(Read(FDoor32, NoFinal)), Reference);
    EXPECT_EQ(Describe(Read(FDoor32, Join(FDoor32Sample, End) + End + "junk" + End)), Reference);
  }
  // Mixed conventions in one file.
  std::string Mixed;
  for (size_t I = 0; I < FDoor32Sample.size(); ++I)
    Mixed += FDoor32Sample[I] + (I % 3 == 0 ? "\r" : I % 3 == 1 ? "\n" : "\r\n");
  EXPECT_EQ(Describe(Read(FDoor32, Mixed)), Reference);
  // LF CR is two line ends, so everything after it moves down a line.
  EXPECT_EQ(Read(FDoor32, "2\n\r1234\n").ComNum, -1);
}

TEST_F(DropFiles, TypicalFilesReadSensibly) {
  TDoorDropInfo D = Read(FDoor32, Join(FDoor32Sample, "\r\n") + "\r\n");
  EXPECT_EQ(Describe(D),
            "Access=30 Alias=[janec] AliasOrRealName=[OLD1] Baud=38400 Clean=1 ComNum=1234 ComType=2 "
            "Emulation=0 Fairy=1 MaxSeconds=5999940 Node=2 RealName=[Jane Caller] "
            "RealNameOrAlias=[OLD2] RecPos=6");

  std::vector<std::string> DoorSys(52, "");
  DoorSys[0] = "COM5:", DoorSys[3] = "1", DoorSys[4] = "38400", DoorSys[9] = "Jane Caller";
  DoorSys[14] = "50", DoorSys[17] = "5400", DoorSys[19] = "gr", DoorSys[25] = "12", DoorSys[35] = "janec";
  DoorSys.insert(DoorSys.end(), 20, "extra line");
  D = Read(FDoorSys, Join(DoorSys, "\r\n"));
  EXPECT_EQ(Describe(D),
            "Access=50 Alias=[janec] AliasOrRealName=[OLD1] Baud=38400 Clean=1 ComNum=5 ComType=1 "
            "Emulation=0 Fairy=1 MaxSeconds=5400 Node=1 RealName=[Jane Caller] "
            "RealNameOrAlias=[OLD2] RecPos=11");

  D = Read(FDorInfo, "Some BBS\nSYS\nOP\nCOM0\n57600 BAUD,N,8,1\n0\nJANE\nCALLER\nTOWN\n1\n30\n546\n-1\n\n");
  EXPECT_EQ(D.Baud, 57600);
  EXPECT_EQ(D.ComNum, 0);
  EXPECT_EQ(D.ComType, 9);  // COM0 leaves it alone
  EXPECT_EQ(D.RealName, "JANE CALLER");
  EXPECT_EQ(D.MaxSeconds, 546 * 60);

  D = Read(FLordInfo, Join({"3", "3", "1", "FAIRY YES", "45", "janec", "Jane", "Caller", "5", "38400", "",
                            "TELNET", "", "CLEAN MODE ON"},
                           "\r\n"));
  EXPECT_EQ(Describe(D),
            "Access=11 Alias=[janec] AliasOrRealName=[OLD1] Baud=38400 Clean=1 ComNum=5 ComType=2 "
            "Emulation=0 Fairy=1 MaxSeconds=2700 Node=15 RealName=[Jane Caller] "
            "RealNameOrAlias=[OLD2] RecPos=3");
}

// Lines that are missing read as empty: the fields behind them take their defaults.
TEST_F(DropFiles, ShortFileDefaultsTheMissingLines) {
  const std::vector<std::string> FirstSix(FDoor32Sample.begin(), FDoor32Sample.begin() + 6);
  TDoorDropInfo Expected = FDoor32.Empty();
  Expected.ComType = 2, Expected.ComNum = 1234, Expected.RecPos = 6, Expected.RealName = "Jane Caller";
  EXPECT_EQ(Describe(Read(FDoor32, Join(FirstSix, "\r\n"))), Describe(Expected));
}

TEST_F(DropFiles, BytesAreKeptAsTheyAre) {
  // High bytes, a zero byte and the old end-of-file mark are ordinary text.
  const std::string Name("J\x84rg\0\x1A\xFF", 7);
  EXPECT_EQ(Read(FDoor32, "\n\n\n\n\n" + Name + "\n").RealName, Name);
}

TEST_F(DropFiles, UnopenableFileChangesNothing) {
  for (const TFormat* F : {&FDoor32, &FDoorSys, &FDorInfo, &FLordInfo}) {
    SCOPED_TRACE(F->Name);
    DoorDropInfo = Sentinel();
    F->Reader((Dir.Path / "missing.sys").string());
    EXPECT_EQ(Describe(DoorDropInfo), Describe(Sentinel()));
    // A directory opens but can't be read.
    F->Reader(Dir.Path.string());
    EXPECT_EQ(Describe(DoorDropInfo), Describe(Sentinel()));
  }
}

// A read that fails part-way (here a pipe whose writer has more to say) keeps what was read
// and leaves the fields of the unread lines alone; nothing waits for the rest.
TEST_F(DropFiles, ReadErrorKeepsTheLinesReadSoFar) {
  const auto Fifo = (Dir.Path / "DOOR32.SYS").string();
  ASSERT_EQ(mkfifo(Fifo.c_str(), 0600), 0);
  // Without a writer the pipe is simply empty.
  DoorDropInfo = Sentinel();
  ReadDoor32(Fifo);
  EXPECT_EQ(Describe(DoorDropInfo), Describe(EmptyDoor32()));

  const int Writer = open(Fifo.c_str(), O_RDWR);
  ASSERT_GE(Writer, 0);
  const std::string Part = "2\r\n1234\r\n38400\r\nbbs\r\n5\r\nJane Cal";
  ASSERT_EQ(write(Writer, Part.data(), Part.size()), static_cast<ssize_t>(Part.size()));
  DoorDropInfo = Sentinel();
  ReadDoor32(Fifo);
  close(Writer);
  TDoorDropInfo Expected = Sentinel();
  Expected.ComType = 2, Expected.ComNum = 1234, Expected.Baud = 38400, Expected.RecPos = 4;
  EXPECT_EQ(Describe(DoorDropInfo), Describe(Expected));
}

// A path to an endless device must not stall start-up.
TEST_F(DropFiles, EndlessFileIsCutOff) {
  DoorDropInfo = Sentinel();
  ReadDoor32("/dev/zero");
  EXPECT_EQ(Describe(DoorDropInfo), Describe(EmptyDoor32()));
}

}  // namespace
