// Item display: the wrap, the centring and the counter as tables; and whole paints captured on
// a real socketpair and shown on a terminal model, so that rows and columns are checked the way
// a caller sees them. This binary opens the door's link once for all its tests.
#include "display.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <functional>

#include "comm/comm.h"
#include "config.h"
#include "door/door.h"
#include "scanner.h"
#include "screenmodel.h"
#include "skins.h"
#include "stringutils/strbasics.h"

namespace {

// The caller's end of the door's link, opened once for the whole binary.
int CallerFd() {
  static const int Fd = [] {
    int Pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, Pair) != 0) std::abort();
    StdIO = false;
    CommOpen(Pair[0]);
    return Pair[1];
  }();
  return Fd;
}

std::string Drain(int AFd) {
  std::string Bytes;
  char Buffer[65536];
  for (ssize_t Got; (Got = recv(AFd, Buffer, sizeof Buffer, MSG_DONTWAIT)) > 0;)
    Bytes.append(Buffer, size_t(Got));
  return Bytes;
}

// What AStep sends to the caller, telnet framing removed.
std::string Captured(const std::function<void()>& AStep) {
  const int Fd = CallerFd();
  Drain(Fd);
  AStep();
  return TelnetPayload(Drain(Fd));
}

TScreenModel Shown(const std::string& ABytes) {
  TScreenModel Screen;
  ScreenFeed(Screen, ABytes);
  return Screen;
}

// AItem painted as the first of ATotal items.
TScreenModel ShowOnly(const TRSSItem& AItem, int32_t ATotal) {
  Items = {};
  AddItem(Items, AItem);
  ItemCount = 1;
  return Shown(Captured([&] { ShowItem(0, ATotal); }));
}

std::string Words(int ACount, const std::string& AWord) {
  std::string Text;
  for (int I = 0; I < ACount; ++I) Text += (I ? " " : "") + AWord;
  return Text;
}

}  // namespace

TEST(WordWrap, Table) {
  const std::tuple<std::string, int32_t, std::string> Cases[] = {
      {"one", 10, "one\n"},
      {"aaa bbb ccc", 7, "aaa \nbbb ccc\n"},  // "bbb" would fit, but its blank travels with it
      {"aaa bbb", 8, "aaa bbb\n"},
      {"aaaa bbb", 7, "aaaa \nbbb\n"},                // "aaaa bbb" is 8 bytes: the second word moves
      {"abcdefghijkl xy", 5, "abcdefghijkl \nxy\n"},  // a long word is never split
      {"a\n\n\n\nb", 10, "a\nb\n"},                   // a run of line ends is one break
      {"a\r\n\r\nb\rc", 10, "a\nb\nc\n"},
      {"\n\nlead", 10, "lead\n"},
      {"trail\n\n", 10, "trail\n"},
      {"a\n   \nb", 10, "a\n   \nb\n"},                         // a line of blanks alone does come out
      {"x\ty\x01z", 3, "x\t\ny\x01z\n"},                        // tabs and control bytes are blanks
      {"\xC3\xA9t\xC3\xA9 ok", 6, "\xC3\xA9t\xC3\xA9 \nok\n"},  // high bytes are word bytes
      {"ab cd", -5, "ab \ncd\n"},                               // no width at all: one word a line
  };
  for (const auto& [Text, Width, Wrapped] : Cases)
    EXPECT_EQ(WordWrap(Text, Width), Wrapped) << "text \"" << Text << "\" width " << Width;
}

TEST(CenteredColumn, Table) {
  const std::pair<size_t, uint8_t> Cases[] = {{0, 41},  {1, 40},   {5, 38},   {38, 22},  {41, 20},
                                              {54, 14}, {70, 6},   {80, 1},   {81, 0},   {82, 0},
                                              {83, 0},  {84, 255}, {85, 255}, {86, 254}, {600, 253}};
  for (const auto& [Length, Column] : Cases) EXPECT_EQ(CenteredColumn(Length), Column) << "length " << Length;
}

TEST(ItemCounterText, Table) {
  const std::tuple<int32_t, int32_t, std::string> Cases[] = {
      {2, 12, "(03/12)"}, {2, 9, "(03/9)"},       {9, 12, "(10/12)"}, {0, 1, "(01/1)"},
      {8, 9, "(09/9)"},   {99, 150, "(100/150)"}, {9, 10, "(10/10)"}};
  for (const auto& [Index, Total, Text] : Cases) EXPECT_EQ(ItemCounterText(Index, Total), Text);
}

TEST(DoorWriteLnWrapped, SixteenLinesCutTo54AtColumn14) {
  const std::string Body = "first line\n" + std::string(70, 'L') + "\n" + std::string(54, 'M') + " \n" +
                           std::string(55, 'N') + "\n   indented\n" + Words(20, "more\n");
  TScreenModel Screen;
  ScreenFeed(Screen, "\x1B[7;14f");
  ScreenFeed(Screen, Captured([&] { DoorWriteLnWrapped(Body); }));
  const std::string Pad(13, ' ');
  std::vector<std::string> Want = {Pad + "first line", Pad + std::string(54, 'L'), Pad + std::string(54, 'M'),
                                   Pad + std::string(54, 'N'), Pad + "indented"};
  Want.resize(16, Pad + "more");
  Want.push_back("");  // lines after the sixteenth are dropped
  for (size_t I = 0; I < Want.size(); ++I) EXPECT_EQ(ScreenRow(Screen, 7 + int(I)), Want[I]) << 7 + I;
  EXPECT_EQ(Screen.X, 14);
  EXPECT_EQ(Screen.Y, 23);
}

TEST(DoorWriteLnCentered2Line, TwoTrimmedCentredLinesAtMost) {
  TScreenModel Screen;
  ScreenFeed(Screen, "\x1B[3;1f");
  ScreenFeed(Screen, Captured([] { DoorWriteLnCentered2Line(Words(30, "word"), 54); }));
  const std::string Line = Words(10, "word");  // 11 words are 54 with the blank: 10 fit
  EXPECT_EQ(ScreenRow(Screen, 3), std::string(CenteredColumn(Line.size()) - 1, ' ') + Line);
  EXPECT_EQ(ScreenRow(Screen, 4), std::string(CenteredColumn(Line.size()) - 1, ' ') + Line);
  EXPECT_EQ(ScreenRow(Screen, 5), "");
  EXPECT_EQ(Screen.Y, 5);
  EXPECT_EQ(Captured([] { DoorWriteLnCentered2Line("", 54); }), "");
}

TEST(ShowItem, TitleDateBodyCounterAndCommandLine) {
  struct TCase {
    TRSSItem Item;
    int TitleRows;  // rows the title takes from row 3
    int DateRow;
    int BodyRow;
  } Cases[] = {
      {{"Short title", "Body starts here.", "", "Mon, 2 Jan 2026"}, 1, 5, 7},
      {{Words(15, "title"), "Body starts here.", "", "Mon"}, 2, 6, 8},
      {{Words(40, "title"), "Body here.", "", "Mon"}, 2, 6, 8},  // a third title line is not shown
      {{"", "Body starts here.", "", "Mon"}, 0, 4, 6},
      {{"Title", "Body starts here.", "", ""}, 1, 5, 7},
      {{"Title", "", "", "Tue"}, 1, 5, 7},
  };
  for (const auto& C : Cases) {
    const TScreenModel Screen = ShowOnly(C.Item, 12);
    SCOPED_TRACE(ScreenDump(Screen));
    if (!C.Item.PubDate.empty()) {
      EXPECT_EQ(Trim(ScreenText(Screen, 13, C.DateRow, 56)), C.Item.PubDate);
      EXPECT_EQ(ScreenAttr(Screen, CenteredColumn(C.Item.PubDate.size()), C.DateRow), 0x7B);
    }
    for (int Y = 3; Y < C.BodyRow; ++Y) {
      if (Y == C.DateRow) continue;
      EXPECT_EQ(Trim(ScreenText(Screen, 13, Y, 56)).empty(), Y >= 3 + C.TitleRows) << Y;
    }
    if (!C.Item.Description.empty()) {
      EXPECT_EQ(ScreenText(Screen, 14, C.BodyRow, 4), C.Item.Description.substr(0, 4));
      EXPECT_EQ(ScreenAttr(Screen, 14, C.BodyRow), 0x7E);
    }
    EXPECT_EQ(ScreenText(Screen, 74, 1, 7), "(01/12)");
    EXPECT_EQ(ScreenAttr(Screen, 74, 1), 0x1F);
    EXPECT_EQ(ScreenText(Screen, 22, 25, 38), COMMAND_LINE);
    EXPECT_EQ(ScreenAttr(Screen, 22, 25), 0x0E);
    EXPECT_EQ(std::tuple(Screen.Scrolls, Screen.X, Screen.Y), std::tuple(0, 60, 25));
  }
}

TEST(ShowItem, LongTitleWordTwoLineTitleAndSixteenBodyLines) {
  TScreenModel Screen = ShowOnly({std::string(70, 'T'), "body", "", "date"}, 1);
  EXPECT_EQ(ScreenRow(Screen, 3), std::string(5, ' ') + std::string(70, 'T'));  // not cut, from column 6
  EXPECT_EQ(ScreenText(Screen, 74, 1, 7), "(01/1) ");  // the blanks wipe a wider count
  Screen = ShowOnly({Words(15, "title"), Words(16, "line\n"), "", "date"}, 1);
  EXPECT_EQ(ScreenRow(Screen, 8), std::string(13, ' ') + "line");
  EXPECT_EQ(ScreenRow(Screen, 23), std::string(13, ' ') + "line");
  EXPECT_EQ(Screen.Scrolls, 0);
}

TEST(ShowItem, PipeCodesInFeedTextReachTheDoorAsColours) {
  const TScreenModel Screen = ShowOnly({"|0CRed", "body", "", "date"}, 1);
  // Centred on its six bytes, code included: column 38.
  EXPECT_EQ(ScreenText(Screen, 38, 3, 3), "Red");
  EXPECT_EQ(ScreenAttr(Screen, 38, 3) & 0x0F, 0x0C);
}

// The first control byte in ABytes that the door's own painting of an item doesn't send, or
// "" when there is none: the door sends CR and LF only as a pair, and ESC only to begin one of
// its cursor moves and colours ("ESC [", digits and ";", then one of f, A to D, m).
std::string StrayControl(const std::string& ABytes) {
  for (size_t I = 0; I < ABytes.size(); ++I) {
    const auto Byte = static_cast<uint8_t>(ABytes[I]);
    if (Byte >= 0x20 && Byte != 0x7F) continue;
    if (Byte == '\r' && I + 1 < ABytes.size() && ABytes[I + 1] == '\n') {
      ++I;
      continue;
    }
    if (Byte == 0x1B && I + 1 < ABytes.size() && ABytes[I + 1] == '[') {
      size_t End = I + 2;
      while (End < ABytes.size() && (std::isdigit(static_cast<uint8_t>(ABytes[End])) || ABytes[End] == ';'))
        ++End;
      if (End < ABytes.size() && std::string_view("fABCDm").find(ABytes[End]) != std::string_view::npos) {
        I = End;
        continue;
      }
    }
    return testing::PrintToString(ABytes.substr(I, 8));
  }
  return "";
}

TEST(ShowItem, NoControlSequenceFromAFeedReachesTheCaller) {
  const std::pair<const char*, std::string> Sequences[] = {
      {"CSI cursor report", "\x1B[6n"},
      {"CSI clear, as an entity", "&#27;[2J"},
      {"OSC window title", "\x1B]0;owned\x07"},
      {"OSC clipboard", "\x1B]52;c;aGVsbG8=\x1B\\"},
      {"DCS", "\x1BP$q m\x1B\\"},
      {"APC", "\x1B_payload\x1B\\"},
      {"lone ESC", "\x1B"},
      {"BEL", "\x07"},
      {"BS", "\x08\x08\x08"},
      {"CR and LF", "\r\n"},
      {"DEL and NUL", std::string("\x7F\0", 2)},
  };
  const char* Fields[] = {"title", "description", "pubDate"};
  MaxItems = 50;
  for (const auto& [Name, Sequence] : Sequences) {
    for (const char* Field : Fields) {
      RSSText = "<item>";
      for (const char* Other : Fields) {
        const std::string Tag = Other;
        RSSText += "<" + Tag + ">" + Tag + " a" + (Other == Field ? Sequence : "") + "b end</" + Tag + ">";
      }
      RSSText += "</item>";
      ScanFeedItems();
      ASSERT_EQ(ItemCount, 1);
      EXPECT_EQ(StrayControl(Captured([] { ShowItem(0, 1); })), "") << Name << " in " << Field;
    }
  }
}

TEST(About, RowsOfTheViewAndTheKeyItDrops) {
  ASSERT_EQ(send(CallerFd(), "q", 1, 0), 1);
  const TScreenModel Screen = Shown(Captured([] { About(); }));
  SCOPED_TRACE(ScreenDump(Screen));
  EXPECT_EQ(ScreenRow(Screen, 3), std::string(30, ' ') + "About (ver 2025.8.1)");
  EXPECT_EQ(ScreenRow(Screen, 4), std::string(25, ' ') + "Tamblin Reader by Morgan Vale");
  EXPECT_EQ(Trim(ScreenText(Screen, 13, 5, 56)), "");
  EXPECT_EQ(ScreenText(Screen, 14, 6, 44), "This project started because Dale Orchard of");
  for (int Y = 6; Y <= 12; ++Y) EXPECT_NE(Trim(ScreenText(Screen, 13, Y, 56)), "") << Y;
  EXPECT_EQ(Trim(ScreenText(Screen, 13, 13, 56)), "");
  for (int Y = 14; Y <= 17; ++Y) EXPECT_NE(Trim(ScreenText(Screen, 13, Y, 56)), "") << Y;
  EXPECT_EQ(Trim(ScreenText(Screen, 13, 17, 56)), "version from https://github.com/tamblin/reader!");
  EXPECT_EQ(Trim(ScreenText(Screen, 13, 18, 56)), "");
  EXPECT_EQ(ScreenRow(Screen, 19), std::string(19, ' ') + "*** Press Any Key To Continue Reading ***");
  EXPECT_EQ(ScreenAttr(Screen, 20, 19), 0x7E);
  EXPECT_EQ(ScreenAttr(Screen, 31, 3), 0x7F);
  EXPECT_EQ(DoorLastKey.Ch, 'q');
}
