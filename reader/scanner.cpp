// The feed item scanner: normalises the body's line ends, cuts out every "<item>" ...
// "</item>" span and fills the program's item list, cleaning each field on the way.
#include "scanner.h"

#include <cstring>
#include <string_view>
#include <utility>

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

// Byte-exact search from AFrom (0-based); npos when absent.
size_t FindFrom(std::string_view AText, std::string_view ANeedle, size_t AFrom) {
  if (AFrom > AText.size() || ANeedle.size() > AText.size() - AFrom) return std::string_view::npos;
  const void* Hit = ::memmem(AText.data() + AFrom, AText.size() - AFrom, ANeedle.data(), ANeedle.size());
  return Hit ? static_cast<size_t>(static_cast<const char*>(Hit) - AText.data()) : std::string_view::npos;
}

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

}  // namespace

std::string ExtractTagValue(std::string_view ASource, std::string_view ATag) {
  std::string Open;
  Open.reserve(ATag.size() + 3);
  Open.append("<").append(ATag).append(">");
  const size_t OpenPos = FindFrom(ASource, Open, 0);
  if (OpenPos == std::string_view::npos) return {};
  const size_t Start = OpenPos + Open.size();
  Open.insert(1, "/");  // now the closing tag
  const size_t End = FindFrom(ASource, Open, Start);
  if (End == std::string_view::npos || End <= Start) return {};
  return std::string(ASource.substr(Start, End - Start));
}

void ScanFeedItems() {
  Feed = SplitLines(RSSText);
  const std::string Text = JoinLines(Feed);
  const std::string_view T = Text;

  Items.clear();
  ItemCount = 0;
  size_t CurrPos = 0;
  for (;;) {
    const size_t ItemStart = FindFrom(T, ITEM_OPEN, CurrPos);
    if (ItemStart == std::string_view::npos) break;
    const size_t ItemEnd = FindFrom(T, ITEM_CLOSE, ItemStart);
    if (ItemEnd == std::string_view::npos) break;  // a cut-off item is not taken
    const std::string_view ItemText = T.substr(ItemStart, ItemEnd + ITEM_CLOSE.size() - ItemStart);

    TRSSItem Item;
    Item.Title = Trim(CleanTextForBBS(ExtractTagValue(ItemText, "title")));
    Item.Description = Trim(CleanTextForBBS(ExtractTagValue(ItemText, "description")));
    Item.Link = Trim(CleanTextForBBS(ExtractTagValue(ItemText, "link")));
    Item.PubDate = Trim(ExtractTagValue(ItemText, "pubDate"));
    Items.push_back(std::move(Item));

    CurrPos = ItemEnd + ITEM_CLOSE.size();
    ++ItemCount;
    // The test stands behind the first item: MaxItems 0 or below still yields one item.
    if (ItemCount >= MaxItems) break;
  }
}
