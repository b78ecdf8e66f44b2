#pragma once

#include <fmt/format.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>

#include "common/http/feed.h"
#include "common/http/server.h"

// The connections of an HttpServer; for common/http/server.cpp alone.

/// What the connections of a server share.
struct HttpService {
  const HttpServer::Handler handler;
  const HttpLimits limits;
  boost::asio::thread_pool handlers;
  std::atomic<std::size_t> connections = 0;

  HttpService(HttpServer::Handler function, const HttpLimits& given)
      : handler(std::move(function)), limits(given), handlers(given.handlers) {}

  /// What the handler answers, or that it failed.
  HttpResponse handle(const HttpRequest& request) const;
};

using HttpMessage = boost::beast::http::request<boost::beast::http::string_body>;

HttpRequest requestOf(const HttpMessage& message, const std::string& peer);

/// An address as people write it: a socket for both versions of IP shows those of version 4 as
/// "::ffff:192.0.2.1", and they are not one network of version 6.
std::string textOf(const boost::asio::ip::address& address);

/// Whether the end of the body is known for certain. After another coding than chunked alone, a
/// proxy may see the end elsewhere, and what follows as another client's request.
bool isBodyClear(const HttpMessage& message);

/// What a client gets for a request that cannot be read; nothing when it has gone or was idle.
std::optional<HttpResponse> refusalOf(const boost::system::error_code& error);

/// One client, over TCP or TLS. Its members run on the thread of the server, one after the other;
/// only the handler runs on another one meanwhile. It lives as long as an operation refers to it.
template <typename Stream>
class HttpClientConnection : public std::enable_shared_from_this<HttpClientConnection<Stream>> {
 public:
  /// `arguments` follow the socket in the construction of the stream.
  template <typename... Arguments>
  explicit HttpClientConnection(HttpService& owner, boost::asio::ip::tcp::socket socket,
                                Arguments&... arguments)
      : service(owner),
        peer(addressOf(socket)),
        stream(std::move(socket), arguments...),
        buffer(service.limits.headerBytes + kReadAhead) {
    ++service.connections;
  }
  ~HttpClientConnection() { --service.connections; }
  HttpClientConnection(const HttpClientConnection&) = delete;
  HttpClientConnection& operator=(const HttpClientConnection&) = delete;

  void begin() {
    if constexpr (kIsTls) {
      lowest().expires_after(service.limits.idle);
      stream.async_handshake(boost::asio::ssl::stream_base::server,
                             [self = this->shared_from_this()](const Error& error) {
                               if (!error) {
                                 self->read();
                               }
                             });
    } else {
      read();
    }
  }

 private:
  using Error = boost::system::error_code;
  static constexpr bool kIsTls = !std::is_same_v<Stream, boost::beast::tcp_stream>;

  /// The link from a feed to this client. The feed's threads see nothing else of it.
  class Link : public HttpFollower {
   public:
    Link(std::string name, const std::shared_ptr<HttpClientConnection>& owner)
        : HttpFollower(std::move(name)), client(owner), executor(owner->lowest().get_executor()) {}

    void give(std::shared_ptr<const std::string> message) override {
      boost::asio::post(executor, [client = client, message = std::move(message)] {
        if (const auto there = client.lock()) {
          there->enqueue(message);
        }
      });
    }
    void end() override {
      boost::asio::post(executor, [client = client] {
        if (const auto there = client.lock()) {
          there->drop();
        }
      });
    }

   private:
    const std::weak_ptr<HttpClientConnection> client;
    const boost::asio::any_io_executor executor;
  };

  static std::string addressOf(const boost::asio::ip::tcp::socket& socket) {
    Error error;
    const auto endpoint = socket.remote_endpoint(error);
    return error ? "" : textOf(endpoint.address());
  }

  boost::beast::tcp_stream& lowest() { return boost::beast::get_lowest_layer(stream); }

  void read() {
    parser.emplace();
    parser->header_limit(static_cast<std::uint32_t>(service.limits.headerBytes));
    parser->body_limit(service.limits.bodyBytes);
    lowest().expires_after(service.limits.idle);
    boost::beast::http::async_read(
        stream, buffer, *parser,
        [self = this->shared_from_this()](const Error& error, std::size_t) { self->take(error); });
  }

  void take(const Error& error) {
    if (error) {
      if (const auto refusal = refusalOf(error)) {
        isLast = true;
        send(*refusal);
      }
      return;
    }
    if (!isBodyClear(parser->get())) {
      isLast = true;
      send({501, "Of transfer codings, this server knows chunked alone.\n"});
      return;
    }
    lowest().expires_never();  // the handler has a limit of its own
    isLast = !parser->get().keep_alive();
    boost::asio::post(service.handlers, [self = this->shared_from_this()] {
      const HttpResponse answer = self->service.handle(requestOf(self->parser->get(), self->peer));
      boost::asio::post(self->lowest().get_executor(), [self, answer] { self->send(answer); });
    });
  }

  void send(const HttpResponse& answer) {
    namespace http = boost::beast::http;
    const bool isHead = parser->get().method() == http::verb::head;
    feed = isHead ? nullptr : answer.feed;
    feedKey = answer.feedKey;
    response = {};
    response.result(answer.status);
    response.version(11);
    response.set(http::field::content_type, answer.contentType);
    for (const auto& [name, value] : answer.headers) {
      response.insert(name, value);
    }
    response.keep_alive(!isLast && !feed);
    if (!feed && answer.status != kNoContent && answer.status != kNotModified) {
      response.content_length(answer.body.size());
    }
    if (!isHead) {
      response.body() = answer.body;
    }
    serializer.emplace(response);
    lowest().expires_after(service.limits.idle);
    http::async_write(stream, *serializer,
                      [self = this->shared_from_this()](const Error& error, std::size_t) {
                        self->finish(error);
                      });
  }

  void finish(const Error& error) {
    if (!error && feed) {
      follow();
      return;
    }
    if (!error && !isLast) {
      read();
      return;
    }
    Error ignored;
    lowest().socket().shutdown(boost::asio::ip::tcp::socket::shutdown_send, ignored);
  }

  // A feed's follower ---------------------------------------------------------------------------

  void follow() {
    lowest().expires_never();
    awaitEnd();
    link = std::make_shared<Link>(feedKey, this->shared_from_this());
    feed->join(link);
  }

  /// A client has nothing to say while it follows; reading tells when it has gone.
  void awaitEnd() {
    stream.async_read_some(boost::asio::buffer(ignoredBytes),
                           [self = this->shared_from_this()](const Error& error, std::size_t) {
                             if (error) {
                               self->drop();
                             } else {
                               self->awaitEnd();
                             }
                           });
  }

  void enqueue(const std::shared_ptr<const std::string>& message) {
    waitingBytes += message->size();
    if (isDropped || waitingBytes > service.limits.feedBytes) {
      drop();
      return;
    }
    waiting.push_back(message);
    if (waiting.size() == 1) {
      sendNext();
    }
  }

  void sendNext() {
    // Applies to the write alone: the read in progress keeps its own limit, which is none.
    lowest().expires_after(service.limits.idle);
    boost::asio::async_write(stream, boost::asio::buffer(*waiting.front()),
                             [self = this->shared_from_this()](const Error& error, std::size_t) {
                               self->takeNext(error);
                             });
  }

  void takeNext(const Error& error) {
    if (error) {
      drop();
      return;
    }
    waitingBytes -= waiting.front()->size();
    waiting.pop_front();
    if (!waiting.empty()) {
      sendNext();
    }
  }

  void drop() {
    isDropped = true;
    link.reset();
    lowest().close();
  }

  static constexpr std::size_t kReadAhead = 65536;  // of a body, and of later requests
  static constexpr unsigned kNoContent = 204, kNotModified = 304;

  HttpService& service;
  const std::string peer;
  Stream stream;
  boost::beast::flat_buffer buffer;  // limited: a chunk's extension or a trailer may never end
  std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> parser;
  boost::beast::http::response<boost::beast::http::string_body> response;
  std::optional<boost::beast::http::response_serializer<boost::beast::http::string_body>>
      serializer;
  bool isLast = false;  // the connection is closed after this response

  std::shared_ptr<HttpFeed> feed;  // that is followed after the response; nothing: none
  std::string feedKey;
  std::shared_ptr<Link> link;
  std::deque<std::shared_ptr<const std::string>> waiting;  // the first one is being sent
  std::size_t waitingBytes = 0;
  std::array<char, 256> ignoredBytes{};
  bool isDropped = false;
};
