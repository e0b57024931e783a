// Test peers for the feed fetch: a scripted HTTP(S) server on 127.0.0.1 that runs in a thread of
// the test, answers each connection with bytes the test chose (odd ones included: garbage,
// stalls, resets), and records the request bytes it got; and certificates made with the
// `openssl` command.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// How the server leaves a connection once its reply is out.
enum TServerEnd {
  seClose,         // orderly close (a TLS close_notify first)
  seReset,         // an RST: SO_LINGER with time 0
  seStall,         // keep the connection open, silent, until the server is stopped
  seFinThenReset,  // a FIN at once, an RST a moment later: the next write of the peer fails with EPIPE
};

// What the server does with one connection.
struct TServerReply {
  std::string Bytes;           // sent after the request has come in
  bool WaitForRequest = true;  // read up to the empty line first (false: send at once)
  size_t ReadLimit = 0;        // > 0: stop reading after this many request bytes and go to End
  size_t PieceSize = 0;        // > 0: send in pieces of this size ...
  int PieceDelayMs = 0;        // ... with this pause between them
  TServerEnd End = seClose;
};

// A server on 127.0.0.1. Connection N (from 0) gets Replies[N], the last one for all later
// connections. TLS when CertFile and KeyFile are set. Stopped and joined on destruction.
struct TTestServer {
  std::vector<TServerReply> Replies;
  std::string CertFile;
  std::string KeyFile;
  uint16_t Port = 0;  // set by StartTestServer

  // Run-time state of the server thread.
  int ListenFd = -1;
  int WakeRead = -1;
  int WakeWrite = -1;
  void* TlsContext = nullptr;
  std::thread Thread;
  std::mutex Lock;
  std::vector<std::string> Requests;     // the request bytes of each connection, in order
  std::vector<std::string> ServerNames;  // the SNI of each TLS connection ("" when none)

  TTestServer() = default;
  TTestServer(const TTestServer&) = delete;
  TTestServer& operator=(const TTestServer&) = delete;
  ~TTestServer();
};

// Binds a free port on 127.0.0.1 and starts serving; throws when that fails.
void StartTestServer(TTestServer& AServer);
// Wakes and joins the server thread and closes its sockets; safe to call twice.
void StopTestServer(TTestServer& AServer);
std::vector<std::string> TestServerRequests(TTestServer& AServer);
std::vector<std::string> TestServerNames(TTestServer& AServer);
// "http://127.0.0.1:PORT" + APath, or "https://..." for a TLS server.
std::string TestServerUrl(const TTestServer& AServer, const std::string& APath);

// A self-signed certificate for CN=localhost with its key, made by the `openssl` command in ADir;
// AExpired gives one that ran out in 2020. Throws when the command fails.
struct TTestCertificate {
  std::string CertFile;
  std::string KeyFile;
};
TTestCertificate MakeTestCertificate(const std::filesystem::path& ADir, bool AExpired);

// A loopback port that nothing listened on a moment ago.
uint16_t FreeLoopbackPort();
