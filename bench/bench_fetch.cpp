// What one feed fetch costs: SimpleGet of the largest corpus feed from a server thread in this
// process on 127.0.0.1, over plain HTTP (by Content-Length and chunked in 16 KB chunks) and over
// HTTPS, the last also with the certificate checked (-V) against the system's trust store with
// the test certificate added, which costs a load of the whole store per fetch. Each iteration
// is a whole fetch: connect, TLS handshake where it applies, request, response, close.
// Reported as wall time per fetch and MB/s of body.
//
// Run: build/bench/bench_fetch   (needs the corpus beside the checkout and the `openssl` command)
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "fetch.h"

namespace {

namespace fs = std::filesystem;

struct TServed {
  std::string Body;      // the feed as a client must receive it
  std::string Response;  // the bytes the server sends
  SSL_CTX* Tls = nullptr;
  uint16_t Port = 0;
};

fs::path LargestFeed() {
  fs::path Largest;
  uintmax_t Size = 0;
  std::error_code Ec;
  for (const auto& Entry : fs::directory_iterator(TAMBLIN_CORPUS_DIR, Ec))
    if (Entry.is_regular_file() && Entry.file_size() > Size) {
      Size = Entry.file_size();
      Largest = Entry.path();
    }
  return Largest;
}

std::string ReadFile(const fs::path& APath) {
  std::ifstream In(APath, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(In), std::istreambuf_iterator<char>());
}

// The verified fetch's trust store: the system's, as big as a sysop's, to which every TLS server
// here adds its certificate. Removed when the program ends (the name outlives every static).
const std::string& TrustFile() {
  static const std::string* const Path = [] {
    auto* File = new std::string(
        (fs::temp_directory_path() / ("bench-fetch-trust-" + std::to_string(getpid()))).string());
    std::ofstream(*File) << ReadFile("/etc/ssl/certs/ca-certificates.crt");
    std::atexit([] { std::remove(TrustFile().c_str()); });
    return File;
  }();
  return *Path;
}

// One connection at a time, for ever: read the request, send the response, close.
void Serve(TServed* AServed, int AListener) {
  sigset_t Pipe;
  sigemptyset(&Pipe);
  sigaddset(&Pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &Pipe, nullptr);
  for (;;) {
    const int Fd = accept(AListener, nullptr, nullptr);
    if (Fd < 0) continue;
    SSL* Ssl = nullptr;
    if (AServed->Tls) {
      Ssl = SSL_new(AServed->Tls);
      SSL_set_fd(Ssl, Fd);
      if (SSL_accept(Ssl) != 1) {
        SSL_free(Ssl);
        close(Fd);
        continue;
      }
    }
    std::string Request;
    char Block[4096];
    while (Request.find("\r\n\r\n") == std::string::npos) {
      size_t Got = 0;
      const ssize_t R =
          Ssl ? (SSL_read_ex(Ssl, Block, sizeof Block, &Got) == 1 ? static_cast<ssize_t>(Got) : -1)
              : recv(Fd, Block, sizeof Block, 0);
      if (R <= 0) break;
      Request.append(Block, static_cast<size_t>(R));
    }
    if (Ssl) {
      size_t Written = 0;
      SSL_write_ex(Ssl, AServed->Response.data(), AServed->Response.size(), &Written);
      SSL_shutdown(Ssl);
      SSL_free(Ssl);
    } else {
      for (size_t Sent = 0; Sent < AServed->Response.size();) {
        const ssize_t R =
            send(Fd, AServed->Response.data() + Sent, AServed->Response.size() - Sent, MSG_NOSIGNAL);
        if (R <= 0) break;
        Sent += static_cast<size_t>(R);
      }
    }
    close(Fd);
  }
}

// Starts a server thread for the largest feed; null when the corpus or a certificate is missing.
TServed* StartServer(bool AChunked, bool ATls) {
  auto* Served = new TServed;  // lives as long as the process, like its thread
  const fs::path Feed = LargestFeed();
  if (Feed.empty()) return nullptr;
  Served->Body = ReadFile(Feed);
  if (AChunked) {
    Served->Response = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    for (size_t Pos = 0; Pos < Served->Body.size(); Pos += 16384) {
      const std::string Piece = Served->Body.substr(Pos, 16384);
      char Size[32];
      snprintf(Size, sizeof Size, "%zX\r\n", Piece.size());
      Served->Response += Size + Piece + "\r\n";
    }
    Served->Response += "0\r\n\r\n";
  } else {
    Served->Response = "HTTP/1.1 200 OK\r\nContent-Type: application/rss+xml\r\nContent-Length: " +
                       std::to_string(Served->Body.size()) + "\r\n\r\n" + Served->Body;
  }
  if (ATls) {
    char Dir[] = "/tmp/bench-fetch-XXXXXX";
    if (!mkdtemp(Dir)) return nullptr;
    const std::string D = Dir;
    const std::string Command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout " + D +
        "/key.pem -out " + D + "/cert.pem -days 2 -subj /CN=localhost >/dev/null 2>&1";
    Served->Tls = SSL_CTX_new(TLS_server_method());
    const bool Ok = std::system(Command.c_str()) == 0 &&
                    SSL_CTX_use_certificate_chain_file(Served->Tls, (D + "/cert.pem").c_str()) == 1 &&
                    SSL_CTX_use_PrivateKey_file(Served->Tls, (D + "/key.pem").c_str(), SSL_FILETYPE_PEM) == 1;
    std::ofstream(TrustFile(), std::ios::app) << ReadFile(D + "/cert.pem");
    fs::remove_all(D);
    if (!Ok) return nullptr;
  }
  const int Listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in Address{};
  Address.sin_family = AF_INET;
  Address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t Size = sizeof Address;
  if (bind(Listener, reinterpret_cast<sockaddr*>(&Address), Size) < 0 || listen(Listener, 16) < 0 ||
      getsockname(Listener, reinterpret_cast<sockaddr*>(&Address), &Size) < 0)
    return nullptr;
  Served->Port = ntohs(Address.sin_port);
  std::thread(Serve, Served, Listener).detach();
  return Served;
}

void BenchFetch(benchmark::State& AState, bool AChunked, bool ATls, bool AVerify = false) {
  static TServed* Servers[2][2] = {};
  TServed*& Served = Servers[AChunked][ATls];
  if (!Served) Served = StartServer(AChunked, ATls);
  if (!Served) {
    AState.SkipWithError("no corpus feed or no test certificate");
    return;
  }
  // The certificate names localhost, so the verified fetch must use that name.
  const std::string Url = (ATls ? "https://" : "http://") +
                          std::string(AVerify ? "localhost:" : "127.0.0.1:") + std::to_string(Served->Port) +
                          "/feed";
  FetchVerifyPeer = AVerify;
  if (AVerify) setenv("SSL_CERT_FILE", TrustFile().c_str(), 1);
  for (auto _ : AState) {
    std::string Body;
    try {
      Body = SimpleGet(Url);
    } catch (const std::exception& E) {
      AState.SkipWithError(E.what());
      return;
    }
    if (Body.size() != Served->Body.size()) {
      AState.SkipWithError("body differs from the feed");
      return;
    }
    benchmark::DoNotOptimize(Body.data());
  }
  AState.SetBytesProcessed(static_cast<int64_t>(AState.iterations() * Served->Body.size()));
  AState.counters["feed_bytes"] = static_cast<double>(Served->Body.size());
}

BENCHMARK_CAPTURE(BenchFetch, http_length, false, false)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BenchFetch, http_chunked, true, false)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BenchFetch, https_length, false, true)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BenchFetch, https_chunked, true, true)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BenchFetch, https_length_verified, false, true, true)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
