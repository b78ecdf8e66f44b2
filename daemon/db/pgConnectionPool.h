#pragma once

#include <pthread.h>

#include <cstdint>
#include <string>
#include <vector>

#include <libpq-fe.h>

class pgSafeThread;

/// The daemon does not use this class, it has one connection: the pool is part of the library's
/// interface, for other programs that link it.
///
/// A fixed number of connections of one connection string, used in strict turn, so that several
/// threads can have statements in flight at once. Any thread may call any member. A connection is
/// handed out whether it is busy or not; its user then waits for that connection's own lock.
///
/// Failures are PostgresqlException with the text that the connection threw. Lock order:
/// poolMutex, then a connection's mutex.
class pgConnectionPool {
 public:
  /// Opens `count` connections, one after the other. When one fails, those already open are
  /// closed and PostgresqlException is thrown. A `count` below 1 gives an empty pool, which must
  /// not be used.
  pgConnectionPool(std::string conninfo, int count);

  /// The same with the five values inserted unquoted into a connection string.
  pgConnectionPool(std::string host, int port, std::string dbname, std::string user,
                   std::string password, int count);

  // NOLINTNEXTLINE(bugprone-exception-escape): a lock that fails here is a fault to stop at.
  virtual ~pgConnectionPool();
  pgConnectionPool(const pgConnectionPool&) = delete;
  pgConnectionPool& operator=(const pgConnectionPool&) = delete;

  /// The connection whose turn it is; it stays the pool's.
  pgSafeThread* getNextConnection();

  /// The index that the next turn looks at; equals the number of connections when the next turn is
  /// that of the first.
  int getNextConnectionID();
  /// The number of connections.
  int getConnectionNumber();
  /// The count of waiting requests: always 0, kept for its readers.
  int getWaitRequest();

  /// Switches the trace of statements. Takes no lock.
  void enableDebugMode(bool isEnabled);
  /// Writes `text` and a newline to standard output and flushes, when the trace is on.
  void Trace(std::string text);

  /// The client encoding of the connection whose turn it is.
  std::string getClientEncoding();

  /// Prepares `sql` under `name` on every connection, in order. Stops at the first failure: the
  /// connections before it keep the statement, the others do not have it.
  void prepareRequest(std::string name, std::string sql, int nParams);
  void prepareRequest(std::string name, std::string sql);

  // Each runs pgSafeThread's operation of the same name on the connection whose turn it is. The
  // caller clears the result. A success is traced as "   [ INDEX ] exec status: STATUS"; INDEX is
  // read after the statement, so another thread's turn may show in it.
  PGresult* executeRequest(std::string sql);
  PGresult* executeParamRequest(std::string sql, std::vector<std::string> params);
  PGresult* executePrepareRequest(std::string name);
  PGresult* executePrepareRequest(std::string name, std::vector<std::string> params);

 private:
  /// Runs `statement` on the connection whose turn it is and traces its status.
  template <typename Statement>
  PGresult* runOnNext(const Statement& statement);

  std::vector<pgSafeThread*> connections;  // owned; guarded by poolMutex
  std::string connectionString;            // constant after construction
  pthread_mutex_t poolMutex{};
  std::uint32_t nextConnection = 0;  // guarded by poolMutex, but for the trace's read
  pthread_mutex_t waitMutex{};
  std::int32_t waitRequest = 0;  // guarded by waitMutex
  bool debug = false;            // read and written without a lock
};
