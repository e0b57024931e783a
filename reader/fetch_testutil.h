// Test peers for the feed fetch: a scripted HTTP(S) server on 127.0.0.1 that runs in a thread of
// the test, answers each connection with bytes the test chose (odd ones included: garbage,
// stalls, resets), and records the request bytes it got; and certificates made with the
// `openssl` command.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

// How the server leaves a connection once its reply is out.
enum TServerEnd {
  seClose,         // orderly close (a TLS close_notify first)
  seTcpClose,      // a FIN without a TLS close_notify, as many HTTPS servers end
  seReset,         // an RST: SO_LINGER with time 0
  seStall,         // keep the connection open and silent until the server stops; serve the next one
  seFinThenReset,  // a FIN at once, an RST a moment later: the next write of the peer fails with EPIPE
};

// What the server does with one connection.
struct TServerReply {
  std::string Bytes;            // sent once the request has been read
  size_t ReadLimit = SIZE_MAX;  // request bytes read at most, up to its empty line (0: send at once)
  size_t PieceSize = 0;         // > 0: send in pieces of this size, one write (TLS record) each
  int PieceDelayMs = 0;         // pause before each piece but the first: a server that trickles
  TServerEnd End = seClose;
};

// A self-signed certificate with its key; empty names for none. The certificate file alone
// serves as a trust store that vouches for it.
struct TTestCertificate {
  std::string CertFile;
  std::string KeyFile;
};
// Made once per process and name by the `openssl` command, for CN=AName and no other name;
// AExpired gives one that ran out in 2020. Throws when the command fails.
const TTestCertificate& TestCertificate(bool AExpired = false, const std::string& AName = "localhost");

// A server on 127.0.0.1. Connection N (from 0) gets Replies[N], the last one for all later
// connections. TLS when Tls is set. Stopped and joined on destruction.
struct TTestServer {
  std::vector<TServerReply> Replies;
  TTestCertificate Tls;
  uint16_t Port = 0;  // set by StartTestServer
  // Filled by the server thread; read them after StopTestServer.
  std::vector<std::string> Requests;     // the request bytes of each connection, in order
  std::vector<std::string> ServerNames;  // the SNI of each TLS connection ("" when none)

  // Run-time state of the server thread.
  int ListenFd = -1;
  void* TlsContext = nullptr;
  std::thread Thread;

  ~TTestServer();
};

// Binds a free port on 127.0.0.1 and starts serving; throws when that fails.
void StartTestServer(TTestServer& AServer);
// Wakes and joins the server thread and closes its sockets; safe to call twice. Call it only
// when every fetch of the server has ended.
void StopTestServer(TTestServer& AServer);
// "http://127.0.0.1:PORT" + APath, or "https://..." for a TLS server.
std::string TestServerUrl(const TTestServer& AServer, const std::string& APath);

// 127.0.0.1:APort as a socket address.
sockaddr_in LoopbackAddress(uint16_t APort);
// A loopback port that nothing listened on a moment ago.
uint16_t FreeLoopbackPort();

// What SimpleGet gives for AUrl: the body, or "!" and the failure text.
std::string FetchOutcome(const std::string& AUrl);
// The request SimpleGet must send: "GET ATarget HTTP/1.1", an Authorization line when AAuth (base64)
// is set, "Host: AHost", "Connection: close" and the empty line, CR LF each.
std::string ExpectedRequest(const std::string& ATarget, const std::string& AHost,
                            const std::string& AAuth = "");
