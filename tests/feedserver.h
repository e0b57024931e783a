// A feed server for the end-to-end runs: an HTTP responder on 127.0.0.1 in a thread of the
// test, which answers every request with the same bytes and closes the connection, or stops
// for good at a chosen stage of the exchange, so that a run can be caught in the middle of its
// fetch.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

// Where every connection stops; a stopped connection stays open and silent until the server
// is destroyed.
enum TFeedStall : uint8_t {
  fsNone,      // answered with Response and closed
  fsConnect,   // never accepted: the accept queue is full, so the client's connect hangs
  fsAccept,    // accepted, then nothing is read or sent: a TLS handshake waits for its answer,
               // a request larger than the socket buffers waits to be written
  fsResponse,  // the request is read and Response sent (a part of one, say), then silence
};

struct TFeedServer {
  std::string Response;  // sent whole after the request's empty line
  uint16_t Port = 0;
  TFeedStall Stall = fsNone;
  std::atomic<int> Accepted{0};
  std::atomic<int> Requests{0};

  int ListenFd = -1;
  int WakeRead = -1;
  int WakeWrite = -1;
  std::vector<int> Held;  // stalled connections, and fsConnect's own connects that fill the queue
  std::thread Thread;

  TFeedServer() = default;
  TFeedServer(const TFeedServer&) = delete;
  TFeedServer& operator=(const TFeedServer&) = delete;
  ~TFeedServer();
};

// A complete "200 OK" response with a Content-Length for ABody.
std::string HttpOk(const std::string& ABody);

// Binds a free loopback port and serves AResponse until the server is destroyed, stopping
// every connection at AStall.
void StartFeedServer(TFeedServer& AServer, std::string AResponse, TFeedStall AStall = fsNone);
// "http://127.0.0.1:PORT" + APath.
std::string FeedServerUrl(const TFeedServer& AServer, const std::string& APath = "/feed.xml");
