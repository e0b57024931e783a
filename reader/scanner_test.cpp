#include "scanner.h"

#include <gtest/gtest.h>

#include <climits>

#include "config.h"
#include "testsupport.h"
#include "textlines.h"

using namespace std::string_literals;

void PrintTo(const TRSSItem& A, std::ostream* AOut) {
  *AOut << "{" << testing::PrintToString(A.Title) << ", " << testing::PrintToString(A.Description) << ", "
        << testing::PrintToString(A.Link) << ", " << testing::PrintToString(A.PubDate) << "}";
}

namespace {

std::vector<TRSSItem> Scan(const std::string& ABody, int32_t AMaxItems = 50) {
  RSSText = ABody;
  MaxItems = AMaxItems;
  ScanFeedItems();
  EXPECT_EQ(ItemCount, static_cast<int32_t>(Items.size()));
  return Items;
}

std::vector<std::string> Titles(const std::vector<TRSSItem>& AItems) {
  std::vector<std::string> Out;
  for (const auto& Item : AItems) Out.push_back(Item.Title);
  return Out;
}

std::string Item(const std::string& ATitle) { return "<item><title>" + ATitle + "</title></item>\n"; }

bool IsSevenBit(const std::string& AText) {
  for (const char C : AText)
    if (static_cast<uint8_t>(C) >= 0x80) return false;
  return true;
}

bool IsTrimmed(const std::string& AText) {
  return AText.empty() ||
         (static_cast<uint8_t>(AText.front()) > 0x20 && static_cast<uint8_t>(AText.back()) > 0x20);
}

}  // namespace

TEST(SplitLines, EachLineEndFormEndsOneLine) {
  struct Case {
    std::string Text;
    std::vector<std::string> Want;
  } Cases[] = {
      {"", {}},
      {"a", {"a"}},
      {"a\n", {"a"}},
      {"\n", {""}},
      {"\r\n\r\n", {"", ""}},
      {"a\r\nb\rc\nd", {"a", "b", "c", "d"}},
      {"a\n\rb", {"a", "", "b"}},  // LF CR is two line ends
      {"a\r\r\nb\n\n", {"a", "", "b", ""}},
      {"a\0b\x1A\n"s, {"a\0b\x1A"s}},  // zero and 0x1A are ordinary bytes
  };
  for (const auto& C : Cases) EXPECT_EQ(SplitLines(C.Text), C.Want) << testing::PrintToString(C.Text);
}

TEST(ScanFeedItems, FillsFeedWithTheBodysLines) {
  Scan("<rss>\r\n<item>\r<title>t</title></item>\n\n");
  EXPECT_EQ(Feed, (std::vector<std::string>{"<rss>", "<item>", "<title>t</title></item>", ""}));
  Scan("");
  EXPECT_TRUE(Feed.empty());
}

TEST(ExtractTagValue, TakesTheFirstExactTagPair) {
  struct Case {
    std::string Source, Tag, Want;
  } Cases[] = {
      {"<title>x</title>", "title", "x"},
      {"a<title> x y </title>b", "title", " x y "},
      {"<title></title>", "title", ""},
      {"<title>x", "title", ""},
      {"<title>x</title", "title", ""},
      {"</title><title>x</title>", "title", "x"},
      {"<title>a</title><title>b</title>", "title", "a"},
      {"<title>a<title>b</title>", "title", "a<title>b"},
      {"<title a=\"1\">x</title>", "title", ""},
      {"<TITLE>x</TITLE><Title>y</Title>", "title", ""},
      {"<media:title>m</media:title><title>t</title>", "title", "t"},
      {"<pubDate>x</pubdate>", "pubDate", ""},
      {"<pubDate>x</pubDate>", "pubdate", ""},
      {"<title><![CDATA[<b>x</b>]]></title>", "title", "<![CDATA[<b>x</b>]]>"},
      {"<title>a\0b</title>"s, "title", "a\0b"s},
      {"<title>", "title", ""},
      {"", "title", ""},
  };
  for (const auto& C : Cases) EXPECT_EQ(ExtractTagValue(C.Source, C.Tag), C.Want) << C.Source;
}

TEST(ScanFeedItems, TakesCompleteItemsInFeedOrderUpToMaxItems) {
  const std::string Three =
      "<rss><channel><title>Channel</title>" + Item("one") + Item("two") + Item("three");
  struct Case {
    std::string Body;
    int32_t Max;
    std::vector<std::string> Want;
  } Cases[] = {
      {"", 50, {}},
      {"<feed><entry><title>x</title></entry></feed>", 50, {}},
      {Three, 50, {"one", "two", "three"}},
      {Three, 2, {"one", "two"}},
      {Three, 1, {"one"}},
      {Three, 0, {"one"}},
      {Three, -1, {"one"}},
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
  for (const auto& C : Cases) EXPECT_EQ(Titles(Scan(C.Body, C.Max)), C.Want) << C.Body << " max " << C.Max;
}

TEST(ScanFeedItems, CleansAndTrimsTextFieldsButOnlyTrimsTheDate) {
  struct Case {
    std::string Body;
    TRSSItem Want;
  } Cases[] = {
      {"<item><title> caf&#233; &amp; <b>more</b> </title><description>&lt;p&gt;One</description>"
       "<link>\n http://x/?a=1&amp;b=2 \n</link><pubDate> Tue, 01 Jan &amp; <b>\xC3\xA9</b>\x01 "
       "</pubDate></item>",
       {"caf & more", "One", "http://x/?a=1&b=2", "Tue, 01 Jan &amp; <b>\xC3\xA9</b>"}},
      // Fields in any order; a multi-line value reaches the cleaner with LF line ends only.
      {"<item>\r\n<pubDate>d</pubDate><description>a\r\nb\rc</description><title>t</title></item>",
       {"t", "a\nb\nc", "", "d"}},
      {"<item><title>\xC3\xBC"
       "ber  Z\xC3\xBC"
       "rich</title><description>\xE2\x80\x99</description></item>",
       {"uber Zurich", "", "", ""}},
  };
  for (const auto& C : Cases) {
    const auto Got = Scan(C.Body);
    ASSERT_EQ(Got.size(), 1u) << C.Body;
    EXPECT_EQ(Got[0], C.Want) << C.Body;
  }
}

TEST(ScanFeedItems, HoldsItsInvariantsOnEveryCorpusFeed) {
  const auto Feeds = CorpusFeeds();
  if (Feeds.empty()) GTEST_SKIP() << "no feed corpus beside the checkout";
  size_t WithItems = 0;
  for (const auto& Path : Feeds) {
    const std::string Body = ReadWholeFile(Path);
    for (const int32_t Max : {3, 0, INT_MAX}) {
      const auto Got = Scan(Body, Max);
      EXPECT_LE(Got.size(), Max > 0 ? static_cast<size_t>(Max) : 1u) << Path;
      for (const auto& It : Got) {
        for (const std::string* Field : {&It.Title, &It.Description, &It.Link}) {
          EXPECT_TRUE(IsSevenBit(*Field)) << Path << ": " << *Field;
          EXPECT_TRUE(IsTrimmed(*Field)) << Path << ": " << *Field;
        }
        EXPECT_TRUE(IsTrimmed(It.PubDate)) << Path;
      }
      if (Max == INT_MAX && !Got.empty()) ++WithItems;
    }
  }
  // The corpus is mostly RSS: a scanner that finds nothing anywhere is broken.
  EXPECT_GT(WithItems, Feeds.size() / 2);
}
