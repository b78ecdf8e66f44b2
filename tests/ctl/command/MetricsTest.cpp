#include <filesystem>

#include "db/pgSafeThread.h"
#include "db/statements.h"
#include "tests/ctl/CtlTest.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// koductl metrics, with a session that counts as the daemon and task 1.
class MetricsTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    database.insertTask(quietTask(1));
    prepareNamedStatements(session);
    ASSERT_EQ(run({"metrics"}).exitCode, 0) << "counts from now on";
  }

  void runOnce(const std::string& status) {
    PQclear(session.executePrepareRequest("UpdateCronProcess", {"1"}));
    PQclear(session.executePrepareRequest("UpdateCronState", {"1", status}));
  }

  pgSafeThread session{database.conninfo()};
};

TEST_F(MetricsTest, CountsRunsAndTasks) {
  runOnce("OK");
  runOnce("FAILED");
  // Transactions of other tests on the same server can delay it.
  ASSERT_TRUE(waitUntil(
      [&] { return run({"metrics"}).out.find(",outcome=\"failed\"} 1\n") != std::string::npos; }));
  const CtlResult result = run({"metrics"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("\nkoducron_database_up 1\n"));
  EXPECT_THAT(result.out, HasSubstr("\nkoducron_daemon_up 1\n"));
  EXPECT_THAT(result.out, HasSubstr(",outcome=\"ok\"} 1\n"));
  EXPECT_THAT(result.out, HasSubstr("\nkoducron_tasks{state=\"failed\"} 1\n"));
  EXPECT_THAT(result.out, HasSubstr("\nkoducron_tasks_failing 1\n"));
  EXPECT_THAT(result.out,
              HasSubstr("_failing_since_timestamp_seconds{task_id=\"1\",task=\"task1\"} "));
}

TEST_F(MetricsTest, HasMetricsOfATaskThatWasChosen) {
  const std::string series = "\nkoducron_task_ok{task_id=\"1\",task=\"task1\"} 1\n";
  runOnce("OK");
  EXPECT_THAT(run({"metrics"}).out, Not(HasSubstr(series)));
  const CtlResult chosen = runAsAdmin({"set", "1", "--metrics"});
  EXPECT_EQ(chosen.exitCode, 0) << chosen.err;
  EXPECT_THAT(chosen.out, StartsWith("task 1 (task1) changed; "));
  EXPECT_THAT(run({"metrics"}).out, HasSubstr(series));
  EXPECT_EQ(runAsAdmin({"set", "1", "--no-metrics", "--every", "2h"}).exitCode, 0);
  EXPECT_THAT(run({"metrics"}).out, Not(HasSubstr(series)));
  EXPECT_EQ(database.task(1, "cron_interval"), "02:00:00");
  EXPECT_EQ(runAsAdmin({"set", "1", "--metrics", "--every", "0s"}).exitCode, 65);
  EXPECT_EQ(runAsAdmin({"set", "1", "--metrics", "--dry-run"}).exitCode, 0);
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_metric_mark"), "0") << "all or nothing";
  EXPECT_EQ(runAsAdmin({"set", "1", "--metrics", "--no-metrics"}).exitCode, 64);
  EXPECT_EQ(run({"set", "1", "--metrics"}).exitCode, 77);
}

TEST_F(MetricsTest, HasTwoFormats) {
  EXPECT_THAT(run({"metrics"}).out, Not(HasSubstr("# EOF")));
  EXPECT_THAT(run({"metrics", "--openmetrics"}).out, EndsWith("# EOF\n"));
  EXPECT_EQ(parsed(run({"metrics", "--json"}).out)["content_type"].asString(),
            "text/plain; version=0.0.4; charset=utf-8");
}

TEST_F(MetricsTest, ReplacesAFile) {
  const std::string file = daemon.directory / "koducron.prom";
  writeFile(file, "old");
  const CtlResult result = run({"metrics", "--output", file});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(readFile(file), StartsWith("# HELP koducron_build_info "));
  const CtlResult refused = run({"metrics", "--output", "/nowhere/koducron.prom"});
  EXPECT_EQ(refused.exitCode, 74);
  EXPECT_EQ(refused.err,
            "koductl: cannot write /nowhere/koducron.prom: No such file or directory\n");
}

TEST_F(MetricsTest, LeavesNoFileBehindThatItCannotRename) {
  const std::string folder = daemon.directory / "folder";
  std::filesystem::create_directories(folder + "/koducron.prom/full");
  EXPECT_EQ(run({"metrics", "--output", folder + "/koducron.prom"}).exitCode, 74);
  EXPECT_EQ(filesIn(folder), std::vector<std::string>{"koducron.prom"});
}

TEST_F(MetricsTest, SaysThatTheDatabaseIsAway) {
  daemon.writeDatabaseConfig(database.host(), 1);
  const CtlResult result = run({"metrics"});
  EXPECT_EQ(result.exitCode, 69);
  EXPECT_THAT(result.err, HasSubstr("koductl: connection to server"));
  EXPECT_THAT(result.out, HasSubstr("\nkoducron_database_up 0\n"));
  EXPECT_THAT(result.out, Not(HasSubstr("koducron_daemon_up")));
}

TEST_F(MetricsTest, SaysWhatIsMissing) {
  database.query("DROP FUNCTION kodu_metric_collect");
  const CtlResult result = run({"metrics"});
  EXPECT_EQ(result.exitCode, 65);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, StartsWith("koductl: the database has no metrics: run koductl --user"));
}

}  // namespace
