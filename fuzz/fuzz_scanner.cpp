// Fuzz target for the feed item scanner. The first byte chooses MaxItems (-128 to 127), the
// rest is the response body. Checks what the item view relies on: the count matches the
// list and MaxItems, every shown field is trimmed 7-bit text, and no line keeps a line end.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "config.h"
#include "scanner.h"

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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  if (ASize == 0) return 0;
  MaxItems = static_cast<int8_t>(AData[0]);
  RSSText.assign(reinterpret_cast<const char*>(AData) + 1, ASize - 1);
  ScanFeedItems();

  if (ItemCount != static_cast<int32_t>(Items.size())) Fail("ItemCount differs from Items");
  if (ItemCount > (MaxItems > 0 ? MaxItems : 1)) Fail("more items than MaxItems allows");
  for (const auto& Line : Feed)
    if (Line.find_first_of("\r\n") != std::string::npos) Fail("a Feed line holds a line end");
  for (const auto& Item : Items) {
    for (const std::string* Field : {&Item.Title, &Item.Description, &Item.Link})
      if (!IsTrimmed(*Field) || !IsSevenBit(*Field)) Fail("a cleaned field is not trimmed 7-bit text");
    if (!IsTrimmed(Item.PubDate)) Fail("PubDate is not trimmed");
  }
  return 0;
}
