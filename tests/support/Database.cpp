#include "tests/support/Database.h"

#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include "db/result.h"
#include "tests/support/Files.h"

namespace {

std::string clusterDirectory() {
  const char* directory = std::getenv("KODU_TEST_CLUSTER");
  if (directory == nullptr) {
    throw std::runtime_error(
        "KODU_TEST_CLUSTER is not set: run the tests by scripts/test, or start a cluster with "
        "tests/testCluster start DIR and set KODU_TEST_CLUSTER=DIR");
  }
  return directory;
}

std::string firstLine(const std::string& path) {
  const auto lines = readLines(path);
  if (lines.empty()) {
    throw std::runtime_error(path + " is empty or missing: is the tests' cluster running?");
  }
  return lines.front();
}

/// The value of `key` in a libpq connection string without quotes.
std::string conninfoValue(const std::string& conninfo, const std::string& key) {
  const auto begin = conninfo.find(key + "=") + key.size() + 1;
  return conninfo.substr(begin, conninfo.find(' ', begin) - begin);
}

PGconn* connect(const std::string& conninfo) {
  PGconn* connection = PQconnectdb(conninfo.c_str());
  if (PQstatus(connection) != CONNECTION_OK) {
    const std::string message = PQerrorMessage(connection);
    PQfinish(connection);
    throw std::runtime_error("the tests' cluster does not answer: " + message);
  }
  return connection;
}

std::vector<Database::Row> run(PGconn* connection, const std::string& sql) {
  const ResultPtr result(PQexec(connection, sql.c_str()));
  const ExecStatusType status = PQresultStatus(result.get());
  if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
    throw std::runtime_error(sql + ": " + PQresultErrorMessage(result.get()));
  }
  std::vector<Database::Row> rows;
  for (int i = 0; i < PQntuples(result.get()); ++i) {
    Database::Row row;
    for (int column = 0; column < PQnfields(result.get()); ++column) {
      row.emplace_back(PQgetvalue(result.get(), i, column));
    }
    rows.push_back(row);
  }
  return rows;
}

std::string quoted(const std::string& text) {
  std::string literal = "'";
  for (const char c : text) {
    literal += c == '\'' ? "''" : std::string(1, c);
  }
  return literal + "'";
}

std::string uniqueName() {
  static int count = 0;
  return "kodu_test_" + std::to_string(getpid()) + "_" + std::to_string(++count);
}

}  // namespace

Database::Database() : databaseName(uniqueName()) {
  const std::string cluster = clusterDirectory();
  const std::string conninfo = firstLine(cluster + "/conninfo");
  hostName = conninfoValue(conninfo, "host");
  portNumber = std::stoi(conninfoValue(conninfo, "port"));
  rolePassword = firstLine(cluster + "/kodu.password");
  PGconn* maintenance = connect(conninfo + " dbname=postgres");
  run(maintenance, "CREATE DATABASE " + databaseName + " TEMPLATE kodu_template");
  PQfinish(maintenance);
  session = connect(conninfo + " dbname=" + databaseName);
}

Database::~Database() {
  PQfinish(session);
  try {
    PGconn* maintenance = connect(firstLine(clusterDirectory() + "/conninfo") + " dbname=postgres");
    run(maintenance, "DROP DATABASE " + databaseName + " WITH (FORCE)");
    PQfinish(maintenance);
  } catch (const std::exception&) {
    // The cluster is removed with all its databases at the end of the test run.
  }
}

std::string Database::conninfo() const {
  return "host=" + hostName + " port=" + std::to_string(portNumber) + " dbname=" + databaseName +
         " user=" + user() + " password=" + rolePassword;
}

std::string Database::adminConninfo() const {
  return firstLine(clusterDirectory() + "/conninfo") + " dbname=" + databaseName;
}

void Database::takeAnyRow() const {
  query(
      "DO $$ DECLARE refusal record; BEGIN"
      " FOR refusal IN SELECT tgname, tgrelid::regclass AS place FROM pg_trigger"
      "  WHERE tgname LIKE 'kodu\\_refuse\\_%' LOOP"
      "  EXECUTE format('ALTER TABLE %s DISABLE TRIGGER %I', refusal.place, refusal.tgname);"
      " END LOOP; END $$; DROP INDEX IF EXISTS cron_log_file_of_one_task;"
      " CREATE OR REPLACE FUNCTION kodu_check_next_run(old kodu_cron_plugin, new kodu_cron_plugin)"
      " RETURNS void LANGUAGE sql AS 'SELECT'");
}

std::vector<Database::Row> Database::query(const std::string& sql) const {
  return run(session, sql);
}

std::string Database::value(const std::string& sql) const {
  const auto rows = query(sql);
  return rows.empty() ? "" : rows.front().front();
}

void Database::insertTask(const TaskRow& row) const {
  const std::string id = std::to_string(row.id);
  query("INSERT INTO kodu_plugins(plugin_id, plugin_name, plugin_path, plugin_type) VALUES (" + id +
        ", " + quoted(row.name) + ", " + quoted(row.path) + ", " + quoted(row.pluginType) + ")");
  query(
      "INSERT INTO kodu_cron_plugin(cron_id, cron_plugin_id, cron_interval, cron_next_exec, "
      "cron_log_file, cron_retries, cron_retries_interval, cron_parameter) VALUES (" +
      id + ", " + id + ", " + quoted(row.interval) + ", " + row.nextExec + ", " +
      quoted(row.logFile) + ", " + row.retries + ", " + row.retriesInterval + ", " +
      quoted(row.parameter) + ")");
}

std::string Database::task(int id, const std::string& column) const {
  return value("SELECT " + column + " FROM kodu_cron_plugin WHERE cron_id = " + std::to_string(id));
}

long Database::nextExec(int id) const {
  return std::stol(task(id, "EXTRACT(EPOCH FROM cron_next_exec)::bigint"));
}

int Database::failures(int id) const {
  return std::stoi(
      value("SELECT count(*) FROM kodu_cron_error WHERE cron_id = " + std::to_string(id)));
}

int Database::waitingSessions() const {
  query("SELECT pg_stat_clear_snapshot()");
  return std::stoi(
      value("SELECT count(*) FROM pg_locks WHERE NOT granted AND pid IN (SELECT pid FROM "
            "pg_stat_activity WHERE datname = current_database())"));
}

void Database::notify(const std::string& payload) const {
  query("SELECT pg_notify('koducronchannel', " + quoted(payload) + ")");
}

std::vector<std::string> Database::serverLog() const {
  std::vector<std::string> lines;
  for (const std::string& line : readLines(clusterDirectory() + "/server.log")) {
    if (line.starts_with(databaseName + " ")) {
      const auto pidEnd = line.find(' ', databaseName.size() + 1);
      lines.push_back(line.substr(pidEnd + 1));
    }
  }
  return lines;
}
