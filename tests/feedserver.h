// A feed server for the end-to-end runs: an HTTP responder on 127.0.0.1 in a thread of the
// test, which answers every request with the same bytes and closes the connection.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

struct TFeedServer {
  std::string Response;  // sent whole after the request's empty line
  uint16_t Port = 0;
  std::atomic<int> Requests{0};

  int ListenFd = -1;
  int WakeRead = -1;
  int WakeWrite = -1;
  std::thread Thread;

  TFeedServer() = default;
  TFeedServer(const TFeedServer&) = delete;
  TFeedServer& operator=(const TFeedServer&) = delete;
  ~TFeedServer();
};

// A complete "200 OK" response with a Content-Length for ABody.
std::string HttpOk(const std::string& ABody);

// Binds a free loopback port and serves AResponse until the server is destroyed.
void StartFeedServer(TFeedServer& AServer, std::string AResponse);
// "http://127.0.0.1:PORT" + APath.
std::string FeedServerUrl(const TFeedServer& AServer, const std::string& APath = "/feed.xml");
