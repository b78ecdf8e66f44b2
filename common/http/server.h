#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

/// One request as a handler sees it.
struct HttpRequest {
  std::string method;  // "GET"
  std::string path;    // "/metrics"; as sent, without the query
  std::string query;   // what follows the "?"; "" without one
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;

  /// The value of a header, whose name is compared without regard to case; "" when it is missing.
  std::string header(const std::string& name) const;
};

/// What a handler answers. The server adds the length, and leaves the body out for HEAD.
struct HttpResponse {
  unsigned status = 200;
  std::string body;
  std::string contentType = "text/plain; charset=utf-8";
  std::vector<std::pair<std::string, std::string>> headers = {};  // further ones
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
  std::size_t handlers = 4;        // threads, so as many requests are handled at once
};

/// A small HTTP/1.1 server for programs that report about themselves. It keeps connections open,
/// knows nothing of TLS or passwords, and is meant for the loopback interface or a proxy.
class HttpServer {
 public:
  /// Called by several threads at once. What it throws as std::exception becomes status 500.
  using Handler = std::function<HttpResponse(const HttpRequest&)>;

  /// Binds the address, so that clients can connect from now on; port 0 takes a free one. Handles
  /// SIGTERM and SIGINT from then on. Throws std::runtime_error, which names the address, when that
  /// fails.
  HttpServer(const HttpAddress& address, Handler handler, const HttpLimits& limits = {});
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  unsigned short port() const;
  /// Serves until stop(), SIGTERM or SIGINT, also one that came before the call. Handlers in
  /// progress are awaited, their responses are not sent.
  void run();
  /// Any thread may call it, also before run().
  void stop();

 private:
  class Implementation;
  std::unique_ptr<Implementation> implementation;
};
