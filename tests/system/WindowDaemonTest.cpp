#include <algorithm>
#include <csignal>
#include <ctime>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/DaemonTest.h"
#include "tests/support/Ledger.h"
#include "tests/support/Process.h"

namespace {

/// The running daemon and maintenance windows of a few seconds.
class WindowDaemonTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    database.query(readFile(projectFile("sql/windows.sql")));
  }
  void TearDown() override {
    if (daemon.isRunning()) {
      kill();
    }
    account.expectComplete();
  }
  void kill() {
    daemon.signal(SIGKILL);
    EXPECT_EQ(signalOf(daemon.waitForEnd()), SIGKILL);
  }

  void insertTask(int id, const std::string& interval, const std::string& body = "echo fine") {
    TaskRow row = makeTask(id, body);
    row.interval = interval;
    database.insertTask(row);
  }
  /// A window of all tasks from now on, without a spread; when it ends.
  long addWindow(const std::string& length) const {
    database.query("SELECT kodu_window_add('test', lasts => '" + length +
                   "', names => '{*}', spread => '0')");
    return std::stol(
        database.value("SELECT max(EXTRACT(EPOCH FROM ends))::bigint FROM kodu_window_status"));
  }
  /// How many of the task's runs began from `first` on and before `end`.
  long runsBetween(int id, long first, long end) const {
    const std::vector<long> all = ledger(id);
    return std::count_if(all.begin(), all.end(),
                         [&](long run) { return run >= first && run < end; });
  }

  Ledger account{database};
};

TEST_F(WindowDaemonTest, RunsNothingInAWindowAndGoesOnAfterIt) {
  insertTask(1, "2 seconds");
  ASSERT_TRUE(startAndListen());
  ASSERT_TRUE(waitForRuns(1, 2));

  const long told = std::time(nullptr) + 4;  // what was due sooner may have begun
  const long ends = addWindow("12 seconds");
  ASSERT_TRUE(waitForTime(ends + 1));
  const std::size_t before = runs(1);
  ASSERT_TRUE(waitForRuns(1, before + 3));

  EXPECT_EQ(runsBetween(1, told, ends), 0);
  EXPECT_TRUE(daemon.isRunning());
  EXPECT_EQ(account.account(1, "difference"), "0");
  EXPECT_GE(std::stol(account.account(1, "maintenance")), 4);
  EXPECT_EQ(database.task(1, "cron_windows"), "") << "it is forgotten";
}

TEST_F(WindowDaemonTest, CompletesARunThatIsInProgress) {
  insertTask(1, "2 seconds", waitForRelease() + "echo fine");
  ASSERT_TRUE(startAndListen());
  ASSERT_TRUE(waitForStatus(1, "PROCESS"));

  const long ends = addWindow("8 seconds");
  release();
  ASSERT_TRUE(waitForStatus(1, "OK"));

  EXPECT_EQ(runs(1), 1U);
  EXPECT_EQ(database.nextExec(1), ends);
  ASSERT_TRUE(waitForRuns(1, 3));
  EXPECT_GE(ledger(1).at(1), ends);
}

TEST_F(WindowDaemonTest, RunsAtOnceWhenTheWindowIsEndedEarly) {
  insertTask(1, "1 day");
  ASSERT_TRUE(startAndListen());
  ASSERT_TRUE(waitForRuns(1, 1));
  ASSERT_TRUE(waitForStatus(1, "OK"));
  database.query("SELECT kodu_task_set(1, next_run => now() + interval '5 seconds')");
  addWindow("1 hour");
  ASSERT_TRUE(waitForTime(std::time(nullptr) + 6));
  EXPECT_EQ(runs(1), 1U);

  const long ended = std::time(nullptr);
  database.query("SELECT kodu_window_end(1)");
  ASSERT_TRUE(waitForRuns(1, 2));

  EXPECT_LE(ledger(1).back(), ended + 6);
  ASSERT_TRUE(waitForStatus(1, "OK"));
  EXPECT_EQ(database.task(1, "cron_held"), "");
}

TEST_F(WindowDaemonTest, HoldsTasksThatItLoadsAfterACrash) {
  insertTask(1, "2 seconds");
  ASSERT_TRUE(startAndListen());
  ASSERT_TRUE(waitForRuns(1, 1));
  kill();
  ASSERT_TRUE(waitForTime(database.nextExec(1) + 1));
  const long ends = addWindow("6 seconds");
  const std::size_t before = runs(1);

  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForRuns(1, before + 2));

  EXPECT_GE(ledger(1).at(before), ends);
}

}  // namespace
