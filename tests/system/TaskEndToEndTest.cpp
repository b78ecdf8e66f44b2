#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/DaemonTest.h"

namespace {

using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace fs = std::filesystem;

/// A task from its due time to the next, as the database, the files and the log show it.
class TaskEndToEndTest : public DaemonTest {
 protected:
  std::string archive(int id) const {
    return daemon.outputDirectory() + "/archive/" + std::to_string(id);
  }
};

TEST_F(TaskEndToEndTest, MarksARunningTaskAndThenItsSuccess) {
  database.insertTask(makeTask(1, "echo fine"));
  const long first = database.nextExec(1);

  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForStatus(1, "OK"));

  const auto seen = changes(1);
  const long due = seen.front().nextExec;
  EXPECT_THAT(seen, ElementsAre(Change{"PROCESS", 0, due}, Change{"OK", due, due + kLongSeconds}));
  EXPECT_EQ((due - first) % kLongSeconds, 0);
  EXPECT_EQ(daemon.output("out_1_last.txt"), "fine\n");
  EXPECT_EQ(database.failures(1), 0);
  EXPECT_FALSE(fs::exists(archive(1)));
}

TEST_F(TaskEndToEndTest, LogsEachStepOfARun) {
  database.insertTask(makeTask(1, "echo fine"));
  ASSERT_TRUE(daemon.startAndWait({"-D"}));
  ASSERT_TRUE(waitForLog("DEBUG#cron task: getNextTimeToExec", 2));

  const auto log = daemon.log();
  const auto begin =
      std::find(log.begin(), log.end(), "DEBUG#TH TIME: Send task to execution task1");
  ASSERT_NE(begin, log.end());
  std::vector<std::string> steps;
  std::copy_if(begin, log.end(), std::back_inserter(steps), [](const std::string& line) {
    return !line.starts_with("DEBUG#TH ADMIN") && !line.starts_with("DEBUG#DELETE");
  });
  EXPECT_THAT(steps, ElementsAre("DEBUG#TH TIME: Send task to execution task1",
                                 testing::MatchesRegex("DEBUG#TH EXEC wake up [01]"),
                                 "DEBUG#TH EXEC: crontask exec task1",
                                 "DEBUG#TH EXEC: crontask exec SUCCESS task1",
                                 "DEBUG#TH EXEC: UPDATE TASK STATE: OK task1",
                                 "DEBUG#change time exec: " + std::to_string(database.nextExec(1)),
                                 "DEBUG#cron task: getNextTimeToExec"));
}

TEST_F(TaskEndToEndTest, RunsAfterEachSlotOfItsInterval) {
  TaskRow row = makeTask(1, "echo fine");
  row.interval = "2 seconds";
  database.insertTask(row);
  const long first = database.nextExec(1);
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitUntil([&] { return changes(1).size() >= 6; }, kPatience));

  const auto seen = changes(1);
  const auto starts = ledger(1);
  for (std::size_t run = 0; run < 3; ++run) {
    const Change& running = seen.at(2 * run);
    const Change& done = seen.at(2 * run + 1);
    EXPECT_EQ(running.status, "PROCESS");
    EXPECT_EQ((running.nextExec - first) % 2, 0);
    EXPECT_EQ(done, (Change{"OK", running.nextExec, running.nextExec + 2}));
    // A task is due when the second of its time is over.
    EXPECT_GT(starts.at(run), running.nextExec);
  }
}

TEST_F(TaskEndToEndTest, SkipsTheSlotsThatALongRunHasMissed) {
  TaskRow row = makeTask(1, waitForRelease() + "echo done");
  row.interval = "1 second";
  database.insertTask(row);
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForRuns(1, 1));
  const long due = changes(1).front().nextExec;
  const long missed = due + 4;
  ASSERT_TRUE(waitForTime(missed));

  release();

  ASSERT_TRUE(waitUntil([&] { return changes(1).size() >= 3; }, kPatience));
  const auto seen = changes(1);
  EXPECT_EQ(seen.at(1), (Change{"OK", due, due + 1}));
  EXPECT_EQ(seen.at(2).status, "PROCESS");
  EXPECT_EQ(seen.at(2).lastExec, due);
  EXPECT_GE(seen.at(2).nextExec, missed);
  EXPECT_THAT(moves(1), testing::Contains(Change{"OK", due, seen.at(2).nextExec}));
}

TEST_F(TaskEndToEndTest, RunsOverdueTasksEarliestFirst) {
  // Relative to the same moment for all three, and far enough ahead for a slow start.
  const std::string base = database.value("SELECT date_trunc('second', now())");
  for (const int id : {3, 1, 2}) {
    TaskRow row = makeTask(id, "echo fine");
    row.nextExec = "timestamp '" + base + "' + interval '" + std::to_string(5 + id) + " seconds'";
    database.insertTask(row);
  }
  ASSERT_TRUE(daemon.startAndWait({"-D"}));
  daemon.signal(SIGSTOP);
  const long lastDue = std::max({database.nextExec(1), database.nextExec(2), database.nextExec(3)});
  ASSERT_TRUE(waitForTime(lastDue + 1));
  daemon.signal(SIGCONT);

  ASSERT_TRUE(waitForStatus(3, "OK"));
  auto sent = daemon.log();
  std::erase_if(sent, [](const std::string& line) { return !line.starts_with("DEBUG#TH TIME"); });
  EXPECT_THAT(sent, ElementsAre("DEBUG#TH TIME: Send task to execution task1",
                                "DEBUG#TH TIME: Send task to execution task2",
                                "DEBUG#TH TIME: Send task to execution task3"));
}

TEST_F(TaskEndToEndTest, PrintsTheReturnCodeAndTheOutputOfEachRun) {
  daemon.threadNumber = "1";  // two workers' lines would mix
  daemon.writeConfig();
  const std::vector<int> codes = {0, 1, 2, 3, 4, 5, 6, 7, 255};
  for (const int code : codes) {
    TaskRow row = makeTask(code, "echo exits; echo $1; exit $1");
    row.parameter = std::to_string(code);
    database.insertTask(row);
  }
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitUntil(
      [&] {
        return database.value(
                   "SELECT count(*) FROM kodu_cron_plugin WHERE cron_status IN "
                   "('OK', 'FAILED')") == std::to_string(codes.size());
      },
      kPatience));

  std::size_t length = 0;
  for (const int code : codes) {
    const std::string printed = "return" + std::to_string(code > 5 ? 3 : code) + "\noutputexits\n" +
                                std::to_string(code) + "\n\n";
    EXPECT_THAT(daemon.console(), HasSubstr(printed));
    length += printed.size();
    EXPECT_EQ(database.task(code, "cron_status"), code == 0 ? "OK" : "FAILED");
  }
  EXPECT_EQ(daemon.console().size(), length);
}

TEST_F(TaskEndToEndTest, KeepsTheTailOfALongerOutputFile) {
  fs::create_directory(daemon.outputDirectory());
  writeFile(daemon.outputDirectory() + "/out_1_last.txt", "abcdefghijklmnopqrstuvwxyzABC\n");
  database.insertTask(makeTask(1, "echo 123456789"));

  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForStatus(1, "OK"));

  EXPECT_EQ(daemon.output("out_1_last.txt"), "123456789\nklmnopqrstuvwxyzABC\n");
}

TEST_F(TaskEndToEndTest, PassesTheParametersToThePlugin) {
  TaskRow row = makeTask(1, R"(printf '[%s]' "$@")");
  row.parameter = R"(-H 10.0.0.1 -m "two words" C:\dir 'x y')";
  database.insertTask(row);

  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForStatus(1, "OK"));

  EXPECT_EQ(daemon.output("out_1_last.txt"), R"([-H][10.0.0.1][-m][two words][C:\dir][x y])");
}

TEST_F(TaskEndToEndTest, ArchivesAFailedRunWithARow) {
  database.insertTask(makeTask(1, "echo bad; exit 2"));

  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForStatus(1, "FAILED"));

  const auto copies = filesIn(archive(1));
  ASSERT_EQ(copies.size(), 1U);
  EXPECT_EQ(readFile(archive(1) + "/" + copies.front()), "bad\n");
  EXPECT_EQ(daemon.output("out_1_last.txt"), "bad\n");
  EXPECT_THAT(database.query("SELECT cron_id, cron_logfile FROM kodu_cron_error"),
              ElementsAre(ElementsAre("1", copies.front())));
  EXPECT_EQ(database.value("SELECT now() - cron_date < interval '1 minute' FROM kodu_cron_error"),
            "t");
}

TEST_F(TaskEndToEndTest, NamesTheCopyByTheLocalTime) {
  setenv("TZ", "KDU-9", 1);  // nine hours ahead of UTC; the daemon inherits it
  database.insertTask(makeTask(1, "echo bad; exit 2"));

  const std::time_t before = std::time(nullptr);
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForStatus(1, "FAILED"));
  const std::time_t after = std::time(nullptr);

  const std::string name = database.value("SELECT cron_logfile FROM kodu_cron_error");
  std::tm time{};
  const char* end = strptime(name.c_str(), "out_1_%Y-%m-%d_%H-%M-%S", &time);
  ASSERT_NE(end, nullptr) << name;
  EXPECT_STREQ(end, ".txt");
  const std::time_t copied = timegm(&time) - 9L * 3600;
  EXPECT_GE(copied, before);
  EXPECT_LE(copied, after);
}

TEST_F(TaskEndToEndTest, FillsOnlyTheFirstPlaceholderOfTheCurrentFileWithLast) {
  TaskRow row = makeTask(1, "echo fine");
  row.logFile = "$DATE_$DATE_$SERVICEID_$SERVICEID";
  database.insertTask(row);

  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForStatus(1, "OK"));

  EXPECT_THAT(filesIn(daemon.outputDirectory()),
              ElementsAre("archive", ContainsRegex("^last_[0-9]{4}-[0-9]{2}-[0-9]{2}_[0-9]{2}-"
                                                   "[0-9]{2}-[0-9]{2}_1_\\$SERVICEID$")));
}

/// The number of retries that a task has.
class RetriesTest : public TaskEndToEndTest, public testing::WithParamInterface<int> {};

TEST_P(RetriesTest, FailsTheTaskWhenTheyAreUsedUp) {
  const int retries = GetParam();
  // Longer than a pass of the timer: a delay counted from the end of the run would be visible.
  TaskRow row = makeTask(1, "/bin/sleep 1.5; echo bad; exit 1");
  row.retries = std::to_string(retries);
  database.insertTask(row);
  ASSERT_TRUE(daemon.startAndWait({"-D"}));
  ASSERT_TRUE(waitForStatus(1, "FAILED"));

  const auto seen = changes(1);
  const long due = seen.front().nextExec;
  std::vector<Change> expected(static_cast<std::size_t>(retries + 1), Change{"PROCESS", 0, due});
  expected.push_back({"FAILED", due, due + kLongSeconds});
  EXPECT_EQ(seen, expected);
  EXPECT_EQ(database.failures(1), retries + 1);
  EXPECT_EQ(filesIn(archive(1)).size(), expected.size() - 1);
  EXPECT_EQ(daemon.logged("DEBUG#TH EXEC: FAILED EXEC STATE: task1"), retries + 1);
  EXPECT_EQ(daemon.logged("DEBUG#TH EXEC: crontask exec SUCCESS task1"), retries + 1);
  for (int retry = 1; retry <= retries + 1; ++retry) {
    const long isMade = retry <= retries ? 1 : 0;
    const std::string time = std::to_string(due + 2L * retry);
    EXPECT_EQ(daemon.logged("DEBUG#TH EXEC: TASK FAILED RETRIES: " + std::to_string(retry)),
              isMade);
    EXPECT_EQ(daemon.logged("DEBUG#TH EXEC: TASK FAILED RETRIES NEXT EXEC: " + time), isMade);
  }
  const auto starts = ledger(1);
  ASSERT_EQ(starts.size(), expected.size() - 1);
  EXPECT_GT(starts.back(), due + 2L * retries);
}

INSTANTIATE_TEST_SUITE_P(Retries, RetriesTest, testing::Values(0, 1, 2));

TEST_F(TaskEndToEndTest, EndsTheRetriesAtTheFirstSuccess) {
  const std::string repaired = daemon.directory / "repaired";
  TaskRow row = makeTask(
      1, "[ -e " + repaired + " ] && echo fine && exit 0\n>" + repaired + "\necho bad\nexit 2");
  row.retries = "2";
  database.insertTask(row);

  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForStatus(1, "OK"));

  const long due = changes(1).front().nextExec;
  EXPECT_THAT(changes(1), ElementsAre(Change{"PROCESS", 0, due}, Change{"PROCESS", 0, due},
                                      Change{"OK", due, due + kLongSeconds}));
  EXPECT_EQ(database.failures(1), 1);
}

TEST_F(TaskEndToEndTest, RetriesOnceAfterTwoMinutesByDefault) {
  TaskRow row = makeTask(1, "echo bad; exit 2");
  row.retries = "NULL";
  row.retriesInterval = "NULL";
  database.insertTask(row);

  ASSERT_TRUE(daemon.startAndWait({"-D"}));

  ASSERT_TRUE(waitForLog("DEBUG#TH EXEC: TASK FAILED RETRIES: 1"));
  const std::string retryTime = std::to_string(database.nextExec(1) + 120);
  EXPECT_TRUE(waitForLog("DEBUG#TH EXEC: TASK FAILED RETRIES NEXT EXEC: " + retryTime));
  EXPECT_EQ(database.task(1, "cron_status"), "PROCESS");
}

TEST_F(TaskEndToEndTest, SkipsTheIntervalsOfAnOutage) {
  TaskRow row = makeTask(1, "echo fine");
  row.interval = "300 seconds";
  row.nextExec = "date_trunc('second', now()) - interval '650 seconds'";
  database.insertTask(row);
  database.insertTask(makeTask(2, "echo fine"));
  const long before = database.nextExec(1);

  ASSERT_TRUE(daemon.startAndWait({"-D"}));
  ASSERT_TRUE(waitForStatus(2, "OK"));

  // The start takes some time, which also counts.
  EXPECT_THAT(readFile(daemon.logPath()),
              ContainsRegex("DEBUG#calc time exec: calcule: 6[5-9][0-9]\\.000000 / 300 = 3\n"));
  EXPECT_EQ(daemon.logged("DEBUG#change time exec: " + std::to_string(before + 900)), 1);
  EXPECT_EQ(daemon.logged("DEBUG#ADD cron task: " + std::to_string(before)), 1);
  EXPECT_EQ(database.nextExec(1), before + 900);
  EXPECT_THAT(changes(1), IsEmpty());
  EXPECT_EQ(runs(1), 0U);
}

TEST_F(TaskEndToEndTest, ResumesWithOneRunAfterAnOutage) {
  TaskRow row = makeTask(1, "echo fine");
  row.interval = "3 seconds";
  database.insertTask(row);
  const long first = database.nextExec(1);
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForStatus(1, "OK"));
  daemon.signal(SIGKILL);
  ASSERT_TRUE(daemon.waitForEnd());
  const std::size_t changesBefore = changes(1).size();
  database.query("UPDATE kodu_cron_plugin SET cron_next_exec = cron_next_exec - interval '1 day'");

  ASSERT_TRUE(daemon.startAndWait());
  const long restarted = std::time(nullptr);
  ASSERT_TRUE(waitUntil([&] { return changes(1).size() >= changesBefore + 2; }, kPatience));

  const Change running = changes(1).at(changesBefore);
  EXPECT_GE(running.nextExec, restarted - 3);
  EXPECT_EQ((running.nextExec - first) % 3, 0);
  EXPECT_EQ(changes(1).at(changesBefore + 1),
            (Change{"OK", running.nextExec, running.nextExec + 3}));
}

}  // namespace
