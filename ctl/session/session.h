#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ctl/session/config.h"
#include "ctl/session/lockWatch.h"
#include "db/result.h"

struct Options;

/// A statement's rows, read by column name. Throws Failure (kNoDatabase) for a row or a column that
/// is not there, and for a number that is none: then no PostgreSQL has answered.
class Rows {
 public:
  explicit Rows(PGresult* owned) : result(owned) {}

  int count() const { return PQntuples(result.get()); }
  /// The number of rows that the statement has inserted, changed or deleted.
  long affected() const;
  bool isNull(int row, const char* column) const;
  /// "" for SQL NULL.
  std::string text(int row, const char* column) const;
  std::optional<std::string> optionalText(int row, const char* column) const;
  /// 0 for SQL NULL.
  long number(int row, const char* column) const;
  std::optional<long> optionalNumber(int row, const char* column) const;
  bool isTrue(int row, const char* column) const { return text(row, column) == "t"; }

 private:
  int indexOf(int row, const char* column) const;

  ResultPtr result;
};

/// Which versions of the tables a session accepts.
enum class SchemaRule {
  kKnownVersion,  // tables of a later release are refused
  kAnyVersion,
};

/// koductl's own session in the daemon's database, in UTC. Failures are thrown as Failure. The
/// options limit how long a statement waits for a lock and how long it runs.
class Session {
 public:
  /// Reads the INI files and connects as the options say.
  explicit Session(const Options& options, SchemaRule rule = SchemaRule::kKnownVersion);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  const DaemonConfig config;

  /// Refuses every change of the database from now on.
  void makeReadOnly();

  /// Runs one statement with $1 to $n from `params`. Throws Failure: kNoDatabase when the session
  /// is lost or a limit is reached, with the lock and its holder; kNotPermitted when a right is
  /// missing; otherwise kRefused with the server's message.
  Rows query(const std::string& sql, const std::vector<std::string>& params = {});
  /// Runs statements, separated by semicolons, and discards the results. Sets no limit: the
  /// statements may set one.
  void execute(const std::string& sql);

 private:
  ResultPtr awaitResult(int limit);
  [[noreturn]] void fail(const ResultPtr& result, const LockWatch& watch) const;

  const std::string conninfo;
  const int lockTimeout, statementTimeout;  // seconds; 0 is no limit
  std::string advice;  // added to an error about a table, column or function that is missing
  Connection connection;
};

/// True when the daemon has a session in the database.
bool isDaemonConnected(Session& session);

/// The number of daemons that are connected to the database, each with one session.
long countDaemons(Session& session);

/// The server's message without severity, code and context.
std::string serverMessage(const std::string& text);
