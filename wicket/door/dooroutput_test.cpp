// What the caller receives, byte for byte and send for send: each door runs in a forked
// child on a socketpair (SOCK_SEQPACKET, so that every send arrives as one packet) or with
// standard output on a pipe, starting from the attribute 7 of a fresh process.
#include "dooroutput.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "crt2/crt2.h"
#include "doorinput.h"
#include "doorlink_testutil.h"
#include "doorstate.h"
#include "testsupport.h"

namespace {

using TPackets = std::vector<std::string>;

const std::string kEsc = "\x1B";
// Sequences of a fresh process (attribute 7) for the colours the tests use.
const std::string kBlue = kEsc + "[0;34m" + kEsc + "[40m";  // foreground 1 on black
const std::string kGreen = kEsc + "[0;32m" + kEsc + "[40m";
const std::string kBlinkOff = kEsc + "[0m" + kEsc + "[40m";  // then the foreground again

std::string Hex(const TPackets& APackets) {
  std::string Result;
  for (const std::string& Packet : APackets) Result += "[" + HexBytes(Packet) + "] ";
  return Result;
}

// Every send the door makes while ADoorSide runs, one string per send.
TPackets SendsOf(const std::function<void()>& ADoorSide) {
  TDoorChild Child = StartDoorOnLink(ADoorSide, SOCK_SEQPACKET);
  TPackets Packets;
  for (;;) {
    std::string Packet = ReadPacket(Child.CallerFd);
    if (Packet.empty()) break;
    Packets.push_back(std::move(Packet));
  }
  EXPECT_EQ(FinishDoor(Child), 0);
  return Packets;
}

TPackets WriteWith(bool APipe, bool ASeth, bool ASixel, const std::string& AText) {
  return SendsOf([=] {
    DoorSession.PipeWrite = APipe;
    DoorSession.SethWrite = ASeth;
    DisplayingSixel = ASixel;
    DoorWrite(AText);
  });
}

TEST(DoorWrite, SendsEachPieceAsOneSend) {
  const std::string White = kEsc + "[1;37m" + kEsc + "[40m";  // pipe code 0F
  const struct {
    bool Pipe, Seth, Sixel;
    std::string Text;
    TPackets Sends;
  } Cases[] = {
      {true, true, false, "", {}},
      {true, false, false, "plain text", {"plain text"}},
      {true,
       false,
       false,
       "a\xFF"
       "b",
       {"a\xFF\xFF"
        "b"}},  // telnet doubling on the link
      {true, false, false, "|", {"|"}},
      {true, false, false, "|0", {"|0"}},
      {false, false, false, "|0F", {"|0F"}},
      {true, false, false, "|0Fhi", {White + "hi"}},
      {true, false, false, "|8F", {White}},
      {true, false, false, "|GG|", {"|GG|"}},
      {false, true, false, "`", {"`"}},  // under 2 bytes: no walk
      {false, false, false, "a`1b", {"a`1b"}},
      {false, true, false, "abc`", {"abc"}},
      {false, true, false, "abc`1def", {"abc", kBlue, kBlinkOff + kBlue, "def"}},
      {false, true, false, "`z`r9`Q", {}},
      {false, true, false, "x`r", {"x"}},
      {false, true, false, "`r1`r7", {kEsc + "[44m", kEsc + "[47m"}},
      {false, true, false, "`x`d`\\", {" ", "\b", "\r\n"}},
      {false, true, false, "``1", {"1"}},  // "``" is an unknown code
      // Pipe codes are converted over the whole text first; the Seth walk sees the result.
      {true, true, false, "`|0Fx", {"[1;37m" + kEsc + "[40mx"}},
      {true, true, true, "|0F`1`", {"|0F`1`"}},
  };
  for (const auto& Case : Cases) {
    const TPackets Got = WriteWith(Case.Pipe, Case.Seth, Case.Sixel, Case.Text);
    EXPECT_EQ(Got, Case.Sends) << HexBytes(Case.Text) << " gave " << Hex(Got);
  }
}

// Each Seth code does what the direct call does, send for send.
TEST(DoorWrite, SethCodesMatchTheirOperations) {
  using TDoorOp = std::function<void()>;
  auto Colour = [](uint8_t AColour, bool ABlink) -> TDoorOp {
    return [=] { DoorTextColourAndBlink(AColour, ABlink); };
  };
  std::vector<std::pair<std::string, TDoorOp>> Cases = {
      {"0", Colour(10, false)},
      {"!", Colour(11, false)},
      {"@", Colour(12, false)},
      {"#", Colour(13, false)},
      {"$", Colour(14, false)},
      {"%", Colour(15, false)},
      {"*", Colour(0, false)},
      {"b", Colour(4, true)},
      {"y", Colour(14, true)},
      {"c",
       [] {
         DoorTextAttr(7);
         DoorClrScr();
         DoorWrite("\r\n\r\n");
       }},
  };
  for (char Digit = '1'; Digit <= '9'; ++Digit)
    Cases.push_back({{Digit}, Colour(uint8_t(Digit - '0'), false)});
  for (char Digit = '0'; Digit <= '7'; ++Digit)
    Cases.push_back({std::string("r") + Digit, [=] { DoorTextBackground(uint8_t(Digit - '0')); }});
  // The attribute record afterwards goes out as a last send, so that it is compared too.
  auto SendAttr = [] { DoorWrite(std::string(1, static_cast<char>(GetTextAttr()))); };
  for (const auto& Case : Cases) {
    const std::string Text = "`" + Case.first;
    const TPackets BySeth = SendsOf([&] {
      DoorSession.SethWrite = true;
      DoorWrite(Text);
      SendAttr();
    });
    const TPackets Direct = SendsOf([&] {
      Case.second();
      SendAttr();
    });
    EXPECT_EQ(BySeth, Direct) << Text;
    EXPECT_GE(BySeth.size(), 2u) << Text;
  }
}

TEST(DoorWrite, SethPausesWaitTheirTime) {
  const struct {
    std::string Text;
    double MinMs, MaxMs;
  } Cases[] = {{"`w", 95, 400}, {"`l", 490, 900}};
  for (const auto& Case : Cases) {
    SendsOf([&] {
      DoorSession.SethWrite = true;
      const double Start = MonotonicMs();
      DoorWrite(Case.Text);
      const double Took = MonotonicMs() - Start;
      EXPECT_GE(Took, Case.MinMs) << Case.Text;
      EXPECT_LE(Took, Case.MaxMs) << Case.Text;
    });
  }
}

// The spinner turns a bar in one cell: show, wait 100 ms, back up; nine steps and a blank.
TEST(DoorWrite, SpinnerDrawsATurningBar) {
  double Took = 0;
  const TPackets Sends = SendsOf([&] {
    DoorSession.SethWrite = true;
    const double Start = MonotonicMs();
    DoorWrite("`|");
    Took = MonotonicMs() - Start;
    EXPECT_GE(Took, 890);
    EXPECT_LE(Took, 2000);
  });
  TPackets Want;
  for (const char* Step : {"|", "\\", "-", "/", "|", "\\", "-", "/", "|", " "}) {
    Want.push_back(Step);
    Want.push_back("\b");
  }
  EXPECT_EQ(Sends, Want) << Hex(Sends);
}

// The key pause shows its prompt, waits in DoorReadKey for the caller, and wipes the prompt.
TEST(DoorWrite, KeyPauseWaitsForTheCaller) {
  TDoorChild Child = StartDoorOnLink(
      [] {
        DoorSession.SethWrite = true;
        DoorWrite("a`kb");
        EXPECT_EQ(DoorLastKey.Ch, 'q');
      },
      SOCK_SEQPACKET);
  const std::string Bright = kEsc + "[1;32m";
  const TPackets Prompt = {"a",    kEsc + "[40m",      "  ",   kGreen, kBlinkOff + kGreen, "<",
                           Bright, kBlinkOff + Bright, "MORE", kGreen, kBlinkOff + kGreen, ">"};
  TPackets Got;
  for (size_t I = 0; I < Prompt.size(); ++I) Got.push_back(ReadPacket(Child.CallerFd));
  EXPECT_EQ(Got, Prompt) << Hex(Got);
  EXPECT_EQ(ReadPacket(Child.CallerFd, 300), "") << "the pause must wait for a key";
  SendToDoor(Child.CallerFd, "q");
  EXPECT_EQ(ReadPacket(Child.CallerFd), "\b\b\b\b\b\b\b\b        \b\b\b\b\b\b\b\b");
  EXPECT_EQ(ReadPacket(Child.CallerFd), "b");
  EXPECT_EQ(FinishDoor(Child), 0);
}

TEST(DoorWriteLn, AddsCrLfInTheSameSend) {
  EXPECT_EQ(SendsOf([] { DoorWriteLn(); }), TPackets{"\r\n"});
  EXPECT_EQ(SendsOf([] { DoorWriteLn("line"); }), TPackets{"line\r\n"});
  EXPECT_EQ(SendsOf([] { DoorWriteLn(""); }), TPackets{"\r\n"});
}

TEST(DoorWriteCentered, StartsAtHalfTheRemainingWidth) {
  const std::string Left = kEsc + "[255D";
  const struct {
    bool Seth;
    std::string Text;
    std::string Move;  // what DoorGotoX sends
  } Cases[] = {
      {false, "", Left + kEsc + "[39C"},            // column 40
      {false, "0123456789", Left + kEsc + "[34C"},  // column 35: no +1
      {false, "|0Fabc", Left + kEsc + "[36C"},      // pipe codes count as text: column 37
      {true, "`1abc", Left + kEsc + "[37C"},        // Seth codes don't: column 38
      {false, std::string(79, 'x'), Left},          // column 0 and 1 are the same move
      {false, std::string(80, 'x'), Left},         {false, std::string(81, 'x'), Left},
      {false, std::string(200, 'x'), Left},
  };
  for (const auto& Case : Cases) {
    const TPackets Got = SendsOf([&] {
      DoorSession.PipeWrite = false;
      DoorSession.SethWrite = Case.Seth;
      DoorWriteCentered(Case.Text);
    });
    ASSERT_FALSE(Got.empty());
    EXPECT_EQ(Got[0], Case.Move) << Case.Text.size() << " bytes: " << HexBytes(Got[0]);
  }
}

TEST(DoorScreenOperations, OneSendEachWithTheRecordUpdatedFirst) {
  const struct {
    const char* Name;
    uint8_t AttrBefore;
    std::function<void()> Op;
    TPackets Sends;
    uint8_t AttrAfter;
  } Cases[] = {
      {"ClrScr", 7, [] { DoorClrScr(); }, {kEsc + "[2J" + kEsc + "[1;1f"}, 7},
      {"CursorUp 0", 7, [] { DoorCursorUp(0); }, {kEsc + "[0A"}, 7},
      {"CursorDown", 7, [] { DoorCursorDown(255); }, {kEsc + "[255B"}, 7},
      {"CursorRight", 7, [] { DoorCursorRight(3); }, {kEsc + "[3C"}, 7},
      {"CursorLeft", 7, [] { DoorCursorLeft(12); }, {kEsc + "[12D"}, 7},
      {"CursorSave", 7, [] { DoorCursorSave(); }, {kEsc + "[s"}, 7},
      {"CursorRestore", 7, [] { DoorCursorRestore(); }, {kEsc + "[u"}, 7},
      {"GotoXY 0 0", 7, [] { DoorGotoXY(0, 0); }, {kEsc + "[0;0f"}, 7},
      {"GotoXY 80 25", 7, [] { DoorGotoXY(80, 25); }, {kEsc + "[25;80f"}, 7},
      {"GotoX 0", 7, [] { DoorGotoX(0); }, {kEsc + "[255D"}, 7},
      {"GotoX 10", 7, [] { DoorGotoX(10); }, {kEsc + "[255D" + kEsc + "[9C"}, 7},
      {"GotoY 1", 7, [] { DoorGotoY(1); }, {kEsc + "[255A"}, 7},
      {"GotoY 5", 7, [] { DoorGotoY(5); }, {kEsc + "[255A" + kEsc + "[4B"}, 7},
      {"TextAttr", 7, [] { DoorTextAttr(0x1E); }, {kEsc + "[1;33m" + kEsc + "[44m"}, 0x1E},
      {"TextAttr blink bit", 7, [] { DoorTextAttr(0x9E); }, {kEsc + "[1;33m" + kEsc + "[44m"}, 0x9E},
      {"TextBackground", 0x0E, [] { DoorTextBackground(1); }, {kEsc + "[44m"}, 0x1E},
      {"TextColour bright", 0x17, [] { DoorTextColour(14); }, {kEsc + "[1;33m"}, 0x1E},
      // The background that follows a dark colour is read from the record: blue, not black.
      {"TextColour dark", 0x1E, [] { DoorTextColour(7); }, {kEsc + "[0;37m" + kEsc + "[44m"}, 0x17},
      {"ColourAndBlink on",
       0x10,
       [] { DoorTextColourAndBlink(4, true); },
       {kEsc + "[0;31m" + kEsc + "[44m", kEsc + "[5m"},
       0x14},
      {"ColourAndBlink off",
       0x10,
       [] { DoorTextColourAndBlink(14, false); },
       {kEsc + "[1;33m", kEsc + "[0m" + kEsc + "[44m" + kEsc + "[1;33m"},
       0x1E},
  };
  for (const auto& Case : Cases) {
    const TPackets Got = SendsOf([&] {
      SetTextAttr(Case.AttrBefore);
      Case.Op();
      EXPECT_EQ(GetTextAttr(), Case.AttrAfter) << Case.Name;
    });
    EXPECT_EQ(Got, Case.Sends) << Case.Name << ": " << Hex(Got);
  }
}

// --- Standard output -----------------------------------------------------------------------

TEST(DoorWrite, StdioModeWritesStandardOutputUnchanged) {
  TDoorChild Child = StartDoorOnStdout([] {
    DoorWrite(
        "a\xFF"
        "b");
    DoorWrite("|0Fx");
    DoorWrite("");
    DoorSession.SethWrite = true;
    DoorWrite("c`1d");
    DoorWriteLn("!");
  });
  const std::string Want =
      "a\xFF"
      "b" +
      kEsc + "[1;37m" + kEsc + "[40mx" + "c" + kBlue + kBlinkOff + kBlue + "d!\r\n";
  EXPECT_EQ(HexBytes(ReadUntilClosed(Child.OutputFd)), HexBytes(Want));
  EXPECT_EQ(FinishDoor(Child), 0);
}

// The same write never goes both ways: with the link open, StdIO alone picks the side.
TEST(DoorWrite, OneDestinationOnly) {
  TDoorChild Child = StartDoorOnLink(
      [] {
        StdIO = true;
        DoorWrite("to stdout");
        StdIO = false;
        DoorWrite("to caller");
      },
      SOCK_STREAM, true);
  EXPECT_EQ(ReadUntilClosed(Child.OutputFd), "to stdout");
  EXPECT_EQ(ReadUntilClosed(Child.CallerFd), "to caller");
  EXPECT_EQ(FinishDoor(Child), 0);
}

// --- Files ---------------------------------------------------------------------------------

std::string DisplayedOnLink(const std::function<void()>& ADoorSide) {
  TDoorChild Child = StartDoorOnLink(ADoorSide, SOCK_STREAM);
  const std::string Got = ReadUntilClosed(Child.CallerFd);
  EXPECT_EQ(FinishDoor(Child), 0);
  return Got;
}

TEST(DoorDisplayFile, SendsLinesWithCrLfBetweenThem) {
  TTempDir Dir;
  const std::string Block(65535, 'x');  // puts a CR at the end of the reader's first block
  const struct {
    std::string Content;
    std::string Sent;
  } Cases[] = {
      {"", ""},
      {"one", "one"},
      {"a\nb", "a\r\nb"},
      {"a\r\nb\r\n", "a\r\nb"},  // the end of the file follows the last line end
      {"a\rb\n\rc", "a\r\nb\r\n\r\nc"},
      {"a\n\n", "a\r\n"},
      {"\n", ""},
      {"\n\nz", "\r\n\r\nz"},
      {"\r\n\r", "\r\n"},
      {std::string("\x1A mid \x1A\x00 end", 12) + "\nnext",
       std::string("\x1A mid \x1A\x00 end", 12) + "\r\nnext"},
      {"|0Fhi\n`1", kEsc + "[1;37m" + kEsc + "[40mhi\r\n`1"},
      {Block + "\r\nlast", Block + "\r\nlast"},
      {std::string(200000, 'y') + "\n" + std::string(3, 'z'), std::string(200000, 'y') + "\r\nzzz"},
  };
  int N = 0;
  for (const auto& Case : Cases) {
    const std::filesystem::path File = Dir.Path / ("f" + std::to_string(N++) + ".txt");
    WriteWholeFile(File, Case.Content);
    const std::string Got = DisplayedOnLink([&] { DoorDisplayFile(File.string()); });
    EXPECT_EQ(Got.size(), Case.Sent.size()) << "file " << N - 1;
    EXPECT_TRUE(Got == Case.Sent) << "file " << N - 1 << ": " << HexBytes(Got.substr(0, 64));
  }
}

TEST(DoorDisplaySixel, SendsThePictureUntouched) {
  TTempDir Dir;
  const std::filesystem::path File = Dir.Path / "pic.six";
  WriteWholeFile(File, "\x1BPq|0F`1#0;2;0;0;0\n-`r9|\x1B\\");
  const std::string Got = DisplayedOnLink([&] {
    DoorSession.SethWrite = true;
    DoorDisplaySixel(File.string());
    EXPECT_FALSE(DisplayingSixel);
    DoorWrite("|0F");
  });
  EXPECT_EQ(HexBytes(Got),
            HexBytes("\x1BPq|0F`1#0;2;0;0;0\r\n-`r9|\x1B\\" + kEsc + "[1;37m" + kEsc + "[40m"));
}

// A file that can't be read: two lines to the caller, one key, and the run goes on.
TEST(DoorDisplayFile, FailureTellsTheCallerAndWaitsForAKey) {
  TTempDir Dir;
  const std::string Missing = (Dir.Path / "none.ans").string();
  const std::string Locked = (Dir.Path / "locked.ans").string();
  WriteWholeFile(Locked, "secret");
  chmod(Locked.c_str(), 0);
  const struct {
    std::string Name;
    bool Sixel;
    bool AsNobody;  // even root is refused a file without read permission as someone else
    std::string Reason;
  } Cases[] = {
      {Missing, false, false, "File not found"},
      {Missing, true, false, "File not found"},
      {Locked, false, true, "Access denied"},
      {Dir.Path.string(), false, false, "Is a directory"},
  };
  for (const auto& Case : Cases) {
    TDoorChild Child = StartDoorOnLink(
        [&] {
          if (Case.AsNobody && geteuid() == 0 && setuid(65534) != 0) ADD_FAILURE() << "setuid";
          if (Case.Sixel)
            DoorDisplaySixel(Case.Name);
          else
            DoorDisplayFile(Case.Name);
          EXPECT_FALSE(DisplayingSixel);
          EXPECT_EQ(DoorLastKey.Ch, ' ');
          DoorWrite("after");
        },
        SOCK_STREAM);
    const std::string Message =
        "Error reading \"" + Case.Name + "\": " + Case.Reason + "\r\nHit a key to continue\r\n";
    EXPECT_EQ(ReadAtLeast(Child.CallerFd, Message.size()), Message);
    EXPECT_EQ(ReadAtLeast(Child.CallerFd, 1, 300), "") << "the run must wait for a key";
    SendToDoor(Child.CallerFd, " ");
    EXPECT_EQ(ReadUntilClosed(Child.CallerFd), "after");
    EXPECT_EQ(FinishDoor(Child), 0);
  }
}

}  // namespace
