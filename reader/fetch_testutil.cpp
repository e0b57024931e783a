// The scripted loopback server, the certificate maker and the outcome helper behind the fetch
// tests. The server runs in a thread of the test process; it blocks SIGPIPE in that thread only,
// so a client that hangs up early cannot kill the test, while the code under test still runs
// with the default disposition and would die if it wrote without MSG_NOSIGNAL. It blocks SIGALRM
// too, so that a test's timer signals land in the fetch.
#include "fetch_testutil.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <stdexcept>

#include "fetch.h"
#include "testsupport.h"

namespace {

// Bounds every blocking call of the server, so that a broken test cannot hang forever.
constexpr int SERVER_IO_LIMIT_S = 20;

struct TServerConn {
  int Fd = -1;
  SSL* Ssl = nullptr;
};

ssize_t ConnRead(TServerConn& AConn, char* ABuffer, size_t ASize) {
  if (!AConn.Ssl) return recv(AConn.Fd, ABuffer, ASize, 0);
  size_t Got = 0;
  return SSL_read_ex(AConn.Ssl, ABuffer, ASize, &Got) == 1 ? static_cast<ssize_t>(Got) : -1;
}

bool ConnWrite(TServerConn& AConn, const char* AData, size_t ASize) {
  if (AConn.Ssl) {
    size_t Written = 0;
    return ASize == 0 || SSL_write_ex(AConn.Ssl, AData, ASize, &Written) == 1;
  }
  while (ASize > 0) {
    const ssize_t R = send(AConn.Fd, AData, ASize, MSG_NOSIGNAL);
    if (R <= 0) return false;
    AData += R;
    ASize -= static_cast<size_t>(R);
  }
  return true;
}

// Serves one connection as AReply says; true when it is to stay open (seStall).
bool ServeOne(TTestServer& AServer, TServerConn& AConn, const TServerReply& AReply) {
  if (AConn.Ssl) {
    const char* Name = SSL_get_servername(AConn.Ssl, TLSEXT_NAMETYPE_host_name);
    AServer.ServerNames.push_back(Name ? Name : "");
  }
  std::string Request;
  char Block[4096];
  while (Request.find("\r\n\r\n") == std::string::npos && Request.size() < AReply.ReadLimit) {
    const ssize_t R = ConnRead(AConn, Block, std::min(sizeof Block, AReply.ReadLimit - Request.size()));
    if (R <= 0) break;
    Request.append(Block, static_cast<size_t>(R));
  }
  AServer.Requests.push_back(Request);
  const size_t Piece = AReply.PieceSize > 0 ? AReply.PieceSize : std::max<size_t>(AReply.Bytes.size(), 1);
  for (size_t Pos = 0; Pos < AReply.Bytes.size(); Pos += Piece) {
    if (Pos > 0) std::this_thread::sleep_for(std::chrono::milliseconds(AReply.PieceDelayMs));
    if (!ConnWrite(AConn, AReply.Bytes.data() + Pos, std::min(Piece, AReply.Bytes.size() - Pos))) break;
  }
  if (AReply.End == seStall) return true;
  if (AReply.End == seFinThenReset) {
    shutdown(AConn.Fd, SHUT_WR);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  if (AReply.End == seReset || AReply.End == seFinThenReset) {
    const linger Now{1, 0};
    setsockopt(AConn.Fd, SOL_SOCKET, SO_LINGER, &Now, sizeof Now);
  } else if (AConn.Ssl && AReply.End == seClose) {
    SSL_shutdown(AConn.Ssl);
  }
  return false;
}

void CloseConn(TServerConn& AConn) {
  SSL_free(AConn.Ssl);
  close(AConn.Fd);
}

void ServeConnections(TTestServer* AServer) {
  std::vector<TServerConn> Stalled;  // open and silent until the server stops
  for (size_t Index = 0;;) {
    TServerConn Conn;
    Conn.Fd = accept4(AServer->ListenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (Conn.Fd < 0 && errno == EINTR) continue;
    if (Conn.Fd < 0) break;  // StopTestServer shut the listener down
    const timeval Limit{SERVER_IO_LIMIT_S, 0};
    setsockopt(Conn.Fd, SOL_SOCKET, SO_RCVTIMEO, &Limit, sizeof Limit);
    setsockopt(Conn.Fd, SOL_SOCKET, SO_SNDTIMEO, &Limit, sizeof Limit);
    const TServerReply& Reply = AServer->Replies[std::min(Index++, AServer->Replies.size() - 1)];
    bool Ready = true;
    if (AServer->TlsContext) {
      Conn.Ssl = SSL_new(static_cast<SSL_CTX*>(AServer->TlsContext));
      SSL_set_fd(Conn.Ssl, Conn.Fd);
      Ready = SSL_accept(Conn.Ssl) == 1;
    }
    if (Ready && ServeOne(*AServer, Conn, Reply))
      Stalled.push_back(Conn);
    else
      CloseConn(Conn);
  }
  for (auto& Conn : Stalled) CloseConn(Conn);
}

}  // namespace

TTestServer::~TTestServer() { StopTestServer(*this); }

void StartTestServer(TTestServer& AServer) {
  if (AServer.Replies.empty()) AServer.Replies.push_back(TServerReply{});
  if (!AServer.Tls.CertFile.empty()) {
    SSL_CTX* Ctx = SSL_CTX_new(TLS_server_method());
    if (!Ctx || SSL_CTX_use_certificate_chain_file(Ctx, AServer.Tls.CertFile.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(Ctx, AServer.Tls.KeyFile.c_str(), SSL_FILETYPE_PEM) != 1) {
      SSL_CTX_free(Ctx);
      throw std::runtime_error("test server: cannot load " + AServer.Tls.CertFile);
    }
    AServer.TlsContext = Ctx;
  }
  AServer.ListenFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in Address = LoopbackAddress(0);
  socklen_t Size = sizeof Address;
  if (AServer.ListenFd < 0 || bind(AServer.ListenFd, reinterpret_cast<sockaddr*>(&Address), Size) < 0 ||
      listen(AServer.ListenFd, 16) < 0 ||
      getsockname(AServer.ListenFd, reinterpret_cast<sockaddr*>(&Address), &Size) < 0)
    throw std::runtime_error("test server: cannot listen on 127.0.0.1");
  AServer.Port = ntohs(Address.sin_port);
  // The thread inherits the mask from its start on: no signal of a test's timer can reach it
  // before it runs. SIGALRM is for the fetch under test (interrupted waits).
  sigset_t Blocked, Old;
  sigemptyset(&Blocked);
  sigaddset(&Blocked, SIGPIPE);
  sigaddset(&Blocked, SIGALRM);
  pthread_sigmask(SIG_BLOCK, &Blocked, &Old);
  AServer.Thread = std::thread(ServeConnections, &AServer);
  pthread_sigmask(SIG_SETMASK, &Old, nullptr);
}

void StopTestServer(TTestServer& AServer) {
  // A listener shut down wakes the thread's accept. Every fetch has closed its end by now, so
  // the thread waits on nothing else.
  if (AServer.ListenFd >= 0) shutdown(AServer.ListenFd, SHUT_RDWR);
  if (AServer.Thread.joinable()) AServer.Thread.join();
  if (AServer.ListenFd >= 0) close(AServer.ListenFd);
  AServer.ListenFd = -1;
  SSL_CTX_free(static_cast<SSL_CTX*>(AServer.TlsContext));
  AServer.TlsContext = nullptr;
}

std::string TestServerUrl(const TTestServer& AServer, const std::string& APath) {
  return (AServer.Tls.CertFile.empty() ? "http://127.0.0.1:" : "https://127.0.0.1:") +
         std::to_string(AServer.Port) + APath;
}

const TTestCertificate& TestCertificate(bool AExpired, const std::string& AName) {
  static std::map<std::string, TTestCertificate> Made;
  static TTempDir Home;
  const std::string Kind = (AExpired ? "expired-" : "fresh-") + AName;
  TTestCertificate& Cert = Made[Kind];
  if (!Cert.CertFile.empty()) return Cert;
  const std::filesystem::path Dir = Home.Path / Kind;
  std::filesystem::create_directories(Dir);
  // "openssl req" will not date a certificate in the past; "openssl ca" takes explicit dates.
  std::ofstream(Dir / "ca.cnf")
      << "[ca]\ndefault_ca=d\n[d]\ndatabase=index.txt\nnew_certs_dir=.\nserial=serial\n"
         "default_md=sha256\npolicy=p\n[p]\ncommonName=supplied\n";
  std::ofstream(Dir / "index.txt");
  std::ofstream(Dir / "serial") << "01\n";
  const std::string Command =
      "cd '" + Dir.string() +
      "' && openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes " +
      "-keyout key.pem -subj /CN=" + AName + " -out req.csr && openssl ca -batch -config ca.cnf -selfsign " +
      "-keyfile key.pem -in req.csr -out cert.pem -notext -startdate 20200101000000Z -enddate " +
      (AExpired ? "20200102000000Z" : "20991231000000Z");
  if (std::system(("(" + Command + ") >/dev/null 2>&1").c_str()) != 0)
    throw std::runtime_error("openssl could not make a test certificate in " + Dir.string());
  Cert = {(Dir / "cert.pem").string(), (Dir / "key.pem").string()};
  return Cert;
}

sockaddr_in LoopbackAddress(uint16_t APort) {
  sockaddr_in Address{};
  Address.sin_family = AF_INET;
  Address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  Address.sin_port = htons(APort);
  return Address;
}

uint16_t FreeLoopbackPort() {
  const int Fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in Address = LoopbackAddress(0);
  socklen_t Size = sizeof Address;
  if (Fd < 0 || bind(Fd, reinterpret_cast<sockaddr*>(&Address), Size) < 0 ||
      getsockname(Fd, reinterpret_cast<sockaddr*>(&Address), &Size) < 0)
    throw std::runtime_error("no free loopback port");
  close(Fd);
  return ntohs(Address.sin_port);
}

std::string FetchOutcome(const std::string& AUrl) {
  try {
    return SimpleGet(AUrl);
  } catch (const std::runtime_error& E) {
    return std::string("!") + E.what();
  }
}

std::string ExpectedRequest(const std::string& ATarget, const std::string& AHost, const std::string& AAuth) {
  return "GET " + ATarget + " HTTP/1.1\r\n" +
         (AAuth.empty() ? "" : "Authorization: Basic " + AAuth + "\r\n") + "Host: " + AHost +
         "\r\nConnection: close\r\n\r\n";
}
