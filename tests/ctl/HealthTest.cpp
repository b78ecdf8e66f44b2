#include <string>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

/// The thresholds of koductl health, on rows that nothing changes. tests/system runs it beside a
/// daemon that is broken.
class HealthTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    // A session that counts as the daemon.
    session = PQconnectdb(database.conninfo().c_str());
    ASSERT_EQ(PQstatus(session), CONNECTION_OK);
  }
  void TearDown() override {
    PQfinish(session);
    CtlTest::TearDown();
  }

  /// A task that was due so many seconds ago.
  void addTask(int id, long secondsAgo, const std::string& status) const {
    TaskRow row = quietTask(id);
    row.nextExec = "now() - interval '" + std::to_string(secondsAgo) + " seconds'";
    database.insertTask(row);
    setStatus(id, status);
  }
  /// The line's part before the performance data, and the exit status in front.
  std::string health(const std::vector<std::string>& options = {}) const {
    std::vector<std::string> all = {"health"};
    all.insert(all.end(), options.begin(), options.end());
    const CtlResult result = run(all);
    return std::to_string(result.exitCode) + " " + result.out.substr(0, result.out.find(" | "));
  }

  PGconn* session = nullptr;
};

TEST_F(HealthTest, IsOkWithoutTasks) {
  EXPECT_EQ(health(), "0 KODUCRON OK - 0 tasks, none overdue");
}

TEST_F(HealthTest, WarnsOfAnOverdueTask) {
  addTask(1, 30, "OK");
  EXPECT_THAT(health(), StartsWith("1 KODUCRON WARNING - 1 tasks, 1 overdue (oldest 3"));
  EXPECT_THAT(health({"-w", "100"}), StartsWith("0 KODUCRON OK - 1 tasks, none overdue"));
  EXPECT_THAT(health({"--warning", "100"}), StartsWith("0 "));
}

TEST_F(HealthTest, TakesATimeThatTheServerCannotCount) {
  EXPECT_THAT(health({"-t", "999999999"}), StartsWith("0 KODUCRON OK"));
}

TEST_F(HealthTest, IsCriticalFromItsOwnThresholdOn) {
  addTask(1, 30, "OK");
  EXPECT_THAT(health({"-c", "20"}), StartsWith("2 KODUCRON CRITICAL - 1 tasks, 1 overdue"));
  EXPECT_THAT(health({"-w", "100", "-c", "20"}), StartsWith("2 KODUCRON CRITICAL - "));
}

TEST_F(HealthTest, WarnsOfALongRun) {
  addTask(1, 30, "PROCESS");
  EXPECT_THAT(health(), StartsWith("0 "));
  EXPECT_THAT(
      health({"-p", "20"}),
      StartsWith("1 KODUCRON WARNING - 1 tasks, 1 in PROCESS for more than 20 s (longest "));
}

TEST_F(HealthTest, WarnsOfFailuresOnlyWhenItIsAskedTo) {
  addTask(1, 0, "OK");
  addFailure(1, 100, "a", "x");
  addFailure(1, 90, "b", "x");
  EXPECT_THAT(health(), StartsWith("0 "));
  EXPECT_THAT(health({"-e", "2"}), StartsWith("0 "));
  EXPECT_EQ(health({"-e", "1"}),
            "1 KODUCRON WARNING - 1 tasks, 2 failed runs within the last hour");
}

TEST_F(HealthTest, NamesEveryProblem) {
  addTask(1, 30, "OK");
  addTask(2, 30, "PROCESS");
  PQfinish(session);
  session = nullptr;
  const std::string text = health({"-p", "20"});
  EXPECT_THAT(text, StartsWith("2 KODUCRON CRITICAL - 2 tasks, 1 in PROCESS for more than 20 s"));
  EXPECT_THAT(text,
              AllOf(HasSubstr(", 1 overdue (oldest "), HasSubstr(", no session of the daemon")));
}

TEST_F(HealthTest, LeavesOutWhatTheDaemonDoesNotRun) {
  TaskRow row = quietTask(1);
  row.pluginType = "device";
  row.nextExec = "now() - interval '1 hour'";
  database.insertTask(row);
  addTask(2, 3600, "OK");
  database.query("UPDATE kodu_cron_plugin SET cron_delete = TRUE WHERE cron_id = 2");
  EXPECT_EQ(health(), "0 KODUCRON OK - 0 tasks, none overdue");
}

TEST_F(HealthTest, HasPerformanceDataWithTheThresholds) {
  const CtlResult result = run({"health", "-w", "11", "-c", "22", "-p", "33", "-e", "44"});
  EXPECT_EQ(result.out.substr(result.out.find('|')),
            "| tasks=0 overdue=0 oldest_overdue=0s;11;22;0 in_process_too_long=0"
            " longest_in_process=0s;33;;0 failures_last_hour=0;44;;0 sessions=1"
            " ledger_unwritten=0;0;;0\n");
}

TEST_F(HealthTest, SaysTheSameAsJson) {
  addTask(1, 30, "OK");
  const Json::Value json = parsed(run({"health", "--json"}).out);
  EXPECT_EQ(json["state"].asString(), "WARNING");
  EXPECT_THAT(json["problems"].asString(), StartsWith("1 overdue"));
  EXPECT_EQ(json["overdue"].asInt(), 1);
  EXPECT_GE(json["oldest_overdue"].asInt(), 30);
  EXPECT_EQ(json["daemons"].asInt(), 1);
}

TEST_F(HealthTest, IsUnknownForNumbersThatAreNone) {
  for (const char* option : {"-w", "-c", "-p", "-e", "-t"}) {
    for (const char* value : {"x", "1.5", "99999999999999999999"}) {
      EXPECT_EQ(health({option, value}), "3 KODUCRON UNKNOWN - " + std::string(option) +
                                             " takes a whole number, not '" + value + "'\n");
    }
  }
}

TEST_F(HealthTest, PutsNoSecondSignBeforeTheFigures) {
  daemon.writeDatabaseConfig("a|b", database.port());
  const CtlResult result = run({"health", "-t", "1"});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_EQ(result.out.find('|'), std::string::npos);
}

}  // namespace
