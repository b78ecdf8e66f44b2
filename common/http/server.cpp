#include "common/http/server.h"

#include <fmt/format.h>

#include <atomic>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <optional>
#include <stdexcept>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using asio::ip::tcp;
using boost::system::error_code;

HttpRequest requestOf(const http::request<http::string_body>& message) {
  HttpRequest request;
  request.method = std::string(message.method_string());
  const std::string target(message.target());
  const auto mark = target.find('?');
  request.path = target.substr(0, mark);
  request.query = mark == std::string::npos ? "" : target.substr(mark + 1);
  request.body = message.body();
  for (const auto& field : message) {
    request.headers.emplace_back(field.name_string(), field.value());
  }
  return request;
}

/// What a client gets for a request that cannot be read; nothing when it has gone or was idle.
std::optional<HttpResponse> refusalOf(const error_code& error) {
  if (error == http::error::body_limit) {
    return HttpResponse{413, "The body is too large.\n"};
  }
  if (error == http::error::header_limit || error == http::error::buffer_overflow) {
    return HttpResponse{431, "The header is too large.\n"};
  }
  const bool isWrong = error.category() == make_error_code(http::error::bad_method).category() &&
                       error != http::error::end_of_stream && error != http::error::partial_message;
  return isWrong ? std::optional(HttpResponse{400, "This is not HTTP.\n"}) : std::nullopt;
}

/// What the connections of a server share.
struct Service {
  const HttpServer::Handler handler;
  const HttpLimits limits;
  asio::thread_pool handlers;
  std::atomic<std::size_t> connections = 0;

  Service(HttpServer::Handler function, const HttpLimits& given)
      : handler(std::move(function)), limits(given), handlers(given.handlers) {}

  HttpResponse handle(const HttpRequest& request) const {
    try {
      return handler(request);
    } catch (const std::exception& e) {
      return {500, fmt::format("The request failed: {}\n", e.what())};
    }
  }
};

/// One client. Its members run on the thread of the server, one after the other; only the handler
/// runs on another one meanwhile. It lives as long as an operation refers to it.
class Client : public std::enable_shared_from_this<Client> {
 public:
  Client(tcp::socket socket, Service& owner) : stream(std::move(socket)), service(owner) {
    ++service.connections;
  }
  ~Client() { --service.connections; }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  void read() {
    parser.emplace();
    parser->header_limit(static_cast<std::uint32_t>(service.limits.headerBytes));
    parser->body_limit(service.limits.bodyBytes);
    stream.expires_after(service.limits.idle);
    http::async_read(
        stream, buffer, *parser,
        [self = shared_from_this()](const error_code& error, std::size_t) { self->take(error); });
  }

 private:
  void take(const error_code& error) {
    if (error) {
      if (const auto refusal = refusalOf(error)) {
        isLast = true;
        send(*refusal);
      }
      return;
    }
    stream.expires_never();  // the handler has a limit of its own
    isLast = !parser->get().keep_alive();
    asio::post(service.handlers, [self = shared_from_this()] {
      const HttpResponse answer = self->service.handle(requestOf(self->parser->get()));
      asio::post(self->stream.get_executor(), [self, answer] { self->send(answer); });
    });
  }

  void send(const HttpResponse& answer) {
    response = {};
    response.result(answer.status);
    response.version(11);
    response.set(http::field::content_type, answer.contentType);
    for (const auto& [name, value] : answer.headers) {
      response.set(name, value);
    }
    response.keep_alive(!isLast);
    response.content_length(answer.body.size());
    if (parser->get().method() != http::verb::head) {
      response.body() = answer.body;
    }
    serializer.emplace(response);
    stream.expires_after(service.limits.idle);
    http::async_write(
        stream, *serializer,
        [self = shared_from_this()](const error_code& error, std::size_t) { self->finish(error); });
  }

  void finish(const error_code& error) {
    if (!error && !isLast) {
      read();
      return;
    }
    error_code ignored;
    stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
  }

  beast::tcp_stream stream;
  Service& service;
  beast::flat_buffer buffer;
  std::optional<http::request_parser<http::string_body>> parser;
  http::response<http::string_body> response;
  std::optional<http::response_serializer<http::string_body>> serializer;
  bool isLast = false;  // the connection is closed after this response
};

}  // namespace

class HttpServer::Implementation {
 public:
  Implementation(const HttpAddress& address, Handler handler, const HttpLimits& limits)
      : service(std::move(handler), limits), acceptor(context), pause(context), signals(context) {
    try {
      const tcp::endpoint endpoint(asio::ip::make_address(address.host), address.port);
      acceptor.open(endpoint.protocol());
      acceptor.set_option(asio::socket_base::reuse_address(true));
      acceptor.bind(endpoint);
      acceptor.listen();
    } catch (const boost::system::system_error& e) {
      throw std::runtime_error(fmt::format("cannot listen on {} port {}: {}", address.host,
                                           address.port, e.code().message()));
    }
    signals.add(SIGTERM);  // one that comes before run() ends it at once
    signals.add(SIGINT);
  }
  ~Implementation() { service.handlers.join(); }
  Implementation(const Implementation&) = delete;
  Implementation& operator=(const Implementation&) = delete;

  unsigned short port() const { return acceptor.local_endpoint().port(); }
  void stop() { context.stop(); }

  void run() {
    signals.async_wait([this](const error_code& error, int) {
      if (!error) {
        stop();
      }
    });
    accept();
    context.run();
    service.handlers.join();
  }

 private:
  void accept() {
    acceptor.async_accept([this](const error_code& error, tcp::socket socket) {
      if (error) {
        acceptLater();
        return;
      }
      if (service.connections < service.limits.connections) {
        std::make_shared<Client>(std::move(socket), service)->read();
      }
      accept();
    });
  }

  /// There is no descriptor for the client, until other ones end.
  void acceptLater() {
    pause.expires_after(std::chrono::milliseconds(100));
    pause.async_wait([this](const error_code&) { accept(); });
  }

  Service service;  // outlives the clients, which the context owns
  asio::io_context context;
  tcp::acceptor acceptor;
  asio::steady_timer pause;
  asio::signal_set signals;
};

std::string HttpRequest::header(const std::string& name) const {
  for (const auto& [key, value] : headers) {
    if (beast::iequals(key, name)) {
      return value;
    }
  }
  return "";
}

HttpAddress parseHttpAddress(const std::string& text) {
  const auto colon = text.rfind(':');
  std::string host = text.substr(0, colon);
  if (host.starts_with('[') && host.ends_with(']')) {
    host = host.substr(1, host.size() - 2);
  }
  error_code error;
  asio::ip::make_address(host, error);
  unsigned short port = 0;
  const char* end = text.data() + text.size();
  const auto parsed = colon == std::string::npos
                          ? std::from_chars_result{end, std::errc::invalid_argument}
                          : std::from_chars(text.data() + colon + 1, end, port);
  if (error || parsed.ec != std::errc() || parsed.ptr != end) {
    throw std::invalid_argument(
        fmt::format("'{}' is not an IP address and a port, as 127.0.0.1:9464 or [::1]:9464", text));
  }
  return {host, port};
}

HttpServer::HttpServer(const HttpAddress& address, Handler handler, const HttpLimits& limits)
    : implementation(std::make_unique<Implementation>(address, std::move(handler), limits)) {}
HttpServer::~HttpServer() = default;

unsigned short HttpServer::port() const {
  return implementation->port();
}

void HttpServer::run() {
  implementation->run();
}

void HttpServer::stop() {
  implementation->stop();
}
