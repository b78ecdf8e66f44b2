#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

/// A request as a test sees it.
struct HttpRequest {
  std::string head, body;
};

/// An HTTP endpoint on a port of this machine, in a thread of its own. It answers one request after
/// the other, each on a connection of its own.
class HttpServer {
 public:
  /// `answer` returns the status of the answer, or 0 to close the connection without one. It is
  /// called in the server's thread.
  explicit HttpServer(std::function<int(const HttpRequest&)> answer) : statusOf(std::move(answer)) {
    listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        listen(listener, 16) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      throw std::runtime_error("no port for the test's HTTP server");
    }
    port = ntohs(address.sin_port);
    thread = std::thread([this] { serve(); });
  }
  ~HttpServer() {
    shutdown(listener, SHUT_RDWR);
    thread.join();
    close(listener);
  }
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  std::string url() const {
    return "http://127.0.0.1:" + std::to_string(port) + "/hook?token=s3cret";
  }
  /// All requests so far. Any thread may call it.
  std::vector<HttpRequest> requests() const {
    const std::lock_guard lock(mutex);
    return received;
  }

 private:
  void serve() {
    for (int client = -1; (client = accept(listener, nullptr, nullptr)) >= 0;) {
      const HttpRequest request = readRequest(client);
      const int status = statusOf(request);
      {
        const std::lock_guard lock(mutex);
        received.push_back(request);
      }
      if (status > 0) {
        const std::string answer = "HTTP/1.1 " + std::to_string(status) +
                                   " X\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
        send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
      }
      close(client);
    }
  }

  static HttpRequest readRequest(int client) {
    std::string text;
    std::array<char, 65536> part{};
    std::size_t end = std::string::npos;
    std::size_t length = 0;
    for (ssize_t count = 0; (count = read(client, part.data(), part.size())) > 0;) {
      text.append(part.data(), static_cast<std::size_t>(count));
      end = text.find("\r\n\r\n");
      if (end != std::string::npos) {
        const auto place = text.find("Content-Length: ");
        length = place < end ? std::stoul(text.substr(place + 16)) : 0;
        if (text.size() >= end + 4 + length) {
          break;
        }
      }
    }
    return end == std::string::npos ? HttpRequest{text, ""}
                                    : HttpRequest{text.substr(0, end), text.substr(end + 4)};
  }

  const std::function<int(const HttpRequest&)> statusOf;
  int listener = -1;
  int port = 0;
  mutable std::mutex mutex;
  std::vector<HttpRequest> received;  // guarded by mutex
  std::thread thread;
};
