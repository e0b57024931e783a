// Fuzz target for the feed item scanner. The first byte chooses MaxItems (-128 to 127), the
// rest is the response body. Holds the scan, which works over the body in place, against a
// literal model that splits the body into lines and searches them joined with LF; and checks
// what the item view relies on: the count matches the list and MaxItems, every shown field is
// trimmed 7-bit text, and no field holds a control byte that would reach the caller's
// terminal (only CR and LF, where the display breaks lines, and none at all in the date).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "cleaner.h"
#include "config.h"
#include "scanner.h"
#include "stringutils/strbasics.h"
#include "stringutils/textlines.h"

namespace {

void Fail(const char* AWhat) {
  std::fprintf(stderr, "scanner invariant broken: %s\n", AWhat);
  std::abort();
}

bool IsTrimmed(const std::string& AText) {
  return AText.empty() ||
         (static_cast<uint8_t>(AText.front()) > 0x20 && static_cast<uint8_t>(AText.back()) > 0x20);
}

bool IsSevenBit(const std::string& AText) {
  for (const char C : AText)
    if (static_cast<uint8_t>(C) >= 0x80) return false;
  return true;
}

bool HasControl(const std::string& AText, bool ALineEndsAllowed) {
  for (const char C : AText) {
    const auto Byte = static_cast<uint8_t>(C);
    if ((Byte < 0x20 || Byte == 0x7F) && !(ALineEndsAllowed && (C == '\n' || C == '\r'))) return true;
  }
  return false;
}

std::string Blanked(std::string AText, bool AKeepLineEnds) {
  for (char& C : AText)
    if (HasControl(std::string(1, C), AKeepLineEnds)) C = ' ';
  return AText;
}

// The scan as the feed format reads, step by step: the lines joined with LF, then each item
// from "<item>" to the first "</item>" behind it, until MaxItems.
std::vector<TRSSItem> ModelScan(const std::string& ABody, int32_t AMaxItems) {
  std::string T;
  for (const auto& Line : SplitLines(ABody)) T += Line + "\n";
  std::vector<TRSSItem> Found;
  size_t CurrPos = 0;
  for (;;) {
    const size_t Start = T.find("<item>", CurrPos);
    if (Start == std::string::npos) break;
    const size_t End = T.find("</item>", Start);
    if (End == std::string::npos) break;
    const std::string ItemText = T.substr(Start, End + 7 - Start);
    Found.push_back({Trim(Blanked(CleanTextForBBS(ExtractTagValue(ItemText, "title")), true)),
                     Trim(Blanked(CleanTextForBBS(ExtractTagValue(ItemText, "description")), true)),
                     Trim(Blanked(CleanTextForBBS(ExtractTagValue(ItemText, "link")), true)),
                     Trim(Blanked(ExtractTagValue(ItemText, "pubDate"), false))});
    CurrPos = End + 7;
    if (static_cast<int32_t>(Found.size()) >= AMaxItems) break;
  }
  return Found;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  if (ASize == 0) return 0;
  MaxItems = static_cast<int8_t>(AData[0]);
  const std::string Body(reinterpret_cast<const char*>(AData) + 1, ASize - 1);
  RSSText = Body;
  ScanFeedItems();

  if (static_cast<size_t>(ItemCount) * 4 != Items.Ends.size()) Fail("ItemCount differs from Items");
  std::vector<TRSSItem> Found;
  for (int32_t I = 0; I < ItemCount; ++I) Found.push_back(ItemAt(Items, I));
  if (ItemCount > (MaxItems > 0 ? MaxItems : 1)) Fail("more items than MaxItems allows");
  if (!RSSText.empty()) Fail("the scan left the body behind");
  for (const auto& Item : Found) {
    for (const std::string* Field : {&Item.Title, &Item.Description, &Item.Link})
      if (!IsTrimmed(*Field) || !IsSevenBit(*Field) || HasControl(*Field, true))
        Fail("a cleaned field is not trimmed 7-bit text without control bytes");
    if (!IsTrimmed(Item.PubDate) || HasControl(Item.PubDate, false))
      Fail("PubDate is not trimmed or holds a control byte");
  }
  if (Found != ModelScan(Body, MaxItems)) Fail("the scan differs from the line-by-line model");
  return 0;
}
