#include <algorithm>
#include <ctime>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/DaemonTest.h"

namespace {

using testing::ElementsAre;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kTasks = 300;
constexpr int kSecondsToLoad = 15;
#else
constexpr int kTasks = 2000;
constexpr int kSecondsToLoad = 4;
#endif

constexpr std::chrono::seconds kLimit{100};
/// The first id of the tasks for notifications; they are not due.
constexpr int kNotified = 10001;
constexpr int kNotifiedTasks = 4;

/// Many tasks due in one second, with notifications at the same time. The daemon would end or hang
/// if two threads used libpq at once.
class BurstTest : public testing::Test {
 protected:
  /// The tasks of the burst, due at `due`, and those of the notifications. The plugin adds its
  /// parameter, the task's id, to the ledger and prints it.
  void insertTasks() {
    const std::string plugin =
        writePlugin(daemon.directory / "plugin", "echo $1 >>" + ledgerPath() + "; echo $1");
    database.query("INSERT INTO kodu_plugins VALUES (1, 'task', '" + plugin + "', 'cron')");
    insertRows(1, kTasks, "interval '" + std::to_string(kSecondsToLoad) + " seconds'");
    insertRows(kNotified, kNotifiedTasks, "interval '1 hour'");
    due = database.nextExec(1);
  }

  void insertRows(int firstId, int count, const std::string& delay) const {
    database.query(
        "INSERT INTO kodu_cron_plugin(cron_id, cron_plugin_id, cron_interval, cron_next_exec,"
        " cron_log_file, cron_parameter) SELECT id, 1, interval '1 hour',"
        " date_trunc('second', now()) + " +
        delay + ", 'out_$SERVICEID_$DATE.txt', id FROM generate_series(" + std::to_string(firstId) +
        ", " + std::to_string(firstId + count - 1) + ") id");
  }

  /// One notification of each kind; two are for tasks to load.
  void notify() {
    const std::string id = std::to_string(kNotified + notifications % kNotifiedTasks);
    const std::string service = R"({"TYPE":"SERVICE","COMMAND":")";
    const std::vector<std::string> payloads = {
        service + R"(UPDATE","ID":)" + id + "}",
        service + R"(ADD","ID":)" + id + "}",
        service + R"(DELETE","ID":1})",
        service + R"(update","ID":1})",
        R"({"TYPE":"DEVICE","COMMAND":"ADD","ID":1})",
        "{}",
        "no json",
    };
    for (const std::string& payload : payloads) {
      database.notify(payload);
    }
    notifications += static_cast<int>(payloads.size());
  }

  int tasksWithStatus(const std::string& status) const {
    return std::stoi(database.value("SELECT count(*) FROM kodu_cron_plugin WHERE cron_status = '" +
                                    status + "' AND cron_id <= " + std::to_string(kTasks)));
  }

  std::string ledgerPath() const { return daemon.directory / "ledger"; }

  /// Expects the ledger to hold each task's id once, and each task its output file.
  void expectEachRanOnce() const {
    const auto ledger = readLines(ledgerPath());
    EXPECT_EQ(ledger.size(), static_cast<std::size_t>(kTasks));
    EXPECT_EQ(std::set<std::string>(ledger.begin(), ledger.end()).size(), ledger.size());
    for (int id = 1; id <= kTasks; ++id) {
      const std::string text = std::to_string(id);
      ASSERT_EQ(daemon.output("out_" + text + "_last.txt"), text + "\n");
    }
    EXPECT_EQ(filesIn(daemon.outputDirectory()).size(), kTasks + 1U);  // the archive is one entry
    EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_error"), "0");
  }

  /// Expects each row of the burst to have moved by exactly one interval.
  void expectEachMovedOnce() const {
    const std::string epoch = "EXTRACT(EPOCH FROM cron_";
    EXPECT_THAT(
        database.query(
            "SELECT DISTINCT cron_status, " + epoch + "last_exec)::bigint, " + epoch +
            "next_exec)::bigint FROM kodu_cron_plugin WHERE cron_id <= " + std::to_string(kTasks)),
        ElementsAre(ElementsAre("OK", std::to_string(due), std::to_string(due + 3600))));
  }

  /// Expects the listener, the timer and a worker to serve one more task.
  void expectToGoOn() const {
    const int id = kNotified + kNotifiedTasks;
    insertRows(id, 1, "interval '2 seconds'");
    database.query("UPDATE kodu_cron_plugin SET cron_interval = '5 seconds' WHERE cron_id = " +
                   std::to_string(id));
    database.notify(R"({"TYPE":"SERVICE","COMMAND":"ADD","ID":)" + std::to_string(id) + "}");
    EXPECT_TRUE(waitUntil([&] { return database.task(id, "cron_status") == "OK"; }, kLimit));
  }

  Database database;
  Daemon daemon{database};
  long due = 0;
  int notifications = 0;
};

TEST_F(BurstTest, RunsEachTaskOnce) {
  daemon.threadNumber = "8";
  daemon.writeConfig();
  insertTasks();
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_LT(std::time(nullptr), due) << "the tasks were loaded too late to be due together";

  ASSERT_TRUE(waitUntil(
      [&] {
        notify();
        return tasksWithStatus("OK") == kTasks || !daemon.isRunning();
      },
      kLimit))
      << tasksWithStatus("OK") << " tasks ran, " << tasksWithStatus("PROCESS") << " hang";

  ASSERT_TRUE(daemon.isRunning()) << daemon.console();
  EXPECT_GE(notifications, 700);
  expectEachRanOnce();
  expectEachMovedOnce();
  expectToGoOn();
}

}  // namespace
