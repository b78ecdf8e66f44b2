#include "common/http/server.h"

#include <fmt/format.h>

#include <charconv>
#include <chrono>
#include <csignal>
#include <optional>
#include <stdexcept>

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>

#include "common/http/client.h"

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using asio::ip::tcp;
using boost::system::error_code;

/// Throws std::runtime_error, which names the file.
asio::ssl::context tlsContext(const HttpTls& tls) {
  asio::ssl::context context(asio::ssl::context::tls_server);
  context.set_options(asio::ssl::context::default_workarounds | asio::ssl::context::no_tlsv1 |
                      asio::ssl::context::no_tlsv1_1);
  error_code error;
  context.use_certificate_chain_file(tls.certificateFile, error);
  if (error) {
    throw std::runtime_error(
        fmt::format("cannot read the certificate {}: {}", tls.certificateFile, error.message()));
  }
  context.use_private_key_file(tls.keyFile, asio::ssl::context::pem, error);
  if (error) {
    throw std::runtime_error(
        fmt::format("cannot read the key {}, or it is not the certificate's: "
                    "{}",
                    tls.keyFile, error.message()));
  }
  return context;
}

}  // namespace

HttpRequest requestOf(const HttpMessage& message, const std::string& peer) {
  HttpRequest request;
  request.method = std::string(message.method_string());
  const std::string target(message.target());
  const auto mark = target.find('?');
  request.path = target.substr(0, mark);
  request.query = mark == std::string::npos ? "" : target.substr(mark + 1);
  request.body = message.body();
  request.peer = peer;
  for (const auto& field : message) {
    request.headers.emplace_back(field.name_string(), field.value());
  }
  return request;
}

std::string textOf(const asio::ip::address& address) {
  return address.is_v6() && address.to_v6().is_v4_mapped()
             ? asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6()).to_string()
             : address.to_string();
}

bool isBodyClear(const HttpMessage& message) {
  const auto coding = message.find(http::field::transfer_encoding);
  return coding == message.end() || beast::iequals(coding->value(), "chunked");
}

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

HttpResponse HttpService::handle(const HttpRequest& request) const {
  try {
    return handler(request);
  } catch (const std::exception& e) {
    return {500, fmt::format("The request failed: {}\n", e.what())};
  }
}

class HttpServer::Implementation {
 public:
  Implementation(const HttpAddress& address, Handler handler, const HttpLimits& limits,
                 const std::optional<HttpTls>& tls)
      : service(std::move(handler), limits), acceptor(context), pause(context), signals(context) {
    if (tls) {
      encryption.emplace(tlsContext(*tls));
    }
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
  std::size_t connections() const { return service.connections; }
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
        welcome(std::move(socket));
      }
      accept();
    });
  }

  void welcome(tcp::socket socket) {
    if (encryption) {
      using Client = HttpClientConnection<beast::ssl_stream<beast::tcp_stream>>;
      std::make_shared<Client>(service, std::move(socket), *encryption)->begin();
    } else {
      std::make_shared<HttpClientConnection<beast::tcp_stream>>(service, std::move(socket))
          ->begin();
    }
  }

  /// There is no descriptor for the client, until other ones end.
  void acceptLater() {
    pause.expires_after(std::chrono::milliseconds(100));
    pause.async_wait([this](const error_code&) { accept(); });
  }

  HttpService service;  // outlives the clients, which the context owns
  std::optional<asio::ssl::context> encryption;
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

HttpServer::HttpServer(const HttpAddress& address, Handler handler, const HttpLimits& limits,
                       const std::optional<HttpTls>& tls)
    : implementation(std::make_unique<Implementation>(address, std::move(handler), limits, tls)) {}
HttpServer::~HttpServer() = default;

unsigned short HttpServer::port() const {
  return implementation->port();
}

std::size_t HttpServer::connections() const {
  return implementation->connections();
}

void HttpServer::run() {
  implementation->run();
}

void HttpServer::stop() {
  implementation->stop();
}
