#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include <libpq-fe.h>

#include "db/result.h"

/// Ends a connection to the server when it goes.
struct Disconnector {
  void operator()(PGconn* connection) const { PQfinish(connection); }
};
using Connection = std::unique_ptr<PGconn, Disconnector>;

/// Waits for the reply to what was sent; false when `time` is over before. True also when the
/// connection is lost.
bool hasReplied(PGconn* connection, std::chrono::milliseconds time);

/// The reply, once hasReplied() is true: its last result, or the first that failed, as when the
/// connection is lost.
ResultPtr replyOf(PGconn* connection);

/// What a session waits for, seen from a second session: once the wait has ended, the server does
/// not know any more who was in the way. Owned by one thread.
class LockWatch {
 public:
  /// `parameters` is a libpq connection string, `backend` the process of the session that waits.
  LockWatch(std::string parameters, int backend)
      : conninfo(std::move(parameters)), backendId(backend) {}

  /// Looks, and remembers what it has seen when there was a wait. Connects at the first call. A
  /// call takes two seconds at most, the first four. Where the server refuses or does not answer,
  /// nothing is seen.
  void look();

  /// "task 7 (its row of kodu_cron_plugin)", "the table kodu_cron_plugin" or the like; "" when no
  /// wait was seen.
  const std::string& lock() const { return lockText; }
  /// "session 4711 of role alice (psql, idle in transaction for 12 s)", several joined by "and";
  /// "" when the server did not tell.
  const std::string& holders() const { return holdersText; }
  /// SQL that ends the sessions that hold the lock; "" when there are none.
  const std::string& remedy() const { return remedyText; }

 private:
  bool isConnected();
  void readHolders();

  const std::string conninfo;
  const int backendId;
  bool isTried = false;
  Connection connection;
  std::string lockText, holdersText, remedyText;
};
