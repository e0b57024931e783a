// The end-to-end tests' feed server. Every blocking call is bounded, so a broken run cannot
// hang the test, and SIGPIPE is blocked in the server thread only: a door that hangs up early
// must not kill the test process.
#include "feedserver.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace {

constexpr int IO_LIMIT_MS = 10000;

void Serve(TFeedServer* AServer) {
  sigset_t Block;
  sigemptyset(&Block);
  sigaddset(&Block, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &Block, nullptr);
  for (;;) {
    pollfd P[2] = {{AServer->ListenFd, POLLIN, 0}, {AServer->WakeRead, POLLIN, 0}};
    if (poll(P, 2, -1) < 0) continue;
    if (P[1].revents != 0) return;
    const int Fd = accept(AServer->ListenFd, nullptr, nullptr);
    if (Fd < 0) continue;
    ++AServer->Accepted;
    if (AServer->Stall == fsAccept) {
      AServer->Held.push_back(Fd);
      continue;
    }
    std::string Request;
    char Buffer[4096];
    while (Request.find("\r\n\r\n") == std::string::npos) {
      pollfd R{Fd, POLLIN, 0};
      if (poll(&R, 1, IO_LIMIT_MS) <= 0) break;
      const ssize_t Got = recv(Fd, Buffer, sizeof Buffer, 0);
      if (Got <= 0) break;
      Request.append(Buffer, static_cast<size_t>(Got));
    }
    ++AServer->Requests;
    size_t Sent = 0;
    while (Sent < AServer->Response.size()) {
      const ssize_t Put =
          send(Fd, AServer->Response.data() + Sent, AServer->Response.size() - Sent, MSG_NOSIGNAL);
      if (Put <= 0) break;
      Sent += static_cast<size_t>(Put);
    }
    if (AServer->Stall == fsResponse)
      AServer->Held.push_back(Fd);
    else
      close(Fd);
  }
}

// Connects to the listener until a connect no longer completes: the accept queue is full, and
// the kernel drops further SYNs instead of answering them.
void FillAcceptQueue(TFeedServer& AServer) {
  const sockaddr_in Addr = [&] {
    sockaddr_in A{};
    A.sin_family = AF_INET;
    A.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    A.sin_port = htons(AServer.Port);
    return A;
  }();
  for (int I = 0; I < 16; ++I) {
    const int Fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    AServer.Held.push_back(Fd);
    connect(Fd, reinterpret_cast<const sockaddr*>(&Addr), sizeof Addr);
    pollfd P{Fd, POLLOUT, 0};
    if (poll(&P, 1, 300) == 0) return;
  }
  throw std::runtime_error("feed server: the accept queue does not fill");
}

}  // namespace

std::string HttpOk(const std::string& ABody) {
  return "HTTP/1.1 200 OK\r\nContent-Type: application/rss+xml\r\nContent-Length: " +
         std::to_string(ABody.size()) + "\r\nConnection: close\r\n\r\n" + ABody;
}

void StartFeedServer(TFeedServer& AServer, std::string AResponse, TFeedStall AStall) {
  AServer.Response = std::move(AResponse);
  AServer.Stall = AStall;
  AServer.ListenFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  // A small receive buffer, inherited by every accepted connection: a request of a few
  // megabytes then really waits to be written when the server does not read it.
  const int Small = 4096;
  if (AStall == fsAccept) setsockopt(AServer.ListenFd, SOL_SOCKET, SO_RCVBUF, &Small, sizeof Small);
  sockaddr_in Addr{};
  Addr.sin_family = AF_INET;
  Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t Len = sizeof Addr;
  int Pipe[2];
  if (AServer.ListenFd < 0 || bind(AServer.ListenFd, reinterpret_cast<sockaddr*>(&Addr), Len) != 0 ||
      listen(AServer.ListenFd, AStall == fsConnect ? 0 : 16) != 0 ||
      getsockname(AServer.ListenFd, reinterpret_cast<sockaddr*>(&Addr), &Len) != 0 ||
      pipe2(Pipe, O_CLOEXEC) != 0) {
    throw std::runtime_error("feed server: cannot listen on 127.0.0.1");
  }
  AServer.WakeRead = Pipe[0];
  AServer.WakeWrite = Pipe[1];
  AServer.Port = ntohs(Addr.sin_port);
  if (AStall == fsConnect) {
    FillAcceptQueue(AServer);
    return;  // nothing is ever accepted
  }
  AServer.Thread = std::thread(Serve, &AServer);
}

std::string FeedServerUrl(const TFeedServer& AServer, const std::string& APath) {
  return "http://127.0.0.1:" + std::to_string(AServer.Port) + APath;
}

TFeedServer::~TFeedServer() {
  if (Thread.joinable()) {
    const char Byte = 0;
    (void)!write(WakeWrite, &Byte, 1);
    Thread.join();
  }
  for (int Fd : {ListenFd, WakeRead, WakeWrite}) {
    if (Fd >= 0) close(Fd);
  }
  for (int Fd : Held) close(Fd);
}
