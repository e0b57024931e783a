// The fetch against real peers: the scripted loopback server (plain and TLS, with self-signed
// and expired certificates), refused and stalled connections, resets, and a real nginx.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "fetch.h"
#include "fetch_testutil.h"
#include "testsupport.h"

namespace {

using namespace std::chrono_literals;

std::string Fetch(const std::string& AUrl) {
  try {
    return SimpleGet(AUrl);
  } catch (const std::runtime_error& E) {
    return std::string("!") + E.what();
  }
}

struct FetchNet : ::testing::Test {
  TTempDir Temp;
  void SetUp() override { FetchIoTimeoutMs = 30000; }
  void UseTls(TTestServer& AServer, bool AExpired = false) {
    const TTestCertificate Cert = MakeTestCertificate(Temp.Path, AExpired);
    AServer.CertFile = Cert.CertFile;
    AServer.KeyFile = Cert.KeyFile;
  }
};

const std::string FEED = "HTTP/1.1 200 OK\r\nContent-Length: 7\r\n\r\n<rss/>\n";

TEST_F(FetchNet, RequestBytesOnTheWire) {
  for (bool Tls : {false, true}) {
    TTestServer Server;
    if (Tls) UseTls(Server);
    Server.Replies = {{FEED}};
    StartTestServer(Server);
    const std::string Scheme = Tls ? "https://" : "http://";
    const std::string HostPort = "127.0.0.1:" + std::to_string(Server.Port);
    const std::pair<std::string, std::string> Cases[] = {
        {Scheme + HostPort + "/feed.xml",
         "GET /feed.xml HTTP/1.1\r\nHost: " + HostPort + "\r\nConnection: close\r\n\r\n"},
        {Scheme + "Bob:s3cret@" + HostPort + "/a/b?x=1&y=2#frag",
         "GET /a/b?x=1&y=2 HTTP/1.1\r\nAuthorization: Basic Qm9iOnMzY3JldA==\r\nHost: " + HostPort +
             "\r\nConnection: close\r\n\r\n"},
        {Scheme + "localhost:" + std::to_string(Server.Port),
         "GET / HTTP/1.1\r\nHost: localhost:" + std::to_string(Server.Port) +
             "\r\nConnection: close\r\n\r\n"},
    };
    for (const auto& [Url, Request] : Cases) EXPECT_EQ(Fetch(Url), "<rss/>\n") << Url;
    StopTestServer(Server);
    const auto Requests = TestServerRequests(Server);
    ASSERT_EQ(Requests.size(), std::size(Cases));
    for (size_t I = 0; I < Requests.size(); ++I) EXPECT_EQ(Requests[I], Cases[I].second);
    // The host name goes out as SNI; an address is no name.
    if (Tls) {
      EXPECT_EQ(TestServerNames(Server), (std::vector<std::string>{"", "", "localhost"}));
    }
  }
}

TEST_F(FetchNet, TlsWithSelfSignedAndExpiredCertificates) {
  for (bool Expired : {false, true}) {
    TTestServer Server;
    UseTls(Server, Expired);
    // Pieces of one byte cross every TLS record and read boundary.
    Server.Replies = {
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n", true, 0, 1,
         1}};
    StartTestServer(Server);
    EXPECT_EQ(Fetch(TestServerUrl(Server, "/")), "abcde") << (Expired ? "expired" : "self-signed");
  }
}

TEST_F(FetchNet, ServerThatClosesAtOnce) {
  // Closed before the request came (a FIN), and after it came unread (an RST): no bytes either way.
  TTestServer Plain;
  Plain.Replies = {{"", false}, {"", true, 0, 0, 0, seReset}, {"", false}};
  StartTestServer(Plain);
  EXPECT_EQ(Fetch(TestServerUrl(Plain, "/")), "");
  EXPECT_EQ(Fetch(TestServerUrl(Plain, "/")), "");

  // Over TLS the close comes during the handshake, which then fails.
  const std::string Got = Fetch("https://127.0.0.1:" + std::to_string(Plain.Port) + "/");
  EXPECT_TRUE(
      Got.starts_with("!Connect to 127.0.0.1:" + std::to_string(Plain.Port) + " failed: SSL error code: "))
      << Got;
}

TEST_F(FetchNet, TlsToAPlainServerFailsTheHandshake) {
  TTestServer Server;
  Server.Replies = {{"HTTP/1.1 400 Bad Request\r\n\r\n", false}};
  StartTestServer(Server);
  const std::string Got = Fetch("https://127.0.0.1:" + std::to_string(Server.Port) + "/");
  EXPECT_TRUE(
      Got.starts_with("!Connect to 127.0.0.1:" + std::to_string(Server.Port) + " failed: SSL error code: "))
      << Got;
  EXPECT_NE(Got.find("wrong version number"), std::string::npos) << Got;
}

TEST_F(FetchNet, RefusedConnection) {
  const uint16_t Port = FreeLoopbackPort();
  for (const char* Scheme : {"http", "https"}) {
    const std::string Where = "127.0.0.1:" + std::to_string(Port);
    EXPECT_EQ(Fetch(std::string(Scheme) + "://" + Where + "/"), "!Connect to " + Where + " failed: ");
  }
}

// A listener whose accept queue is full drops further SYNs, so a connect to it hangs the way
// it does to a host that does not answer.
TEST_F(FetchNet, ConnectTimesOutAfterThreeSeconds) {
  const int Listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in Address{};
  Address.sin_family = AF_INET;
  Address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
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
    const auto Start = std::chrono::steady_clock::now();
    Got = Fetch("http://" + Where + "/");
    Took = std::chrono::steady_clock::now() - Start;
  }
  for (int Fd : Fillers) close(Fd);
  close(Listener);
  if (!Full) GTEST_SKIP() << "this kernel does not hold SYNs to a full accept queue";
  EXPECT_EQ(Got, "!Connection to " + Where + " timed out.");
  EXPECT_GE(Took, 2900ms);
  EXPECT_LT(Took, 6s);
}

TEST_F(FetchNet, StalledServerTimesOut) {
  FetchIoTimeoutMs = 300;
  for (bool Tls : {false, true}) {
    TTestServer Server;
    if (Tls) UseTls(Server);
    Server.Replies = {
        {"", true, 0, 0, 0, seStall},  // silent after the request
        {"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npart", true, 0, 0, 0, seStall},  // stalls in the body
        {"", true, 1, 0, 0, seStall},  // reads one byte of the request, then nothing
    };
    StartTestServer(Server);
    SCOPED_TRACE(Tls ? "TLS" : "plain");
    EXPECT_EQ(Fetch(TestServerUrl(Server, "/")), "!Timed out reading data from socket");
    EXPECT_EQ(Fetch(TestServerUrl(Server, "/")), "!Timed out reading data from socket");
    // A request larger than every socket buffer between us and a server that stopped reading.
    const std::string Huge(32 << 20, 'q');
    if (!Tls) {
      EXPECT_EQ(Fetch(TestServerUrl(Server, "/?" + Huge)), "!Timed out writing data to socket");
    } else {
      // Over TLS the one byte read is part of the handshake, which then stalls.
      EXPECT_EQ(Fetch(TestServerUrl(Server, "/")), "!Timed out reading data from socket");
    }
  }
}

TEST_F(FetchNet, StalledTlsWriteTimesOut) {
  FetchIoTimeoutMs = 300;
  TTestServer Server;
  UseTls(Server);
  Server.Replies = {{"", true, 1000, 0, 0, seStall}};
  StartTestServer(Server);
  EXPECT_EQ(Fetch(TestServerUrl(Server, "/?" + std::string(32 << 20, 'q'))),
            "!Timed out writing data to socket");
}

// The server hangs up while the request is still going out: a failure text, and no SIGPIPE
// (which would end this test binary). After a FIN and then an RST the kernel answers the next
// send with EPIPE, the case that raises the signal.
TEST_F(FetchNet, HangUpWhileWritingGivesAFailureNotASignal) {
  const std::string Huge(16 << 20, 'q');
  for (bool Tls : {false, true}) {
    for (TServerEnd End : {seReset, seFinThenReset}) {
      TTestServer Server;
      if (Tls) UseTls(Server);
      Server.Replies = {{"", true, 4096, 0, 0, End}};
      StartTestServer(Server);
      EXPECT_EQ(Fetch(TestServerUrl(Server, "/?" + Huge)), "!Error writing data to socket")
          << (Tls ? "TLS" : "plain") << ", end " << End;
    }
  }
}

TEST_F(FetchNet, ResetWhileReadingGivesAReadError) {
  for (bool Tls : {false, true}) {
    TTestServer Server;
    if (Tls) UseTls(Server);
    Server.Replies = {{"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npart", true, 0, 0, 0, seReset}};
    StartTestServer(Server);
    EXPECT_EQ(Fetch(TestServerUrl(Server, "/")), "!Error reading data from socket")
        << (Tls ? "TLS" : "plain");
  }
}

// ---- nginx ------------------------------------------------------------------------------------

bool WaitForPort(uint16_t APort) {
  for (int Try = 0; Try < 100; ++Try) {
    const int Fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in Address{};
    Address.sin_family = AF_INET;
    Address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Address.sin_port = htons(APort);
    const bool Up = connect(Fd, reinterpret_cast<sockaddr*>(&Address), sizeof Address) == 0;
    close(Fd);
    if (Up) return true;
    std::this_thread::sleep_for(50ms);
  }
  return false;
}

TEST_F(FetchNet, RealNginxServesACorpusFeed) {
  const char* Nginx = "/usr/sbin/nginx";
  if (access(Nginx, X_OK) != 0) GTEST_SKIP() << "nginx is not installed";
  const auto Feeds = CorpusFeeds();
  if (Feeds.empty()) GTEST_SKIP() << "no feed corpus";
  const std::filesystem::path Feed = Feeds[Feeds.size() / 2];

  const TTestCertificate Cert = MakeTestCertificate(Temp.Path, false);
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
  const bool Up = WaitForPort(HttpPort) && WaitForPort(HttpsPort);
  std::string Plain, Secure, Missing, Moved;
  if (Up) {
    Plain = Fetch("http://127.0.0.1:" + std::to_string(HttpPort) + "/feed.xml");
    Secure = Fetch("https://localhost:" + std::to_string(HttpsPort) + "/feed.xml");
    Missing = Fetch("http://127.0.0.1:" + std::to_string(HttpPort) + "/nope.xml");
    Moved = Fetch("https://127.0.0.1:" + std::to_string(HttpsPort) + "/moved");
  }
  kill(Child, SIGTERM);
  int Status = 0;
  waitpid(Child, &Status, 0);
  ASSERT_TRUE(Up) << "nginx did not come up: " << ReadWholeFile(Temp.Path / "error.log");

  const std::string Want = ReadWholeFile(Feed);
  EXPECT_TRUE(Plain == Want) << Feed << ": got " << Plain.size() << " bytes of " << Want.size();
  EXPECT_TRUE(Secure == Want) << Feed << ": got " << Secure.size() << " bytes of " << Want.size();
  EXPECT_EQ(Missing, "!Unexpected response status code: 404");
  EXPECT_EQ(Moved, "!Unexpected response status code: 301");
}

}  // namespace
