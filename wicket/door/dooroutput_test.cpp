// What the caller receives, byte for byte and send for send: each door runs in a forked
// child on a socketpair (SOCK_SEQPACKET, so that every send arrives as one packet) or with
// standard output on a pipe, starting from the attribute 7 of a fresh process.
#include "dooroutput.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "crt2/crt2.h"
#include "doorinput.h"
#include "doorlink_testutil.h"
#include "testsupport.h"

namespace {

using TPackets = std::vector<std::string>;

const std::string ESC = "\x1B";
// Sequences of a fresh process (attribute 7) for the colours the tests use.
const std::string BLUE = ESC + "[0;34m" + ESC + "[40m";  // foreground 1 on black
const std::string GREEN = ESC + "[0;32m" + ESC + "[40m";
const std::string WHITE = ESC + "[1;37m" + ESC + "[40m";   // pipe code 0F
const std::string BLINK_OFF = ESC + "[0m" + ESC + "[40m";  // then the foreground again
const std::string LEFT = ESC + "[255D";
const std::string WIDE(81, 'x');

std::string Hex(const TPackets& APackets) {
  std::string Result;
  for (const std::string& Packet : APackets) Result += "[" + HexBytes(Packet) + "] ";
  return Result;
}

// Every send the door makes while ADoorSide runs, one string per send.
TPackets SendsOf(const std::function<void()>& ADoorSide) {
  TDoorRun Door([&](int) { ADoorSide(); }, {.OnLink = true, .SocketType = SOCK_SEQPACKET});
  TPackets Packets;
  for (std::string Packet; !(Packet = ReadPacket(Door.Caller)).empty();) Packets.push_back(Packet);
  EXPECT_EQ(FinishDoor(Door), 0);
  return Packets;
}

// Each piece goes out as one send; the pauses wait their time; the spinner turns a bar in one
// cell: show, wait 100 ms, back up; nine steps and a blank.
TEST(DoorWrite, SendsEachPieceAsOneSend) {
  TPackets Spinner;
  for (const char* Step : {"|", "\\", "-", "/", "|", "\\", "-", "/", "|", " "})
    Spinner.insert(Spinner.end(), {Step, "\b"});
  const struct {
    bool Pipe, Seth, Sixel;
    std::string Text;
    TPackets Sends;
    double MinMs = 0, MaxMs = 1000;  // how long the write may take
  } Cases[] = {
      {true, true, false, "", {}},
      {true, false, false, "a\xFF!", {"a\xFF\xFF!"}},  // telnet doubling on the link
      {false, false, false, "|0F", {"|0F"}},
      {true, false, false, "|0Fhi", {WHITE + "hi"}},
      {false, true, false, "`", {"`"}},  // under 2 bytes: no walk
      {false, false, false, "a`1b", {"a`1b"}},
      {false, true, false, "abc`", {"abc"}},
      {false, true, false, "abc`1def", {"abc", BLUE, BLINK_OFF + BLUE, "def"}},
      {false, true, false, "`z`r9`Qx`r", {"x"}},  // unknown codes vanish
      {false, true, false, "`x`d`\\", {" ", "\b", "\r\n"}},
      {false, true, false, "``1", {"1"}},  // "``" is an unknown code
      // Pipe codes are converted over the whole text first; the Seth walk sees the result.
      {true, true, false, "`|0Fx", {"[1;37m" + ESC + "[40mx"}},
      {true, true, true, "|0F`1`", {"|0F`1`"}},
      {false, true, false, "`w", {}, 95, 400},
      {false, true, false, "`l", {}, 490, 900},
      {false, true, false, "`|", Spinner, 890, 2000},
  };
  for (const auto& Case : Cases) {
    const TPackets Got = SendsOf([&] {
      DoorSession.PipeWrite = Case.Pipe;
      DoorSession.SethWrite = Case.Seth;
      DisplayingSixel = Case.Sixel;
      const double Start = MonotonicMs();
      DoorWrite(Case.Text);
      EXPECT_GE(MonotonicMs() - Start, Case.MinMs) << Case.Text;
      EXPECT_LE(MonotonicMs() - Start, Case.MaxMs) << Case.Text;
    });
    EXPECT_EQ(Got, Case.Sends) << HexBytes(Case.Text) << " gave " << Hex(Got);
  }
}

// Each Seth code does what the direct call does, send for send, and leaves the same attribute
// (sent after each code, so that it is compared too).
TEST(DoorWrite, SethCodesMatchTheirOperations) {
  const std::string Colours = "123456789*0!@#$%by";
  const uint8_t Values[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 0, 10, 11, 12, 13, 14, 15, 4, 14};
  auto AllCodes = [&](bool ABySeth) {
    return SendsOf([&] {
      DoorSession.SethWrite = true;
      auto Attr = [] { DoorWrite(std::string(1, static_cast<char>(GetTextAttr()))); };
      for (size_t I = 0; I < Colours.size(); ++I, Attr()) {
        if (ABySeth) DoorWrite(std::string("`") + Colours[I]);
        if (!ABySeth) DoorTextColourAndBlink(Values[I], Colours[I] >= 'b');
      }
      for (uint8_t Colour = 0; Colour <= 7; ++Colour, Attr()) {
        if (ABySeth) DoorWrite("`r" + std::to_string(Colour));
        if (!ABySeth) DoorTextBackground(Colour);
      }
      if (ABySeth) DoorWrite("`c");
      if (!ABySeth) DoorTextAttr(7), DoorClrScr(), DoorWrite("\r\n\r\n");
    });
  };
  EXPECT_EQ(AllCodes(true), AllCodes(false));
}

// The key pause shows its prompt, waits in DoorReadKey for the caller, and wipes the prompt.
TEST(DoorWrite, KeyPauseWaitsForTheCaller) {
  TDoorRun Door(
      [](int) {
        DoorSession.SethWrite = true;
        DoorWrite("a`kb");
        EXPECT_EQ(DoorLastKey.Ch, 'q');
      },
      {.OnLink = true, .SocketType = SOCK_SEQPACKET});
  const std::string Bright = ESC + "[1;32m";
  const TPackets Prompt = {"a",    ESC + "[40m",       "  ",   GREEN, BLINK_OFF + GREEN, "<",
                           Bright, BLINK_OFF + Bright, "MORE", GREEN, BLINK_OFF + GREEN, ">"};
  TPackets Got;
  for (size_t I = 0; I < Prompt.size(); ++I) Got.push_back(ReadPacket(Door.Caller));
  EXPECT_EQ(Got, Prompt) << Hex(Got);
  EXPECT_EQ(ReadPacket(Door.Caller, 300), "") << "the pause must wait for a key";
  Send(Door.Caller, "q");
  EXPECT_EQ(ReadPacket(Door.Caller), "\b\b\b\b\b\b\b\b        \b\b\b\b\b\b\b\b");
  EXPECT_EQ(ReadPacket(Door.Caller), "b");
  EXPECT_EQ(FinishDoor(Door), 0);
}

// One send each, with the attribute record updated first for the colour operations. (The
// cursor moves are single builder calls, whose bytes the builders' own tests pin.)
TEST(DoorScreenOperations, OneSendEachWithTheRecordUpdatedFirst) {
  const std::string YELLOW = ESC + "[1;33m", ON_BLUE = ESC + "[44m", RED = ESC + "[0;31m",
                    RESET = ESC + "[0m";
  const struct {
    const char* Name;
    uint8_t AttrBefore;
    std::function<void()> Op;
    TPackets Sends;
    uint8_t AttrAfter;
  } Cases[] = {
      {"WriteLn", 7, [] { DoorWriteLn("line"); }, {"line\r\n"}, 7},
      {"TextAttr blink bit", 7, [] { DoorTextAttr(0x9E); }, {YELLOW + ON_BLUE}, 0x9E},
      {"TextBackground", 0x0E, [] { DoorTextBackground(1); }, {ON_BLUE}, 0x1E},
      {"TextColour bright", 0x17, [] { DoorTextColour(14); }, {YELLOW}, 0x1E},
      // The background that follows a dark colour is read from the record: blue, not black.
      {"TextColour dark", 0x1E, [] { DoorTextColour(7); }, {ESC + "[0;37m" + ON_BLUE}, 0x17},
      {"Blink on", 0x10, [] { DoorTextColourAndBlink(4, true); }, {RED + ON_BLUE, ESC + "[5m"}, 0x14},
      {"Off", 0x10, [] { DoorTextColourAndBlink(14, false); }, {YELLOW, RESET + ON_BLUE + YELLOW}, 0x1E},
      // Centred: column (80 - width) / 2, where pipe codes count as text and Seth codes don't.
      {"Centered", 7, [] { DoorWriteCentered("0123456789"); }, {LEFT + ESC + "[34C", "0123456789"}, 7},
      {"Centered empty", 7, [] { DoorWriteCentered(""); }, {LEFT + ESC + "[39C"}, 7},
      {"Centered pipe", 7, [] { DoorWriteCentered("|0Fabc"); }, {LEFT + ESC + "[36C", WHITE + "abc"}, 7},
      {"Seth",
       7,
       [] { DoorSession.SethWrite = true, DoorWriteCentered("`1"); },
       {LEFT + ESC + "[39C", BLUE, BLINK_OFF + BLUE},
       1},
      {"Centered too wide", 7, [] { DoorWriteCentered(WIDE); }, {LEFT, WIDE}, 7},
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

// Standard output gets the converted bytes unchanged (no doubling); with the link open, StdIO
// alone picks the side, and the same write never goes both ways.
TEST(DoorWrite, StdioModeWritesStandardOutputOnly) {
  TDoorRun Door(
      [](int) {
        StdIO = true;
        DoorWrite("a\xFF!");
        DoorWrite("|0Fx");
        DoorWrite("");
        DoorSession.SethWrite = true;
        DoorWrite("c`1d");
        DoorWriteLn("!");
        StdIO = false;
        DoorWrite("to caller");
      },
      {.OnLink = true});
  EXPECT_EQ(FinishDoor(Door), 0);
  EXPECT_EQ(HexBytes(Door.Console), HexBytes("a\xFF!" + WHITE + "xc" + BLUE + BLINK_OFF + BLUE + "d!\r\n"));
  EXPECT_EQ(Door.Heard, "to caller");
}

// --- Files ---------------------------------------------------------------------------------

// Sixel files go out untouched (no pipe or Seth code is looked at, with Seth codes on), and
// pipe codes work again afterwards.
TEST(DoorDisplayFile, SendsLinesWithCrLfBetweenThem) {
  TTempDir Dir;
  const std::string Block(65535, 'x');  // puts a CR at the end of the reader's first block
  const std::string Odd("\x1A mid \x1A\x00 end", 12), Sixel = "\x1BPq|0F`1#0;2;0;0;0";
  const struct {
    bool Sixel;
    std::string Content, Sent;
  } Cases[] = {
      {false, "", ""},
      {false, "a\rb\n\rc", "a\r\nb\r\n\r\nc"},
      {false, "a\r\nb\r\n", "a\r\nb"},  // the end of the file follows the last line end
      {false, "a\n\n", "a\r\n"},
      {false, Odd + "\nnext", Odd + "\r\nnext"},
      {false, "|0Fhi\n`1", WHITE + "hi\r\n`1"},
      {false, Block + "\r\nlast", Block + "\r\nlast"},
      {false, std::string(200000, 'y') + "\nzzz", std::string(200000, 'y') + "\r\nzzz"},
      {true, Sixel + "\n-`r9|\x1B\\", Sixel + "\r\n-`r9|\x1B\\" + WHITE},
  };
  for (const auto& Case : Cases) {
    const std::string File = (Dir.Path / "f.txt").string();
    WriteWholeFile(File, Case.Content);
    TDoorRun Door(
        [&](int) {
          DoorSession.SethWrite = Case.Sixel;
          (Case.Sixel ? DoorDisplaySixel : DoorDisplayFile)(File);
          EXPECT_FALSE(DisplayingSixel);
          if (Case.Sixel) DoorWrite("|0F");
        },
        {.OnLink = true});
    const std::string Got = ReadRest(Door.Caller);
    EXPECT_EQ(FinishDoor(Door), 0);
    EXPECT_EQ(Got.size(), Case.Sent.size()) << HexBytes(Case.Content.substr(0, 16));
    EXPECT_TRUE(Got == Case.Sent) << HexBytes(Case.Content.substr(0, 16)) << ": "
                                  << HexBytes(Got.substr(0, 64));
  }
}

// A file that can't be read: two lines to the caller, one key, and the run goes on.
TEST(DoorDisplayFile, FailureTellsTheCallerAndWaitsForAKey) {
  TTempDir Dir;
  const std::string Missing = (Dir.Path / "none.ans").string();
  const std::string Locked = (Dir.Path / "locked.ans").string();
  WriteWholeFile(Locked, "secret");
  chmod(Locked.c_str(), 0);
  const std::string Fifo = (Dir.Path / "pipe.ans").string();
  ASSERT_EQ(mkfifo(Fifo.c_str(), 0600), 0);
  const struct {
    std::string Name;
    bool Sixel;
    bool AsNobody;  // even root is refused a file without read permission as someone else
    std::string Reason;
  } Cases[] = {
      {Missing, false, false, "File not found"}, {Missing, true, false, "File not found"},
      {Locked, false, true, "Access denied"},    {Dir.Path.string(), false, false, "Is a directory"},
      {Fifo, false, false, "File not found"},  // refused at once, not waited on for a writer
  };
  for (const auto& Case : Cases) {
    TDoorRun Door(
        [&](int) {
          if (Case.AsNobody && geteuid() == 0 && setuid(65534) != 0) ADD_FAILURE() << "setuid";
          (Case.Sixel ? DoorDisplaySixel : DoorDisplayFile)(Case.Name);
          EXPECT_FALSE(DisplayingSixel);
          EXPECT_EQ(DoorLastKey.Ch, ' ');
          DoorWrite("after");
        },
        {.OnLink = true});
    const std::string Message =
        "Error reading \"" + Case.Name + "\": " + Case.Reason + "\r\nHit a key to continue\r\n";
    std::string Seen;
    EXPECT_TRUE(WaitFor(Door.Caller, Seen, Message));
    EXPECT_EQ(Seen + ReadRest(Door.Caller, 300), Message) << "the run must wait for a key";
    Send(Door.Caller, " ");
    EXPECT_EQ(FinishDoor(Door), 0);
    EXPECT_EQ(Door.Heard, "after");
  }
}

}  // namespace
