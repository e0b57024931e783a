// The feed item scanner: normalises the body's line ends in place, cuts out every "<item>" ...
// "</item>" span and fills the program's item list, cleaning each field on the way and taking
// every control byte out of it, so that what the display paints can't drive the terminal.
#include "scanner.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>

#include "bytesearch.h"
#include "cleaner.h"
#include "config.h"
#include "stringutils/strbasics.h"

std::string RSSText;
TRSSItemList Items;
int32_t ItemCount = 0;

namespace {

constexpr std::string_view ITEM_OPEN = "<item>";
constexpr std::string_view ITEM_CLOSE = "</item>";
constexpr size_t ITEM_FIELDS = 4;

// AText with every line end made a single LF, in place: CR LF and a lone CR each become one
// LF, LF CR two. Equal, for every search the scan makes, to splitting the body into lines and
// joining them with LF (only the LF that joining adds after a last line without a line end is
// missing, and no item or field reaches past the last "</item>"), without a second copy.
void NormaliseLineEnds(std::string& AText) {
  size_t In = FindByte(AText, '\r');
  size_t Out = In;
  while (In != std::string_view::npos) {
    AText[Out++] = '\n';
    In += In + 1 < AText.size() && AText[In + 1] == '\n' ? 2 : 1;
    // Out never passes In, so the search runs over bytes not yet moved.
    const size_t Next = FindByte(AText, '\r', In);
    const size_t RunEnd = Next == std::string_view::npos ? AText.size() : Next;
    std::memmove(AText.data() + Out, AText.data() + In, RunEnd - In);
    Out += RunEnd - In;
    In = Next;
  }
  if (Out != std::string_view::npos) AText.resize(Out);
}

// Every control byte (0x00 to 0x1F and 0x7F, ESC among them) that a feed text still holds
// becomes a blank, so that no feed can move the caller's cursor, retitle the window, write the
// clipboard or have the terminal type a report back as keys. CR and LF stay in the texts whose
// display breaks lines there (title and body), where they never reach the caller as bytes. A
// blank rather than nothing keeps every width, wrap and centring as the feed's text gives them:
// the word wrap already takes control bytes for blanks.
void BlankControlBytes(std::string& AText, bool AKeepLineEnds) {
  for (char& C : AText) {
    const auto Byte = static_cast<uint8_t>(C);
    if ((Byte < 0x20 || Byte == 0x7F) && !(AKeepLineEnds && (Byte == '\n' || Byte == '\r'))) C = ' ';
  }
}

// A field as the item holds it: made safe for the caller's terminal, then trimmed, so that a
// DEL at either end goes with the other control bytes there and every field stays trimmed.
std::string ItemField(std::string_view AValue, bool AKeepLineEnds) {
  std::string Field(AValue);
  BlankControlBytes(Field, AKeepLineEnds);
  return Trim(Field);
}

// ExtractTagValue without the copy: a view into ASource.
std::string_view TagValueView(std::string_view ASource, std::string_view ATag) {
  // Both tags stay in the strings' inline buffers for every field name the scan uses.
  std::string Open, Close;
  Open.reserve(ATag.size() + 2);
  Open.append("<").append(ATag).append(">");
  Close.reserve(ATag.size() + 3);
  Close.append("</").append(ATag).append(">");
  const size_t OpenPos = FindBytes(ASource, Open, 0);
  if (OpenPos == std::string_view::npos) return {};
  const size_t Start = OpenPos + Open.size();
  const size_t End = FindBytes(ASource, Close, Start);
  if (End == std::string_view::npos || End <= Start) return {};
  return ASource.substr(Start, End - Start);
}

}  // namespace

bool AddItem(TRSSItemList& AList, const TRSSItem& AItem) {
  const size_t Size = AList.Text.size() + AItem.Title.size() + AItem.Description.size() + AItem.Link.size() +
                      AItem.PubDate.size();
  if (Size > UINT32_MAX) return false;
  for (const std::string* Field : {&AItem.Title, &AItem.Description, &AItem.Link, &AItem.PubDate}) {
    AList.Text += *Field;
    AList.Ends.push_back(static_cast<uint32_t>(AList.Text.size()));
  }
  return true;
}

TRSSItem ItemAt(const TRSSItemList& AList, int32_t AIndex) {
  const size_t First = static_cast<size_t>(AIndex) * ITEM_FIELDS;
  std::string Fields[ITEM_FIELDS];
  uint32_t Start = First == 0 ? 0 : AList.Ends[First - 1];
  for (size_t F = 0; F < ITEM_FIELDS; ++F) {
    Fields[F].assign(AList.Text, Start, AList.Ends[First + F] - Start);
    Start = AList.Ends[First + F];
  }
  return {std::move(Fields[0]), std::move(Fields[1]), std::move(Fields[2]), std::move(Fields[3])};
}

std::string ExtractTagValue(std::string_view ASource, std::string_view ATag) {
  return std::string(TagValueView(ASource, ATag));
}

void ScanFeedItems() {
  // The body is taken over, not copied: a large feed is held once, and its memory goes back
  // as soon as the items are out of it.
  std::string Text = std::move(RSSText);
  RSSText = std::string();
  NormaliseLineEnds(Text);
  const std::string_view T = Text;

  Items = {};
  ItemCount = 0;
  // Room for every item the feed could hold, so that the list never grows by copying itself;
  // what is reserved but never filled takes no memory.
  size_t Openings = 0;
  for (size_t At = FindBytes(T, ITEM_OPEN, 0); At != std::string_view::npos;
       At = FindBytes(T, ITEM_OPEN, At + ITEM_OPEN.size()))
    ++Openings;
  Items.Ends.reserve(std::min<size_t>(Openings, static_cast<size_t>(std::max(MaxItems, 1))) * ITEM_FIELDS);
  Items.Text.reserve(T.size());

  size_t CurrPos = 0;
  for (;;) {
    const size_t ItemStart = FindBytes(T, ITEM_OPEN, CurrPos);
    if (ItemStart == std::string_view::npos) break;
    const size_t ItemEnd = FindBytes(T, ITEM_CLOSE, ItemStart);
    if (ItemEnd == std::string_view::npos) break;  // a cut-off item is not taken
    const std::string_view ItemText = T.substr(ItemStart, ItemEnd + ITEM_CLOSE.size() - ItemStart);

    TRSSItem Item;
    Item.Title = ItemField(CleanTextForBBS(TagValueView(ItemText, "title")), true);
    Item.Description = ItemField(CleanTextForBBS(TagValueView(ItemText, "description")), true);
    Item.Link = ItemField(CleanTextForBBS(TagValueView(ItemText, "link")), true);
    // The date is not cleaned: entities and markup stay as the feed wrote them; only its
    // control bytes go, line ends included, since nothing wraps it.
    Item.PubDate = ItemField(TagValueView(ItemText, "pubDate"), false);
    if (!AddItem(Items, Item)) break;

    CurrPos = ItemEnd + ITEM_CLOSE.size();
    ++ItemCount;
    // The test stands behind the first item: MaxItems 0 or below still yields one item.
    if (ItemCount >= MaxItems) break;
  }
}
