// The fetch's URL splitting, request bytes and response reading, checked in tables: each
// response runs over memory split at several sizes and over a real loopback connection.
#include "fetch.h"

#include <gtest/gtest.h>

#include <random>
#include <stdexcept>

#include "fetch_testutil.h"

namespace {

// The parts joined by "|": scheme, user, password, host, port, path, document, query.
std::string Parts(const std::string& AUrl) {
  const TUrlParts U = SplitUrl(AUrl);
  return U.Scheme + "|" + U.User + "|" + U.Password + "|" + U.Host + "|" + std::to_string(U.Port) + "|" +
         U.Path + "|" + U.Document + "|" + U.Query;
}

TEST(SplitUrl, TakesTheUrlApartInOrder) {
  const std::pair<std::string, std::string> Cases[] = {
      {"http://h/feed.xml", "http|||h|0|/|feed.xml|"},
      {"http://h:8080/a/b?x=1#top", "http|||h|8080|/a/|b|x=1"},
      {"http://h", "http|||h|0|||"},
      {"HTTP://h/dir/", "HTTP|||h|0|/dir/||"},
      {"http://h?q", "http|||h|0|||q"},
      // The fragment goes first, from the last "#"; then the query, from the last "?".
      {"http://h/a?b?c#d#e", "http|||h|0|/|a?b|c#d"},
      {"https://u:p:w@h:443/", "https|u|p:w|h|443|/||"},
      {"http://u@h/", "http|u||h|0|/||"},
      {"http://a@b@c:81/", "http|a||b@c|81|/||"},
      {"http://u:p@h/", "http|u|p|h|0|/||"},  // last of ":" "@" is "@": no port
      {"http://h:abc/", "http|||h:abc|0|/||"},
      {"http://h:70000/", "http|||h|4464|/||"},  // kept to 16 bits
      {"http://h:65536/", "http|||h|0|/||"},
      {"http:feed.xml", "http||||0||feed.xml|"},
      {"feed.example.com/rss", "||||0|feed.example.com/|rss|"},
      {"1http://h/x", "||||0|1http://h/|x|"},
      {"a+b-c.d://h/", "a+b-c.d|||h|0|/||"},
  };
  for (const auto& [Url, Want] : Cases) EXPECT_EQ(Parts(Url), Want) << Url;
}

TEST(SimpleGet, RejectsBadUrlsBeforeAnyConnection) {
  const std::pair<std::string, std::string> Cases[] = {
      {"", "Invalid protocol : \"\""},
      {"example.com/feed", "Invalid protocol : \"\""},
      {"ftp://h/", "Invalid protocol : \"ftp\""},
      {"FTP://h/", "Invalid protocol : \"FTP\""},
      {"localhost:8080/feed", "Invalid protocol : \"localhost\""},
      {"http://h:/", "\"\" is an invalid integer"},
      {"ftp://h:/", "\"\" is an invalid integer"},
      {"http://h:99999999999/", "\"99999999999\" is an invalid integer"},
      {"http://feed.invalid/rss", "Host name resolution for \"feed.invalid\" failed."},
      {"http:feed.xml", "Host name resolution for \"\" failed."},
      // A zero byte must not shorten the name to an address; what() ends at the zero byte.
      {std::string("http://127.0.0.1\0.x/", 20), "Host name resolution for \"127.0.0.1"},
  };
  for (const auto& [Url, Text] : Cases) EXPECT_EQ(FetchOutcome(Url), "!" + Text) << Url;
}

TEST(BuildGetRequest, SendsTheTargetAndThreeHeadersOnly) {
  EXPECT_EQ(BuildGetRequest(SplitUrl("http://h:8080/a/b?x=1#top")),
            "GET /a/b?x=1 HTTP/1.1\r\nHost: h:8080\r\nConnection: close\r\n\r\n");
  const std::tuple<std::string, std::string, std::string, std::string> Cases[] = {
      // URL, target, Host, Basic credentials
      {"http://h", "/", "h", ""},
      {"https://h:443/", "/", "h:443", ""},
      {"http://h:0/x", "/x", "h", ""},
      {"http://h?q=1", "/?q=1", "h", ""},
      {"http:feed.xml", "/feed.xml", "", ""},
      {"http://h/a b/\xC3\xA9?%41=1", "/a b/\xC3\xA9?%41=1", "h", ""},
      {"http://user:pass@h/f", "/f", "h", "dXNlcjpwYXNz"},
      {"http://user@h:81/f", "/f", "h:81", "dXNlcjo="},
      {"http://:pw@h/", "/", "h", ""},
  };
  for (const auto& [Url, Target, Host, Auth] : Cases)
    EXPECT_EQ(BuildGetRequest(SplitUrl(Url)), ExpectedRequest(Target, Host, Auth)) << Url;
  // The credentials' padding forms are above and on the wire; every byte value goes in too.
  EXPECT_EQ(Base64Encode(std::string("\xFF\xFE\x00", 3)), "//4A");
}

// ---- Responses ------------------------------------------------------------------------------

struct TResponseCase {
  const char* Name;
  std::string Response;
  std::string Want;           // the body, or "!" and the failure text
  bool OneBlockOnly = false;  // the result depends on the response arriving in one read
};

const std::string OK = "HTTP/1.1 200 OK\r\n";
const std::string CHUNKED = OK + "Transfer-Encoding: chunked\r\n\r\n";

const TResponseCase RESPONSES[] = {
    {"length", OK + "Content-Length: 5\r\n\r\nhello", "hello"},
    {"short body taken", OK + "Content-Length: 10\r\n\r\nabcd", "abcd"},
    {"zero length", OK + "Content-Length: 0\r\n\r\n", ""},
    {"bytes beyond the length in the block", OK + "Content-Length: 2\r\n\r\nabcdef", "abcdef", true},
    {"first length counts", OK + "content-LENGTH: 100\r\nContent-Length: 3\r\n\r\nabcdef", "abcdef"},
    {"no length: to the end", OK + "Content-Type: text/xml\r\n\r\nall of it", "all of it"},
    {"length not a number", OK + "Content-Length: many\r\n\r\nall", "all"},
    {"negative length", OK + "Content-Length: -5\r\n\r\nall", "all"},
    {"bytes kept as they are", OK + "Content-Length: 6\r\n\r\n" + std::string("\0\xFF\r\n\x1A\x80", 6),
     std::string("\0\xFF\r\n\x1A\x80", 6)},
    {"HTTP/1.0 and lower case", "http/1.0 200 OK\r\nX: y\r\nno colon here\r\n\r\nok", "ok"},
    {"status line only", "HTTP/1.1 200\r\n\r\nok", "ok"},
    {"headers cut by the close", OK + "Content-Length: 5\r\n", ""},
    {"closed inside the status line", "HTTP/1.1 200 OK", ""},
    {"bare LF is no line end", "HTTP/1.1 200 OK\n\nbody", ""},

    {"chunked", CHUNKED + "5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n", "hello world"},
    {"chunked in any case",
     OK + "transfer-ENCODING:  ChUnKeD \r\n\r\nA\r\n0123456789\r\nb\r\nabcdefghijk\r\n0\r\n\r\n",
     "0123456789abcdefghijk"},
    {"chunk extensions and trailers ignored",
     CHUNKED + "5;name=\"v\"\r\nhello\r\n0;x\r\nX-Trailer: 1\r\n\r\n", "hello"},
    {"size line ended by LF alone", CHUNKED + "5\nhello\r\n0\n", "hello"},
    {"leading zeros", CHUNKED + "0000000000000005\r\nhello\r\n0\r\n\r\n", "hello"},
    {"chunked wins over a length",
     OK + "Content-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n", "hello"},
    {"first encoding counts", OK + "Transfer-Encoding: identity\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhi",
     "5\r\nhi"},
    {"no size digits end the body", CHUNKED + "\r\nxyz", ""},
    {"ends inside a chunk", CHUNKED + "5\r\nhel", "hel"},
    {"ends inside a size line", CHUNKED + "5\r\nhello\r\n6;ext", "hello"},
    {"ends after the chunk's CR", CHUNKED + "5\r\nhello\r", "hello"},
    {"largest size, short data", CHUNKED + "FFFFFFF\r\nabc", "abc"},
    {"chunk without CR LF", CHUNKED + "5\r\nhelloX\r\n0\r\n\r\n", "!Chunk line end missing"},
    {"chunk with LF only", CHUNKED + "5\r\nhello\n0\r\n\r\n", "!Chunk line end missing"},
    {"chunk with CR CR", CHUNKED + "5\r\nhello\r\r0\r\n\r\n", "!Chunk line end missing"},
    {"chunk too big", CHUNKED + "10000000\r\n",
     "!Chunk too big: Got 268435456, maximum allowed size: 268435455"},
    {"nine digits", CHUNKED + "FFFFFFFFF\r\n",
     "!Chunk too big: Got 4294967295, maximum allowed size: 268435455"},

    {"garbage status line", "garbage\r\n\r\n", "!Invalid protocol version in response: \"GARBAGE\""},
    {"other protocol", "ICY 200 OK\r\n\r\n", "!Invalid protocol version in response: \"ICY\""},
    {"empty status line", "\r\nHTTP/1.1 200 OK\r\n\r\n", "!Invalid protocol version in response: \"\""},
    {"status not a number", "HTTP/1.1 OK\r\n\r\n", "!Invalid response status code: OK"},
    {"status -1", "HTTP/1.1 -1 Odd\r\n\r\n", "!Invalid response status code: -1"},
    {"no status", "HTTP/1.1\r\n\r\n", "!Invalid response status code: "},
    {"two blanks", "HTTP/1.1  200 OK\r\n\r\n", "!Invalid response status code: "},
    {"not found", "HTTP/1.1 404 Not Found\r\nContent-Length: 3\r\n\r\nnah",
     "!Unexpected response status code: 404"},
    {"status without headers", "HTTP/1.1 401 Unauthorized\r\n", "!Unexpected response status code: 401"},
    {"redirect not followed", "HTTP/1.1 302 Found\r\nLocation: http://127.0.0.1:1/feed.xml\r\n\r\n",
     "!Unexpected response status code: 302"},
};

// The body, or "!" and the failure text.
std::string Outcome(const std::string& AResponse, size_t APiece) {
  TMemorySource Memory{AResponse, APiece};
  try {
    return ReadHttpResponse(MemorySource(Memory));
  } catch (const std::runtime_error& E) {
    return std::string("!") + E.what();
  }
}

TEST(ReadHttpResponse, MemoryInEveryPieceSize) {
  for (const auto& C : RESPONSES) {
    for (size_t Piece : {0, 1, 2, 3, 7, 16}) {
      if (C.OneBlockOnly && Piece != 0) continue;
      EXPECT_EQ(Outcome(C.Response, Piece), C.Want) << C.Name << ", pieces of " << Piece;
    }
  }
}

TEST(ReadHttpResponse, EveryStatusButOkFails) {
  for (int Status = 100; Status <= 599; ++Status) {
    const std::string Want =
        Status == 200 ? "ok" : "!Unexpected response status code: " + std::to_string(Status);
    ASSERT_EQ(Outcome("HTTP/1.1 " + std::to_string(Status) + " Whatever\r\nContent-Length: 2\r\n\r\nok", 0),
              Want);
  }
}

TEST(SimpleGet, LoopbackResponses) {
  TTestServer Server;
  for (const auto& C : RESPONSES) Server.Replies.push_back({C.Response});
  StartTestServer(Server);
  for (const auto& C : RESPONSES) {
    const std::string Got = FetchOutcome(TestServerUrl(Server, "/feed.xml"));
    // A response the server sends in one write may still arrive in two reads.
    if (!C.OneBlockOnly) {
      EXPECT_EQ(Got, C.Want) << C.Name;
    }
  }
}

// Whatever way the body comes, the whole response has one ceiling, so that a hostile feed
// can't make the door grow without end; a response just under it is read in full.
TEST(ReadHttpResponse, ResponseOverTheCeilingFails) {
  const size_t Saved = FetchMaxResponseBytes;
  FetchMaxResponseBytes = 1000;
  const std::string Head = OK + "\r\n";
  const std::string Fits = Head + std::string(1000 - Head.size(), 'x');
  const std::string Chunk = "3E8\r\n" + std::string(1000, '\n') + "\r\n";
  for (const std::string& Response : {Head + std::string(5000, '\n'), CHUNKED + Chunk + "0\r\n\r\n",
                                      OK + "Content-Length: 2000\r\n\r\n" + std::string(2000, 'x'),
                                      OK + "X-Long: " + std::string(5000, 'h') + "\r\n\r\n"})
    for (size_t Piece : {0, 7})
      EXPECT_EQ(Outcome(Response, Piece), "!Feed too large: more than 1000 bytes") << Response.substr(0, 40);
  EXPECT_EQ(Outcome(Fits, 0), Fits.substr(Head.size()));
  FetchMaxResponseBytes = Saved;
}

// A large body cut into chunks of random sizes, read through pieces that fall everywhere.
TEST(ReadHttpResponse, LargeChunkedBodyAcrossBoundaries) {
  std::mt19937 Random(7);
  std::string Body(300000, '\0');
  for (char& C : Body) C = static_cast<char>(Random());
  std::string Response = CHUNKED;
  for (size_t Pos = 0; Pos < Body.size();) {
    const size_t Size = std::min<size_t>(Random() % 9000 + 1, Body.size() - Pos);
    char Hex[16];
    snprintf(Hex, sizeof Hex, "%zx\r\n", Size);
    Response += Hex + Body.substr(Pos, Size) + "\r\n";
    Pos += Size;
  }
  Response += "0\r\n\r\n";
  for (size_t Piece : {0, 1, 4095, 4097})
    EXPECT_TRUE(Outcome(Response, Piece) == Body) << "pieces of " << Piece;
}

}  // namespace
