#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/DaemonTest.h"
#include "tests/support/Process.h"

namespace {

using testing::ElementsAre;

namespace fs = std::filesystem;

constexpr const char* kPurged = "DEBUG#DELETE END";

/// Tasks flagged for deletion, with the running daemon.
class PurgeEndToEndTest : public DaemonTest {
 protected:
  /// A task that is not due during a test, with an output file, an archive and a history.
  void insertOldTask(int id, const std::string& pluginType = "cron") const {
    TaskRow row = makeTask(id, "echo fine");
    row.pluginType = pluginType;
    row.nextExec = TaskRow().nextExec;
    row.logFile = "report_$DATE_$SERVICEID.txt";
    database.insertTask(row);
    database.query("INSERT INTO kodu_cron_error(cron_id, cron_logfile) VALUES (" +
                   std::to_string(id) + ", 'copy'), (" + std::to_string(id) + ", 'copy2')");
    fs::create_directories(archive(id) + "/deeper");
    writeFile(archive(id) + "/copy", "bad\n");
    writeFile(archive(id) + "/deeper/copy2", "bad\n");
    writeFile(currentOutput(id), "fine\n");
  }

  void flag(int id) const {
    database.query("UPDATE kodu_cron_plugin SET cron_delete = TRUE WHERE cron_id = " +
                   std::to_string(id));
  }

  std::string archive(int id) const {
    return daemon.outputDirectory() + "/archive/" + std::to_string(id);
  }
  std::string currentOutput(int id) const {
    return daemon.outputDirectory() + "/report_last_" + std::to_string(id) + ".txt";
  }
  bool hasRow(int id) const { return !database.task(id, "cron_id").empty(); }

  void expectPurged(int id) const {
    EXPECT_FALSE(hasRow(id));
    EXPECT_EQ(database.failures(id), 0);
    EXPECT_FALSE(fs::exists(archive(id)));
    EXPECT_FALSE(fs::exists(currentOutput(id)));
  }
  void expectUntouched(int id) const {
    EXPECT_TRUE(hasRow(id));
    EXPECT_EQ(database.failures(id), 2);
    EXPECT_EQ(readFile(archive(id) + "/deeper/copy2"), "bad\n");
    EXPECT_EQ(readFile(currentOutput(id)), "fine\n");
  }

  /// The number of times that a worker has woken up.
  long wakeUps() const {
    return daemon.logged("DEBUG#TH EXEC wake up 0") + daemon.logged("DEBUG#TH EXEC wake up 1");
  }

  /// The log's lines about purges.
  std::vector<std::string> purgeLog() const {
    auto log = daemon.log();
    std::erase_if(log, [](const std::string& line) { return !line.starts_with("DEBUG#DELETE"); });
    return log;
  }
};

TEST_F(PurgeEndToEndTest, PurgesFlaggedTasksAtOnce) {
  for (const int id : {1, 2, 3}) {
    insertOldTask(id);
  }
  flag(1);
  flag(3);

  ASSERT_TRUE(daemon.startAndWait({"-D"}));

  ASSERT_TRUE(waitForLog(kPurged));
  expectPurged(1);
  expectUntouched(2);
  expectPurged(3);
  EXPECT_THAT(purgeLog(), ElementsAre("DEBUG#DELETE TASK: 1", "DEBUG#DELETE TASK: 3", kPurged));
}

TEST_F(PurgeEndToEndTest, LogsOneLineWhenNothingIsFlagged) {
  insertOldTask(1);

  ASSERT_TRUE(daemon.startAndWait({"-D"}));

  ASSERT_TRUE(waitForLog(kPurged));
  expectUntouched(1);
  EXPECT_THAT(purgeLog(), ElementsAre(kPurged));
}

TEST_F(PurgeEndToEndTest, PurgesATaskWithoutFiles) {
  insertOldTask(1);
  fs::remove_all(archive(1));
  fs::remove(currentOutput(1));
  flag(1);

  ASSERT_TRUE(daemon.startAndWait({"-D"}));

  ASSERT_TRUE(waitForLog(kPurged));
  expectPurged(1);
}

// The daemon does not know the file name of a task that was never loaded.
TEST_F(PurgeEndToEndTest, LeavesTheOutputFileOfATaskThatIsNotLoaded) {
  insertOldTask(1, "service");
  flag(1);

  ASSERT_TRUE(daemon.startAndWait({"-D"}));

  ASSERT_TRUE(waitForLog(kPurged));
  EXPECT_EQ(readFile(currentOutput(1)), "fine\n");
  fs::remove(currentOutput(1));
  expectPurged(1);
}

TEST_F(PurgeEndToEndTest, CompletesAnInterruptedPurge) {
  insertOldTask(1);
  flag(1);
  database.query("REVOKE DELETE ON kodu_cron_plugin FROM kodu");
  daemon.start({"-D"});
  EXPECT_EQ(signalOf(daemon.waitForEnd()), SIGABRT);
  EXPECT_TRUE(hasRow(1));
  EXPECT_EQ(database.failures(1), 0);
  EXPECT_FALSE(fs::exists(archive(1)));
  EXPECT_EQ(daemon.logged(kPurged), 0);

  database.query("GRANT DELETE ON kodu_cron_plugin TO kodu");
  ASSERT_TRUE(daemon.startAndWait({"-D"}));

  ASSERT_TRUE(waitForLog(kPurged));
  expectPurged(1);
}

TEST_F(PurgeEndToEndTest, DropsAPurgedTaskWhenItsTimeComes) {
  database.insertTask(makeTask(1, "echo fine"));
  database.insertTask(makeTask(2, "echo fine"));
  flag(1);

  ASSERT_TRUE(daemon.startAndWait({"-D"}));

  ASSERT_TRUE(waitForLog("DEBUG#TH TIME: Send task to execution task1"));
  ASSERT_TRUE(waitForStatus(2, "OK"));
  ASSERT_TRUE(waitUntil([&] { return wakeUps() >= 2; }, kPatience));
  EXPECT_EQ(daemon.logged("DEBUG#TH EXEC: crontask exec task1"), 0);
  EXPECT_EQ(runs(1), 0U);
  EXPECT_FALSE(fs::exists(daemon.outputDirectory() + "/out_1_last.txt"));
}

class SlowPurgeEndToEndTest : public PurgeEndToEndTest {
 protected:
  static constexpr std::chrono::seconds kPeriod{120};
  /// A purge period, and time for a busy machine.
  static constexpr std::chrono::seconds kPeriodPatience{160};

  bool waitForPurge(long count) const {
    return waitUntil([&] { return daemon.logged(kPurged) >= count; }, kPeriodPatience);
  }
};

TEST_F(SlowPurgeEndToEndTest, PurgesATaskThatIsFlaggedWhileItRuns) {
  insertOldTask(1);
  ASSERT_TRUE(daemon.startAndWait({"-D"}));
  ASSERT_TRUE(waitForPurge(1));
  const auto firstPurge = std::chrono::steady_clock::now();

  flag(1);

  ASSERT_TRUE(waitForPurge(2));
  EXPECT_GT(std::chrono::steady_clock::now() - firstPurge, kPeriod - std::chrono::seconds(5));
  expectPurged(1);
  EXPECT_THAT(purgeLog(), ElementsAre(kPurged, "DEBUG#DELETE TASK: 1", kPurged));
}

TEST_F(SlowPurgeEndToEndTest, DropsAPurgedTaskThatWaitsForAWorker) {
  daemon.threadNumber = "1";
  daemon.writeConfig();
  database.insertTask(makeTask(1, waitForRelease() + "echo fine"));
  TaskRow waiting = makeTask(2, "echo fine");
  waiting.nextExec = "date_trunc('second', now()) + interval '5 seconds'";
  database.insertTask(waiting);
  ASSERT_TRUE(daemon.startAndWait({"-D"}));
  ASSERT_TRUE(waitForRuns(1, 1));
  ASSERT_TRUE(waitForLog("DEBUG#TH TIME: Send task to execution task2"));
  flag(2);
  ASSERT_TRUE(waitForPurge(2));
  EXPECT_FALSE(hasRow(2));

  release();

  ASSERT_TRUE(waitForStatus(1, "OK"));
  ASSERT_TRUE(waitForLog("DEBUG#TH EXEC wake up 0", 2));
  // The worker removes it before its next task.
  ASSERT_TRUE(waitForRuns(1, 2));
  EXPECT_EQ(daemon.logged("DEBUG#TH EXEC: crontask exec task2"), 0);
  EXPECT_EQ(runs(2), 0U);
}

}  // namespace
