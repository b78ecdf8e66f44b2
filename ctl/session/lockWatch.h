#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include <libpq-fe.h>

#include "db/result.h"

/// Closes a connection to the server.
struct Disconnector {
  void operator()(PGconn* connection) const { PQfinish(connection); }
};
using Connection = std::unique_ptr<PGconn, Disconnector>;

/// Waits for the reply to what was sent; false when `time` elapses first. True also when the
/// connection is lost.
bool hasReplied(PGconn* connection, std::chrono::milliseconds time);

/// The reply, once hasReplied() is true: its last result, or the first that failed, as when the
/// connection is lost.
ResultPtr replyOf(PGconn* connection);

/// Observes from a second session what a session waits for: once the wait has ended, the server no
/// longer knows who held the lock. Owned by one thread.
class LockWatch {
 public:
  /// `parameters` is a libpq connection string, `backend` the process of the session that waits.
  LockWatch(std::string parameters, int backend)
      : conninfo(std::move(parameters)), backendId(backend) {}

  /// Looks for a wait and stores what it finds. Connects at the first call. A call takes at most
  /// two seconds, the first at most four. Finds nothing when the server refuses or does not answer.
  void look();

  /// "task 7 (its row of kodu_cron_plugin)", "the table kodu_cron_plugin" or the like; "" when no
  /// wait was seen.
  const std::string& lock() const { return lockText; }
  /// "session 4711 of role alice (psql, idle in transaction for 12 s)", several joined by "and"; ""
  /// when they are not known.
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
