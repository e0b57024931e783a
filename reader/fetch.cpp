// Feed retrieval over sockets and OpenSSL: the URL splitter, the request builder, the response
// reader with its chunked decoding, and SimpleGet, which owns one connection for the length of
// the call. All socket I/O after the connect goes through ReadSome/WriteSome below, the TLS
// session's included (through a BIO of our own), so that time-outs and the no-SIGPIPE rule hold
// for both kinds of connection alike. Every wait of a fetch, the name lookup's included, is one
// poll through WaitReady, which also watches the program's descriptors (FetchAddWatch).
#include "fetch.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <stdexcept>

#include "stringutils/strbasics.h"

int FetchIoTimeoutMs = 30000;
int FetchConnectTimeoutMs = 3000;
size_t FetchMaxResponseBytes = 32u << 20;
bool FetchVerifyPeer = false;
TFetchAddWatch FetchAddWatch = nullptr;
TFetchGiveUp FetchGiveUp = nullptr;

namespace {

using TClock = std::chrono::steady_clock;

constexpr size_t READ_BLOCK = 4096;
constexpr uint64_t MAX_CHUNK_SIZE = 0x0FFFFFFF;

[[noreturn]] void Fail(const std::string& AText) { throw std::runtime_error(AText); }

bool IsAsciiLetter(uint8_t AByte) { return (AByte >= 'a' && AByte <= 'z') || (AByte >= 'A' && AByte <= 'Z'); }
bool IsDigit(uint8_t AByte) { return AByte >= '0' && AByte <= '9'; }

std::string AsciiLower(std::string AText) {
  for (char& C : AText) {
    const uint8_t B = static_cast<uint8_t>(C);
    if (B >= 'A' && B <= 'Z') C = static_cast<char>(B + 32);
  }
  return AText;
}

// ---- Response reading ----------------------------------------------------------------------

// The bytes of the response read so far and not yet consumed (from Pos on). Consumed bytes are
// dropped in bulk, so that a long response costs linear copying, not quadratic.
struct TStream {
  const THttpSource* Source = nullptr;
  std::string Buf;
  size_t Pos = 0;
  size_t Total = 0;  // every byte the source has given, headers included
  bool Ended = false;
};

size_t Available(const TStream& AStream) { return AStream.Buf.size() - AStream.Pos; }

// Reads up to one block straight into the end of ATarget; 0 once the source has ended.
size_t ReadBlockInto(TStream& AStream, std::string& ATarget, size_t AMax) {
  if (AStream.Ended) return 0;
  const size_t Old = ATarget.size();
  const size_t Want = std::min(AMax, READ_BLOCK);
  ATarget.resize(Old + Want);
  size_t Got = AStream.Source->Read(AStream.Source->Context, ATarget.data() + Old, Want);
  Got = std::min(Got, Want);
  ATarget.resize(Old + Got);
  if (Got == 0) AStream.Ended = true;
  AStream.Total += Got;
  if (AStream.Total > FetchMaxResponseBytes)
    Fail("Feed too large: more than " + std::to_string(FetchMaxResponseBytes) + " bytes");
  return Got;
}

// Adds one block behind the unconsumed bytes; false when the source has ended.
bool Fill(TStream& AStream) {
  if (AStream.Pos == AStream.Buf.size()) {
    AStream.Buf.clear();
    AStream.Pos = 0;
  } else if (AStream.Pos >= READ_BLOCK && AStream.Pos * 2 >= AStream.Buf.size()) {
    AStream.Buf.erase(0, AStream.Pos);
    AStream.Pos = 0;
  }
  return ReadBlockInto(AStream, AStream.Buf, READ_BLOCK) > 0;
}

// The next byte, or -1 at the end of the stream.
int NextByte(TStream& AStream) {
  if (Available(AStream) == 0 && !Fill(AStream)) return -1;
  return static_cast<uint8_t>(AStream.Buf[AStream.Pos++]);
}

int PeekByte(TStream& AStream) {
  if (Available(AStream) == 0 && !Fill(AStream)) return -1;
  return static_cast<uint8_t>(AStream.Buf[AStream.Pos]);
}

// The next line ended by CR LF, without its end. False when the stream ends first.
bool ReadLine(TStream& AStream, std::string& ALine) {
  size_t Scanned = 0;  // bytes behind Pos already searched, so a long line is searched once
  for (;;) {
    const size_t From = AStream.Pos + (Scanned > 0 ? Scanned - 1 : 0);
    const size_t End = AStream.Buf.find("\r\n", From);
    if (End != std::string::npos) {
      ALine.assign(AStream.Buf, AStream.Pos, End - AStream.Pos);
      AStream.Pos = End + 2;
      return true;
    }
    Scanned = Available(AStream);
    if (!Fill(AStream)) return false;
  }
}

// Consumes everything up to and including the next LF; false when the stream ends first.
bool SkipPastLf(TStream& AStream) {
  for (;;) {
    const size_t Lf = AStream.Buf.find('\n', AStream.Pos);
    if (Lf != std::string::npos) {
      AStream.Pos = Lf + 1;
      return true;
    }
    AStream.Pos = AStream.Buf.size();
    if (!Fill(AStream)) return false;
  }
}

// The unconsumed bytes, taken over as the start of the body without a copy of the whole.
std::string TakeRest(TStream& AStream) {
  AStream.Buf.erase(0, AStream.Pos);
  AStream.Pos = 0;
  return std::move(AStream.Buf);
}

std::string ReadBodyByLength(TStream& AStream, int32_t ALength) {
  // What already stands in the block beyond the length is kept: it came with the headers.
  std::string Body = TakeRest(AStream);
  if (ALength < 0) {
    while (ReadBlockInto(AStream, Body, READ_BLOCK) > 0) {
    }
  } else {
    const size_t Length = static_cast<size_t>(ALength);
    // One allocation for a feed of announced length; a server's claim alone buys it at most 8 MB.
    Body.reserve(std::min<size_t>(Length, 8 << 20));
    while (Body.size() < Length && ReadBlockInto(AStream, Body, Length - Body.size()) > 0) {
    }
  }
  return Body;
}

std::string ReadChunkedBody(TStream& AStream) {
  std::string Body;
  for (;;) {
    uint64_t Size = 0;
    int Byte;
    while ((Byte = PeekByte(AStream)) >= 0 && HexDigitValue(static_cast<uint8_t>(Byte)) >= 0) {
      Size = Size * 16 + static_cast<uint64_t>(HexDigitValue(static_cast<uint8_t>(Byte)));
      AStream.Pos++;
      if (Size > MAX_CHUNK_SIZE)
        Fail("Chunk too big: Got " + std::to_string(Size) +
             ", maximum allowed size: " + std::to_string(MAX_CHUNK_SIZE));
    }
    // Anything up to the LF is a chunk extension and means nothing to us.
    if (Byte < 0 || !SkipPastLf(AStream) || Size == 0) return Body;

    size_t Need = static_cast<size_t>(Size);
    const size_t FromBuffer = std::min(Need, Available(AStream));
    Body.append(AStream.Buf, AStream.Pos, FromBuffer);
    AStream.Pos += FromBuffer;
    Need -= FromBuffer;
    while (Need > 0) {
      const size_t Got = ReadBlockInto(AStream, Body, Need);
      if (Got == 0) return Body;  // the server ended mid-chunk: keep what came
      Need -= Got;
    }

    const int Cr = NextByte(AStream);
    if (Cr < 0) return Body;
    if (Cr != '\r') Fail("Chunk line end missing");
    const int Lf = NextByte(AStream);
    if (Lf < 0) return Body;
    if (Lf != '\n') Fail("Chunk line end missing");
  }
}

size_t ReadMemory(void* AContext, char* ABuffer, size_t ASize) {
  auto& Memory = *static_cast<TMemorySource*>(AContext);
  size_t Count = std::min(ASize, Memory.Data.size() - Memory.Pos);
  if (Memory.MaxPiece > 0) Count = std::min(Count, Memory.MaxPiece);
  Memory.Data.copy(ABuffer, Count, Memory.Pos);
  Memory.Pos += Count;
  return Count;
}

// ---- Connection ----------------------------------------------------------------------------

// One connection, released on every way out of SimpleGet: the TLS session (with a close_notify
// when it is still sound), then the socket.
struct TConnection {
  int Fd = -1;
  SSL_CTX* Ctx = nullptr;
  BIO_METHOD* BioMethod = nullptr;
  SSL* Ssl = nullptr;
  // Every read and write, the TLS handshake's and close_notify's included, ends by this time,
  // so that a server that stalls or trickles cannot keep the caller waiting past it.
  TClock::time_point Deadline{};
  bool TlsBroken = false;  // after a fatal TLS error or a time-out no close_notify is sent
  bool TimedOut = false;   // the last failed socket call ran into Deadline
  bool GaveUp = false;     // the last failed socket call was ended by FetchGiveUp
  bool PeerEnded = false;  // the socket has reported the end of the stream
  bool GotAny = false;     // at least one byte has come from the peer

  TConnection() = default;
  TConnection(const TConnection&) = delete;
  TConnection& operator=(const TConnection&) = delete;
  ~TConnection() {
    if (Ssl) {
      if (!TlsBroken) SSL_shutdown(Ssl);
      SSL_free(Ssl);  // frees the BIO with it
    }
    if (BioMethod) BIO_meth_free(BioMethod);
    if (Ctx) SSL_CTX_free(Ctx);
    if (Fd >= 0) close(Fd);
  }
};

enum TWait : uint8_t {
  wtReady,     // ready, or in error, which the next call on the descriptor reports
  wtTimedOut,  // the deadline passed
  wtFailed,    // poll itself failed
  wtGaveUp,    // FetchGiveUp said so
};

// The poll set of the current wait: the descriptor waited on first, then the watch. Kept
// between waits so that a wait costs no allocation.
std::vector<pollfd> FPoll;

bool MustGiveUp() { return FetchGiveUp != nullptr && FetchGiveUp(); }

// Waits until AFd is ready for AEvents or ADeadline passes, or the watch ends the fetch.
// Interrupted waits go on, after asking FetchGiveUp.
TWait WaitReady(int AFd, short AEvents, TClock::time_point ADeadline) {
  // After a watched descriptor woke us with no reason to end, one short wait leaves the watch
  // out, so that a descriptor that stays ready can't make this loop spin.
  bool Recheck = false;
  for (;;) {
    if (MustGiveUp()) return wtGaveUp;
    const auto Left = std::chrono::duration_cast<std::chrono::milliseconds>(ADeadline - TClock::now());
    const int LeftMs = static_cast<int>(std::clamp<int64_t>(Left.count(), 0, INT32_MAX));
    int Ms = LeftMs;
    FPoll.assign(1, pollfd{AFd, AEvents, 0});
    if (Recheck)
      Ms = std::min(Ms, FETCH_WATCH_RECHECK_MS);
    else if (FetchAddWatch != nullptr)
      FetchAddWatch(FPoll);
    const int R = poll(FPoll.data(), static_cast<nfds_t>(FPoll.size()), Ms);
    if (R < 0 && errno != EINTR) return wtFailed;
    if (R > 0 && FPoll[0].revents != 0) return wtReady;
    if (R == 0 && Ms == LeftMs) return wtTimedOut;
    Recheck = R > 0;
  }
}

// Notes on AConn how a wait ended; true when it ended ready.
bool WaitedReady(TConnection& AConn, TWait AWait) {
  AConn.TimedOut = AWait == wtTimedOut;
  AConn.GaveUp = AWait == wtGaveUp;
  return AWait == wtReady;
}

// One recv of at most ASize bytes, waiting for data up to the connection's deadline.
// Returns the count, 0 at the end of the stream, -1 on failure (TimedOut tells which).
ssize_t ReadSome(TConnection& AConn, char* ABuffer, size_t ASize) {
  for (;;) {
    const ssize_t R = recv(AConn.Fd, ABuffer, ASize, MSG_DONTWAIT);
    if (R >= 0) {
      if (R == 0) AConn.PeerEnded = true;
      if (R > 0) AConn.GotAny = true;
      return R;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return -1;
    if (!WaitedReady(AConn, WaitReady(AConn.Fd, POLLIN, AConn.Deadline))) return -1;
  }
}

// One send of at most ASize bytes, never raising SIGPIPE; -1 on failure as above.
ssize_t WriteSome(TConnection& AConn, const char* AData, size_t ASize) {
  for (;;) {
    const ssize_t R = send(AConn.Fd, AData, ASize, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (R >= 0) return R;
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return -1;
    if (!WaitedReady(AConn, WaitReady(AConn.Fd, POLLOUT, AConn.Deadline))) return -1;
  }
}

[[noreturn]] void FailRead(const TConnection& AConn) {
  if (AConn.GaveUp) Fail(FETCH_GIVEN_UP);
  Fail(AConn.TimedOut ? "Timed out reading data from socket" : "Error reading data from socket");
}

[[noreturn]] void FailWrite(const TConnection& AConn) {
  if (AConn.GaveUp) Fail(FETCH_GIVEN_UP);
  Fail(AConn.TimedOut ? "Timed out writing data to socket" : "Error writing data to socket");
}

size_t ReadPlain(void* AContext, char* ABuffer, size_t ASize) {
  auto& Conn = *static_cast<TConnection*>(AContext);
  const ssize_t R = ReadSome(Conn, ABuffer, ASize);
  if (R >= 0) return static_cast<size_t>(R);
  // A server that accepts and closes at once resets the connection when our request is still
  // unread on its side: that is a server that said nothing, an empty feed, not a read error.
  if (!Conn.GotAny && !Conn.TimedOut && !Conn.GaveUp && (errno == ECONNRESET || errno == EPIPE)) return 0;
  FailRead(Conn);
}

size_t ReadTls(void* AContext, char* ABuffer, size_t ASize) {
  auto& Conn = *static_cast<TConnection*>(AContext);
  size_t Got = 0;
  ERR_clear_error();
  if (SSL_read_ex(Conn.Ssl, ABuffer, ASize, &Got) == 1) return Got;
  if (SSL_get_error(Conn.Ssl, 0) == SSL_ERROR_ZERO_RETURN) return 0;
  Conn.TlsBroken = true;
  FailRead(Conn);
}

// The BIO under the TLS session: the same socket calls as the plain connection. These run
// inside OpenSSL and so report through return values, never by throwing.
int BioWrite(BIO* ABio, const char* AData, int ASize) {
  BIO_clear_retry_flags(ABio);
  auto& Conn = *static_cast<TConnection*>(BIO_get_data(ABio));
  const ssize_t R = WriteSome(Conn, AData, static_cast<size_t>(ASize));
  return R < 0 ? -1 : static_cast<int>(R);
}

int BioRead(BIO* ABio, char* ABuffer, int ASize) {
  BIO_clear_retry_flags(ABio);
  auto& Conn = *static_cast<TConnection*>(BIO_get_data(ABio));
  const ssize_t R = ReadSome(Conn, ABuffer, static_cast<size_t>(ASize));
  return R < 0 ? -1 : static_cast<int>(R);
}

long BioCtrl(BIO* ABio, int ACommand, long, void*) {
  // OpenSSL asks for the end of the stream to tell a plain close from a broken read.
  if (ACommand == BIO_CTRL_EOF) return static_cast<TConnection*>(BIO_get_data(ABio))->PeerEnded ? 1 : 0;
  return ACommand == BIO_CTRL_FLUSH ? 1 : 0;
}

int BioCreate(BIO* ABio) {
  BIO_set_init(ABio, 1);
  return 1;
}

// Sets up everything TLS needs before the socket exists.
void InitTls(TConnection& AConn) {
  const char* const Failure = "Could not initialize OpenSSL library";
  if (OPENSSL_init_ssl(0, nullptr) != 1) Fail(Failure);
  AConn.Ctx = SSL_CTX_new(TLS_client_method());
  if (!AConn.Ctx) Fail(Failure);
  if (FetchVerifyPeer) {
    // The system's store, loaded for this fetch alone: a sysop who adds a CA needs no restart.
    if (SSL_CTX_set_default_verify_paths(AConn.Ctx) != 1) Fail(Failure);
    SSL_CTX_set_verify(AConn.Ctx, SSL_VERIFY_PEER, nullptr);
  } else {
    // Feeds on self-signed or expired certificates must load: no peer check at all.
    SSL_CTX_set_verify(AConn.Ctx, SSL_VERIFY_NONE, nullptr);
  }
  if (SSL_CTX_set_cipher_list(AConn.Ctx, "DEFAULT") != 1) Fail(Failure);
  // Many servers close without a close_notify; that is the end of the body, not an error.
  SSL_CTX_set_options(AConn.Ctx, SSL_OP_IGNORE_UNEXPECTED_EOF);
  AConn.BioMethod = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "tamblin socket");
  if (!AConn.BioMethod || BIO_meth_set_write(AConn.BioMethod, BioWrite) != 1 ||
      BIO_meth_set_read(AConn.BioMethod, BioRead) != 1 || BIO_meth_set_ctrl(AConn.BioMethod, BioCtrl) != 1 ||
      BIO_meth_set_create(AConn.BioMethod, BioCreate) != 1)
    Fail(Failure);
}

// One lookup's child process and the pipe its answer comes through; on every way out of
// ResolveHost the child is killed (a lookup that still runs is abandoned) and reaped.
struct TResolver {
  pid_t Pid = -1;
  int Fd = -1;

  TResolver() = default;
  TResolver(const TResolver&) = delete;
  TResolver& operator=(const TResolver&) = delete;
  ~TResolver() {
    if (Fd >= 0) close(Fd);
    if (Pid <= 0) return;
    kill(Pid, SIGKILL);
    while (waitpid(Pid, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
};

// The child's whole life: the first IPv4 address of AHost into AOut (4 bytes, network order),
// nothing when there is none. It holds nothing of the program's: no copy of the caller's line
// or terminal (a lookup left running must not keep the caller connected), default signal
// dispositions (a hang-up sent to the program's process group ends it too), and it dies with
// the program.
[[noreturn]] void RunResolver(const std::string& AHost, int AOut, pid_t AParent) {
  for (const int Signal : {SIGHUP, SIGINT, SIGTERM, SIGPIPE, SIGALRM}) signal(Signal, SIG_DFL);
  sigset_t None;
  sigemptyset(&None);
  sigprocmask(SIG_SETMASK, &None, nullptr);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != AParent) _exit(1);
  const int Null = open("/dev/null", O_RDWR);
  for (int Fd = 0; Fd <= 2; ++Fd) dup2(Null, Fd);
  dup2(AOut, 3);
  close_range(4, ~0U, 0);
  addrinfo Hints{};
  Hints.ai_family = AF_INET;
  Hints.ai_socktype = SOCK_STREAM;
  addrinfo* Found = nullptr;
  if (getaddrinfo(AHost.c_str(), nullptr, &Hints, &Found) != 0 || !Found) _exit(1);
  const in_addr Address = reinterpret_cast<const sockaddr_in*>(Found->ai_addr)->sin_addr;
  (void)!write(3, &Address, sizeof Address);
  _exit(0);
}

in_addr ResolveHost(const std::string& AHost, TClock::time_point ADeadline) {
  const std::string Failure = "Host name resolution for \"" + AHost + "\" failed.";
  // A zero byte would make the resolver look up a shorter name than the one configured.
  if (AHost.empty() || AHost.find('\0') != std::string::npos) Fail(Failure);
  in_addr Address{};
  if (inet_pton(AF_INET, AHost.c_str(), &Address) == 1) return Address;
  if (MustGiveUp()) Fail(FETCH_GIVEN_UP);

  int Pipe[2];
  if (pipe2(Pipe, O_CLOEXEC | O_NONBLOCK) != 0) Fail(Failure);
  TResolver Resolver;
  Resolver.Fd = Pipe[0];
  const pid_t Parent = getpid();
  Resolver.Pid = fork();
  if (Resolver.Pid == 0) RunResolver(AHost, Pipe[1], Parent);
  close(Pipe[1]);
  if (Resolver.Pid < 0) Fail(Failure);
  for (;;) {
    switch (WaitReady(Resolver.Fd, POLLIN, ADeadline)) {
      case wtReady:
        break;
      case wtTimedOut:
        Fail("Host name resolution for \"" + AHost + "\" timed out.");
      case wtGaveUp:
        Fail(FETCH_GIVEN_UP);
      case wtFailed:
        Fail(Failure);
    }
    // Four bytes are less than PIPE_BUF: they come in one piece or not at all. The end of the
    // pipe without them is a lookup that found nothing.
    const ssize_t Got = read(Resolver.Fd, &Address, sizeof Address);
    if (Got == static_cast<ssize_t>(sizeof Address)) return Address;
    if (Got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    Fail(Failure);
  }
}

void ConnectTcp(TConnection& AConn, in_addr AAddress, uint16_t APort, const std::string& AWhere) {
  const std::string Failed = "Connect to " + AWhere + " failed: ";
  AConn.Fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (AConn.Fd < 0) Fail(Failed);
  const int Flags = fcntl(AConn.Fd, F_GETFL);
  if (Flags < 0 || fcntl(AConn.Fd, F_SETFL, Flags | O_NONBLOCK) < 0) Fail(Failed);

  sockaddr_in Peer{};
  Peer.sin_family = AF_INET;
  Peer.sin_port = htons(APort);
  Peer.sin_addr = AAddress;
  const auto Deadline =
      std::min(AConn.Deadline, TClock::now() + std::chrono::milliseconds(FetchConnectTimeoutMs));
  for (;;) {
    if (connect(AConn.Fd, reinterpret_cast<const sockaddr*>(&Peer), sizeof Peer) == 0) break;
    // An interrupted connect goes on in the kernel; asking again reports EALREADY.
    if (errno == EINTR) continue;
    if (errno != EINPROGRESS && errno != EALREADY) Fail(Failed);
    const TWait W = WaitReady(AConn.Fd, POLLOUT, Deadline);
    if (W == wtTimedOut) Fail("Connection to " + AWhere + " timed out.");
    if (W == wtGaveUp) Fail(FETCH_GIVEN_UP);
    if (W == wtFailed) Fail(Failed);
    int Error = 0;
    socklen_t Size = sizeof Error;
    if (getsockopt(AConn.Fd, SOL_SOCKET, SO_ERROR, &Error, &Size) < 0) Fail(Failed);
    if (Error == 0) break;
    if (Error == ETIMEDOUT) Fail("Connection to " + AWhere + " timed out.");
    Fail(Failed);
  }
  if (fcntl(AConn.Fd, F_SETFL, Flags) < 0) Fail(Failed);
}

void HandshakeTls(TConnection& AConn, const std::string& AHost, const std::string& AWhere) {
  const std::string Failed = "Connect to " + AWhere + " failed: ";
  ERR_clear_error();
  AConn.Ssl = SSL_new(AConn.Ctx);
  BIO* Bio = AConn.Ssl ? BIO_new(AConn.BioMethod) : nullptr;
  if (!Bio) {
    AConn.TlsBroken = true;
    Fail(Failed + "SSL error code: " + std::to_string(ERR_peek_error()));
  }
  BIO_set_data(Bio, &AConn);
  SSL_set_bio(AConn.Ssl, Bio, Bio);
  in_addr Unused{};
  const bool IsAddress = inet_pton(AF_INET, AHost.c_str(), &Unused) == 1;
  if (!IsAddress) SSL_set_tlsext_host_name(AConn.Ssl, AHost.c_str());
  // A chain that checks out proves nothing unless it was issued for the host the sysop named.
  if (FetchVerifyPeer && (IsAddress ? X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(AConn.Ssl), AHost.c_str())
                                    : SSL_set1_host(AConn.Ssl, AHost.c_str())) != 1) {
    AConn.TlsBroken = true;
    Fail(Failed + "SSL error code: " + std::to_string(ERR_peek_error()));
  }

  const int R = SSL_connect(AConn.Ssl);
  if (R == 1) return;
  AConn.TlsBroken = true;
  if (AConn.TimedOut || AConn.GaveUp) FailRead(AConn);
  // The reason in words, not OpenSSL's bare "certificate verify failed": the sysop has to
  // tell a self-signed server from an expired one or from a wrong name in the URL.
  const long Verified = SSL_get_verify_result(AConn.Ssl);
  if (FetchVerifyPeer && Verified != X509_V_OK)
    Fail(Failed + "certificate verify failed: " + X509_verify_cert_error_string(Verified));
  const unsigned long Queued = ERR_get_error();
  std::string Text = Failed + "SSL error code: ";
  if (Queued == 0) {
    Text += std::to_string(SSL_get_error(AConn.Ssl, R));
  } else {
    char Reason[256];
    ERR_error_string_n(Queued, Reason, sizeof Reason);
    Text += std::to_string(static_cast<int32_t>(Queued)) + ": " + Reason;
  }
  Fail(Text);
}

void SendRequest(TConnection& AConn, const std::string& ARequest) {
  if (AConn.Ssl) {
    size_t Written = 0;
    ERR_clear_error();
    if (SSL_write_ex(AConn.Ssl, ARequest.data(), ARequest.size(), &Written) != 1 ||
        Written != ARequest.size()) {
      AConn.TlsBroken = true;
      FailWrite(AConn);
    }
    return;
  }
  size_t Sent = 0;
  while (Sent < ARequest.size()) {
    const ssize_t R = WriteSome(AConn, ARequest.data() + Sent, ARequest.size() - Sent);
    if (R <= 0) FailWrite(AConn);
    Sent += static_cast<size_t>(R);
  }
}

}  // namespace

TUrlParts SplitUrl(const std::string& AUrl) {
  TUrlParts Url;
  std::string Rest = AUrl;

  const size_t Colon = Rest.find(':');
  if (Colon != std::string::npos && Colon > 0 && IsAsciiLetter(static_cast<uint8_t>(Rest[0])) &&
      std::all_of(Rest.begin(), Rest.begin() + static_cast<ptrdiff_t>(Colon), [](char C) {
        const uint8_t B = static_cast<uint8_t>(C);
        return IsAsciiLetter(B) || IsDigit(B) || B == '+' || B == '-' || B == '.';
      })) {
    Url.Scheme = Rest.substr(0, Colon);
    Rest.erase(0, Colon + 1);
  }

  const size_t Hash = Rest.rfind('#');
  if (Hash != std::string::npos) Rest.erase(Hash);
  const size_t Question = Rest.rfind('?');
  if (Question != std::string::npos) {
    Url.Query = Rest.substr(Question + 1);
    Rest.erase(Question);
  }

  std::string Authority;
  if (Rest.starts_with("//")) {
    const size_t Slash = Rest.find('/', 2);
    Authority = Rest.substr(2, Slash == std::string::npos ? std::string::npos : Slash - 2);
    Rest.erase(0, Slash);
  }

  const size_t LastSlash = Rest.rfind('/');
  if (LastSlash == std::string::npos) {
    Url.Document = Rest;
  } else {
    Url.Path = Rest.substr(0, LastSlash + 1);
    Url.Document = Rest.substr(LastSlash + 1);
  }

  const size_t Mark = Authority.find_last_of(":@");
  if (Mark != std::string::npos && Authority[Mark] == ':') {
    const std::string Digits = Authority.substr(Mark + 1);
    if (std::all_of(Digits.begin(), Digits.end(), [](char C) { return IsDigit(static_cast<uint8_t>(C)); })) {
      const int32_t Port = Digits.empty() ? -1 : StrToIntDef(Digits, -1);
      if (Port < 0) Fail("\"" + Digits + "\" is an invalid integer");
      Url.Port = static_cast<uint16_t>(Port & 0xFFFF);
      Authority.erase(Mark);
    }
  }

  const size_t At = Authority.find('@');
  if (At == std::string::npos) {
    Url.Host = Authority;
  } else {
    Url.Host = Authority.substr(At + 1);
    const std::string UserInfo = Authority.substr(0, At);
    const size_t Split = UserInfo.find(':');
    Url.User = UserInfo.substr(0, Split);
    if (Split != std::string::npos) Url.Password = UserInfo.substr(Split + 1);
  }
  return Url;
}

std::string Base64Encode(std::string_view AData) {
  static const char ALPHABET[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string Out;
  Out.reserve((AData.size() + 2) / 3 * 4);
  size_t I = 0;
  for (; I + 2 < AData.size(); I += 3) {
    const uint32_t V =
        static_cast<uint32_t>(static_cast<uint8_t>(AData[I]) << 16 | static_cast<uint8_t>(AData[I + 1]) << 8 |
                              static_cast<uint8_t>(AData[I + 2]));
    Out += ALPHABET[V >> 18 & 63];
    Out += ALPHABET[V >> 12 & 63];
    Out += ALPHABET[V >> 6 & 63];
    Out += ALPHABET[V & 63];
  }
  if (I < AData.size()) {
    uint32_t V = static_cast<uint32_t>(static_cast<uint8_t>(AData[I]) << 16);
    if (I + 1 < AData.size()) V |= static_cast<uint32_t>(static_cast<uint8_t>(AData[I + 1]) << 8);
    Out += ALPHABET[V >> 18 & 63];
    Out += ALPHABET[V >> 12 & 63];
    Out += I + 1 < AData.size() ? ALPHABET[V >> 6 & 63] : '=';
    Out += '=';
  }
  return Out;
}

std::string BuildGetRequest(const TUrlParts& AUrl) {
  std::string Target = AUrl.Path.empty() ? "/" : AUrl.Path;
  if (Target.front() != '/') Target.insert(0, 1, '/');
  if (Target.back() != '/') Target += '/';
  Target += AUrl.Document;
  if (!AUrl.Query.empty()) Target.append("?").append(AUrl.Query);

  std::string Request = "GET ";
  Request.append(Target).append(" HTTP/1.1\r\n");
  if (!AUrl.User.empty())
    Request.append("Authorization: Basic ")
        .append(Base64Encode(AUrl.User + ":" + AUrl.Password))
        .append("\r\n");
  Request.append("Host: ").append(AUrl.Host);
  if (AUrl.Port != 0) Request.append(":").append(std::to_string(AUrl.Port));
  Request.append("\r\nConnection: close\r\n\r\n");
  return Request;
}

std::string ReadHttpResponse(const THttpSource& ASource) {
  TStream Stream;
  Stream.Source = &ASource;

  std::string Line;
  // A server that closes before a whole status line has said nothing: an empty feed.
  if (!ReadLine(Stream, Line)) return std::string();
  const size_t Space = Line.find(' ');
  const std::string Version = UpperCaseAscii(Line.substr(0, Space));
  if (!Version.starts_with("HTTP/")) Fail("Invalid protocol version in response: \"" + Version + "\"");
  std::string CodeWord;
  if (Space != std::string::npos) {
    const size_t End = Line.find(' ', Space + 1);
    CodeWord = Line.substr(Space + 1, End == std::string::npos ? std::string::npos : End - Space - 1);
  }
  const int32_t Status = StrToIntDef(CodeWord, -1);
  if (Status == -1) Fail("Invalid response status code: " + CodeWord);

  bool HaveEncoding = false, HaveLength = false, Chunked = false;
  int32_t Length = -1;
  while (ReadLine(Stream, Line) && !Line.empty()) {
    const size_t Colon = Line.find(':');
    if (Colon == std::string::npos) continue;
    const std::string Name = AsciiLower(Trim(std::string_view(Line).substr(0, Colon)));
    const std::string Value = Trim(std::string_view(Line).substr(Colon + 1));
    if (Name == "transfer-encoding" && !HaveEncoding) {
      HaveEncoding = true;
      Chunked = AsciiLower(Value) == "chunked";
    } else if (Name == "content-length" && !HaveLength) {
      HaveLength = true;
      Length = StrToIntDef(Value, -1);
    }
  }

  if (Status != 200) Fail("Unexpected response status code: " + std::to_string(Status));
  return Chunked ? ReadChunkedBody(Stream) : ReadBodyByLength(Stream, Length);
}

THttpSource MemorySource(TMemorySource& AMemory) { return THttpSource{&AMemory, ReadMemory}; }

std::string SimpleGet(const std::string& Url) {
  const TUrlParts Parts = SplitUrl(Url);
  const std::string Scheme = AsciiLower(Parts.Scheme);
  if (Scheme != "http" && Scheme != "https") Fail("Invalid protocol : \"" + Parts.Scheme + "\"");
  const bool Tls = Scheme == "https";
  const uint16_t Port = Parts.Port != 0 ? Parts.Port : Tls ? 443 : 80;
  const std::string Where = Parts.Host + ":" + std::to_string(Port);

  TConnection Conn;
  if (Tls) InitTls(Conn);
  // One bound for the whole exchange rather than one per read: a server that sends a byte
  // now and then, or a resolver that never answers, would otherwise hold the caller for as
  // long as it likes.
  Conn.Deadline = TClock::now() + std::chrono::milliseconds(FetchIoTimeoutMs);
  const in_addr Address = ResolveHost(Parts.Host, Conn.Deadline);
  ConnectTcp(Conn, Address, Port, Where);
  if (Tls) HandshakeTls(Conn, Parts.Host, Where);
  SendRequest(Conn, BuildGetRequest(Parts));
  const THttpSource Source{&Conn, Tls ? ReadTls : ReadPlain};
  return ReadHttpResponse(Source);
}
