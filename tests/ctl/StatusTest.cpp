#include <sys/wait.h>

#include <csignal>
#include <string>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

/// koductl status and show.
class StatusTest : public CtlTest {
 protected:
  /// One task of each kind: 1 is fine, 2 fails, 3 runs, 4 is late, 5 has not run.
  void insertOneOfEach() const {
    for (const int id : {1, 2, 3, 4, 5}) {
      TaskRow row = quietTask(id);
      if (id == 3 || id == 4) {
        row.nextExec = "now() - interval '90 seconds'";
      }
      database.insertTask(row);
    }
    setStatus(1, "OK");
    setStatus(2, "FAILED");
    setStatus(3, "PROCESS");
    setStatus(4, "OK");
    addFailure(2, 30, "out_2_x.txt", "bad");
  }
};

TEST_F(StatusTest, ListsEachTaskAndCountsThem) {
  insertOneOfEach();
  const CtlResult result = run({"status"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(cell(result.out, "1", 2), "OK");
  EXPECT_EQ(cell(result.out, "2", 2), "FAILED");
  EXPECT_EQ(cell(result.out, "3", 2), "PROCESS");
  EXPECT_EQ(cell(result.out, "3", 3), "-");
  EXPECT_THAT(cell(result.out, "4", 3), testing::AnyOf("1m", "1m30s"));
  EXPECT_THAT(result.out, HasSubstr("5 tasks: 2 OK, 1 FAILED, 1 PROCESS, 1 not run yet; 1 late."));
  EXPECT_THAT(result.out, Not(HasSubstr("\x1b")));
}

TEST_F(StatusTest, ListsOnlyFailedTasks) {
  insertOneOfEach();
  const CtlResult result = run({"status", "--failed", "--json"});
  const Json::Value tasks = parsed(result.out);
  ASSERT_EQ(tasks.size(), 1U);
  EXPECT_EQ(tasks[0]["id"].asInt(), 2);
  EXPECT_EQ(tasks[0]["failures_hour"].asInt(), 1);
  EXPECT_THAT(tasks[0]["failing_since"].asString(), testing::EndsWith("Z"));
}

TEST_F(StatusTest, ListsOnlyLateTasks) {
  insertOneOfEach();
  const Json::Value tasks = parsed(run({"status", "--late", "--json"}).out);
  ASSERT_EQ(tasks.size(), 1U);
  EXPECT_EQ(tasks[0]["id"].asInt(), 4);
  EXPECT_GE(tasks[0]["late_seconds"].asInt(), 90);
}

TEST_F(StatusTest, ShowsTheFirstLinesOfTheLastOutputs) {
  for (const int id : {1, 2, 3}) {
    database.insertTask(quietTask(id));
  }
  setStatus(1, "OK");
  setStatus(2, "OK");
  writeOutput("out_1_last.txt", "OK: \x1b[31mall well\nmore\n");
  writeOutput("out_2_last.txt", std::string(5000, 'x'));
  writeOutput("out_3_last.txt", "another task's");
  const CtlResult result = run({"status", "--output"});
  EXPECT_THAT(result.out, HasSubstr("FAILED 24H  OUTPUT\n"));
  EXPECT_THAT(result.out, HasSubstr("  OK: ?[31mall well\n"));
  EXPECT_THAT(result.out, HasSubstr("  " + std::string(240, 'x') + "\n"));
  EXPECT_THAT(result.out, ContainsRegex("3  task3 .* 0\n"));
}

TEST_F(StatusTest, FollowsTheSeriesOfFailuresBackToTheLastSuccess) {
  database.insertTask(quietTask(1));
  setStatus(1, "FAILED");
  for (const long secondsAgo : {5000L, 400L, 100L}) {  // every 300 seconds: one succeeded between
    addFailure(1, secondsAgo, "out_1_" + std::to_string(secondsAgo), "bad");
  }
  const Json::Value task = parsed(run({"show", "1", "--json"}).out);
  EXPECT_EQ(database.value("SELECT to_char(min(cron_date), 'YYYY-MM-DD\"T\"HH24:MI:SS\"Z\"')"
                           " FROM kodu_cron_error WHERE cron_date > now() - interval '500 s'"),
            task["failing_since"].asString());
}

TEST_F(StatusTest, ShowsWhyAndByWhomATaskIsPaused) {
  database.insertTask(quietTask(1));
  database.insertTask(quietTask(2));
  EXPECT_THAT(run({"status"}).out, Not(HasSubstr("PAUSED")));
  database.query("SELECT kodu_task_pause(2, 'new disks')");
  database.query("UPDATE kodu_cron_pause SET paused_by = 'alice'");
  const std::string table = run({"status"}).out;
  EXPECT_THAT(table, HasSubstr("FAILING SINCE  PAUSED\n"));
  EXPECT_THAT(table, ContainsRegex("2  task2  paused .*since [0-9:]+ by alice: new disks\n"));
  EXPECT_THAT(run({"show", "2"}).out, ContainsRegex("\\(paused since .* by alice: new disks\\)\n"));
  const Json::Value pause = parsed(run({"show", "2", "--json"}).out)["pause"];
  EXPECT_EQ(pause["by"].asString() + " " + pause["reason"].asString(), "alice new disks");
  EXPECT_THAT(pause["since"].asString(), testing::EndsWith("Z"));
}

TEST_F(StatusTest, RefreshesEachSecondUntilItIsInterrupted) {
  database.insertTask(quietTask(1));
  const pid_t pid = start({"-f", daemon.mainConfig(), "status", "--watch"});
  ASSERT_TRUE(waitUntil([&] { return !readFile(outPath()).empty(); }));
  setStatus(1, "FAILED");
  const bool isSeen =
      waitUntil([&] { return readFile(outPath()).find(": 1 FAILED") != std::string::npos; });
  kill(pid, SIGINT);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(isSeen);
  EXPECT_EQ(exitStatusOf(status), 0);
  EXPECT_THAT(readFile(outPath()), Not(HasSubstr("\x1b")));
}

TEST_F(StatusTest, KeepsWatchingWhenTheSessionIsLost) {
  database.insertTask(quietTask(1));
  const pid_t pid = start({"-f", daemon.mainConfig(), "status", "--watch"});
  ASSERT_TRUE(waitUntil([&] { return !readFile(outPath()).empty(); }));
  database.query(
      "SELECT pg_terminate_backend(pid) FROM pg_stat_activity"
      " WHERE application_name = 'kodu_ctl' AND datname = current_database()");
  setStatus(1, "FAILED");
  const bool isSeen =
      waitUntil([&] { return readFile(outPath()).find(": 1 FAILED") != std::string::npos; });
  kill(pid, SIGINT);
  waitpid(pid, nullptr, 0);
  EXPECT_TRUE(isSeen);
  EXPECT_NE(readFile(errPath()), "");
}

TEST_F(StatusTest, UsesColoursOnATerminalUnlessNoColorIsSet) {
  database.insertTask(quietTask(1));
  setStatus(1, "FAILED");
  EXPECT_THAT(runOnTerminal({"status"}, {"TERM=xterm", "NO_COLOR="}), HasSubstr("\x1b[31mFAILED"));
  EXPECT_THAT(runOnTerminal({"status"}, {"TERM=xterm", "NO_COLOR=1"}), Not(HasSubstr("\x1b")));
  EXPECT_THAT(runOnTerminal({"status"}, {"TERM=dumb", "NO_COLOR="}), Not(HasSubstr("\x1b")));
}

TEST_F(StatusTest, AcceptsInfiniteTimes) {
  database.insertTask(quietTask(1));
  setStatus(1, "FAILED");
  for (const char* time : {"infinity", "-infinity"}) {
    database.query(std::string("UPDATE kodu_cron_plugin SET cron_last_exec = '") + time + "'");
    database.query(std::string("INSERT INTO kodu_cron_error (cron_id, cron_date, cron_logfile)"
                               " VALUES (1, '") +
                   time + "', 'x')");
    EXPECT_EQ(cell(run({"status"}).out, "1", 2), "FAILED");
    EXPECT_EQ(run({"history", "1"}).exitCode, 0);
    EXPECT_EQ(database.value("SELECT status FROM kodu_task_status"), "FAILED");
  }
}

TEST_F(StatusTest, ShowsNoControlCharacterOfAName) {
  TaskRow row = quietTask(7);
  row.name = "a\x1b[31m\u009b31mb";
  database.insertTask(row);
  EXPECT_THAT(run({"show", "7"}).out, HasSubstr("task      7  a?[31m?31mb\n"));
}

TEST_F(StatusTest, ShowsOneTaskWithItsArgumentsAndFiles) {
  TaskRow row = quietTask(7);
  row.parameter = "-m \"two words\"";
  row.retries = "2";
  database.insertTask(row);
  const CtlResult result = run({"show", "7"});
  EXPECT_THAT(result.out, HasSubstr("arguments [-m] [two words]\n"));
  EXPECT_THAT(result.out, HasSubstr("retries   0 of 2 used, 2s apart\n"));
  EXPECT_THAT(result.out, HasSubstr("output    " + daemon.outputDirectory() + "/out_7_last.txt\n"));
  const Json::Value json = parsed(run({"show", "7", "--json"}).out);
  EXPECT_EQ(json["arguments"][1].asString(), "two words");
  EXPECT_EQ(json["every_seconds"].asInt(), 300);
}

}  // namespace
