#include <sys/stat.h>

#include <string>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;

/// koductl explain.
class ExplainTest : public CtlTest {
 protected:
  std::string explain(int id) const {
    const CtlResult result = run({"explain", std::to_string(id)});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    return result.out;
  }
  void set(int id, const std::string& columns) const {
    database.query("UPDATE kodu_cron_plugin SET " + columns +
                   " WHERE cron_id = " + std::to_string(id));
  }
};

TEST_F(ExplainTest, SaysWhatANewTaskWaitsFor) {
  TaskRow row = quietTask(1);
  row.parameter = "a b";
  database.insertTask(row);
  EXPECT_THAT(
      explain(1),
      AllOf(HasSubstr("Task 1 (task1) runs " + row.path + " with 2 arguments every 5m.\n"),
            HasSubstr("It has not run yet.\n"), ContainsRegex("Its next run is due at .*in"),
            HasSubstr("That time was set when the task was added"),
            HasSubstr("No run has failed in the last day.")));
}

TEST_F(ExplainTest, SaysWhichRuleSetTheNextTime) {
  database.insertTask(quietTask(1));
  set(1, "cron_status = 'OK', cron_last_exec = cron_next_exec - interval '300 s'");
  EXPECT_THAT(explain(1), HasSubstr("That is one interval, 5m, after the due time"));
  set(1, "cron_last_exec = cron_next_exec - interval '600 s'");
  EXPECT_THAT(explain(1), HasSubstr("That is 2 intervals after the due time of the last run: one "
                                    "has been skipped"));
  set(1, "cron_last_exec = cron_next_exec - interval '1500 s'");
  EXPECT_THAT(explain(1), HasSubstr("That is 5 intervals after the due time of the last run: 4 "
                                    "have been skipped"));
  set(1, "cron_last_exec = cron_next_exec - interval '301 s'");
  EXPECT_THAT(explain(1), HasSubstr("That is not a whole number of intervals"));
}

TEST_F(ExplainTest, CountsTheRetriesOfARunThatFails) {
  TaskRow row = makeTask(1, "echo bad; exit 2");
  row.interval = "1 hour";
  row.retries = "2";
  row.retriesInterval = "interval '1000 seconds'";
  database.insertTask(row);
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitUntil([&] { return database.failures(1) == 1; }, kPatience));
  EXPECT_THAT(
      explain(1),
      AllOf(ContainsRegex("has failed 1 time; retry 1 of 2 is due at .*in 16m"),
            HasSubstr("The due time does not change until the run is completed"),
            ContainsRegex(
                "It has been failing since .*1 run in the last hour and 1 in the last day")));
}

TEST_F(ExplainTest, DoesNotReportARunBeforeItsTime) {
  database.insertTask(quietTask(1));
  set(1, "cron_status = 'PROCESS', cron_last_exec = cron_next_exec - interval '300 s'");
  EXPECT_THAT(explain(1), AllOf(HasSubstr("Its last completed run was due at "),
                                HasSubstr("Its next run is due at ")));
  EXPECT_EQ(parsed(run({"check", "--json"}).out)["due_next"][0]["id"].asInt(), 1);
}

TEST_F(ExplainTest, QuotesTheOutputOfTheLatestFailedRun) {
  database.insertTask(quietTask(1));
  setStatus(1, "FAILED");
  addFailure(1, 100, "out_1_a.txt", "CRITICAL: first\n");
  addFailure(1, 50, "out_1_b.txt", "CRITICAL: second\nmore\n");
  EXPECT_THAT(explain(1),
              ContainsRegex("It has been failing since .* Its output: CRITICAL: second\n"));
}

TEST_F(ExplainTest, SaysThatTheLatestFailedRunPrintedNothing) {
  database.insertTask(quietTask(1));
  setStatus(1, "FAILED");
  addFailure(1, 100, "out_1_a.txt", "CRITICAL: first\n");
  addFailure(1, 50, "out_1_b.txt", "");
  EXPECT_THAT(explain(1),
              HasSubstr("see koductl history 1. It printed nothing, which counts as a failure.\n"));
  std::filesystem::remove(archive(1) + "/out_1_b.txt");
  EXPECT_THAT(explain(1), HasSubstr("see koductl history 1.\n"));
}

TEST_F(ExplainTest, SaysThatARunIsInProgress) {
  database.insertTask(makeTask(1, waitForRelease() + "echo fine"));
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForRuns(1, 1));
  EXPECT_THAT(explain(1),
              ContainsRegex("The run due at .* is in progress: its plugin has not ended yet.\n"));
  database.query("SELECT kodu_task_run_now(1)");
  EXPECT_THAT(explain(1), ContainsRegex("has not ended yet. The next run has been set to .*UTC"));
  EXPECT_THAT(run({"show", "1"}).out, ContainsRegex("next due .*UTC, and then .*UTC\n"));
  database.query("SELECT kodu_task_pause(1, 'too loud')");
  EXPECT_THAT(
      explain(1),
      ContainsRegex("has not ended yet. No run follows it: the task has been paused since .*: "
                    "too loud. Run koductl resume 1 to resume it."));
  EXPECT_EQ(cell(run({"status"}).out, "1", 2), "PROCESS");
  database.query("SELECT kodu_task_delete(1)");
  EXPECT_THAT(explain(1),
              HasSubstr("has not ended yet. When it has ended, the daemon removes the task, its"));
  release();
}

TEST_F(ExplainTest, ReportsThatALateTaskWaitsForAFreeWorker) {
  daemon.threadNumber = "1";
  daemon.writeConfig();
  database.insertTask(makeTask(1, waitForRelease() + "echo fine"));
  database.insertTask(quietTask(2));
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForRuns(1, 1));
  // The daemon would load a new row and move its time.
  database.query(
      "UPDATE kodu_cron_plugin SET cron_next_exec = now() - interval '1 minute' WHERE cron_id = 2");
  EXPECT_THAT(explain(2), HasSubstr("It waits for a free worker (1 worker, 1 run in progress)."));
  release();
}

TEST_F(ExplainTest, TellsARetryFromAWaitForAWorker) {
  daemon.threadNumber = "1";
  daemon.writeConfig();
  TaskRow row = makeTask(1, "echo bad; exit 2");
  row.retries = "1";
  row.retriesInterval = "interval '1 hour'";
  database.insertTask(row);
  database.insertTask(quietTask(2));
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitUntil([&] { return database.failures(1) == 1; }, kPatience));
  database.query(
      "UPDATE kodu_cron_plugin SET cron_next_exec = now() - interval '1 minute' WHERE cron_id = 2");
  EXPECT_THAT(explain(2), HasSubstr("The daemon is connected and has free workers"));
}

TEST_F(ExplainTest, ReportsThatNoDaemonRuns) {
  TaskRow row = quietTask(1);
  row.nextExec = "now() - interval '1 minute'";
  database.insertTask(row);
  EXPECT_THAT(explain(1), HasSubstr("No daemon is connected to the database, so nothing runs."));
  setStatus(1, "PROCESS");
  EXPECT_THAT(explain(1), HasSubstr("no daemon is connected: that run was abandoned"));
}

TEST_F(ExplainTest, ExplainsPausedAndDeletedTasks) {
  database.insertTask(quietTask(1));
  database.query("SELECT kodu_task_pause(1)");
  EXPECT_THAT(explain(1), ContainsRegex("It has been paused since .* ago\\) by [a-z]+. Run koductl "
                                        "resume 1 to resume it."));
  database.query("UPDATE kodu_cron_pause SET paused_by = 'alice', reason = 'new disks'");
  EXPECT_THAT(explain(1),
              ContainsRegex("It has been paused since .* ago\\) by alice: new disks. Run koductl"));
  database.query("SELECT kodu_task_delete(1)");
  EXPECT_THAT(explain(1), HasSubstr("It is marked for deletion"));
}

TEST_F(ExplainTest, ReportsWhyPluginOrOutputCannotBeUsed) {
  TaskRow row = quietTask(1);
  chmod(row.path.c_str(), 0644);
  row.logFile = "missing/x.txt";
  database.takeAnyRow();
  database.insertTask(row);
  const std::string text = explain(1);
  EXPECT_THAT(text, HasSubstr("cannot run " + row.path + ": Permission denied."));
  EXPECT_THAT(text, HasSubstr("cannot write its output to " + daemon.outputDirectory() +
                              "/missing/x.txt: directory " + daemon.outputDirectory() +
                              "/missing: No such file or directory. This ends the daemon."));
}

TEST_F(ExplainTest, ShowsOneSlashAfterTheOutputDirectory) {
  database.insertTask(quietTask(1));
  endOutputDirectoryInSlash();
  const std::string output = daemon.outputDirectory();
  EXPECT_THAT(explain(1), HasSubstr(" its output to " + output + "/out_1_last.txt"));
  const Json::Value json = parsed(run({"show", "1", "--json"}).out);
  EXPECT_EQ(json["output_file"].asString(), output + "/out_1_last.txt");
  EXPECT_EQ(json["archive"].asString(), output + "/archive/1/");
}

TEST_F(ExplainTest, ExaminesTheGuardedPlugin) {
  TaskRow row = quietTask(1);
  row.path = guard();
  row.parameter = "-t 5 -- /nowhere/plugin a";
  database.insertTask(row);
  EXPECT_THAT(explain(1), HasSubstr("cannot run /nowhere/plugin: No such file or directory."));
}

TEST_F(ExplainTest, PrintsTheSentencesAsJson) {
  database.insertTask(quietTask(1));
  const Json::Value json = parsed(run({"explain", "1", "--json"}).out);
  EXPECT_EQ(json["id"].asInt(), 1);
  EXPECT_EQ(json["explanation"][1].asString(), "It has not run yet.");
}

}  // namespace
