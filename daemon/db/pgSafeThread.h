#pragma once

#include <pthread.h>

#include <string>
#include <vector>

#include <libpq-fe.h>

#include "db/turn.h"

/// One PostgreSQL connection that several threads share. Any thread may call any member. The
/// connection is made once and never renewed: when the server is lost, every later call throws.
///
/// Two locks: `mutex` makes each statement one step for the threads that run statements; `wire` is
/// held around every single libpq call on the connection, by the statements (after `mutex`) and by
/// the listener (alone, never `mutex`), because libpq must not be entered by two threads at once.
/// Otherwise the reader of notifications would take another thread's reply, for which that thread
/// would wait forever. A statement that waits for a row's lock holds both locks meanwhile, so the
/// listener waits for `wire` only for a limited time.
///
/// Statements that fail throw PostgresqlException: a fixed prefix that ends in two blanks, then
/// the server's message, its trailing newline kept. The locks are released and the failed result
/// is cleared by then, and nothing is rolled back: each statement is a transaction of its own. A
/// result that is returned belongs to the caller, who clears it. Parameters are sent as text and
/// are never NULL; results come as text.
class pgSafeThread {
 public:
  /// Connects with a libpq connection string. Throws PostgresqlException with libpq's message and
  /// a newline; no retry is made.
  explicit pgSafeThread(std::string conninfo);

  /// Connects with these five values, inserted unquoted: a value with a blank or a quote breaks
  /// the connection string. Throws as above, the text followed by the connection string without
  /// its password.
  pgSafeThread(std::string host, int port, std::string dbname, std::string user,
               std::string password);

  virtual ~pgSafeThread();
  pgSafeThread(const pgSafeThread&) = delete;
  pgSafeThread& operator=(const pgSafeThread&) = delete;

  /// The client encoding's name, such as "UTF8".
  std::string getClientEncoding();

  /// Runs `sql`. Throws with "execute failed:  ".
  PGresult* executeRequest(std::string sql);
  /// Runs `sql` with $1 to $n from `params`. Throws with "Execute failed:  ".
  PGresult* executeParamRequest(std::string sql, std::vector<std::string> params);

  /// Prepares `sql` under `name` for the life of the connection. Throws with "prepare failed:  ",
  /// also when the name is taken.
  void prepareRequest(std::string name, std::string sql, int nParams);
  /// The same for a statement without parameters.
  void prepareRequest(std::string name, std::string sql);

  /// Runs the statement prepared under `name` with $1 to $n from `params`. Throws with
  /// "Exec prepareRequest failed:  ".
  PGresult* executePrepareRequest(std::string name, std::vector<std::string> params);
  /// The same without parameters.
  PGresult* executePrepareRequest(std::string name);

  /// For the listener, who polls it under `wire`. Constant after construction, owned by this
  /// object.
  PGconn* connection = nullptr;

  /// Held around every libpq call on `connection`, for that one call.
  Turn wire;

 private:
  enum class MessageSource { kConnection, kResult };

  /// Connects with `connectionString`. Throws PostgresqlException, libpq's message followed by
  /// `failureTail`.
  void connect(const std::string& failureTail);

  /// Makes one libpq call that yields a result, under both locks.
  template <typename Call>
  PGresult* run(const char* failurePrefix, MessageSource source, const Call& call);

  std::string connectionString;  // constant after construction
  pthread_mutex_t mutex{};       // initialised once the connection stands
};

/// The libpq connection string of these five values, in this order, unquoted.
std::string conninfoOf(const std::string& host, int port, const std::string& dbname,
                       const std::string& user);
