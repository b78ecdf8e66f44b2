#include <csignal>
#include <ctime>
#include <string>

#include "ctl/daemon/condition.h"
#include "ctl/daemon/starts.h"
#include "tests/ctl/CtlTest.h"

namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

TEST(RestartPeriodTest, IsTheTimeBetweenThreeLateStarts) {
  EXPECT_EQ(restartPeriod({990, 994, 998}, 1000), 4);
  EXPECT_EQ(restartPeriod({1, 990, 990, 990}, 1000), 1);
}

TEST(RestartPeriodTest, IsNoneForADaemonThatStays) {
  EXPECT_EQ(restartPeriod({}, 1000), 0);
  EXPECT_EQ(restartPeriod({990, 998}, 1000), 0);
  EXPECT_EQ(restartPeriod({890, 894, 898}, 1000), 0);
  EXPECT_EQ(restartPeriod({900, 950, 990}, 1000), 0);
}

/// The log of a daemon in the time zone of `zone`, with lines of these times.
std::string logWith(const std::vector<long>& times, const char* zone) {
  setenv("TZ", zone, 1);  // NOLINT(concurrency-mt-unsafe)
  tzset();
  std::string text = "no time#NOTICE#KODUCRON start....\n";
  for (const long time : times) {
    std::string line = std::asctime(std::localtime(&time));  // NOLINT(concurrency-mt-unsafe)
    line.back() = '#';
    text += line + "NOTICE#KODUCRON start....  KODUCRON configuration open succesful\n";
    text += line + "NOTICE#Load cron task\n";
  }
  unsetenv("TZ");  // NOLINT(concurrency-mt-unsafe)
  tzset();
  return text;
}

TEST(StartsInLogTest, ReadsTheTimesInTheZoneOfTheDaemon) {
  const TempDir directory;
  const long now = std::time(nullptr);
  for (const char* zone : {"UTC", "Asia/Kathmandu", "America/St_Johns"}) {
    writeFile(directory / "log", logWith({now - 500, now - 3}, zone));
    EXPECT_THAT(startsInLog(directory / "log"), ElementsAre(now - 500, now - 3)) << zone;
  }
}

TEST(StartsInLogTest, ReadsTheEndOfALargeLog) {
  const TempDir directory;
  const long now = std::time(nullptr);
  writeFile(directory / "log",
            logWith({now - 900}, "UTC") + std::string(2 << 20, 'x') + "\n" + logWith({now}, "UTC"));
  EXPECT_THAT(startsInLog(directory / "log"), ElementsAre(now));
  EXPECT_THAT(startsInLog(directory / "none"), IsEmpty());
}

/// A condition in which nothing is wrong.
DaemonCondition goodCondition() {
  DaemonCondition condition;
  condition.process.pid = 1;
  condition.workers = 2;
  condition.daemons = 1;
  condition.now = 1000;
  condition.logFile = "/log";
  return condition;
}

TEST(JudgeTest, FindsNothingWrong) {
  EXPECT_EQ(judge(goodCondition()).exitCode, 0);
  EXPECT_EQ(judge(goodCondition()).sentence, "It works.");
}

TEST(JudgeTest, CallsADaemonThatRestartsAllTheTimeThat) {
  DaemonCondition condition = goodCondition();
  condition.starts = {990, 994, 998};
  condition.databaseFailure = "refused";
  EXPECT_EQ(judge(condition).exitCode, 2);
  EXPECT_EQ(judge(condition).sentence,
            "It restarts every 4 seconds and runs next to nothing; the log /log and its standard "
            "error show why.");
  condition.isByJournal = true;
  EXPECT_THAT(judge(condition).sentence, HasSubstr("journalctl --unit koducron.service shows why"));
}

TEST(JudgeTest, SaysWhyItDoesNotWork) {
  DaemonCondition condition = goodCondition();
  condition.daemons = 0;
  EXPECT_EQ(judge(condition).sentence, "It runs, but it is not connected to the database.");
  condition.process.pid.reset();
  EXPECT_THAT(judge(condition).sentence, StartsWith("No daemon is connected to the database"));
  condition.databaseFailure = "refused";
  EXPECT_EQ(judge(condition).sentence, "The database does not answer: refused.");
  condition = goodCondition();
  condition.daemons = 2;
  EXPECT_EQ(judge(condition).exitCode, 2);
  EXPECT_THAT(judge(condition).sentence, StartsWith("2 daemons are connected"));
}

TEST(JudgeTest, SaysWhatHindersIt) {
  DaemonCondition condition = goodCondition();
  condition.oldestId = 7;
  condition.oldestLate = 61;
  condition.late = 1;
  EXPECT_EQ(judge(condition).exitCode, 1);
  EXPECT_EQ(judge(condition).sentence,
            "Task 7 is late although workers are free; koductl explain 7 says why.");
  condition.busy = 2;
  EXPECT_THAT(judge(condition).sentence, StartsWith("All workers are busy and 1 task is late"));
  condition.oldestLate = 60;
  EXPECT_EQ(judge(condition).exitCode, 0);
  condition.isSchemaKnown = false;
  EXPECT_THAT(judge(condition).sentence, StartsWith("The tables have version 0"));
  condition = goodCondition();
  condition.isReplaced = true;
  EXPECT_THAT(judge(condition).sentence, HasSubstr("restart it"));
}

/// koductl daemon.
class DaemonConditionTest : public CtlTest {};

TEST_F(DaemonConditionTest, ShowsADaemonThatWorks) {
  database.insertTask(quietTask(1));
  ASSERT_TRUE(daemon.startAndWait());
  const CtlResult result = run({"daemon"});
  EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
  EXPECT_THAT(result.out, AllOf(HasSubstr("daemon    pid " + std::to_string(daemon.pid()) + ", "),
                                HasSubstr("workers   2: 0 busy, 2 idle\n"),
                                HasSubstr("tasks     1 loaded, 0 late\n"),
                                HasSubstr("first due task 1 (task1), at "),
                                HasSubstr("starts    1 in the last hour, by its log\n"),
                                HasSubstr("verdict   It works.\n")));
  EXPECT_THAT(result.out, ContainsRegex("\nversion   [0-9.]+\nsince     20[0-9: -]+ UTC \\([0-9]"));
}

TEST_F(DaemonConditionTest, CountsBusyWorkers) {
  database.insertTask(makeTask(1, waitForRelease()));
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForStatus(1, "PROCESS"));
  EXPECT_THAT(run({"daemon"}).out, HasSubstr("workers   2: 1 busy, 1 idle\n"));
  release();
}

TEST_F(DaemonConditionTest, ShowsThatNoneRuns) {
  const CtlResult result = run({"daemon", "--json"});
  EXPECT_EQ(result.exitCode, 2);
  const Json::Value json = parsed(result.out);
  EXPECT_TRUE(json["pid"].isNull());
  EXPECT_TRUE(json["version"].isNull());
  EXPECT_EQ(json["exit_code"].asInt(), 2);
  EXPECT_EQ(json["daemons_connected"].asInt(), 0);
  EXPECT_THAT(run({"daemon"}).out, HasSubstr("daemon    not running on this machine\n"));
}

TEST_F(DaemonConditionTest, ShowsADaemonThatDiesAtEachStart) {
  daemon.writeDatabaseConfig(database.host(), 1);
  for (int i = 0; i < 3; ++i) {
    daemon.start();
    ASSERT_TRUE(daemon.waitForEnd().has_value());
  }
  const CtlResult result = run({"daemon"});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_THAT(result.out, ContainsRegex("verdict   It restarts every [0-9]+ seconds? and runs"));
}

TEST_F(DaemonConditionTest, ShowsTheProcessWithoutTheDatabase) {
  ASSERT_TRUE(daemon.startAndWait());
  daemon.writeDatabaseConfig(database.host(), 1);
  const CtlResult result = run({"daemon"});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_THAT(result.out, AllOf(HasSubstr("daemon    pid "), HasSubstr("The database does not "
                                                                       "answer: ")));
  EXPECT_THAT(result.out, testing::Not(HasSubstr("workers")));
  EXPECT_TRUE(parsed(run({"daemon", "--json"}).out)["tasks"].isNull());
}

TEST_F(DaemonConditionTest, TakesTheRestartsFromTheJournal) {
  // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe)
  if (std::system("unshare --mount --propagation private mount -t tmpfs none /mnt 2>&-") != 0) {
    GTEST_SKIP() << "nothing can be mounted here";
  }
  ASSERT_TRUE(daemon.startAndWait());
  const std::string systemctl =
      writePlugin(daemon.directory / "systemctl", "echo " + std::to_string(daemon.pid()));
  const std::string journal =
      writePlugin(daemon.directory / "journalctl",
                  "echo $(($(/bin/date +%s) - 600)).123456 host systemd[1]: Scheduled restart job\n"
                  "echo \"$*\" >" +
                      (daemon.directory / "asked"));
  const std::string script = daemon.directory / "script";
  writeFile(script,
            "set -e\nmount -t tmpfs none /run\nmkdir -p /run/systemd/system\nmount --bind " +
                systemctl + " /usr/bin/systemctl\nmount --bind " + journal +
                " /usr/bin/journalctl\nexec " + program() + " -f " + daemon.mainConfig() +
                " daemon >" + outPath() + "\n");
  const std::string command = "unshare --mount --propagation private /bin/sh " + script;
  std::ignore = std::system(command.c_str());  // NOLINT(cert-env33-c,concurrency-mt-unsafe)
  EXPECT_THAT(readFile(outPath()),
              AllOf(HasSubstr(", koducron.service\n"),
                    HasSubstr("restarts  1 in the last hour, by the journal")));
  EXPECT_THAT(readFile(daemon.directory / "asked"), HasSubstr("UNIT=koducron.service"));
}

TEST(JudgeTest, SaysTheWorstFirst) {
  DaemonCondition condition = goodCondition();
  condition.isReplaced = true;
  condition.isSchemaKnown = false;
  EXPECT_THAT(judge(condition).sentence, StartsWith("The tables have version"));
  condition.oldestId = 7;
  condition.oldestLate = 3600;
  EXPECT_THAT(judge(condition).sentence, StartsWith("Task 7 is late"));
  condition.daemons = 2;
  EXPECT_THAT(judge(condition).sentence, StartsWith("2 daemons are connected"));
  condition.databaseFailure = "refused";
  EXPECT_THAT(judge(condition).sentence, StartsWith("The database does not answer"));
  condition.starts = {990, 994, 998};
  EXPECT_THAT(judge(condition).sentence, StartsWith("It restarts every 4 seconds"));
}

TEST(JudgeTest, CountsLateTasksOfBusyWorkers) {
  DaemonCondition condition = goodCondition();
  condition.oldestId = 7;
  condition.oldestLate = 61;
  condition.busy = 2;
  condition.late = 3;
  EXPECT_THAT(judge(condition).sentence, StartsWith("All workers are busy and 3 tasks are late"));
}

TEST(ConditionJsonTest, HasNothingOfADatabaseThatDoesNotAnswer) {
  DaemonCondition condition = goodCondition();
  condition.tasks = 5;
  condition.databaseFailure = "refused";
  const Json::Value json = toJson(condition);
  for (const char* name :
       {"workers_busy", "workers_idle", "tasks", "late", "daemons_connected", "schema_version"}) {
    EXPECT_TRUE(json.isMember(name) && json[name].isNull()) << name;
  }
  EXPECT_EQ(json["database"].asString(), "refused");
  EXPECT_EQ(json["exit_code"].asInt(), 2);
  EXPECT_EQ(json["workers"].asInt(), 2) << "of the INI file";
}

TEST(ConditionJsonTest, CountsNoMoreBusyWorkersThanThereAre) {
  DaemonCondition condition = goodCondition();
  condition.busy = 5;
  const Json::Value json = toJson(condition);
  EXPECT_EQ(json["workers_busy"].asInt(), 2);
  EXPECT_EQ(json["workers_idle"].asInt(), 0);
  EXPECT_TRUE(json["database"].isNull());
  EXPECT_TRUE(json["oldest_due"].isNull());
}

TEST(ConditionJsonTest, NamesTheTaskThatHasWaitedLongest) {
  DaemonCondition condition = goodCondition();
  condition.oldestId = 7;
  condition.oldestName = "disk";
  condition.oldestDue = 1714564800;
  condition.oldestLate = 30;
  const Json::Value oldest = toJson(condition)["oldest_due"];
  EXPECT_EQ(oldest["id"].asInt(), 7);
  EXPECT_EQ(oldest["name"].asString(), "disk");
  EXPECT_EQ(oldest["due"].asString(), "2024-05-01T12:00:00Z");
  EXPECT_EQ(oldest["late_seconds"].asInt(), 30);
}

TEST(ConditionJsonTest, TellsTheJournalFromTheLog) {
  DaemonCondition condition = goodCondition();
  condition.starts = {1, 2};
  EXPECT_EQ(toJson(condition)["restarts_by"].asString(), "log");
  EXPECT_TRUE(toJson(condition)["unit"].isNull());
  condition.isByJournal = condition.process.isService = true;
  EXPECT_EQ(toJson(condition)["restarts_by"].asString(), "journal");
  EXPECT_EQ(toJson(condition)["unit"].asString(), "koducron.service");
  EXPECT_EQ(toJson(condition)["restarts_hour"].asInt(), 2);
  EXPECT_FALSE(toJson(condition)["version"].isNull());
  condition.isReplaced = true;
  EXPECT_TRUE(toJson(condition)["version"].isNull()) << "that of the old program is not known";
}

TEST_F(DaemonConditionTest, NamesTheTaskThatIsDueNext) {
  EXPECT_THAT(run({"daemon"}).out, HasSubstr("first due no task waits\n"));
  TaskRow late = quietTask(2);
  late.name = "a\x1b[31m\nb";
  late.nextExec = "now() - interval '100 s'";
  database.insertTask(quietTask(1));
  database.insertTask(late);
  EXPECT_THAT(run({"daemon"}).out,
              ContainsRegex("first due task 2 \\(a\\?\\[31m b\\), at 20[0-9: -]+ UTC \\(1m 4[0-9]s "
                            "ago\\)\n"));
  EXPECT_THAT(run({"daemon"}).out, HasSubstr("tasks     2 loaded, 1 late\n"));
  database.query("SELECT kodu_task_pause(2)");
  EXPECT_THAT(run({"daemon"}).out,
              ContainsRegex("first due task 1 \\(task1\\), at .* \\(in [0-9]"));
}

TEST_F(DaemonConditionTest, NamesBothVersionsOfTheTables) {
  EXPECT_THAT(run({"daemon"}).out, ContainsRegex("\nschema    version [0-9]+\n"));
  database.query("INSERT INTO kodu_schema_version VALUES (99, 'later')");
  EXPECT_THAT(run({"daemon"}).out,
              ContainsRegex("\nschema    version 99; this koductl knows version [0-9]+\n"));
  EXPECT_EQ(parsed(run({"daemon", "--json"}).out)["schema_version"].asInt(), 99);
}

TEST_F(DaemonConditionTest, ColoursItsVerdictOnATerminal) {
  const std::string shown = runOnTerminal({"daemon"}, {"TERM=xterm", "NO_COLOR="});
  EXPECT_THAT(shown, HasSubstr("verdict   \x1b[31mNo daemon is connected"));
  EXPECT_THAT(runOnTerminal({"daemon"}), testing::Not(HasSubstr("\x1b[31m")));
}

}  // namespace
