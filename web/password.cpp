#include "web/password.h"

#include <poll.h>

#include <array>
#include <chrono>

#include "core/iniConfig.h"
#include "ctl/session/config.h"
#include "ctl/session/lockWatch.h"

namespace {

constexpr std::chrono::seconds kPatience{5};

/// False when the connection fails or takes too long.
bool awaitConnection(PGconn* connection) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  PostgresPollingStatusType state = PGRES_POLLING_WRITING;
  while (state == PGRES_POLLING_READING || state == PGRES_POLLING_WRITING) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    pollfd socket{PQsocket(connection),
                  static_cast<short>(state == PGRES_POLLING_READING ? POLLIN : POLLOUT), 0};
    if (socket.fd < 0 || left.count() <= 0 ||
        poll(&socket, 1, static_cast<int>(left.count())) <= 0) {
      return false;
    }
    state = PQconnectPoll(connection);
  }
  return state == PGRES_POLLING_OK;
}

/// The classes of invalid authorisation, which the server's language does not change. Other errors
/// tell nothing of the password: no connection is free, or the server is starting.
bool isRefusal(const std::string& message) {
  return message.find(":  28P01: ") != std::string::npos ||
         message.find(":  28000: ") != std::string::npos;
}

}  // namespace

PasswordCheck checkPassword(const DaemonConfig& config, const std::string& role,
                            const std::string& password, std::string& reason) {
  // libpq replaces an empty password by one of its own sources, and a text ends at its first zero.
  constexpr std::size_t kLongestRole = 63, kLongestPassword = 1000;
  if (role.empty() || password.empty() || role.size() > kLongestRole ||
      password.size() > kLongestPassword || (role + password).find('\0') != std::string::npos) {
    return PasswordCheck::kWrong;
  }
  const std::string place = connectionString(config, "kodu_web", "kodu_web");
  // The later ones count.
  constexpr std::array kNames = {"dbname",
                                 "user",
                                 "password",
                                 "application_name",
                                 "gssencmode",
                                 "options",
                                 static_cast<const char*>(nullptr)};
  const std::array values = {place.c_str(),
                             role.c_str(),
                             password.c_str(),
                             "kodu_web login",
                             "disable",
                             "",
                             static_cast<const char*>(nullptr)};
  const Connection connection(PQconnectStartParams(kNames.data(), values.data(), 1));
  PQsetErrorVerbosity(connection.get(), PQERRORS_VERBOSE);  // with the SQLSTATE
  // A role's own settings can cause warnings, with any text, which libpq would print.
  PQsetNoticeProcessor(
      connection.get(), [](void*, const char*) {}, nullptr);
  const bool isConnected = awaitConnection(connection.get());
  reason = trim(PQerrorMessage(connection.get()));
  if (isConnected) {
    return PQconnectionUsedPassword(connection.get()) == 1 ? PasswordCheck::kRight
                                                           : PasswordCheck::kNotAsked;
  }
  return isRefusal(reason) ? PasswordCheck::kWrong : PasswordCheck::kNoDatabase;
}
