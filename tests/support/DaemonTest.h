#pragma once

#include <chrono>
#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Daemon.h"
#include "tests/support/Database.h"
#include "tests/support/waitUntil.h"

/// A task's row after one statement of the daemon; times in seconds since the epoch.
struct Change {
  std::string status;
  long lastExec = 0;  // 0 before the first run's end
  long nextExec = 0;

  bool operator==(const Change&) const = default;
};

/// The daemon on a database that records every change that the daemon makes to a task's row, with
/// plugins that record their runs in a ledger.
class DaemonTest : public testing::Test {
 protected:
  /// A limit for tasks that may miss their first slot on a busy machine: more than one interval of
  /// kLong.
  static constexpr std::chrono::seconds kPatience{75};
  /// An interval longer than any test.
  static constexpr long kLongSeconds = 30;
  static constexpr const char* kLong = "30 seconds";
  /// A due time that is still ahead when the daemon loads the row. A later load moves it by one
  /// interval.
  static constexpr const char* kSoon = "date_trunc('second', now()) + interval '2 seconds'";

  void SetUp() override {
    database.query(
        "CREATE TABLE journal (step serial, id int, status text, last_exec timestamp,"
        " next_exec timestamp, is_move boolean);"
        "CREATE FUNCTION keep() RETURNS trigger LANGUAGE plpgsql SECURITY DEFINER AS $$BEGIN"
        " INSERT INTO journal(id, status, last_exec, next_exec, is_move) VALUES (NEW.cron_id,"
        "  NEW.cron_status, NEW.cron_last_exec, NEW.cron_next_exec,"
        "  NEW.cron_last_exec IS NOT DISTINCT FROM OLD.cron_last_exec"
        "  AND NEW.cron_next_exec <> OLD.cron_next_exec);"
        " RETURN NULL; END$$;"
        "CREATE TRIGGER keep AFTER UPDATE ON kodu_cron_plugin FOR EACH ROW"
        " WHEN (current_user = 'kodu') EXECUTE FUNCTION keep()");
  }

  /// A task that is due soon, with a long interval and no retries. Its plugin writes the second of
  /// its start to its ledger and continues with `body`.
  TaskRow makeTask(int id, const std::string& body) const {
    TaskRow row;
    row.id = id;
    row.name = "task" + std::to_string(id);
    row.path =
        writePlugin(daemon.directory / row.name, "/bin/date +%s >>" + ledgerPath(id) + "\n" + body);
    row.interval = kLong;
    row.nextExec = kSoon;
    return row;
  }

  /// A shell command that ends once the test has called release().
  std::string waitForRelease() const {
    return "until [ -e " + releasePath() + " ]; do /bin/sleep 0.05; done; ";
  }
  void release() const { writeFile(releasePath(), ""); }

  /// The seconds at which the task's plugin was started, in order.
  std::vector<long> ledger(int id) const {
    std::vector<long> times;
    for (const std::string& line : readLines(ledgerPath(id))) {
      times.push_back(std::stol(line));
    }
    return times;
  }
  std::size_t runs(int id) const { return ledger(id).size(); }

  /// The task's changes of status, in order.
  std::vector<Change> changes(int id) const { return journal(id, "NOT is_move"); }
  /// The changes of only its next time, by whole intervals out of the past.
  std::vector<Change> moves(int id) const { return journal(id, "is_move"); }

  bool waitForStatus(int id, const std::string& status) const {
    return waitUntil([&] { return database.task(id, "cron_status") == status; }, kPatience);
  }
  bool waitForRuns(int id, std::size_t count) const {
    return waitUntil([&] { return runs(id) >= count; }, kPatience);
  }
  bool waitForLog(const std::string& line, long count = 1) const {
    return waitUntil([&] { return daemon.logged(line) >= count; }, kPatience);
  }
  static bool waitForTime(long seconds) {
    return waitUntil([=] { return std::time(nullptr) >= seconds; }, kPatience);
  }

  /// Starts the daemon with a log of all levels, and returns when it receives notifications: one
  /// that is sent before its subscription is lost. The notifications that this function sends have
  /// no effect.
  bool startAndListen() {
    daemon.start({"-D"});
    int looks = 0;
    return waitUntil(
        [&] {
          if (looks++ % 20 == 0) {
            database.notify("{}");
          }
          return daemon.logged("DEBUG#TH LISTENER# Notify string receive :{}") > 0;
        },
        kPatience);
  }
  static std::string payload(const std::string& command, int id) {
    return R"({"TYPE":"SERVICE","COMMAND":")" + command + R"(","ID":)" + std::to_string(id) + "}";
  }

  Database database;
  Daemon daemon{database};

 private:
  std::string ledgerPath(int id) const { return daemon.directory / ("runs" + std::to_string(id)); }
  std::string releasePath() const { return daemon.directory / "released"; }

  std::vector<Change> journal(int id, const std::string& condition) const {
    std::vector<Change> found;
    for (const auto& row :
         database.query("SELECT status, COALESCE(EXTRACT(EPOCH FROM last_exec), 0)::bigint,"
                        " EXTRACT(EPOCH FROM next_exec)::bigint FROM journal WHERE id = " +
                        std::to_string(id) + " AND " + condition + " ORDER BY step")) {
      found.push_back({row[0], std::stol(row[1]), std::stol(row[2])});
    }
    return found;
  }
};

inline void PrintTo(const Change& change, std::ostream* out) {
  *out << "{" << change.status << ", " << change.lastExec << ", " << change.nextExec << "}";
}
