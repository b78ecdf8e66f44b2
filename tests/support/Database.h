#pragma once

#include <string>
#include <vector>

#include <libpq-fe.h>

/// The definition of a task's row, with harmless values for the columns that a test does not set.
struct TaskRow {
  int id = 1;
  std::string name = "task";
  std::string path = "/bin/true";
  std::string parameter;
  std::string interval = "300 seconds";
  /// An SQL expression of a timestamp; times are UTC.
  std::string nextExec = "date_trunc('second', now() + interval '1 hour')";
  std::string logFile = "out_$SERVICEID_$DATE.txt";
  /// SQL expressions, so that NULL is possible.
  std::string retries = "0";
  std::string retriesInterval = "interval '2 seconds'";
  std::string pluginType = "cron";
};

/// A database on the tests' cluster for one test, copied from the template with the schema. The
/// destructor drops it and ends its sessions. Statements run as the cluster's superuser; the
/// daemon's role has the rights of the shipped schema.
class Database {
 public:
  using Row = std::vector<std::string>;

  Database();
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  /// The libpq connection string for the daemon's role.
  std::string conninfo() const;
  /// The same for the cluster's superuser.
  std::string adminConninfo() const;
  /// The values of conninfo().
  const std::string& host() const { return hostName; }
  int port() const { return portNumber; }
  const std::string& name() const { return databaseName; }
  std::string user() const { return "kodu"; }
  const std::string& password() const { return rolePassword; }

  /// Runs `sql` and returns its rows, NULL as "". Throws std::runtime_error with the server's text.
  std::vector<Row> query(const std::string& sql) const;
  /// The first column of the first row; "" when there is none.
  std::string value(const std::string& sql) const;

  /// Accepts rows from now on that would end the daemon, as an older database may contain.
  void takeAnyRow() const;
  /// Inserts a plugin and a task with the same id.
  void insertTask(const TaskRow& row) const;
  /// A column of a task's row as text; "" without such a row.
  std::string task(int id, const std::string& column) const;
  /// The task's next time, seconds since the epoch.
  long nextExec(int id) const;
  /// The number of the task's history rows.
  int failures(int id) const;
  /// The number of this database's sessions that wait for a lock, up to date also within a
  /// transaction.
  int waitingSessions() const;
  /// Sends a notification on the daemon's channel.
  void notify(const std::string& payload) const;
  /// The server's log lines about this database, without their prefix, in order.
  std::vector<std::string> serverLog() const;

 private:
  std::string hostName;
  int portNumber = 0;
  std::string databaseName;
  std::string rolePassword;
  PGconn* session = nullptr;
};
