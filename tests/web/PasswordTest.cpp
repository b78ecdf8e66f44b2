#include "web/password.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "ctl/session/config.h"
#include "tests/support/Database.h"
#include "tests/support/SilentServer.h"

namespace {

DaemonConfig configOf(const Database& database) {
  DaemonConfig config;
  config.host = database.host();
  config.port = std::to_string(database.port());
  config.database = database.name();
  return config;
}

/// A server that lets everybody in without a password, once.
class TrustingServer {
 public:
  TrustingServer() : listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    bind(listener, reinterpret_cast<sockaddr*>(&address), length);
    listen(listener, 1);
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
    thread = std::thread([this] { serve(); });
  }
  ~TrustingServer() {
    thread.join();
    close(listener);
  }
  TrustingServer(const TrustingServer&) = delete;
  TrustingServer& operator=(const TrustingServer&) = delete;

  int port = 0;

 private:
  void serve() const {
    const int client = accept(listener, nullptr, nullptr);
    std::array<char, 1024> message{};
    const std::string refusal = "N";  // no TLS
    const std::string welcome("R\0\0\0\10\0\0\0\0Z\0\0\0\5I", 15);
    if (recv(client, message.data(), message.size(), 0) == 8) {
      send(client, refusal.data(), refusal.size(), MSG_NOSIGNAL);
      recv(client, message.data(), message.size(), 0);
    }
    send(client, welcome.data(), welcome.size(), MSG_NOSIGNAL);
    recv(client, message.data(), message.size(), 0);
    close(client);
  }

  int listener;
  std::thread thread;
};

TEST(PasswordTest, IsCheckedByTheServer) {
  const Database database;
  std::string reason;
  const DaemonConfig config = configOf(database);
  EXPECT_EQ(checkPassword(config, "kodu", database.password(), reason), PasswordCheck::kRight);
  EXPECT_EQ(checkPassword(config, "kodu", database.password() + "x", reason),
            PasswordCheck::kWrong);
  EXPECT_EQ(checkPassword(config, "kodu_missing", "x", reason), PasswordCheck::kWrong);
}

TEST(PasswordTest, IsNotReplacedByOneOfTheEnvironment) {
  const Database database;
  std::string reason;
  setenv("PGPASSWORD", database.password().c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
  EXPECT_EQ(checkPassword(configOf(database), "kodu", "", reason), PasswordCheck::kWrong);
  EXPECT_EQ(checkPassword(configOf(database), "kodu", std::string("\0x", 2), reason),
            PasswordCheck::kWrong);
  unsetenv("PGPASSWORD");  // NOLINT(concurrency-mt-unsafe)
}

TEST(PasswordTest, DoesNotCountWhereTheServerAsksForNone) {
  const TrustingServer server;
  DaemonConfig config;
  config.host = "127.0.0.1";
  config.port = std::to_string(server.port);
  config.database = "kodu";
  std::string reason;
  EXPECT_EQ(checkPassword(config, "alice", "anything", reason), PasswordCheck::kNotAsked);
}

TEST(PasswordTest, IsNotWrongWhenTheServerDoesNotAnswer) {
  SilentServer server;
  DaemonConfig config;
  config.host = "127.0.0.1";
  config.port = std::to_string(server.port());
  config.database = "kodu";
  std::string reason;
  EXPECT_EQ(checkPassword(config, "alice", "right", reason), PasswordCheck::kNoDatabase);
}

}  // namespace
