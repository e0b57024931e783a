// The feed item scanner: the response body turned into items by plain, exact tag search.
// No XML is parsed: "<item>" and "</item>" bound an item wherever they stand, and inside it
// the first "<title>", "<description>", "<link>" and "<pubDate>" with their closing tags give
// the fields. This module owns the feed text and the items the main program shows.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// One feed item. Title, Description and Link are cleaned to 7-bit text and trimmed;
// PubDate is only trimmed and otherwise stays as the feed wrote it. No field holds a control
// byte (0x00 to 0x1F, 0x7F): each became a blank, except CR and LF in Title, Description and
// Link, where the display breaks lines. Link is kept but shown nowhere.
struct TRSSItem {
  std::string Title;
  std::string Description;
  std::string Link;
  std::string PubDate;
  bool operator==(const TRSSItem&) const = default;
};

// The response body as fetched; the main program stores it before the scan, which takes it
// over and leaves it empty.
extern std::string RSSText;
// Items held compactly, so that a feed of a million tiny items costs a few bytes per item
// beside its text rather than four strings each: every field of every item back to back in
// one text, and for each item the end of each of its four fields in that text, in the order of
// TRSSItem. Build it only with AddItem; "= {}" empties it.
struct TRSSItemList {
  std::string Text;
  std::vector<uint32_t> Ends;
};

// The items in feed order, and their number (always the number AddItem has stored).
extern TRSSItemList Items;
extern int32_t ItemCount;

// Stores AItem behind the items already in AList. False, storing nothing, when the list's text
// would pass 4 GiB, far beyond anything a fetch lets through.
bool AddItem(TRSSItemList& AList, const TRSSItem& AItem);
// A copy of the item at AIndex (0-based, below the number stored).
TRSSItem ItemAt(const TRSSItemList& AList, int32_t AIndex);

// The bytes between the first "<" ATag ">" in ASource and the first "</" ATag ">" behind it.
// Empty when the opening tag is missing, when no closing tag follows it, or when nothing
// stands between them. Tags match byte for byte and with their case; an opening tag with
// attributes is not found.
std::string ExtractTagValue(std::string_view ASource, std::string_view ATag);

// The scan of the main program: takes RSSText over (it is empty afterwards and its memory
// released), searches it with every line end (CR, LF, CR LF) made a single LF, and fills
// Items and ItemCount with every complete item in feed order until ItemCount reaches
// MaxItems. With MaxItems 0 or less the first item is still taken. An item whose "</item>"
// is missing ends the scan. The body is held once: no copy of it or of its lines is made.
void ScanFeedItems();
