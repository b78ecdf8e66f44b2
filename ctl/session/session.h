#pragma once

#include <functional>
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

/// Reads the fields of one row one after the other, in the order of the SELECT: a million rows are
/// not to look up their columns' names. Throws Failure as Rows does.
class Fields {
 public:
  /// `row` outlives this object.
  explicit Fields(const ResultPtr& row) : result(row) {}

  bool isTrue() { return text() == "t"; }
  /// "" for SQL NULL.
  std::string text();
  std::optional<std::string> optionalText();
  /// 0 for SQL NULL.
  long number() { return optionalNumber().value_or(0); }
  std::optional<long> optionalNumber();

 private:
  int take();

  const ResultPtr& result;
  int next = 0;
};

/// The messages that a statement causes beside its result, on standard error: a change of ten
/// thousand tasks may cause as many, so only the first ones are printed and the others counted.
class Notices {
 public:
  void add(const char* message);
  /// Says how many were not printed. The next statement begins a new count.
  void end();

 private:
  long count = 0, hidden = 0;
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
  /// The same for a result of any size: calls `use` for each row as it arrives, and keeps none.
  /// When `use` throws, the session can only be closed.
  void forEachRow(const std::string& sql, const std::vector<std::string>& params,
                  const std::function<void(Fields&)>& use);
  /// Runs statements, separated by semicolons, and discards the results. Sets no limit: the
  /// statements may set one.
  void execute(const std::string& sql);
  /// Gives a role a password, of which the server sees only what it keeps. Throws as query().
  void setPassword(const std::string& role, const std::string& password);

 private:
  void send(const std::string& sql, const std::vector<std::string>& params);
  ResultPtr awaitResult(int limit);
  void awaitReply(int limit, LockWatch& watch);
  [[noreturn]] void fail(const ResultPtr& result, const LockWatch& watch) const;

  const std::string conninfo;
  const int lockTimeout, statementTimeout;  // seconds; 0 is no limit
  const bool namesLockHolders;
  std::string advice;  // added to an error about a table, column or function that is missing
  Notices notices;     // outlives the connection, which writes to it
  Connection connection;
};

/// True when the daemon has a session in the database.
bool isDaemonConnected(Session& session);

/// The number of daemons that are connected to the database, each with one session.
long countDaemons(Session& session);

/// The server's clock, in seconds since the epoch: the times of tasks go by it, not by this
/// machine's.
long serverTime(Session& session);

/// The server's message without severity, code and context.
std::string serverMessage(const std::string& text);
