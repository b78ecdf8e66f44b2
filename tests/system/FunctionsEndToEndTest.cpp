#include <algorithm>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/DaemonTest.h"
#include "tests/support/Ledger.h"

namespace {

using testing::IsEmpty;

/// The running daemon, and an administrator who uses only SQL.
class FunctionsEndToEndTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    daemon.programVariable = "KODU_TEST_SHORT_PURGE_DAEMON";
  }

  void TearDown() override { accounts.expectComplete(); }

  /// A task that runs each second.
  TaskRow makeQuickTask(int id, const std::string& body = "echo fine") const {
    TaskRow row = makeTask(id, body);
    row.interval = "1 second";
    return row;
  }
  /// A task that is not due during a test.
  TaskRow makeWaitingTask(int id) const {
    TaskRow row = makeTask(id, "echo fine");
    row.nextExec = TaskRow().nextExec;
    return row;
  }

  /// Calls a function as an administrator.
  std::string call(const std::string& function) const {
    database.query("SET ROLE kodu_admin");
    std::string result = database.value("SELECT " + function);
    database.query("RESET ROLE");
    return result;
  }

  /// Returns once another task, inserted now, has run three times.
  void letOthersRun(int id) const {
    database.insertTask(makeQuickTask(id));
    EXPECT_TRUE(waitForRuns(id, 3));
  }

  /// The payloads that the daemon has received, except those of its start.
  std::vector<std::string> received() const {
    const std::string begin = "DEBUG#TH LISTENER# Notify string receive :";
    std::vector<std::string> payloads;
    for (const std::string& line : daemon.log()) {
      if (line.starts_with(begin) && line != begin + "{}") {
        payloads.push_back(line.substr(begin.size()));
      }
    }
    return payloads;
  }

  const Ledger accounts{database};
};

TEST_F(FunctionsEndToEndTest, RunsATaskThatPlainSqlInserts) {
  ASSERT_TRUE(startAndListen());

  database.insertTask(makeTask(7, "echo fine"));

  ASSERT_TRUE(waitForStatus(7, "OK"));
  EXPECT_EQ(daemon.output("out_7_last.txt"), "fine\n");
}

TEST_F(FunctionsEndToEndTest, RunsTheDefinitionThatPlainSqlChanges) {
  database.insertTask(makeQuickTask(5, R"(echo "$1")"));
  ASSERT_TRUE(startAndListen());
  ASSERT_TRUE(waitForStatus(5, "OK"));

  database.query("UPDATE kodu_cron_plugin SET cron_parameter = 'new'");

  EXPECT_TRUE(waitUntil([&] { return daemon.output("out_5_last.txt") == "new\n"; }, kPatience));
}

TEST_F(FunctionsEndToEndTest, RunsThePathThatPlainSqlChanges) {
  database.insertTask(makeQuickTask(5));
  const TaskRow next = makeTask(6, "echo fine");
  ASSERT_TRUE(startAndListen());

  database.query("UPDATE kodu_plugins SET plugin_path = '" + next.path + "'");

  EXPECT_TRUE(waitForRuns(6, 1));
}

TEST_F(FunctionsEndToEndTest, IsNotNotifiedOfItsOwnUpdates) {
  TaskRow failing = makeQuickTask(5, "echo bad; exit 2");
  failing.retries = "1";
  failing.retriesInterval = "interval '2 seconds'";
  database.insertTask(makeQuickTask(4));
  database.insertTask(failing);
  ASSERT_TRUE(startAndListen());

  ASSERT_TRUE(
      waitUntil([&] { return changes(4).size() >= 4 && changes(5).size() >= 4; }, kPatience));
  database.notify(payload("ADD", 99));

  ASSERT_TRUE(waitUntil([&] { return !received().empty(); }, kPatience));
  EXPECT_EQ(received().front(), payload("ADD", 99));
}

TEST_F(FunctionsEndToEndTest, AddsATaskAndChangesIt) {
  const TaskRow row = makeTask(5, R"(echo "$1")");
  ASSERT_TRUE(startAndListen());

  const int id = std::stoi(call("kodu_task_add('" + row.path + "', '1 second', 'one')"));
  ASSERT_TRUE(waitForStatus(id, "OK"));
  const std::string output = std::to_string(id) + "_last.txt";
  EXPECT_EQ(daemon.output(output), "one\n");

  call("kodu_task_set(" + std::to_string(id) + ", parameters => 'two')");
  EXPECT_TRUE(waitUntil([&] { return daemon.output(output) == "two\n"; }, kPatience));
}

TEST_F(FunctionsEndToEndTest, PausesATaskUntilItIsResumed) {
  database.insertTask(makeQuickTask(5));
  ASSERT_TRUE(startAndListen());
  ASSERT_TRUE(waitForRuns(5, 2));

  call("kodu_task_pause(5)");
  letOthersRun(6);
  const std::size_t paused = runs(5);
  letOthersRun(7);
  EXPECT_EQ(runs(5), paused);

  call("kodu_task_resume(5)");
  EXPECT_TRUE(waitForRuns(5, paused + 2));
}

TEST_F(FunctionsEndToEndTest, KeepsAPauseAcrossARestart) {
  database.insertTask(makeQuickTask(5));
  call("kodu_task_pause(5)");
  ASSERT_TRUE(startAndListen());

  letOthersRun(6);
  EXPECT_EQ(runs(5), 0U);
  EXPECT_EQ(database.task(5, "cron_next_exec"), "2036-01-01 00:00:00");

  call("kodu_task_resume(5)");
  EXPECT_TRUE(waitForRuns(5, 2));
}

TEST_F(FunctionsEndToEndTest, PausesARunningTaskWithoutWaiting) {
  TaskRow row = makeTask(5, waitForRelease() + "echo fine");
  row.interval = "3 seconds";
  database.insertTask(row);
  ASSERT_TRUE(startAndListen());
  ASSERT_TRUE(waitForRuns(5, 1));
  const std::string due = database.task(5, "cron_next_exec");

  call("kodu_task_pause(5)");
  letOthersRun(6);  // they are loaded, so the listener does not wait
  release();
  ASSERT_TRUE(waitForStatus(5, "OK"));
  letOthersRun(7);

  EXPECT_EQ(runs(5), 1U);
  EXPECT_EQ(database.value("SELECT last_run FROM kodu_task_status WHERE id = 5"), due);
  call("kodu_task_resume(5)");
  EXPECT_EQ(database.task(5, "cron_last_exec"), due);
  EXPECT_TRUE(waitForRuns(5, 3));
}

TEST_F(FunctionsEndToEndTest, EndsTheRetriesOfAPausedTask) {
  TaskRow row = makeQuickTask(5, "echo bad; exit 2");
  row.retries = "2";
  row.retriesInterval = "interval '2 seconds'";
  database.insertTask(row);
  ASSERT_TRUE(startAndListen());
  ASSERT_TRUE(waitForLog("DEBUG#TH EXEC: TASK FAILED RETRIES: 1"));

  call("kodu_task_pause(5)");

  ASSERT_TRUE(waitForStatus(5, "FAILED"));
  letOthersRun(6);
  EXPECT_EQ(runs(5), 3U);
}

TEST_F(FunctionsEndToEndTest, RunsATaskNow) {
  database.insertTask(makeWaitingTask(5));
  ASSERT_TRUE(startAndListen());

  const long due = std::stol(call("EXTRACT(EPOCH FROM kodu_task_run_now(5))::bigint"));

  ASSERT_TRUE(waitForStatus(5, "OK"));
  EXPECT_EQ(changes(5).back(), (Change{"OK", due, due + kLongSeconds}));
  EXPECT_EQ(runs(5), 1U);
}

/// A task with one run a day, whose plugin ends when the test releases it.
class DuringARunTest : public FunctionsEndToEndTest {
 protected:
  static constexpr long kDay = 86400;

  void SetUp() override {
    FunctionsEndToEndTest::SetUp();
    ASSERT_TRUE(startAndListen());
    const TaskRow row = makeTask(1, waitForRelease() + "echo \"$1\"");
    ASSERT_EQ(call("kodu_task_add('" + row.path + "', '1 day', 'one', retries => 0)"), "1");
    ASSERT_TRUE(waitForRuns(1, 1));
    due = database.nextExec(1);
  }

  long due = 0;
};

TEST_F(DuringARunTest, RunsATaskAgainImmediately) {
  call("kodu_task_run_now(1)");
  letOthersRun(6);
  EXPECT_EQ(runs(1), 1U);

  release();
  ASSERT_TRUE(waitForRuns(1, 2));
  ASSERT_TRUE(waitUntil([&] { return changes(1).size() == 4; }, kPatience));
  const Change first = changes(1)[1];
  EXPECT_EQ(first.lastExec, due);
  EXPECT_EQ(changes(1)[3], (Change{"OK", first.nextExec, first.nextExec + kDay}));
  EXPECT_EQ(runs(1), 2U);
}

TEST_F(DuringARunTest, RunsATaskAtTheTimeSetMeanwhile) {
  call(
      "kodu_task_set(1, next_run => date_trunc('second', now()) + interval '10 s', "
      "parameters => 'two')");
  const long wanted = std::stol(database.task(1, "EXTRACT(EPOCH FROM cron_wanted)::bigint"));
  letOthersRun(6);  // the listener does not wait for the run

  release();
  ASSERT_TRUE(waitForRuns(1, 2));
  ASSERT_TRUE(waitUntil([&] { return daemon.output("1_last.txt") == "two\n"; }, kPatience));
  EXPECT_EQ(changes(1)[1], (Change{"OK", due, wanted}));
  EXPECT_GT(ledger(1)[1], wanted);
}

TEST_F(DuringARunTest, KeepsItsScheduleAfterAPauseResumedMeanwhile) {
  call("kodu_task_pause(1)");
  call("kodu_task_resume(1)");

  release();
  ASSERT_TRUE(waitForStatus(1, "OK"));
  EXPECT_EQ(changes(1).back(), (Change{"OK", due, due + kDay}));
}

TEST_F(DuringARunTest, PurgesADeletedTaskAfterIt) {
  call("kodu_task_delete(1)");
  const long purges = daemon.logged("DEBUG#DELETE END");
  ASSERT_TRUE(waitForLog("DEBUG#DELETE END", purges + 2));
  EXPECT_EQ(database.task(1, "cron_status || ' ' || cron_delete"), "PROCESS false");

  release();
  ASSERT_TRUE(waitUntil([&] { return database.task(1, "cron_id").empty(); }, kPatience));
  EXPECT_TRUE(waitUntil(
      [&] { return !std::filesystem::exists(daemon.outputDirectory() + "/1_last.txt"); }));
  letOthersRun(6);
  EXPECT_EQ(runs(1), 1U);
  EXPECT_TRUE(daemon.isRunning());
}

TEST_F(FunctionsEndToEndTest, RunsATaskWhoseTimeHasPassedByTheCommit) {
  database.insertTask(makeWaitingTask(5));
  database.query("UPDATE kodu_cron_plugin SET cron_interval = '1 day'");
  const TaskRow added = makeTask(1, "echo fine");
  ASSERT_TRUE(startAndListen());

  database.query("BEGIN");
  call("kodu_task_run_now(5)");
  call("kodu_task_add('" + added.path + "', '1 day')");
  ASSERT_TRUE(waitUntil([&] {  // as a call for thousands of tasks would end
    return database.value("SELECT clock_timestamp() > now() + interval '5 s'") == "t";
  }));
  database.query("COMMIT");

  ASSERT_TRUE(waitForStatus(5, "OK"));
  ASSERT_TRUE(waitForStatus(1, "OK"));
  letOthersRun(6);
  EXPECT_EQ(runs(5), 1U);
  EXPECT_EQ(runs(1), 1U);
}

TEST_F(FunctionsEndToEndTest, DoesNotRunADeletedTaskBeforeThePurge) {
  daemon.programVariable = "KODU_TEST_DAEMON";  // purges every two minutes
  database.insertTask(makeQuickTask(5));
  ASSERT_TRUE(startAndListen());
  ASSERT_TRUE(waitForRuns(5, 2));

  call("kodu_task_delete(5)");

  letOthersRun(6);
  const std::size_t deleted = runs(5);
  letOthersRun(7);
  EXPECT_EQ(runs(5), deleted);
}

TEST_F(FunctionsEndToEndTest, PurgesADeletedTask) {
  database.insertTask(makeQuickTask(5));
  ASSERT_TRUE(startAndListen());
  ASSERT_TRUE(waitForRuns(5, 2));

  call("kodu_task_delete(5)");

  ASSERT_TRUE(waitUntil([&] { return database.task(5, "cron_id").empty(); }, kPatience));
  const std::size_t purged = runs(5);
  letOthersRun(6);
  EXPECT_EQ(runs(5), purged);
  EXPECT_TRUE(daemon.isRunning());
}

TEST_F(FunctionsEndToEndTest, PurgesAPausedTask) {
  database.insertTask(makeQuickTask(5));
  ASSERT_TRUE(startAndListen());
  call("kodu_task_pause(5)");

  call("kodu_task_delete(5)");

  ASSERT_TRUE(waitUntil([&] { return database.task(5, "cron_id").empty(); }, kPatience));
  EXPECT_THAT(database.query("SELECT FROM kodu_cron_pause"), IsEmpty());
  letOthersRun(6);
  EXPECT_TRUE(daemon.isRunning());
}

TEST_F(FunctionsEndToEndTest, SpreadsTheTasksOfARunningDaemon) {
  for (int id = 1; id <= 4; ++id) {
    TaskRow row = makeTask(id, "echo fine");
    row.interval = "8 seconds";
    database.insertTask(row);
  }
  ASSERT_TRUE(startAndListen());
  ASSERT_TRUE(waitForStatus(4, "OK"));

  EXPECT_EQ(call("min(busiest_before) || ' to ' || max(busiest_after) FROM kodu_stagger(FALSE)"),
            "4 to 1");

  std::set<long> slots;
  for (int id = 1; id <= 4; ++id) {
    const std::size_t before = changes(id).size();
    ASSERT_TRUE(waitUntil([&] { return changes(id).size() >= before + 4; }, kPatience));
    slots.insert(database.nextExec(id) % 8);
  }
  EXPECT_THAT(slots, testing::ElementsAre(0, 2, 4, 6));
}

}  // namespace
