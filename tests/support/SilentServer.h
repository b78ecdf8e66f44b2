#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

/// Accepts connections on a free port and never answers.
class SilentServer {
 public:
  SilentServer() : listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    const bool listens = bind(listener, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                         listen(listener, 1) == 0;
    if (!listens || getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      throw std::runtime_error("no port to listen on");
    }
  }
  ~SilentServer() { hangUp(); }
  SilentServer(const SilentServer&) = delete;
  SilentServer& operator=(const SilentServer&) = delete;

  int port() const { return ntohs(address.sin_port); }
  /// Waits for a client.
  bool accept() { return (client = ::accept(listener, nullptr, nullptr)) >= 0; }
  void hangUp() {
    for (int* descriptor : {&listener, &client}) {
      if (*descriptor >= 0) {
        close(*descriptor);
        *descriptor = -1;
      }
    }
  }

 private:
  sockaddr_in address{};
  int listener;
  int client = -1;
};
