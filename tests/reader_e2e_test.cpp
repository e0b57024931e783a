// End-to-end runs of the real tamblin program: a loopback feed server (the fetch tests' TLS
// server for https), a working folder with settings and skins, and the test as the caller, in
// stdio mode (keys on a pipe, the screen on standard output) and over a socket link (a
// socketpair handed down as -S3). What is checked is what a caller and a sysop see: the bytes
// of the first paint, the screen after each key, the exit status and standard error.
#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>

#include "feedserver.h"
#include "fetch_testutil.h"
#include "readerrun.h"
#include "screenmodel.h"
#include "testsupport.h"

namespace fs = std::filesystem;

namespace {

const std::string ESC = "\x1B";
const std::string CMD = "[A]bout   [N]ext   [P]revious   [Q]uit";
const std::string TELNET_OPEN("\xFF\xFB\x00\xFF\xFB\x01", 6);
// Arrow keys as a terminal sends them.
const std::string UP = "\x1B[A", DOWN = "\x1B[B", RIGHT = "\x1B[C", LEFT = "\x1B[D";

std::string Feed(int ACount) {
  std::string Xml = "<?xml version=\"1.0\"?><rss><channel><title>T</title>\n";
  for (int I = 1; I <= ACount; ++I) {
    const std::string N = std::to_string(I);
    Xml += "<item><title>Item " + N + "</title><pubDate>Day " + N + "</pubDate><description>Body of item " +
           N + ".</description><link>http://x.invalid/" + N + "</link></item>\n";
  }
  return Xml + "</channel></rss>\n";
}

// A working folder with a skins folder holding one tiny skin, and a feed server.
struct TReaderSite {
  TTempDir Dir;
  TFeedServer Server;

  explicit TReaderSite(const std::string& AFeed) {
    fs::create_directory(Dir.Path / "skins");
    WriteWholeFile(Dir.Path / "skins" / "tiny.ans", "SKIN");
    StartFeedServer(Server, HttpOk(AFeed));
  }
  void Settings(const std::string& ASkin = "tiny.ans", const std::vector<std::string>& ARest = {},
                const std::string& AName = "tamblin.cfg") {
    WriteWholeFile(Dir.Path / AName, SettingsText(FeedServerUrl(Server), ASkin, ARest));
  }
  TReaderRunResult Run(const std::string& AKeys, TReaderLink ALink = rlStdio,
                       std::vector<std::string> AArgs = {}) {
    TReaderRunSetup Setup;
    Setup.WorkDir = Dir.Path;
    Setup.Keys = AKeys;
    Setup.Link = ALink;
    Setup.Args = std::move(AArgs);
    return RunTamblin(Setup);
  }
};

TScreenModel Shown(const std::string& ABytes) {
  TScreenModel Screen;
  ScreenFeed(Screen, ABytes);
  return Screen;
}

size_t Count(const std::string& AText, const std::string& APart) {
  size_t N = 0;
  for (size_t At = AText.find(APart); At != std::string::npos; At = AText.find(APart, At + 1)) ++N;
  return N;
}

std::string Describe(const TReaderRunResult& ARun) {
  return "exit " + std::to_string(ARun.ExitCode) + ", stderr \"" + ARun.Stderr + "\"\n" +
         ScreenDump(Shown(ARun.Screen));
}

// The first paint of item 1 of 1 ("Item 1", "Day 1", "Body of item 1.") in the preset colours,
// written out from the screen layout by hand: the text box, the title, the date, the body,
// the counter and the command line, then the black the loop waits in.
std::string FirstPaintOfOneItem() {
  std::string P;
  P += ESC + "[0;36m" + ESC + "[40m";  // the loop's colour 3
  P += ESC + "[47m";                   // the box background
  for (int Y = 2; Y <= 22; ++Y) P += ESC + "[" + std::to_string(Y) + ";13f" + std::string(56, ' ');
  P += ESC + "[255A" + ESC + "[2B";                                            // row 3
  P += ESC + "[1;37m" + ESC + "[255D" + ESC + "[37C" + "Item 1\r\n" + "\r\n";  // (82 - 6) / 2 = 38
  P += ESC + "[1;36m" + ESC + "[255D" + ESC + "[37C" + "Day 1\r\n\r\n";        // (82 - 5) / 2 = 38
  P += ESC + "[255D" + ESC + "[13C" + ESC + "[1;33m";                          // column 14
  P += "Body of item 1.\r\n" + ESC + "[255D" + ESC + "[13C";
  P += ESC + "[1;74f" + "       " + ESC + "[1;74f";
  P += ESC + "[44m" + ESC + "[1;37m" + "(01/1)";
  P += ESC + "[255A" + ESC + "[24B" + ESC + "[40m" + ESC + "[1;33m";  // row 25 on black
  P += ESC + "[255D" + ESC + "[21C" + CMD;                            // column 22
  P += ESC + "[0;30m" + ESC + "[40m";                                 // black on black
  return P;
}

// Before the first paint: clear, the skin, top left, black background.
std::string BeforeFirstPaint() { return ESC + "[2J" + ESC + "[1;1f" + "SKIN" + ESC + "[0;0f" + ESC + "[40m"; }

}  // namespace

TEST(ReaderRun, FirstPaintIsByteExactInStdioMode) {
  TReaderSite Site(Feed(1));
  Site.Settings();
  const auto Run = Site.Run("q");
  EXPECT_EQ(Run.ExitCode, 0) << Run.Stderr;
  EXPECT_EQ(Run.Stderr, "");
  EXPECT_EQ(Run.Screen, BeforeFirstPaint() + FirstPaintOfOneItem());
  EXPECT_EQ(Site.Server.Requests, 1);
}

TEST(ReaderRun, FirstPaintIsByteExactOnASocketLink) {
  TReaderSite Site(Feed(1));
  Site.Settings();
  const auto Run = Site.Run("q", rlSocket);
  EXPECT_EQ(Run.ExitCode, 0) << Run.Stderr;
  // The door clears the caller's screen when the link comes up; the run clears it again.
  // After DoorShutdown has let go of the link, the exit handler's bytes can no longer arrive.
  EXPECT_EQ(Run.Wire, TELNET_OPEN + ESC + "[2J" + ESC + "[1;1f" + BeforeFirstPaint() + FirstPaintOfOneItem());
  EXPECT_EQ(Run.Stdout, "");  // never a copy on the local side
}

struct TKeyCase {
  const char* Name;
  std::string Keys;
  bool ExitOnEnter;
  size_t Paints;        // times the command line was drawn
  const char* Counter;  // what row 1 shows at the end
};

class ReaderKeys : public ::testing::TestWithParam<std::tuple<TKeyCase, TReaderLink>> {};

TEST_P(ReaderKeys, PaintsAndCounter) {
  const auto& [C, Link] = GetParam();
  TReaderSite Site(Feed(3));
  Site.Settings("tiny.ans", {"7", "15", "11", "14", "14", C.ExitOnEnter ? "y" : "N"});
  const auto Run = Site.Run(C.Keys, Link);
  ASSERT_EQ(Run.ExitCode, 0) << Describe(Run);
  EXPECT_EQ(Run.Stderr, "");
  EXPECT_EQ(Count(Run.Screen, CMD), C.Paints) << Describe(Run);
  EXPECT_EQ(ScreenText(Shown(Run.Screen), 74, 1, 7), C.Counter) << Describe(Run);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ReaderKeys,
    ::testing::Combine(
        ::testing::Values(TKeyCase{"Quit", "q", false, 1, "(01/3) "},
                          TKeyCase{"QuitUpper", "Q", false, 1, "(01/3) "},
                          TKeyCase{"Next", "nq", false, 2, "(02/3) "},
                          TKeyCase{"NextUpper", "Nq", false, 2, "(02/3) "},
                          TKeyCase{"NextPastTheEndRepaints", "nnnnq", false, 5, "(03/3) "},
                          TKeyCase{"PreviousAtTheStartRepaints", "ppq", false, 3, "(01/3) "},
                          TKeyCase{"NextThenPrevious", "nnpq", false, 4, "(02/3) "},
                          TKeyCase{"DownArrowIsPrevious", "nn" + DOWN + "q", false, 4, "(02/3) "},
                          TKeyCase{"EnterIgnoredWithoutExitOnEnter", "\rnq", false, 2, "(02/3) "},
                          TKeyCase{"EnterQuitsWithExitOnEnter", "n\rnnn", true, 2, "(02/3) "},
                          TKeyCase{"LowerQStillQuitsWithExitOnEnter", "nq", true, 2, "(02/3) "},
                          TKeyCase{"AboutThenBack", "naqq", false, 3, "(02/3) "}),
        ::testing::Values(rlStdio, rlSocket)),
    [](const auto& AInfo) {
      return std::string(std::get<0>(AInfo.param).Name) +
             (std::get<1>(AInfo.param) == rlSocket ? "Socket" : "Stdio");
    });

TEST(ReaderRun, UnknownKeysLeaveNoTrace) {
  TReaderSite Site(Feed(3));
  Site.Settings();
  const auto Plain = Site.Run("nq", rlSocket);
  // Up, Right and Left arrive as 0x48, 0x4D and 0x4B: no command letter.
  const auto Noisy = Site.Run("n x\r" + UP + RIGHT + LEFT + "7\x01\x7Fq", rlSocket);
  ASSERT_EQ(Plain.ExitCode, 0);
  ASSERT_EQ(Noisy.ExitCode, 0);
  EXPECT_EQ(Noisy.Wire, Plain.Wire);
}

TEST(ReaderRun, AboutViewAndTheKeyThatReturns) {
  TReaderSite Site(Feed(2));
  Site.Settings();
  const auto Run = Site.Run("aQq");  // the Q inside the About view only returns
  ASSERT_EQ(Run.ExitCode, 0) << Describe(Run);
  const std::string Prompt = "*** Press Any Key To Continue Reading ***";
  const size_t PromptAt = Run.Screen.find(Prompt);
  ASSERT_NE(PromptAt, std::string::npos);
  const auto About = Shown(Run.Screen.substr(0, PromptAt + Prompt.size()));
  SCOPED_TRACE(ScreenDump(About));
  EXPECT_EQ(ScreenText(About, 31, 3, 20), "About (ver 2025.8.1)");
  EXPECT_EQ(ScreenText(About, 26, 4, 29), "Tamblin Reader by Morgan Vale");
  EXPECT_EQ(ScreenText(About, 14, 6, 12), "This project");
  EXPECT_EQ(ScreenText(About, 14, 14, 10), "Thanks to ");
  EXPECT_EQ(ScreenText(About, 20, 19, 41), Prompt);
  EXPECT_EQ(ScreenText(About, 74, 1, 7), "(01/2) ");  // counter and command line stay
  EXPECT_EQ(ScreenText(About, 22, 25, 38), CMD);
  // Back on the same item, painted whole again.
  const auto After = Shown(Run.Screen);
  EXPECT_EQ(ScreenText(After, 38, 3, 6), "Item 1");
  EXPECT_EQ(Count(Run.Screen, CMD), 2u);
}

TEST(ReaderRun, FetchFailureEndsAtOnceWithItsMessage) {
  struct TCase {
    const char* Name;
    std::string Response;
    std::string Message;
  } Cases[] = {
      {"NotFound", "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n",
       "Unexpected response status code: 404"},
      {"NotHttp", "SSH-2.0-OpenSSH\r\n\r\n", "Invalid protocol version in response: \"SSH-2.0-OPENSSH\""},
  };
  for (const auto& C : Cases) {
    for (auto Link : {rlStdio, rlSocket}) {
      SCOPED_TRACE(std::string(C.Name) + (Link == rlSocket ? " socket" : " stdio"));
      TReaderSite Site(Feed(1));
      Site.Server.Response = C.Response;
      Site.Settings();
      const auto Run = Site.Run("", Link);  // no key: the door must not wait for one
      EXPECT_EQ(Run.ExitCode, 0) << Describe(Run);
      EXPECT_EQ(Run.Stderr, "");
      const std::string Start = BeforeFirstPaint() + "Error fetching RSS: " + C.Message;
      ASSERT_GE(Run.Screen.size(), Start.size());
      EXPECT_NE(Run.Screen.find(Start), std::string::npos) << Describe(Run);
      EXPECT_EQ(Run.Screen.substr(Run.Screen.size() - 2), "\r\n");
      EXPECT_EQ(Count(Run.Screen, CMD), 0u);
      EXPECT_EQ(ScreenText(Shown(Run.Screen), 1, 1, 20), "Error fetching RSS: ");
      EXPECT_EQ(Run.Log, "tamblin: node 1: Error fetching RSS: " + C.Message + "\n");
    }
  }
}

// -V has the https feed fetched only from a server the system's trust store vouches for; the
// test's self-signed server is refused then, and read as ever without it.
TEST(ReaderRun, VerifyOptionRefusesAnUntrustedFeedServer) {
  TTestServer Tls;
  Tls.Tls = TestCertificate();
  Tls.Replies = {{HttpOk(Feed(1))}};
  StartTestServer(Tls);
  TReaderSite Site(Feed(1));
  WriteWholeFile(Site.Dir.Path / "tamblin.cfg", SettingsText(TestServerUrl(Tls, "/feed.xml"), "tiny.ans"));
  const auto Trusting = Site.Run("q");
  EXPECT_EQ(ScreenText(Shown(Trusting.Screen), 38, 3, 6), "Item 1") << Describe(Trusting);
  const auto Verifying = Site.Run("q", rlStdio, {"-V"});
  EXPECT_EQ(Verifying.ExitCode, 0) << Describe(Verifying);
  EXPECT_EQ(Verifying.Screen, BeforeFirstPaint() +
                                  "Error fetching RSS: Connect to 127.0.0.1:" + std::to_string(Tls.Port) +
                                  " failed: certificate verify failed: self-signed certificate\r\n");
}

TEST(ReaderRun, EmptyFeedSaysSoAndEnds) {
  for (const std::string& Body : {std::string("<rss><channel><title>x</title></channel></rss>"),
                                  std::string(""), std::string("<item><title>never closed</title>")}) {
    for (auto Link : {rlStdio, rlSocket}) {
      TReaderSite Site(Body);
      Site.Settings();
      const auto Run = Site.Run("", Link);
      EXPECT_EQ(Run.ExitCode, 0) << Describe(Run);
      // On a link the door has cleared the caller's screen once already when the link came up.
      const std::string LinkStart = Link == rlSocket ? ESC + "[2J" + ESC + "[1;1f" : "";
      EXPECT_EQ(Run.Screen, LinkStart + BeforeFirstPaint() + "No items found in RSS feed.\r\n")
          << Describe(Run);
      EXPECT_EQ(Run.Log, "tamblin: node 1: No items found in RSS feed.\n");
    }
  }
}

TEST(ReaderRun, MissingSettingsEndsWith217AndTheTextOnStandardError) {
  struct TCase {
    std::vector<std::string> Args;
    std::string Stderr;
  } Cases[] = {
      {{}, "Unable to open file \"tamblin.cfg\": "},
      {{"@nope.cfg"}, "Unable to open file \"nope.cfg\": "},
      {{"@"}, "Unable to open file \"\": "},
      {{"@other.cfg", "@nope.cfg"}, "Unable to open file \"nope.cfg\": "},  // the last one wins
  };
  for (const auto& C : Cases) {
    TReaderSite Site(Feed(1));
    Site.Settings("tiny.ans", {}, "other.cfg");
    for (auto Link : {rlStdio, rlSocket}) {
      SCOPED_TRACE(C.Stderr);
      const auto Run = Site.Run("q", Link, C.Args);
      EXPECT_EQ(Run.ExitCode, 217);
      EXPECT_EQ(Run.Stderr.rfind(C.Stderr, 0), 0u) << Run.Stderr;
      EXPECT_EQ(Run.Stderr.back(), '\n');
      EXPECT_EQ(Run.Log, "tamblin: node 1: " + Run.Stderr);   // the sysop has it in the log too
      EXPECT_EQ(Run.Screen.find("SKIN"), std::string::npos);  // nothing after the settings
      EXPECT_EQ(Site.Server.Requests, 0);
      if (Link == rlSocket) {
        // The caller keeps the door's cleared screen, and the exit handler leaves the terminal
        // grey on black with the cursor in the bottom left corner.
        EXPECT_EQ(Run.Wire, TELNET_OPEN + ESC + "[2J" + ESC + "[1;1f" + ESC + "[0;37m" + ESC + "[40m" + ESC +
                                "[40m" + ESC + "[255B" + ESC + "[255D");
      } else {
        EXPECT_EQ(Run.Screen, "");
      }
    }
  }
}

TEST(ReaderRun, SkinMissingFromSkinsIsReportedAndTheRunGoesOn) {
  TReaderSite Site(Feed(2));
  Site.Settings("gone.ans");
  const auto Run = Site.Run("xq");  // x answers "Hit a key to continue"
  EXPECT_EQ(Run.ExitCode, 0) << Describe(Run);
  EXPECT_EQ(
      Run.Screen.find(ESC + "[2J" + ESC + "[1;1f" + "Error reading \"skins/gone.ans\": File not found\r\n" +
                      "Hit a key to continue\r\n" + ESC + "[0;0f"),
      0u)
      << Describe(Run);
  EXPECT_EQ(Count(Run.Screen, CMD), 1u);
}

TEST(ReaderRun, NoSkinsAtAllStillShowsTheFeed) {
  TReaderSite Site(Feed(2));
  fs::remove_all(Site.Dir.Path / "skins");
  Site.Settings("");
  const auto Run = Site.Run("q");
  EXPECT_EQ(Run.ExitCode, 0) << Describe(Run);
  EXPECT_EQ(Run.Screen.find(ESC + "[2J" + ESC + "[1;1f" + "No ANSI skins found.\r\n" + ESC + "[0;0f"), 0u)
      << Describe(Run);
  EXPECT_EQ(Count(Run.Screen, CMD), 1u);
}

// Every real-world feed of the corpus, paged through to the end and back, ends in order and
// in bounded time. The time limit of a run is the hang check.
class CorpusRun : public ::testing::TestWithParam<fs::path> {};

TEST_P(CorpusRun, PagesThroughEveryItem) {
  TReaderSite Site(ReadWholeFile(GetParam()));
  Site.Settings();
  const std::string Keys = std::string(52, 'n') + "a " + std::string(3, 'p') + DOWN + "q";
  const auto Run = Site.Run(Keys, rlSocket);
  ASSERT_EQ(Run.ExitCode, 0) << Describe(Run);
  EXPECT_EQ(Run.Stderr, "");
  const auto Screen = Shown(Run.Screen);
  if (Count(Run.Screen, CMD) == 0) {
    EXPECT_NE(Run.Screen.find("No items found in RSS feed."), std::string::npos) << Describe(Run);
  } else {
    EXPECT_EQ(Count(Run.Screen, CMD), 52u + 2u + 4u) << Describe(Run);
    EXPECT_EQ(ScreenText(Screen, 22, 25, 38), CMD);
  }
}

INSTANTIATE_TEST_SUITE_P(Feeds, CorpusRun, ::testing::ValuesIn(CorpusFeeds()), [](const auto& AInfo) {
  std::string Name = AInfo.param.stem().string();
  for (char& C : Name) {
    if (!std::isalnum(static_cast<unsigned char>(C))) C = '_';
  }
  return Name + "_" + std::to_string(AInfo.index);
});
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(CorpusRun);
