#include "scanner.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>

#include "config.h"
#include "stringutils/textlines.h"
#include "testsupport.h"

using namespace std::string_literals;

void PrintTo(const TRSSItem& A, std::ostream* AOut) {
  *AOut << testing::PrintToString(std::make_tuple(A.Title, A.Description, A.Link, A.PubDate));
}

namespace {

std::vector<TRSSItem> Scan(const std::string& ABody, int32_t AMaxItems = 50) {
  RSSText = ABody;
  MaxItems = AMaxItems;
  ScanFeedItems();
  std::vector<TRSSItem> Found;
  for (int32_t I = 0; I < ItemCount; ++I) Found.push_back(ItemAt(Items, I));
  EXPECT_EQ(Items.Ends.size(), Found.size() * 4);
  return Found;
}

std::vector<std::string> Titles(const std::vector<TRSSItem>& AItems) {
  std::vector<std::string> Out;
  for (const auto& Item : AItems) Out.push_back(Item.Title);
  return Out;
}

std::string Item(const std::string& ATitle) { return "<item><title>" + ATitle + "</title></item>\n"; }

}  // namespace

TEST(SplitLines, EachLineEndFormEndsOneLine) {
  // The settings tests hold the other line-end forms; these are the ones a feed body adds.
  const std::pair<std::string, std::vector<std::string>> Cases[] = {
      {"", {}},
      {"a\r\r\nb\n\n", {"a", "", "b", ""}},
      {"a\0b\x1A\n"s, {"a\0b\x1A"s}},  // zero and 0x1A are ordinary bytes
  };
  for (const auto& [Text, Want] : Cases) EXPECT_EQ(SplitLines(Text), Want) << testing::PrintToString(Text);
}

TEST(ExtractTagValue, TakesTheFirstExactTagPair) {
  const std::pair<std::string, std::string> Cases[] = {
      {"a<title> x y </title>b", " x y "},
      {"<title></title>", ""},
      {"<title>x", ""},
      {"<title>x</title", ""},
      {"</title><title>x</title>", "x"},
      {"<title>a</title><title>b</title>", "a"},
      {"<title>a<title>b</title>", "a<title>b"},
      {"<title a=\"1\">x</title>", ""},
      {"<TITLE>x</TITLE><Title>y</Title>", ""},
      {"<media:title>m</media:title><title>t</title>", "t"},
      {"<title><![CDATA[<b>x</b>]]></title>", "<![CDATA[<b>x</b>]]>"},
      {"<title>a\0b</title>"s, "a\0b"s},
  };
  for (const auto& [Source, Want] : Cases) EXPECT_EQ(ExtractTagValue(Source, "title"), Want) << Source;
  EXPECT_EQ(ExtractTagValue("<pubDate>x</pubdate>", "pubDate"), "");
}

TEST(ScanFeedItems, TakesCompleteItemsInFeedOrderUpToMaxItems) {
  const std::string Three =
      "<rss><channel><title>Channel</title>" + Item("one") + Item("two") + Item("three");
  const std::tuple<std::string, int32_t, std::vector<std::string>> Cases[] = {
      {"", 50, {}},
      {"<feed><entry><title>x</title></entry></feed>", 50, {}},
      {Three, 50, {"one", "two", "three"}},
      {Three, 2, {"one", "two"}},
      {Three, 0, {"one"}},
      {Three, INT_MIN, {"one"}},
      {"<item><title>x</title>", 50, {}},
      {Item("a") + Item("b") + "<item><title>cut off</title>", 50, {"a", "b"}},
      {"<ITEM><title>x</title></ITEM><item id=\"1\"><title>y</title></item>", 50, {}},
      // No line end at the end of the body: the last "</item>" is still found.
      {"<item><title>last</title></item>", 50, {"last"}},
      // "</item>" ends the item wherever it stands, CDATA included.
      {"<item><title>a</title><description><![CDATA[x</item>y]]></description></item>", 50, {"a"}},
      // A title left open in its item does not borrow the next item's closing tag.
      {"<item><title>open</item>" + Item("b"), 50, {"", "b"}},
      {"<item></item><item><link>l</link></item>", 50, {"", ""}},
  };
  for (const auto& [Body, Max, Want] : Cases)
    EXPECT_EQ(Titles(Scan(Body, Max)), Want) << Body << " max " << Max;
}

TEST(ScanFeedItems, CleansAndTrimsTextFieldsButOnlyTrimsTheDate) {
  const std::pair<std::string, TRSSItem> Cases[] = {
      {"<item><title> caf&#233; &amp; <b>more</b> </title><description>&lt;p&gt;One</description>"
       "<link>\n http://x/?a=1&amp;b=2 \n</link><pubDate>\x7F Tue,\x1B"
       "01\tJan &amp; <b>\xC3\xA9</b>\x01 "
       "</pubDate></item>",
       {"caf & more", "One", "http://x/?a=1&b=2", "Tue, 01 Jan &amp; <b>\xC3\xA9</b>"}},  // controls blanked
      // Fields in any order; a multi-line value reaches the cleaner with LF line ends only.
      {"<item>\r\n<pubDate>d</pubDate><description>a\r\nb\rc\n\rd\r\r\ne</description><title>t</title></"
       "item>",
       {"t", "a\nb\nc\n\nd\n\ne", "", "d"}},
  };
  for (const auto& [Body, Want] : Cases) EXPECT_EQ(Scan(Body), std::vector<TRSSItem>{Want}) << Body;
}

TEST(ScanFeedItems, HoldsItsInvariantsOnEveryCorpusFeed) {
  const auto Feeds = CorpusFeeds();
  if (Feeds.empty()) GTEST_SKIP() << "no feed corpus beside the checkout";
  auto SevenBit = [](const std::string& A) {
    return std::ranges::all_of(A, [](char C) { return static_cast<uint8_t>(C) < 0x80; });
  };
  auto Trimmed = [](const std::string& A) {
    return A.empty() || (static_cast<uint8_t>(A.front()) > 0x20 && static_cast<uint8_t>(A.back()) > 0x20);
  };
  size_t WithItems = 0;
  for (const auto& Path : Feeds) {
    const std::string Body = ReadWholeFile(Path);
    for (const int32_t Max : {3, 0, INT_MAX}) {
      const auto Got = Scan(Body, Max);
      EXPECT_LE(Got.size(), Max > 0 ? static_cast<size_t>(Max) : 1u) << Path;
      for (const auto& It : Got) {
        for (const std::string* Field : {&It.Title, &It.Description, &It.Link})
          EXPECT_TRUE(SevenBit(*Field) && Trimmed(*Field)) << Path << ": " << *Field;
        EXPECT_TRUE(Trimmed(It.PubDate)) << Path;
      }
      if (Max == INT_MAX && !Got.empty()) ++WithItems;
    }
  }
  // The corpus is mostly RSS: a scanner that finds nothing anywhere is broken.
  EXPECT_GT(WithItems, Feeds.size() / 2);
}
