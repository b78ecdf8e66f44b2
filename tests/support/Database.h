#pragma once

#include <string>
#include <vector>

#include <libpq-fe.h>

/// The definition of a task's row; what a test does not name has a harmless value.
struct TaskRow {
  int id = 1;
  std::string name = "task";
  std::string path = "/bin/true";
  std::string parameter;
  std::string interval = "300 seconds";
  /// An SQL expression of a timestamp; times are UTC.
  std::string nextExec = "date_trunc('second', now() + interval '1 hour')";
  std::string logFile = "out_$SERVICEID_$DATE.txt";
  /// SQL expressions, so that NULL can be said.
  std::string retries = "0";
  std::string retriesInterval = "interval '2 seconds'";
  std::string pluginType = "cron";
};

/// A database of the test's own on the tests' cluster, made from the template with the schema, and
/// dropped with all its sessions when it goes. Statements run as the cluster's superuser; the
/// daemon's own role has the rights of the shipped schema.
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

  /// Takes rows from here on that would end the daemon, as an older database may hold.
  void takeAnyRow() const;
  /// Inserts a plugin and a task with the same id.
  void insertTask(const TaskRow& row) const;
  /// A column of a task's row as text; "" when the row is gone.
  std::string task(int id, const std::string& column) const;
  /// The task's next time, seconds since the epoch.
  long nextExec(int id) const;
  /// The number of the task's history rows.
  int failures(int id) const;
  /// The number of this database's sessions that wait for a lock. Sees the present also within a
  /// transaction.
  int waitingSessions() const;
  /// Sends a notification on the daemon's channel.
  void notify(const std::string& payload) const;
  /// The log lines of the server that are about this database, without their prefix, in order.
  std::vector<std::string> serverLog() const;

 private:
  std::string hostName;
  int portNumber = 0;
  std::string databaseName;
  std::string rolePassword;
  PGconn* session = nullptr;
};
