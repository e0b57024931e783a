// Item display: the text box, the word wrap, the centring and the item counter, painted
// through the door's output over whatever skin is on the caller's screen.
#include "display.h"

#include "config.h"
#include "door/door.h"
#include "scanner.h"
#include "stringutils/strbasics.h"

namespace {

// The text box is 56 columns wide and 21 rows high.
constexpr int32_t BOX_WIDTH = 56;
constexpr int32_t BOX_HEIGHT = 21;
// The body starts one column inside the box, and its lines are cut to this many bytes.
constexpr uint8_t BODY_X = StartX + 1;
constexpr size_t BODY_CUT = 54;
constexpr size_t BODY_LINES = 16;
// Titles wrap one byte narrower than bodies.
constexpr int32_t TITLE_WIDTH = 54;
// The counter's cell on row 1, blanked before each count.
constexpr uint8_t COUNTER_X = 74;
constexpr std::string_view COUNTER_BLANKS = "       ";

bool IsLineEnd(uint8_t AByte) { return AByte == '\n' || AByte == '\r'; }

// Settings hold 32-bit numbers; only their low eight bits reach the colour operations.
uint8_t Colour(int32_t ASetting) { return static_cast<uint8_t>(ASetting); }

}  // namespace

std::vector<std::string> WordWrapLines(std::string_view S, int32_t LineWidth) {
  std::vector<std::string> Lines;
  std::string Line;
  const int64_t Width = LineWidth;
  size_t J = 0;
  while (J < S.size()) {
    const size_t WordStart = J;
    while (J < S.size() && static_cast<uint8_t>(S[J]) > 0x20) ++J;
    while (J < S.size() && static_cast<uint8_t>(S[J]) <= 0x20 && !IsLineEnd(static_cast<uint8_t>(S[J]))) ++J;
    const std::string_view Word = S.substr(WordStart, J - WordStart);
    if (static_cast<int64_t>(Word.size() + Line.size()) > Width && !Line.empty()) {
      Lines.push_back(std::move(Line));
      Line.clear();
    }
    Line += Word;
    if (J < S.size() && IsLineEnd(static_cast<uint8_t>(S[J]))) {
      if (!Line.empty()) Lines.push_back(std::move(Line));
      Line.clear();
      while (J < S.size() && IsLineEnd(static_cast<uint8_t>(S[J]))) ++J;
    }
  }
  if (!Line.empty()) Lines.push_back(std::move(Line));
  return Lines;
}

std::string WordWrap(std::string_view S, int32_t LineWidth) {
  std::string Text;
  for (const auto& Line : WordWrapLines(S, LineWidth)) {
    Text += Line;
    Text += '\n';
  }
  return Text;
}

uint8_t CenteredColumn(size_t ALength) {
  // A length beyond any int64 cannot reach us: strings that long don't fit in memory.
  return static_cast<uint8_t>((82 - static_cast<int64_t>(ALength)) / 2);
}

void DoorWriteCentered2(std::string_view S) {
  DoorGotoX(CenteredColumn(S.size()));
  DoorWrite(S);
}

void DoorWriteLnCentered2Line(std::string_view S, int32_t LineWidth) {
  const auto Lines = WordWrapLines(S, LineWidth);
  for (size_t I = 0; I < Lines.size() && I < 2; ++I) {
    DoorWriteCentered2(Trim(Lines[I]));
    DoorWriteLn();
  }
}

void DoorWriteLnWrapped(std::string_view S) {
  const auto Lines = WordWrapLines(S, WrapCol);
  for (size_t I = 0; I < Lines.size() && I < BODY_LINES; ++I) {
    const std::string Line = TrimLeft(Lines[I]);
    DoorWriteLn(std::string_view(Line).substr(0, BODY_CUT));
    DoorGotoX(BODY_X);
  }
}

void ClearBox() {
  static const std::string Blanks(BOX_WIDTH, ' ');
  DoorTextBackground(Colour(FeedBgColor));
  for (int32_t Y = 0; Y < BOX_HEIGHT; ++Y) {
    DoorGotoXY(StartX, static_cast<uint8_t>(Y + StartY));
    DoorWrite(Blanks);
  }
}

std::string ItemCounterText(int32_t Index, int32_t Total) {
  const int32_t Number = Index + 1;
  return (Number < 10 ? "(0" : "(") + std::to_string(Number) + "/" + std::to_string(Total) + ")";
}

void ShowItem(int32_t Index, int32_t Total) {
  const TRSSItem Item = ItemAt(Items, Index);
  ClearBox();
  DoorGotoY(StartY + 1);

  DoorTextColour(Colour(TitleColor));
  DoorWriteLnCentered2Line(Item.Title, TITLE_WIDTH);
  DoorWriteLn();

  DoorTextColour(Colour(DateColor));
  DoorWriteCentered2(Item.PubDate);
  DoorWriteLn();
  DoorWriteLn();

  DoorGotoX(BODY_X);
  DoorTextColour(Colour(BodyTextColor));
  DoorWriteLnWrapped(Item.Description);

  // The blanks wipe a longer count left by an earlier item; they still carry the box colour.
  DoorGotoXY(COUNTER_X, 1);
  DoorWrite(COUNTER_BLANKS);
  DoorGotoXY(COUNTER_X, 1);
  DoorTextBackground(Colour(PageBgColor));
  DoorTextColour(Colour(PageColor));
  DoorWrite(ItemCounterText(Index, Total));

  // No line end after the command line: on row 25 it would scroll the whole screen.
  DoorGotoY(25);
  DoorTextBackground(0);
  DoorTextColour(Colour(CommandColor));
  DoorWriteCentered2(COMMAND_LINE);
}
