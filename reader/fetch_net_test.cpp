// The fetch against real peers: the scripted loopback server (plain and TLS, with self-signed
// and expired certificates, checked and unchecked), refused and stalled connections, resets, and
// a real nginx.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "fetch.h"
#include "fetch_testutil.h"
#include "testsupport.h"

namespace {

using namespace std::chrono_literals;

size_t OpenDescriptors() {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                           std::filesystem::directory_iterator()));
}

// Every test starts from the shipped settings, and no fetch leaves a descriptor open.
struct FetchNet : ::testing::Test {
  size_t OpenAtStart = 0;
  void Reset() {
    FetchIoTimeoutMs = 30000;
    FetchConnectTimeoutMs = 3000;
    FetchVerifyPeer = false;
    FetchAddWatch = nullptr;
    FetchGiveUp = nullptr;
  }
  void SetUp() override {
    Reset();
    OpenAtStart = OpenDescriptors();
  }
  void TearDown() override {
    Reset();
    EXPECT_EQ(OpenDescriptors(), OpenAtStart);
  }
};

// While it lives, SIGALRM comes every 10 ms to a handler that does nothing, without SA_RESTART:
// every wait of the fetch is cut short again and again and must go on to its own deadline (a
// door's signal handlers can fire during a fetch too).
struct TSignalRain {
  struct sigaction Old {};
  TSignalRain() {
    struct sigaction Quiet {};
    Quiet.sa_handler = [](int) {};
    sigaction(SIGALRM, &Quiet, &Old);
    const itimerval Every{{0, 10000}, {0, 10000}};
    setitimer(ITIMER_REAL, &Every, nullptr);
  }
  ~TSignalRain() {
    const itimerval Off{};
    setitimer(ITIMER_REAL, &Off, nullptr);
    sigaction(SIGALRM, &Old, nullptr);
  }
};

const std::string READ_TIMEOUT = "!Timed out reading data from socket";
const std::string WRITE_TIMEOUT = "!Timed out writing data to socket";
// A request larger than every socket buffer between the fetch and a server that stopped reading.
const std::string HUGE_PATH = "/?" + std::string(32 << 20, 'q');

TEST_F(FetchNet, RequestBytesOnTheWire) {
  for (bool Tls : {false, true}) {
    TTestServer Server;
    if (Tls) Server.Tls = TestCertificate();
    Server.Replies = {{"HTTP/1.1 200 OK\r\nContent-Length: 7\r\n\r\n<rss/>\n"}};
    StartTestServer(Server);
    const std::string Scheme = Tls ? "https://" : "http://", Port = std::to_string(Server.Port);
    const std::string HostPort = "127.0.0.1:" + Port;
    for (const std::string& Url :
         {Scheme + HostPort + "/feed.xml", Scheme + "Bob:s3cret@" + HostPort + "/a/b?x=1&y=2#frag",
          Scheme + "localhost:" + Port})
      EXPECT_EQ(FetchOutcome(Url), "<rss/>\n") << Url;
    StopTestServer(Server);
    EXPECT_EQ(Server.Requests,
              (std::vector<std::string>{
                  "GET /feed.xml HTTP/1.1\r\nHost: " + HostPort + "\r\nConnection: close\r\n\r\n",
                  ExpectedRequest("/a/b?x=1&y=2", HostPort, "Qm9iOnMzY3JldA=="),
                  ExpectedRequest("/", "localhost:" + Port)}));
    // The host name goes out as SNI; an address is no name.
    if (Tls) {
      EXPECT_EQ(Server.ServerNames, (std::vector<std::string>{"", "", "localhost"}));
    }
  }
}

TEST_F(FetchNet, TlsWithSelfSignedAndExpiredCertificates) {
  for (bool Expired : {false, true}) {
    TTestServer Server;
    Server.Tls = TestCertificate(Expired);
    SCOPED_TRACE(Expired ? "expired" : "self-signed");
    // One TLS record per byte crosses every record and read boundary. A body that runs to the
    // end may end without a close_notify; a session closed before the status line is no feed.
    Server.Replies = {
        {.Bytes = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n",
         .PieceSize = 1},
        {.Bytes = "HTTP/1.1 200 OK\r\n\r\nto the end", .End = seTcpClose},
        {.Bytes = ""}};
    StartTestServer(Server);
    EXPECT_EQ(FetchOutcome(TestServerUrl(Server, "/")), "abcde");
    EXPECT_EQ(FetchOutcome(TestServerUrl(Server, "/")), "to the end");
    EXPECT_EQ(FetchOutcome(TestServerUrl(Server, "/")), "");
  }
}

// Asked to verify, the fetch takes a feed only from a server whose certificate the trust store
// vouches for and which names the URL's host (unasked, it takes any: the tests above).
// SSL_CERT_FILE stands in for the system's store, as OpenSSL's default paths read it; unset,
// the real store is used, which knows no test certificate.
TEST_F(FetchNet, CertificateVerificationWhenAsked) {
  const TTestCertificate &Fresh = TestCertificate(), &Expired = TestCertificate(true),
                         &Other = TestCertificate(false, "feeds.invalid");
  const std::string Rejected = "certificate verify failed: ";
  struct TCase {
    const char* What;
    const TTestCertificate& Served;
    std::string TrustFile;  // empty: the system's store
    const char* Host;
    std::string Want;  // the body, or the failure's text behind "Connect to ... failed: "
  } Cases[] = {
      {"the system's store does not know it", Fresh, "", "localhost", Rejected + "self-signed certificate"},
      {"trusted, issued for the host", Fresh, Fresh.CertFile, "localhost", "feed"},
      {"trusted, issued for another name", Other, Other.CertFile, "localhost",
       Rejected + "hostname mismatch"},
      {"trusted, the address is not in it", Fresh, Fresh.CertFile, "127.0.0.1",
       Rejected + "IP address mismatch"},
      {"trusted, but expired", Expired, Expired.CertFile, "localhost", Rejected + "certificate has expired"},
  };
  FetchVerifyPeer = true;
  const char* const Saved = std::getenv("SSL_CERT_FILE");
  const std::string Outside = Saved ? Saved : "";
  for (const TCase& C : Cases) {
    SCOPED_TRACE(C.What);
    if (C.TrustFile.empty()) {
      unsetenv("SSL_CERT_FILE");
    } else {
      setenv("SSL_CERT_FILE", C.TrustFile.c_str(), 1);
    }
    TTestServer Server;
    Server.Tls = C.Served;
    Server.Replies = {{"HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nfeed"}};
    StartTestServer(Server);
    const std::string Where = std::string(C.Host) + ":" + std::to_string(Server.Port);
    const std::string Got = FetchOutcome("https://" + Where + "/");
    EXPECT_EQ(Got, C.Want == "feed" ? C.Want : "!Connect to " + Where + " failed: " + C.Want);
  }
  if (Saved) {
    setenv("SSL_CERT_FILE", Outside.c_str(), 1);
  } else {
    unsetenv("SSL_CERT_FILE");
  }
}

TEST_F(FetchNet, ServerThatClosesAtOnceOrSpeaksNoTls) {
  TTestServer Plain;
  Plain.Replies = {{.ReadLimit = 0},
                   {.End = seReset},
                   {.ReadLimit = 0},
                   {.Bytes = "HTTP/1.1 400 Bad Request\r\n\r\n", .ReadLimit = 0}};
  StartTestServer(Plain);
  // Closed before the request came (a FIN), and after it came unread (an RST): no bytes either way.
  EXPECT_EQ(FetchOutcome(TestServerUrl(Plain, "/")), "");
  EXPECT_EQ(FetchOutcome(TestServerUrl(Plain, "/")), "");
  // Over TLS the close comes during the handshake, which then fails; so does a plain answer.
  const std::string Url = "https://127.0.0.1:" + std::to_string(Plain.Port) + "/";
  const std::string Failed =
      "!Connect to 127.0.0.1:" + std::to_string(Plain.Port) + " failed: SSL error code: ";
  const std::string Closed = FetchOutcome(Url), Answered = FetchOutcome(Url);
  EXPECT_TRUE(Closed.starts_with(Failed)) << Closed;
  EXPECT_TRUE(Answered.starts_with(Failed) && Answered.find("wrong version number") != std::string::npos)
      << Answered;
}

TEST_F(FetchNet, RefusedConnection) {
  const std::string Where = "127.0.0.1:" + std::to_string(FreeLoopbackPort());
  for (const char* Scheme : {"http", "https"})
    EXPECT_EQ(FetchOutcome(std::string(Scheme) + "://" + Where + "/"), "!Connect to " + Where + " failed: ");
  // Without a port the scheme's own, checked where nothing listens on it.
  for (const auto& [Url, Port] : {std::pair{"http://127.0.0.1/", ":80 "}, {"https://127.0.0.1/", ":443 "}}) {
    const std::string Got = FetchOutcome(Url);
    if (Got.starts_with("!Connect")) {
      EXPECT_EQ(Got, "!Connect to 127.0.0.1" + std::string(Port) + "failed: ");
    }
  }
}

// A listener whose accept queue is full drops further SYNs, so a connect to it hangs the way
// it does to a host that does not answer.
TEST_F(FetchNet, ConnectTimesOutOnItsOwnBound) {
  FetchConnectTimeoutMs = 300;
  const int Listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in Address = LoopbackAddress(0);
  socklen_t Size = sizeof Address;
  ASSERT_EQ(bind(Listener, reinterpret_cast<sockaddr*>(&Address), Size), 0);
  ASSERT_EQ(listen(Listener, 0), 0);
  ASSERT_EQ(getsockname(Listener, reinterpret_cast<sockaddr*>(&Address), &Size), 0);
  std::vector<int> Fillers;
  bool Full = false;
  for (int I = 0; I < 16 && !Full; ++I) {
    const int Fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    Fillers.push_back(Fd);
    connect(Fd, reinterpret_cast<sockaddr*>(&Address), Size);
    pollfd P{Fd, POLLOUT, 0};
    Full = poll(&P, 1, 300) == 0;
  }
  const std::string Where = "127.0.0.1:" + std::to_string(ntohs(Address.sin_port));
  std::string Got;
  std::chrono::steady_clock::duration Took{};
  if (Full) {
    TSignalRain Rain;
    const auto Start = std::chrono::steady_clock::now();
    Got = FetchOutcome("http://" + Where + "/");
    Took = std::chrono::steady_clock::now() - Start;
  }
  for (int Fd : Fillers) close(Fd);
  close(Listener);
  if (!Full) GTEST_SKIP() << "this kernel does not hold SYNs to a full accept queue";
  EXPECT_EQ(Got, "!Connection to " + Where + " timed out.");
  EXPECT_GE(Took, 290ms);
  EXPECT_LT(Took, 3s);
}

// Every wait also watches a descriptor that is ready all along while the program never wants
// the fetch to end: it must neither end the fetch nor be taken for the socket being ready.
TEST_F(FetchNet, StalledServerTimesOut) {
  FetchIoTimeoutMs = 150;
  TSignalRain Rain;
  static int AlwaysReady[2];
  ASSERT_EQ(pipe(AlwaysReady), 0);
  ASSERT_EQ(write(AlwaysReady[1], "x", 1), 1);
  FetchAddWatch = [](std::vector<pollfd>& APoll) { APoll.push_back({AlwaysReady[0], POLLIN, 0}); };
  FetchGiveUp = [] { return false; };
  for (bool Tls : {false, true}) {
    SCOPED_TRACE(Tls ? "TLS" : "plain");
    TTestServer Server;
    if (Tls) Server.Tls = TestCertificate();
    // Silent after the request; stalled in the body; no longer reading the request; and a
    // trickle whose every gap is short but which would need a second in all.
    Server.Replies = {{.End = seStall},
                      {.Bytes = "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npart", .End = seStall},
                      {.ReadLimit = 1000, .End = seStall},
                      {.Bytes = "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n" + std::string(100, 'x'),
                       .PieceSize = 4,
                       .PieceDelayMs = 30}};
    StartTestServer(Server);
    EXPECT_EQ(FetchOutcome(TestServerUrl(Server, "/")), READ_TIMEOUT);
    EXPECT_EQ(FetchOutcome(TestServerUrl(Server, "/")), READ_TIMEOUT);
    EXPECT_EQ(FetchOutcome(TestServerUrl(Server, HUGE_PATH)), WRITE_TIMEOUT);
    EXPECT_EQ(FetchOutcome(TestServerUrl(Server, "/")), READ_TIMEOUT);
  }
  // A TLS handshake that gets no answer.
  TTestServer Mute;
  Mute.Replies = {{.ReadLimit = 0, .End = seStall}};
  StartTestServer(Mute);
  EXPECT_EQ(FetchOutcome("https://127.0.0.1:" + std::to_string(Mute.Port) + "/"), READ_TIMEOUT);
  // A resolver that never answers counts against the same bound, and its lookup process is
  // gone when the fetch has failed.
  EXPECT_EQ(FetchOutcome("http://feed.stall.test/"),
            "!Host name resolution for \"feed.stall.test\" timed out.");
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  close(AlwaysReady[0]);
  close(AlwaysReady[1]);
}

// The server hangs up while the request is still going out: a failure text, and no SIGPIPE
// (which would end this test binary). After a FIN and then an RST the kernel answers the next
// send with EPIPE, the case that raises the signal. A reset in the body fails the read.
TEST_F(FetchNet, HangUpGivesAFailureNotASignal) {
  for (bool Tls : {false, true}) {
    SCOPED_TRACE(Tls ? "TLS" : "plain");
    TTestServer Server;
    if (Tls) Server.Tls = TestCertificate();
    Server.Replies = {{.ReadLimit = 4096, .End = seReset},
                      {.ReadLimit = 4096, .End = seFinThenReset},
                      {.Bytes = "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npart", .End = seReset}};
    StartTestServer(Server);
    EXPECT_EQ(FetchOutcome(TestServerUrl(Server, HUGE_PATH)), "!Error writing data to socket");
    EXPECT_EQ(FetchOutcome(TestServerUrl(Server, HUGE_PATH)), "!Error writing data to socket");
    EXPECT_EQ(FetchOutcome(TestServerUrl(Server, "/")), "!Error reading data from socket");
  }
}

// ---- nginx ------------------------------------------------------------------------------------

TEST_F(FetchNet, RealNginxServesACorpusFeed) {
  const char* Nginx = "/usr/sbin/nginx";
  if (access(Nginx, X_OK) != 0) GTEST_SKIP() << "nginx is not installed";
  const auto Feeds = CorpusFeeds();
  if (Feeds.empty()) GTEST_SKIP() << "no feed corpus";
  const std::filesystem::path Feed = Feeds[Feeds.size() / 2];

  TTempDir Temp;
  const TTestCertificate& Cert = TestCertificate();
  const auto Root = Temp.Path / "www";
  std::filesystem::create_directories(Root);
  std::filesystem::copy_file(Feed, Root / "feed.xml");
  const uint16_t HttpPort = FreeLoopbackPort(), HttpsPort = FreeLoopbackPort();
  const std::string Dir = Temp.Path.string();
  std::ofstream(Temp.Path / "nginx.conf")
      << "daemon off;\nmaster_process off;\nerror_log " << Dir << "/error.log;\npid " << Dir
      << "/nginx.pid;\n"
      << "events { worker_connections 32; }\nhttp {\n  access_log off;\n"
      << "  client_body_temp_path " << Dir << "/body;\n  proxy_temp_path " << Dir << "/proxy;\n"
      << "  fastcgi_temp_path " << Dir << "/fastcgi;\n  uwsgi_temp_path " << Dir << "/uwsgi;\n"
      << "  scgi_temp_path " << Dir << "/scgi;\n"
      << "  server {\n    listen 127.0.0.1:" << HttpPort << ";\n    listen 127.0.0.1:" << HttpsPort
      << " ssl;\n"
      << "    ssl_certificate " << Cert.CertFile << ";\n    ssl_certificate_key " << Cert.KeyFile << ";\n"
      << "    root " << Root.string() << ";\n    location = /moved { return 301 /feed.xml; }\n  }\n}\n";

  const pid_t Child = fork();
  ASSERT_GE(Child, 0);
  if (Child == 0) {
    const std::string Conf = Dir + "/nginx.conf", Log = Dir + "/error.log";
    execl(Nginx, Nginx, "-p", Dir.c_str(), "-c", Conf.c_str(), "-e", Log.c_str(),
          static_cast<char*>(nullptr));
    _exit(127);
  }
  // nginx listens once it has read its settings; the first fetch waits for that.
  const std::string Http = "http://127.0.0.1:" + std::to_string(HttpPort) + "/";
  const std::string Https = "https://127.0.0.1:" + std::to_string(HttpsPort) + "/";
  std::string Plain = FetchOutcome(Http + "feed.xml");
  for (int Try = 0; Try < 100 && Plain.starts_with("!Connect to"); ++Try) {
    std::this_thread::sleep_for(50ms);
    Plain = FetchOutcome(Http + "feed.xml");
  }
  const std::string Secure = FetchOutcome("https://localhost:" + std::to_string(HttpsPort) + "/feed.xml");
  const std::string Missing = FetchOutcome(Http + "nope.xml"), Moved = FetchOutcome(Https + "moved");
  kill(Child, SIGTERM);
  waitpid(Child, nullptr, 0);
  ASSERT_FALSE(Plain.starts_with("!Connect to"))
      << "nginx did not come up: " << ReadWholeFile(Dir + "/error.log");

  const std::string Want = ReadWholeFile(Feed);
  EXPECT_TRUE(Plain == Want) << Feed << ": got " << Plain.size() << " bytes of " << Want.size();
  EXPECT_TRUE(Secure == Want) << Feed << ": got " << Secure.size() << " bytes of " << Want.size();
  EXPECT_EQ(Missing, "!Unexpected response status code: 404");
  EXPECT_EQ(Moved, "!Unexpected response status code: 301");
}

}  // namespace
