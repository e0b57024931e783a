// Feed retrieval: one HTTP/1.1 GET on a fresh connection, plain or over TLS, written directly
// over BSD sockets and OpenSSL. No cache, proxy, retry, redirect or compression: the caller
// gets the body of a 200 response as it came, or an exception whose what() is the text the
// program prints behind "Error fetching RSS: ".
//
// The module owns nothing between calls: SimpleGet opens its connection, and closes it (the
// TLS session first) on every way out. The response reader runs over THttpSource, so the very
// code that reads a socket or a TLS session can be fed from memory by tests and fuzz targets.
//
// Decisions where the wire contract is silent:
// - The whole exchange (name resolution, connect, TLS handshake, request and response) must be
//   over within FetchIoTimeoutMs, 30 s; the connect alone keeps its 3 s. So a server that
//   stalls, or one that trickles a byte now and then, holds the caller no longer than that; the
//   failures read "Timed out reading data from socket" and "Timed out writing data to socket",
//   and a resolver that never answers "Host name resolution for \"%s\" timed out.". A feed
//   that needs more than 30 s to arrive is not served.
// - A host name is resolved in a short-lived child process that writes the address into a pipe,
//   so that the wait for it is an ordinary poll like every other wait of the fetch (bounded,
//   and woken by the watch below) and the program stays single-threaded. An abandoned lookup's
//   child is killed and reaped before SimpleGet returns; it also dies with the program.
// - Every wait also watches the descriptors FetchAddWatch adds: when one turns ready (or a
//   signal cuts the wait short) and FetchGiveUp says so, the fetch closes its connection and
//   fails with FETCH_GIVEN_UP, within milliseconds rather than at its time-out.
// - Every send uses MSG_NOSIGNAL, the TLS session included (it writes through our own BIO),
//   so a server that resets the connection gives a failure text, never a SIGPIPE death. The
//   process's signal dispositions are not touched.
// - A port of digits that does not fit a signed 32-bit integer fails like an empty one, with
//   the digits filled in: "\"99999999999\" is an invalid integer".
// - A plain connection reset before the server sent a single byte reads as a server that
//   closed at once (an empty body), because that is what such a server looks like when our
//   request reached it unread. A reset after the first byte is "Error reading data from socket".
// - A response of more than FetchMaxResponseBytes (32 MiB, six times the largest feed we have
//   met) fails with "Feed too large: more than 33554432 bytes", so that a wrong URL (a download, a
//   stream) or a hostile server can't hold the node or its memory: the scan then needs about
//   twice the body's size at most.
// - A negative Content-Length counts as a missing one: the body runs to the end of the
//   connection.
// - A chunk size is reported in full when it passes the limit ("Got 4294967295" for eight F).
// - SNI carries the host only when it is a name; a dotted IPv4 address is not sent as SNI.
// - A failed TLS handshake reports the first code of OpenSSL's error queue with its text; when
//   the queue is empty, the SSL_get_error() result alone ("SSL error code: 5").
// - Certificates are checked only when FetchVerifyPeer is set. A server that then fails the
//   check gives "Connect to HOST:PORT failed: certificate verify failed: " and OpenSSL's text
//   for the reason, such as "self-signed certificate", "certificate has expired",
//   "unable to get local issuer certificate", "hostname mismatch" or "IP address mismatch".
#pragma once

#include <poll.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// The pieces of a feed URL, each as it stands in the URL: nothing escaped or decoded.
struct TUrlParts {
  std::string Scheme;  // as written; "http" and "https" in any case are served
  std::string User;
  std::string Password;
  std::string Host;
  uint16_t Port = 0;     // 0 when the URL named none
  std::string Path;      // up to and including the last "/"
  std::string Document;  // what follows the last "/"
  std::string Query;     // without its "?"; the fragment is dropped
};

// Splits AUrl into its parts (scheme, fragment, query, authority, path and document, port, user
// and password, in that order). Any text is accepted; the scheme is not checked here. Throws
// std::runtime_error "\"\" is an invalid integer" for a ":" in the authority with no port
// behind it.
TUrlParts SplitUrl(const std::string& AUrl);

// The standard base64 alphabet with "=" padding.
std::string Base64Encode(std::string_view AData);

// The complete request for AUrl, CR LF line ends, ready to go out in one write: the request
// line, "Authorization: Basic ..." when the URL has a user, "Host:" (with the port only when
// the URL gave one), "Connection: close" and the empty line. No other header.
std::string BuildGetRequest(const TUrlParts& AUrl);

// Where the response reader takes its bytes from. Read fills at most ASize bytes at ABuffer and
// returns how many; 0 means the stream has ended. A failing source throws the exception the
// caller of SimpleGet should see.
struct THttpSource {
  void* Context = nullptr;
  size_t (*Read)(void* AContext, char* ABuffer, size_t ASize) = nullptr;
};

// Reads one HTTP/1.1 response from ASource and returns the body of a 200 response: by
// Content-Length (a short body is taken as it is), to the end of the stream, or chunked. A
// stream that ends before the status line is complete gives an empty body. Throws
// std::runtime_error with the caller-visible text for a non-HTTP status line, a bad status,
// any status but 200, a chunk size beyond 0x0FFFFFFF and a chunk without its CR LF.
std::string ReadHttpResponse(const THttpSource& ASource);

// A byte string served as a THttpSource, at most MaxPiece bytes per read (0: no limit), so that
// tests and fuzz targets can split a response at every position. Data must outlive the reads.
struct TMemorySource {
  std::string_view Data;
  size_t MaxPiece = 0;
  size_t Pos = 0;
};
THttpSource MemorySource(TMemorySource& AMemory);

// How long the exchange may take, counted from the start of the name lookup, before a wait
// that is still going on fails the fetch. Program-wide; tests shorten it.
extern int FetchIoTimeoutMs;
// The most bytes a response may have, status line and headers included. Program-wide; tests
// lower it.
extern size_t FetchMaxResponseBytes;
// How long the TCP connect may take, 3 s. Program-wide; tests shorten it.
extern int FetchConnectTimeoutMs;
// Whether an https fetch checks whom it talks to: the server's certificate chain against the
// system's trust store (OpenSSL's default paths, so SSL_CERT_FILE and SSL_CERT_DIR name another
// one) and the certificate's names against the URL's host, or its addresses when the host is a
// dotted IPv4 address. Off by default, because feeds on self-signed certificates are common and
// must keep loading; the reader's -V option turns it on. Program-wide; read at each fetch.
extern bool FetchVerifyPeer;

// The program's watch over the fetch, so that a run whose caller has gone need not sit out
// the fetch's time-outs. Both nullptr (the preset): nothing is watched. FetchAddWatch appends
// the descriptors (with their events) whose readiness may mean the fetch must end; it is called
// for every wait and must not touch what is already in APoll. FetchGiveUp is asked when one of
// them is ready or a signal has cut a wait short, and before every wait: true ends the fetch.
// A watched descriptor that stays ready while FetchGiveUp says false costs a wake-up every
// FETCH_WATCH_RECHECK_MS, not a busy loop.
using TFetchAddWatch = void (*)(std::vector<pollfd>& APoll);
using TFetchGiveUp = bool (*)();
extern TFetchAddWatch FetchAddWatch;
extern TFetchGiveUp FetchGiveUp;
constexpr int FETCH_WATCH_RECHECK_MS = 250;
// The what() of the failure a fetch ends with when FetchGiveUp said so.
inline constexpr const char* FETCH_GIVEN_UP = "Fetch given up";

// Fetches Url ("http" or "https", IPv4 only) with one GET and returns the body of a 200
// response, bytes unconverted. Blocks the calling thread; for a host name it also starts (and
// always reaps) one child process. Every failure is a std::runtime_error
// whose what() is the message for the caller, e.g. "Unexpected response status code: 404".
std::string SimpleGet(const std::string& Url);
