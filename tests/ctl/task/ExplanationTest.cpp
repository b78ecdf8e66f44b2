#include "ctl/task/explanation.h"

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/Files.h"

namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::Not;

constexpr long kNoon = 1714564800;  // 2024-05-01 12:00:00

/// Sentences about a task that no database has: each state that a row can have.
class ExplanationTest : public testing::Test {
 protected:
  ExplanationTest() {
    task.id = 7;
    task.name = "disk";
    task.path = "/bin/true";
    task.type = "cron";
    task.fileName = "out_$DATE.txt";
    task.outputDirectory = directory.path();
    task.every = 300;
    task.next = kNoon + 60;
    task.now = kNoon;
    context.daemon.uid = geteuid();
    context.isConnected = true;
    context.workers = 2;
  }

  std::vector<std::string> sentences() const { return explain(task, context); }
  std::string text() const {
    std::string all;
    for (const std::string& sentence : sentences()) {
      all += sentence + "\n";
    }
    return all;
  }

  const TempDir directory;
  Task task;
  TaskContext context;
};

TEST_F(ExplanationTest, HasASentenceForEachQuestion) {
  EXPECT_THAT(sentences(),
              testing::ElementsAre(
                  "Task 7 (disk) runs /bin/true with 0 arguments every 5m.", "It has not run yet.",
                  "Its next run is due at 2024-05-01 12:01:00 UTC (in 1m).",
                  testing::StartsWith("That time was set when the task was added."),
                  "No run has failed in the last day.",
                  HasSubstr(" can run /bin/true. Its runs have no time limit."),
                  HasSubstr(" can write its output to " + directory.path())));
}

TEST_F(ExplanationTest, CountsOneArgumentWithoutAPlural) {
  task.parameter = "-v";
  EXPECT_THAT(sentences()[0], HasSubstr("with 1 argument every"));
}

TEST_F(ExplanationTest, SaysHowTheLastRunEnded) {
  const std::string due = "2024-05-01 11:55:00 UTC (5m ago)";
  task.lastDue = kNoon - 300;
  EXPECT_EQ(sentences()[1], "Its last run was due at " + due + " and ended without a status.");
  task.status = "OK";
  EXPECT_EQ(sentences()[1], "Its last run was due at " + due + " and ended with status OK.");
  task.status = "FAILED";
  EXPECT_EQ(sentences()[1],
            "Its last run was due at " + due + " and ended with status FAILED after 1 retry.");
  task.retries = 3;
  EXPECT_THAT(sentences()[1], HasSubstr("with status FAILED after 3 retries."));
  task.retries = 0;
  EXPECT_THAT(sentences()[1], HasSubstr("with status FAILED."));
  task.status = "PROCESS";
  EXPECT_EQ(sentences()[1], "Its last completed run was due at " + due + ".");
  task.lastDue.reset();
  EXPECT_EQ(sentences()[1], "No run has been completed yet.");
}

TEST_F(ExplanationTest, SaysThatATimeIsNow) {
  task.next = kNoon;
  EXPECT_EQ(sentences()[2], "Its next run is due at 2024-05-01 12:00:00 UTC (now).");
}

TEST_F(ExplanationTest, SaysHowLongADeletionTakesAsDeleteDoes) {
  task.isFlagged = true;
  EXPECT_EQ(sentences()[2],
            "It is marked for deletion: the daemon removes it, its files and its history within "
            "four minutes.");
  EXPECT_THAT(text(), Not(HasSubstr("That time")));
}

TEST_F(ExplanationTest, SaysThatTheDaemonDoesNotRunItsPlugin) {
  task.type = "device";
  EXPECT_EQ(sentences()[2],
            "Its plugin is of type 'device'; the daemon runs only plugins of type 'cron'.");
}

TEST_F(ExplanationTest, SaysThatTheDaemonRefusesIt) {
  const Task good = task;
  const std::string refused = "The daemon refuses the task: its interval or next time is missing.";
  task.every.reset();
  EXPECT_EQ(sentences()[2], refused);
  EXPECT_THAT(sentences()[0], HasSubstr("every (no interval)."));
  task.every = 0;
  EXPECT_EQ(sentences()[2], refused);
  task = good;
  task.next.reset();
  EXPECT_EQ(sentences()[2], refused);
  EXPECT_THAT(text(), Not(HasSubstr("That time")));
}

TEST_F(ExplanationTest, SaysWhenAPauseEnds) {
  task.pause = Pause{kNoon - 60, kNoon + 3600, "alice", "new disks"};
  task.next = kNoon + 3900;
  EXPECT_EQ(sentences()[2],
            "It has been paused since 2024-05-01 11:59:00 UTC (1m ago) by alice until 2024-05-01 "
            "13:00:00 UTC (in 1h): new disks. Then its next run is due at 2024-05-01 13:05:00 UTC "
            "(in 1h 5m). Run koductl resume 7 to resume it earlier.");
  EXPECT_THAT(sentences()[3], HasSubstr("The pause has postponed its next run."));
  task.pause = Pause{};
  EXPECT_EQ(sentences()[2], "It is paused. Run koductl resume 7 to resume it.");
}

TEST_F(ExplanationTest, TellsARunInProgressFromAnAbandonedOne) {
  task.isRunning = true;
  task.next = kNoon - 30;
  EXPECT_EQ(sentences()[2],
            "The run due at 2024-05-01 11:59:30 UTC (30s ago) is in progress: its plugin has not "
            "ended yet.");
  context.isConnected = false;
  EXPECT_THAT(sentences()[2], HasSubstr("no daemon is connected: that run was abandoned"));
}

TEST_F(ExplanationTest, SaysWhatFollowsTheRunInProgress) {
  task.isRunning = true;
  task.afterRun = kNoon + 600;
  EXPECT_THAT(sentences()[2],
              HasSubstr(" The next run has been set to 2024-05-01 12:10:00 UTC (in 10m)."));
  task.pause = Pause{{}, {}, "", "loud"};
  EXPECT_THAT(sentences()[2], HasSubstr(" No run follows it: the task is paused: loud. Run koductl "
                                        "resume 7 to resume it."));
  task.isFlagged = true;
  EXPECT_THAT(sentences()[2],
              HasSubstr(" When it has ended, the daemon removes the task, its files and its"));
}

TEST_F(ExplanationTest, SaysWhichRetryOfARunIsDue) {
  task.isRunning = true;
  task.next = kNoon - 60;
  task.failedAttempts = 2;
  task.retries = 3;
  const std::string failed = "The run due at 2024-05-01 11:59:00 UTC (1m ago) has failed 2 times";
  EXPECT_EQ(sentences()[2], failed + ". No retry is left; the daemon is about to write FAILED.");
  task.retryDue = kNoon + 10;
  task.awaitsRetry = true;
  EXPECT_EQ(sentences()[2], failed + "; retry 2 of 3 is due at 2024-05-01 12:00:10 UTC (in 10s).");
  task.retryDue = kNoon - 10;
  task.awaitsRetry = false;
  EXPECT_EQ(sentences()[2], failed +
                                "; retry 2 of 3 was due at 2024-05-01 11:59:50 UTC (10s ago) and "
                                "is running or waiting for a free worker.");
}

TEST_F(ExplanationTest, SaysWhyALateTaskHasNotBegun) {
  task.isLate = true;
  task.next = kNoon - 90;
  const std::string late = "It is overdue: it was due at 2024-05-01 11:58:30 UTC (1m 30s ago).";
  EXPECT_THAT(sentences()[2], HasSubstr(late + " The daemon is connected and has free workers."));
  context.workload.busy = 2;
  EXPECT_EQ(sentences()[2], late + " It waits for a free worker (2 workers, 2 runs in progress).");
  context.isConnected = false;
  EXPECT_EQ(sentences()[2], late + " No daemon is connected to the database, so nothing runs.");
}

TEST_F(ExplanationTest, SaysWhichRuleSetTheNextTime) {
  const std::vector<std::pair<long, std::string>> rules = {
      {300, "That is one interval, 5m, after the due time of the last run."},
      {600,
       "That is 2 intervals after the due time of the last run: one has been skipped, because a "
       "run was in progress or no daemon was running."},
      {1500,
       "That is 5 intervals after the due time of the last run: 4 have been skipped, because a run "
       "was in progress or no daemon was running."},
      {299, "That is not a whole number of intervals after the last run."},
      {0, "That is not a whole number of intervals after the last run."},
      {-300, "That is not a whole number of intervals after the last run."}};
  for (const auto& [distance, rule] : rules) {
    task.lastDue = *task.next - distance;
    EXPECT_THAT(sentences()[3], testing::StartsWith(rule)) << distance;
  }
}

TEST_F(ExplanationTest, LeavesTheReasonOfASkipToTheLedger) {
  task.lastDue = *task.next - 900;
  LedgerRow skip;
  skip.due = kNoon - 3600;
  skip.periods = 2;
  skip.reason = "overrun";
  context.lastSkip = skip;
  EXPECT_EQ(sentences()[3],
            "That is 3 intervals after the due time of the last run: 2 have been skipped.");
  EXPECT_EQ(sentences()[4],
            "2 periods due from 2024-05-01 11:00:00 UTC (1h ago) on were skipped: "
            "the previous run took too long.");
  context.lastSkip->periods = 1;
  context.lastSkip->reason = "paused";
  EXPECT_EQ(sentences()[4],
            "The period due at 2024-05-01 11:00:00 UTC (1h ago) was skipped: the "
            "task was paused.");
}

TEST_F(ExplanationTest, SaysSinceWhenItHasBeenFailing) {
  task.isFailing = true;
  EXPECT_THAT(sentences(), Contains("It is failing; the history no longer shows since when."));
  task.failuresHour = 1;
  task.failuresDay = 30;
  task.failingSince = kNoon - 7200;
  const std::string failing =
      "It has been failing since 2024-05-01 10:00:00 UTC (2h ago): 1 run in the last hour and 30 "
      "in the last day failed; see koductl history 7.";
  EXPECT_THAT(sentences(), Contains(failing));
  context.failureText = "disk full";
  EXPECT_THAT(sentences(), Contains(failing + " Its output: disk full"));
  context.isFailureSilent = true;
  EXPECT_THAT(sentences(), Contains(failing + " It printed nothing, which counts as a failure."));
  task.isFailing = false;
  task.failingSince.reset();
  EXPECT_THAT(sentences(), Contains("It is not failing now; 1 run in the last hour and 30 in the "
                                    "last day failed."));
}

TEST_F(ExplanationTest, ExaminesTheGuardAndItsPlugin) {
  task.path = directory / "koduguard";
  writePlugin(task.path, "exit 0");
  task.parameter = "-t 5 -- /nowhere/plugin";
  EXPECT_THAT(sentences(), Contains(HasSubstr(" can run " + task.path + ".")));
  EXPECT_THAT(text(), Not(HasSubstr("no time limit")));
  EXPECT_THAT(sentences(),
              Contains(HasSubstr(" cannot run /nowhere/plugin: No such file or directory.")));
}

TEST_F(ExplanationTest, WarnsOfAnOutputThatEndsTheDaemon) {
  task.fileName = "fixed.txt";
  EXPECT_THAT(sentences().back(),
              testing::EndsWith(" Its name lacks $DATE: the second failed run ends the daemon."));
  task.fileName = "none/$DATE.txt";
  EXPECT_THAT(sentences().back(),
              testing::EndsWith("none: No such file or directory. This ends the daemon."));
}

TEST_F(ExplanationTest, SaysWhoseRightsWereUsed) {
  if (geteuid() == 0) {
    EXPECT_THAT(text(), Not(HasSubstr("with your rights"))) << "root can take all rights";
    return;
  }
  context.daemon.uid = 0;
  EXPECT_THAT(sentences(), Contains("The following was checked with your rights, not with those "
                                    "of user root."));
}

}  // namespace
