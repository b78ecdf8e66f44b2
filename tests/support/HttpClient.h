#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <stdexcept>
#include <string>

/// A connection to a server on a port of 127.0.0.1. Waits at most twenty seconds for an answer.
class HttpClient {
 public:
  explicit HttpClient(int port) : descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<unsigned short>(port));
    const timeval limit{20, 0};
    setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    if (connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
      close(descriptor);
      throw std::runtime_error("cannot connect to port " + std::to_string(port));
    }
  }
  ~HttpClient() { close(descriptor); }
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  void send(const std::string& bytes) const {
    ::send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }
  /// What comes until `end` is among it, or until the server closes the connection.
  std::string receive(const std::string& end = "") const {
    std::string text;
    std::array<char, 4096> chunk{};
    while (end.empty() || text.find(end) == std::string::npos) {
      const ssize_t length = recv(descriptor, chunk.data(), chunk.size(), 0);
      if (length <= 0) {
        break;
      }
      text.append(chunk.data(), static_cast<std::size_t>(length));
    }
    return text;
  }
  /// The whole answer to a request with these further header lines.
  static std::string get(int port, const std::string& path, const std::string& headers = "",
                         const std::string& method = "GET") {
    const HttpClient client(port);
    client.send(method + " " + path + " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n" + headers +
                "\r\n");
    return client.receive();
  }

 private:
  int descriptor;
};
