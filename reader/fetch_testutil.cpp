// The scripted loopback server and the certificate maker behind the fetch tests. The server runs
// in a thread of the test process; it blocks SIGPIPE in that thread only, so a client that hangs
// up early cannot kill the test, while the code under test still runs with the default
// disposition and would die if it wrote without MSG_NOSIGNAL.
#include "fetch_testutil.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace {

// Bounds every blocking call of the server, so that a broken test cannot hang forever.
constexpr int SERVER_IO_LIMIT_S = 20;

struct TServerConn {
  int Fd = -1;
  SSL* Ssl = nullptr;
};

// Waits for AFd to be readable; false when the server is being stopped.
bool WaitReadable(TTestServer& AServer, int AFd) {
  pollfd P[2] = {{AFd, POLLIN, 0}, {AServer.WakeRead, POLLIN, 0}};
  for (;;) {
    const int R = poll(P, 2, SERVER_IO_LIMIT_S * 1000);
    if (R < 0 && errno == EINTR) continue;
    return R > 0 && P[1].revents == 0;
  }
}

// Sleeps AMs, or less when the server is being stopped; false in that case.
bool Pause(TTestServer& AServer, int AMs) {
  pollfd P{AServer.WakeRead, POLLIN, 0};
  return poll(&P, 1, AMs) == 0;
}

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

void ServeOne(TTestServer& AServer, TServerConn& AConn, const TServerReply& AReply) {
  if (AConn.Ssl) {
    const char* Name = SSL_get_servername(AConn.Ssl, TLSEXT_NAMETYPE_host_name);
    std::lock_guard<std::mutex> Guard(AServer.Lock);
    AServer.ServerNames.push_back(Name ? Name : "");
  }
  std::string Request;
  if (AReply.WaitForRequest) {
    char Block[4096];
    while (Request.find("\r\n\r\n") == std::string::npos) {
      if (AReply.ReadLimit > 0 && Request.size() >= AReply.ReadLimit) break;
      if ((!AConn.Ssl || SSL_pending(AConn.Ssl) == 0) && !WaitReadable(AServer, AConn.Fd)) break;
      size_t Want = sizeof Block;
      if (AReply.ReadLimit > 0) Want = std::min(Want, AReply.ReadLimit - Request.size());
      const ssize_t R = ConnRead(AConn, Block, Want);
      if (R <= 0) break;
      Request.append(Block, static_cast<size_t>(R));
    }
  }
  {
    std::lock_guard<std::mutex> Guard(AServer.Lock);
    AServer.Requests.push_back(Request);
  }
  const size_t Piece = AReply.PieceSize > 0 ? AReply.PieceSize : std::max<size_t>(AReply.Bytes.size(), 1);
  for (size_t Pos = 0; Pos < AReply.Bytes.size(); Pos += Piece) {
    if (Pos > 0 && AReply.PieceDelayMs > 0 && !Pause(AServer, AReply.PieceDelayMs)) break;
    if (!ConnWrite(AConn, AReply.Bytes.data() + Pos, std::min(Piece, AReply.Bytes.size() - Pos))) break;
  }
  if (AReply.End == seStall) {
    pollfd P{AServer.WakeRead, POLLIN, 0};
    while (poll(&P, 1, -1) < 0 && errno == EINTR) {
    }
  }
  if (AReply.End == seFinThenReset) {
    shutdown(AConn.Fd, SHUT_WR);
    Pause(AServer, 100);
  }
  if (AReply.End == seReset || AReply.End == seFinThenReset) {
    const linger Now{1, 0};
    setsockopt(AConn.Fd, SOL_SOCKET, SO_LINGER, &Now, sizeof Now);
  } else if (AConn.Ssl) {
    SSL_shutdown(AConn.Ssl);
  }
}

void ServeConnections(TTestServer* AServer) {
  sigset_t Pipe;
  sigemptyset(&Pipe);
  sigaddset(&Pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &Pipe, nullptr);
  for (size_t Index = 0;; ++Index) {
    pollfd P[2] = {{AServer->ListenFd, POLLIN, 0}, {AServer->WakeRead, POLLIN, 0}};
    if (poll(P, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (P[1].revents != 0) return;
    TServerConn Conn;
    Conn.Fd = accept4(AServer->ListenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (Conn.Fd < 0) continue;
    const timeval Limit{SERVER_IO_LIMIT_S, 0};
    setsockopt(Conn.Fd, SOL_SOCKET, SO_RCVTIMEO, &Limit, sizeof Limit);
    setsockopt(Conn.Fd, SOL_SOCKET, SO_SNDTIMEO, &Limit, sizeof Limit);
    const TServerReply& Reply = AServer->Replies[std::min(Index, AServer->Replies.size() - 1)];
    bool Ready = true;
    if (AServer->TlsContext) {
      Conn.Ssl = SSL_new(static_cast<SSL_CTX*>(AServer->TlsContext));
      SSL_set_fd(Conn.Ssl, Conn.Fd);
      Ready = SSL_accept(Conn.Ssl) == 1;
      if (!Ready) {
        // A client that gave up on the handshake still counts as a connection.
        std::lock_guard<std::mutex> Guard(AServer->Lock);
        AServer->ServerNames.push_back("");
        AServer->Requests.push_back("");
      }
    }
    if (Ready) ServeOne(*AServer, Conn, Reply);
    if (Conn.Ssl) SSL_free(Conn.Ssl);
    close(Conn.Fd);
  }
}

}  // namespace

TTestServer::~TTestServer() { StopTestServer(*this); }

void StartTestServer(TTestServer& AServer) {
  if (AServer.Replies.empty()) AServer.Replies.push_back(TServerReply{});
  if (!AServer.CertFile.empty()) {
    SSL_CTX* Ctx = SSL_CTX_new(TLS_server_method());
    if (!Ctx || SSL_CTX_use_certificate_chain_file(Ctx, AServer.CertFile.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(Ctx, AServer.KeyFile.c_str(), SSL_FILETYPE_PEM) != 1) {
      SSL_CTX_free(Ctx);
      throw std::runtime_error("test server: cannot load " + AServer.CertFile);
    }
    AServer.TlsContext = Ctx;
  }
  AServer.ListenFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in Address{};
  Address.sin_family = AF_INET;
  Address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t Size = sizeof Address;
  int Wake[2];
  if (AServer.ListenFd < 0 || bind(AServer.ListenFd, reinterpret_cast<sockaddr*>(&Address), Size) < 0 ||
      listen(AServer.ListenFd, 16) < 0 ||
      getsockname(AServer.ListenFd, reinterpret_cast<sockaddr*>(&Address), &Size) < 0 ||
      pipe2(Wake, O_CLOEXEC) < 0)
    throw std::runtime_error("test server: cannot listen on 127.0.0.1");
  AServer.WakeRead = Wake[0];
  AServer.WakeWrite = Wake[1];
  AServer.Port = ntohs(Address.sin_port);
  AServer.Thread = std::thread(ServeConnections, &AServer);
}

void StopTestServer(TTestServer& AServer) {
  if (AServer.Thread.joinable()) {
    const char Byte = 1;
    if (write(AServer.WakeWrite, &Byte, 1) != 1) std::abort();
    AServer.Thread.join();
  }
  for (int* Fd : {&AServer.ListenFd, &AServer.WakeRead, &AServer.WakeWrite}) {
    if (*Fd >= 0) close(*Fd);
    *Fd = -1;
  }
  SSL_CTX_free(static_cast<SSL_CTX*>(AServer.TlsContext));
  AServer.TlsContext = nullptr;
}

std::vector<std::string> TestServerRequests(TTestServer& AServer) {
  std::lock_guard<std::mutex> Guard(AServer.Lock);
  return AServer.Requests;
}

std::vector<std::string> TestServerNames(TTestServer& AServer) {
  std::lock_guard<std::mutex> Guard(AServer.Lock);
  return AServer.ServerNames;
}

std::string TestServerUrl(const TTestServer& AServer, const std::string& APath) {
  return (AServer.CertFile.empty() ? "http://127.0.0.1:" : "https://127.0.0.1:") +
         std::to_string(AServer.Port) + APath;
}

TTestCertificate MakeTestCertificate(const std::filesystem::path& ADir, bool AExpired) {
  const std::filesystem::path Dir = ADir / (AExpired ? "expired" : "fresh");
  std::filesystem::create_directories(Dir);
  TTestCertificate Made{(Dir / "cert.pem").string(), (Dir / "key.pem").string()};
  const std::string In = "cd '" + Dir.string() + "' && ";
  const std::string Key =
      "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout key.pem -subj /CN=localhost";
  std::string Command;
  if (!AExpired) {
    Command = In + "openssl req -x509 " + Key + " -days 30 -out cert.pem";
  } else {
    // "openssl req" will not date a certificate in the past; "openssl ca" takes explicit dates.
    std::ofstream(Dir / "ca.cnf") << "[ca]\ndefault_ca=d\n[d]\ndatabase=index.txt\nnew_certs_dir=.\n"
                                     "serial=serial\ndefault_md=sha256\npolicy=p\n[p]\ncommonName=supplied\n";
    std::ofstream(Dir / "index.txt");
    std::ofstream(Dir / "serial") << "01\n";
    Command = In + "openssl req -new " + Key +
              " -out req.csr && openssl ca -batch -config ca.cnf -selfsign " +
              "-keyfile key.pem -in req.csr -out cert.pem -notext -startdate 20200101000000Z " +
              "-enddate 20200102000000Z";
  }
  if (std::system((Command + " >/dev/null 2>&1").c_str()) != 0)
    throw std::runtime_error("openssl could not make a test certificate in " + Dir.string());
  return Made;
}

uint16_t FreeLoopbackPort() {
  const int Fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in Address{};
  Address.sin_family = AF_INET;
  Address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t Size = sizeof Address;
  if (Fd < 0 || bind(Fd, reinterpret_cast<sockaddr*>(&Address), Size) < 0 ||
      getsockname(Fd, reinterpret_cast<sockaddr*>(&Address), &Size) < 0)
    throw std::runtime_error("no free loopback port");
  close(Fd);
  return ntohs(Address.sin_port);
}
