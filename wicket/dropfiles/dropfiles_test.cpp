// Drop-file readers against files as BBSes write them: every line with its default, short and
// long files, the three line-end conventions, and the odd values real systems put in them.
#include "dropfiles.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <sstream>
#include <vector>

#include "testsupport.h"

using namespace std::string_literals;

namespace {

// Every field, one per line, so that a reader touching a field it shouldn't shows up.
std::string Describe(const TDoorDropInfo& A) {
  std::ostringstream S;
  S << "Access=" << A.Access << "\nAlias=[" << A.Alias << "]\nAliasOrRealName=[" << A.AliasOrRealName
    << "]\nBaud=" << A.Baud << "\nClean=" << A.Clean << "\nComNum=" << A.ComNum
    << "\nComType=" << int{A.ComType} << "\nEmulation=" << (A.Emulation == etANSI ? "ANSI" : "ASCII")
    << "\nFairy=" << A.Fairy << "\nMaxSeconds=" << A.MaxSeconds << "\nNode=" << A.Node << "\nRealName=["
    << A.RealName << "]\nRealNameOrAlias=[" << A.RealNameOrAlias << "]\nRecPos=" << A.RecPos << "\n";
  return S.str();
}

// The fields of ATo that differ from AFrom, blank-separated; "" when none do.
std::string Changes(const TDoorDropInfo& AFrom, const TDoorDropInfo& ATo) {
  std::istringstream From(Describe(AFrom)), To(Describe(ATo));
  std::string F, T, Out;
  while (std::getline(From, F) && std::getline(To, T)) {
    if (F != T) Out += (Out.empty() ? "" : " ") + T;
  }
  return Out;
}

// Start values unlike any default, so that both "set to default" and "left alone" are visible.
TDoorDropInfo Sentinel() {
  TDoorDropInfo D;
  D.Access = 11, D.Alias = "OLDALIAS", D.AliasOrRealName = "OLD1", D.Baud = 12, D.Clean = true;
  D.ComNum = 13, D.ComType = 9, D.Emulation = etASCII, D.Fairy = true, D.MaxSeconds = 14, D.Node = 15;
  D.RealName = "OLDREAL", D.RealNameOrAlias = "OLD2", D.RecPos = 16;
  return D;
}

struct TFormat {
  const char* Name;
  void (*Reader)(const std::string&);
};
const TFormat DOOR32{"DOOR32.SYS", ReadDoor32}, DOOR_SYS{"DOOR.SYS", ReadDoorSys};
const TFormat DOR_INFO{"DORINFO1.DEF", ReadDorInfo}, LORD_INFO{"INFO.1", ReadLordInfo};
const TFormat* const ALL_FORMATS[] = {&DOOR32, &DOOR_SYS, &DOR_INFO, &LORD_INFO};

std::string Join(const std::vector<std::string>& ALines, const std::string& AEnd) {
  std::string Result;
  for (const auto& L : ALines) Result += L + AEnd;
  return Result;
}

class DropFiles : public ::testing::Test {
 protected:
  TTempDir Dir;

  // Writes AData as the format's file and runs its reader from the sentinel start.
  TDoorDropInfo Read(const TFormat& AFormat, const std::string& AData) {
    const auto Path = Dir.Path / AFormat.Name;
    WriteWholeFile(Path, AData);
    return ReadPath(AFormat, Path.string());
  }
  TDoorDropInfo ReadPath(const TFormat& AFormat, const std::string& APath) {
    DoorDropInfo = Sentinel();
    AFormat.Reader(APath);
    return DoorDropInfo;
  }
};

TEST_F(DropFiles, EmptyFileGivesEachFormatsDefaults) {
  // ComType stays in DOOR.SYS and DORINFO*.DEF: only a port above 0 sets it.
  const char* const Want[] = {
      "Access=0 Alias=[] Baud=38400 ComNum=-1 ComType=0 Emulation=ANSI MaxSeconds=0 Node=0 RealName=[] "
      "RecPos=0",
      "Access=0 Alias=[] Baud=38400 ComNum=0 MaxSeconds=0 Node=0 RealName=[] RecPos=0",
      "Access=0 Alias=[] Baud=38400 ComNum=0 Emulation=ANSI MaxSeconds=0 RealName=[]",
      "Alias=[] Baud=38400 Clean=0 ComNum=0 ComType=1 Emulation=ANSI Fairy=0 MaxSeconds=0 RealName=[] "
      "RecPos=0",
  };
  for (size_t I = 0; I < 4; ++I)
    EXPECT_EQ(Changes(Sentinel(), Read(*ALL_FORMATS[I], "")), Want[I]) << ALL_FORMATS[I]->Name;
}

// Files holding only the listed lines (CR LF, the others empty), against the empty file: each
// line fills its own field only, and the lines not written read as empty, so their fields take
// their defaults.
TEST_F(DropFiles, EachLineFillsItsOwnFieldOnly) {
  struct TCase {
    const TFormat* Format;
    std::vector<std::string> Lines;  // "N:text": line N holds text
    std::string Want;
  };
  const TCase Cases[] = {
      {&DOOR32,
       {"1:258", "2:$10", "3:115200", "4:BBS", "5:42", "6: John  Doe ", "7:jd", "8:255", "9:35791394", "10:0",
        "11:3"},
       "Access=255 Alias=[jd] Baud=115200 ComNum=16 ComType=2 Emulation=ASCII MaxSeconds=2147483640 Node=3 "
       "RealName=[ John  Doe ] RecPos=41"},  // type kept in 8 bits, name not trimmed, largest time
      {&DOOR32, {"5:-2147483648", "9:35791395", "10:2"}, "MaxSeconds=2147483647 RecPos=-2147483648"},
      {&DOOR32, {"9:-99999999"}, "MaxSeconds=-2147483648"},
      {&DOOR32, {"9:30 "}, ""},                                              // a trailing blank: the default
      {&DOOR32, {"6:J\x84rg\0\x1A\xFF"s}, "RealName=[J\x84rg\0\x1A\xFF]"s},  // bytes as they are
      // DOOR.SYS: the port is "COM" n ":", the last character taken as the colon.
      {&DOOR_SYS,
       {"1:COM12:", "2:19200", "4:7", "5:2400", "10:John Doe", "15:100", "18:30", "20:gr", "26:5", "36:jd",
        "52:anything"},
       "Access=100 Alias=[jd] Baud=2400 ComNum=12 ComType=1 Emulation=ANSI MaxSeconds=30 Node=7 "
       "RealName=[John Doe] RecPos=4"},
      {&DOOR_SYS, {"1:COM1:", "20:GR"}, "ComNum=1 ComType=1 Emulation=ANSI"},
      {&DOOR_SYS, {"1:COM0:", "20:GR "}, ""},  // port 0: the type stays (stdio mode)
      {&DOOR_SYS, {"1:COM1"}, ""},
      {&DOOR_SYS, {"1:COM"}, ""},
      {&DOOR_SYS, {"1:COM-5:"}, "ComNum=-5"},
      // DORINFO*.DEF: the port is "COM" n, and the speed counts only with a blank after it.
      {&DOR_INFO,
       {"1:My BBS", "4:COM2", "5:19200 BAUD,N,8,1", "7:FIRST", "8:LAST", "10:0", "11:20", "12:45"},
       "Access=20 Alias=[FIRST] Baud=19200 ComNum=2 ComType=1 Emulation=ASCII MaxSeconds=2700 "
       "RealName=[FIRST LAST]"},
      {&DOR_INFO, {"4:COM1:", "5:19200", "7:FIRST", "10:1"}, "Alias=[FIRST] RealName=[FIRST]"},
      {&DOR_INFO, {"4:COM0", "5:fast BAUD", "8:LAST", "10:2"}, "Emulation=ASCII RealName=[ LAST]"},
      {&DOR_INFO, {"5: 2400", "12:2147483647"}, "MaxSeconds=2147483647"},
      // INFO.*: the record is counted from 0 already.
      {&LORD_INFO,
       {"1:5", "2:0", "4:fairy yes", "5:60", "6:jd", "7:FIRST", "8:LAST", "9:7", "10:9600", "12:telnet",
        "14:Clean Mode On"},
       "Alias=[jd] Baud=9600 Clean=1 ComNum=7 ComType=2 Emulation=ASCII Fairy=1 MaxSeconds=3600 "
       "RealName=[FIRST LAST] RecPos=5"},
      {&LORD_INFO,
       {"2:1", "4:FAIRY NO", "5:40000000", "8:LAST", "12:LOCAL", "14:CLEAN MODE OFF"},
       "ComType=0 Emulation=ASCII MaxSeconds=2147483647 RealName=[ LAST]"},
      {&LORD_INFO, {"12:wc5"}, "ComType=3"},
      {&LORD_INFO, {"12:serial"}, ""},
  };
  for (const TCase& C : Cases) {
    std::vector<std::string> File;
    for (const std::string& Line : C.Lines) {
      const size_t Colon = Line.find(':'), Number = std::stoul(Line.substr(0, Colon));
      File.resize(std::max(File.size(), Number));
      File[Number - 1] = Line.substr(Colon + 1);
    }
    SCOPED_TRACE(std::string(C.Format->Name) + " " + testing::PrintToString(File));
    EXPECT_EQ(Changes(Read(*C.Format, ""), Read(*C.Format, Join(File, "\r\n"))), C.Want);
  }
}

TEST_F(DropFiles, LineEndsOfEveryKindReadAlike) {
  const std::vector<std::string> Sample = {
      "2", "1234", "38400", "Mystic BBS 1.12", "7", "Jane Caller", "janec", "30", "99999", "1", "2"};
  const TDoorDropInfo Reference = Read(DOOR32, Join(Sample, "\r\n"));
  EXPECT_NE(Changes(Read(DOOR32, ""), Reference), "");
  for (const std::string End : {"\n", "\r", "\r\n"}) {
    SCOPED_TRACE(testing::PrintToString(End));
    EXPECT_EQ(Changes(Reference, Read(DOOR32, Join(Sample, End))), "");
    // No line end after the last line, and extra lines after the format's last.
    const std::string NoFinal = Join(Sample, End).substr(0, Join(Sample, End).size() - End.size());
    EXPECT_EQ(Changes(Reference, Read(DOOR32, NoFinal)), "");
    EXPECT_EQ(Changes(Reference, Read(DOOR32, Join(Sample, End) + End + "junk" + End)), "");
  }
  // Mixed conventions in one file.
  std::string Mixed;
  for (size_t I = 0; I < Sample.size(); ++I)
    Mixed += Sample[I] + (I % 3 == 0 ? "\r" : I % 3 == 1 ? "\n" : "\r\n");
  EXPECT_EQ(Changes(Reference, Read(DOOR32, Mixed)), "");
  // LF CR is two line ends, so everything after it moves down a line.
  EXPECT_EQ(Read(DOOR32, "2\n\r1234\n").ComNum, -1);
}

// A missing file, a directory (opens but can't be read): nothing changes.
TEST_F(DropFiles, UnopenableFileChangesNothing) {
  for (const TFormat* F : ALL_FORMATS) {
    EXPECT_EQ(Changes(Sentinel(), ReadPath(*F, (Dir.Path / "missing.sys").string())), "") << F->Name;
    EXPECT_EQ(Changes(Sentinel(), ReadPath(*F, Dir.Path.string())), "") << F->Name;
  }
}

// A read that fails part-way (here a pipe whose writer has more to say) keeps what was read
// and leaves the fields of the unread lines alone; nothing waits for the rest. Without a
// writer the pipe is simply empty, and an endless device is cut off.
TEST_F(DropFiles, ReadErrorKeepsTheLinesReadSoFar) {
  const std::string Empty = Changes(Sentinel(), Read(DOOR32, ""));
  const auto Fifo = (Dir.Path / "fifo").string();
  ASSERT_EQ(mkfifo(Fifo.c_str(), 0600), 0);
  EXPECT_EQ(Changes(Sentinel(), ReadPath(DOOR32, Fifo)), Empty);
  EXPECT_EQ(Changes(Sentinel(), ReadPath(DOOR32, "/dev/zero")), Empty);

  const int Writer = open(Fifo.c_str(), O_RDWR);
  ASSERT_GE(Writer, 0);
  const std::string Part = "2\r\n1234\r\n38400\r\nbbs\r\n5\r\nJane Cal";
  ASSERT_EQ(write(Writer, Part.data(), Part.size()), static_cast<ssize_t>(Part.size()));
  EXPECT_EQ(Changes(Sentinel(), ReadPath(DOOR32, Fifo)), "Baud=38400 ComNum=1234 ComType=2 RecPos=4");
  close(Writer);
}

}  // namespace
