#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/http/feed.h"

/// One request as a handler sees it.
struct HttpRequest {
  std::string method;  // "GET"
  std::string path;    // "/metrics"; as sent, without the query
  std::string query;   // what follows the "?"; "" without one
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string peer;  // the IP address of the other end

  /// The value of a header, whose name is compared without regard to case; "" when it is missing.
  std::string header(const std::string& name) const;
};

/// What a handler answers. The server adds the length, and leaves the body out for HEAD.
struct HttpResponse {
  unsigned status = 200;
  std::string body;
  std::string contentType = "text/plain; charset=utf-8";
  std::vector<std::pair<std::string, std::string>> headers = {};  // further ones
  /// With a feed, the body is only the beginning: the feed's messages follow until the client or
  /// the feed ends the connection.
  std::shared_ptr<HttpFeed> feed = nullptr;
  std::string feedKey = {};
};

/// An address that a server listens on, as given and as used.
struct HttpAddress {
  std::string host;  // an IP address
  unsigned short port = 0;
};

/// Reads "127.0.0.1:9464" or "[::1]:9464". Throws std::invalid_argument, which says what is wrong.
HttpAddress parseHttpAddress(const std::string& text);

/// What a server takes from its clients.
struct HttpLimits {
  std::size_t connections = 64;    // more are closed at once
  std::size_t headerBytes = 8192;  // of a request: 431 above
  std::size_t bodyBytes = 65536;   // 413 above
  std::chrono::seconds idle{30};   // until a request is complete, or a response is read
  std::size_t feedBytes = 262144;  // that may wait for a follower; it is dropped above
  std::size_t handlers = 4;        // threads, so as many requests are handled at once
};

/// The files of a server's certificate with its chain, and of its key, in PEM.
struct HttpTls {
  std::string certificateFile, keyFile;
};

/// A small HTTP/1.1 server. It keeps connections open. Without TLS it is meant for the loopback
/// interface or a proxy.
class HttpServer {
 public:
  /// Called by several threads at once. What it throws as std::exception becomes status 500.
  using Handler = std::function<HttpResponse(const HttpRequest&)>;

  /// Binds the address, so that clients can connect from now on; port 0 takes a free one. Handles
  /// SIGTERM and SIGINT from then on. With `tls`, of version 1.2 at least, it takes nothing else.
  /// Throws std::runtime_error, which names the address or the file, when that fails.
  HttpServer(const HttpAddress& address, Handler handler, const HttpLimits& limits = {},
             const std::optional<HttpTls>& tls = std::nullopt);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  unsigned short port() const;
  /// The number of clients. Any thread may call it.
  std::size_t connections() const;
  /// Serves until stop(), SIGTERM or SIGINT, also one that came before the call. Handlers in
  /// progress are awaited, their responses are not sent.
  void run();
  /// Any thread may call it, also before run().
  void stop();

 private:
  class Implementation;
  std::unique_ptr<Implementation> implementation;
};
