// The feed item scanner: normalises the body's line ends, cuts out every "<item>" ...
// "</item>" span and fills the program's item list, cleaning each field on the way.
#include "scanner.h"

#include <string_view>
#include <utility>

#include "bytesearch.h"
#include "cleaner.h"
#include "config.h"
#include "stringutils/strbasics.h"
#include "textlines.h"

std::string RSSText;
std::vector<std::string> Feed;
std::vector<TRSSItem> Items;
int32_t ItemCount = 0;

namespace {

constexpr std::string_view ITEM_OPEN = "<item>";
constexpr std::string_view ITEM_CLOSE = "</item>";

// Feed's lines, each followed by one LF: the body with every line end made a single LF.
std::string JoinLines(const std::vector<std::string>& ALines) {
  size_t Size = 0;
  for (const auto& Line : ALines) Size += Line.size() + 1;
  std::string Text;
  Text.reserve(Size);
  for (const auto& Line : ALines) {
    Text += Line;
    Text += '\n';
  }
  return Text;
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

std::string ExtractTagValue(std::string_view ASource, std::string_view ATag) {
  return std::string(TagValueView(ASource, ATag));
}

void ScanFeedItems() {
  Feed = SplitLines(RSSText);
  const std::string Text = JoinLines(Feed);
  const std::string_view T = Text;

  Items.clear();
  ItemCount = 0;
  size_t CurrPos = 0;
  for (;;) {
    const size_t ItemStart = FindBytes(T, ITEM_OPEN, CurrPos);
    if (ItemStart == std::string_view::npos) break;
    const size_t ItemEnd = FindBytes(T, ITEM_CLOSE, ItemStart);
    if (ItemEnd == std::string_view::npos) break;  // a cut-off item is not taken
    const std::string_view ItemText = T.substr(ItemStart, ItemEnd + ITEM_CLOSE.size() - ItemStart);

    TRSSItem Item;
    Item.Title = Trim(CleanTextForBBS(TagValueView(ItemText, "title")));
    Item.Description = Trim(CleanTextForBBS(TagValueView(ItemText, "description")));
    Item.Link = Trim(CleanTextForBBS(TagValueView(ItemText, "link")));
    Item.PubDate = Trim(TagValueView(ItemText, "pubDate"));
    Items.push_back(std::move(Item));

    CurrPos = ItemEnd + ITEM_CLOSE.size();
    ++ItemCount;
    // The test stands behind the first item: MaxItems 0 or below still yields one item.
    if (ItemCount >= MaxItems) break;
  }
}
