#include <string>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::HasSubstr;

constexpr const char* kJsonTime = "....-..-..T..:..:..Z";

/// koductl forecast, stagger and prune.
class PlanTest : public CtlTest {
 protected:
  /// Tasks 1 to `count`, each hour, all at the same second.
  void insertCrowd(int count) const {
    const std::string moment =
        database.value("SELECT date_trunc('hour', now()) + interval '1 hour'");
    for (int id = 1; id <= count; ++id) {
      TaskRow row = quietTask(id);
      row.interval = "1 hour";
      row.nextExec = "timestamptz '" + moment + "' AT TIME ZONE 'UTC'";
      database.insertTask(row);
    }
  }
};

TEST_F(PlanTest, ForecastsTheRunsAndTheWorkersThatTheyNeed) {
  insertCrowd(4);
  const CtlResult result = runAsAdmin({"forecast", "2", "--run-seconds", "2.5"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("8 runs in 2 h; the busiest second is "));
  EXPECT_THAT(result.out, HasSubstr(" with 4.\nWith runs of 2.5 s, 4 workers at work at once; "
                                    "thread_number is 2.\n"));
}

TEST_F(PlanTest, ForecastsWithTheDurationOfATask) {
  TaskRow row = quietTask(1);
  row.interval = "1 minute";
  row.nextExec = "now()";
  database.insertTask(row);
  const Json::Value minutes = parsed(runAsAdmin({"forecast", "--took", "1=30", "--json"}).out);
  EXPECT_GE(minutes.size(), 60U);
  EXPECT_EQ(minutes[30]["runs"].asInt(), 1);
  EXPECT_EQ(minutes[30]["workers"].asInt(), 1);
  EXPECT_THAT(minutes[30]["busiest_second"].asString(), testing::MatchesRegex(kJsonTime));
}

TEST_F(PlanTest, RefusesDurationsThatAreNone) {
  for (const char* wrong : {"30", "1=", "=1", "1=x", "1=1, \"2\": 3", "1=-1", ""}) {
    const CtlResult result = runAsAdmin({"forecast", "--took", wrong});
    EXPECT_EQ(result.exitCode, 64) << wrong;
    EXPECT_THAT(result.err, HasSubstr("--took wants ID=SECONDS, as 7=12.5")) << wrong;
  }
  EXPECT_EQ(runAsAdmin({"forecast", "--took", "1=007.5"}).exitCode, 0);
}

TEST_F(PlanTest, GivesNoBusiestSecondWhereNothingIsDue) {
  EXPECT_TRUE(parsed(runAsAdmin({"forecast", "--json"}).out)[0]["busiest_second"].isNull());
}

TEST_F(PlanTest, ProposesTimesAndSetsThemWhenToldTo) {
  insertCrowd(4);
  const CtlResult proposed = runAsAdmin({"stagger"});
  EXPECT_EQ(proposed.exitCode, 0) << proposed.err;
  EXPECT_THAT(proposed.out, HasSubstr("busiest second: 4 runs before, 1 after\n"));
  EXPECT_THAT(proposed.out, HasSubstr("Nothing is changed yet: say --apply.\n"));
  EXPECT_EQ(database.value("SELECT count(DISTINCT cron_next_exec) FROM kodu_cron_plugin"), "1");

  const Json::Value applied = parsed(runAsAdmin({"stagger", "--apply", "--json"}).out);
  EXPECT_TRUE(applied["applied"].asBool());
  EXPECT_EQ(applied["busiest_after"].asInt(), 1);
  EXPECT_EQ(applied["moves"][0]["every"].asString(), "01:00:00");
  EXPECT_THAT(applied["moves"][0]["proposed"].asString(), testing::MatchesRegex(kJsonTime));
  EXPECT_EQ(database.value("SELECT count(DISTINCT cron_next_exec) FROM kodu_cron_plugin"), "4");
}

TEST_F(PlanTest, DeletesOldRowsAndTheirOutputsTogether) {
  database.insertTask(quietTask(1));
  addFailure(1, 100000, "out_1_old.txt", "12345");
  addFailure(1, 10, "out_1_new.txt", "x");
  addFailure(1, 100000, "../out_1_new.txt", "x");
  const CtlResult result = runAsAdmin({"prune", "--older-than", "1d"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.out, "2 history rows and 1 archived output deleted, 5 bytes\n");
  EXPECT_THAT(filesIn(archive(1)), testing::ElementsAre("out_1_new.txt"));
  EXPECT_EQ(database.failures(1), 1);
}

TEST_F(PlanTest, KeepsTheOutputThatAYoungerRowNames) {
  database.insertTask(quietTask(1));
  addFailure(1, 100000, "out_1_same.txt", "old");
  addFailure(1, 10, "out_1_same.txt", "new");
  const Json::Value json = parsed(runAsAdmin({"prune", "--older-than", "1d", "--json"}).out);
  EXPECT_EQ(json["rows"].asInt(), 1);
  EXPECT_EQ(json["files"].asInt(), 0);
  EXPECT_EQ(readFile(archive(1) + "/out_1_same.txt"), "new");
}

TEST_F(PlanTest, LooksForOldRowsAndDeletesThemInOneTransaction) {
  // In two, a row that grows too old in between would go without its file.
  database.query(
      "CREATE OR REPLACE FUNCTION kodu_history_prune(older_than interval) RETURNS bigint"
      " LANGUAGE sql AS $$SELECT count(*) FROM pg_locks WHERE pid = pg_backend_pid()"
      " AND relation = 'kodu_cron_error'::regclass AND mode = 'AccessShareLock'$$");
  EXPECT_THAT(runAsAdmin({"prune", "--older-than", "1d"}).out, HasSubstr("1 history row and 0 "));
}

TEST_F(PlanTest, RefusesToPruneWithoutAnAge) {
  EXPECT_EQ(runAsAdmin({"prune"}).exitCode, 64);
  EXPECT_EQ(runAsAdmin({"prune", "--older-than", "0 s"}).exitCode, 65);
}

}  // namespace
