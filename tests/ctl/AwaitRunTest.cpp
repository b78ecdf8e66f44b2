#include <string>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::HasSubstr;

/// koductl run --wait, with a daemon.
class AwaitRunTest : public CtlTest {
 protected:
  /// A task that is due in an hour, with a plugin of this body.
  void addTask(const std::string& body, const std::string& retries = "0") const {
    TaskRow row = quietTask(1);
    writePlugin(row.path, body);
    row.retries = retries;
    database.insertTask(row);
  }

  /// Starts koductl and returns once it waits.
  pid_t startWaiting() {
    environment.emplace_back("PGPASSWORD=secret");
    const pid_t pid = start({"-f", daemon.mainConfig(), "--user", admin(), "run", "1", "--wait"});
    environment.pop_back();
    EXPECT_TRUE(waitUntil([&] { return readFile(errPath()).find("due at") != std::string::npos; }));
    return pid;
  }
  /// Its exit status after this.
  template <typename Event>
  static int endOf(pid_t pid, const Event& event) {
    event();
    int status = 0;
    waitpid(pid, &status, 0);
    return exitStatusOf(status);
  }
};

TEST_F(AwaitRunTest, PrintsTheOutputOfARunThatEndedOk) {
  addTask("echo fine");
  ASSERT_TRUE(startAndListen());
  const CtlResult result = runAsAdmin({"run", "1", "--wait"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "fine\n");
  EXPECT_THAT(result.err, testing::MatchesRegex("koductl: task 1 is due at 20[0-9: -]+ UTC\n"
                                                "koductl: task 1 ended OK\n"));
  EXPECT_EQ(database.task(1, "cron_status"), "OK");
}

TEST_F(AwaitRunTest, EndsWith1AfterTheRetriesOfAFailedRun) {
  addTask("echo bad; exit 2", "1");
  ASSERT_TRUE(startAndListen());
  const CtlResult result = runAsAdmin({"run", "1", "--wait", "--json"});
  EXPECT_EQ(result.exitCode, 1) << result.err;
  const Json::Value json = parsed(result.out);
  EXPECT_EQ(json["status"].asString(), "FAILED");
  EXPECT_EQ(json["output"].asString(), "bad\n");
  EXPECT_EQ(database.failures(1), 2);
}

TEST_F(AwaitRunTest, WaitsForTheRunThatFollowsOneInProgress) {
  addTask(waitForRelease() + "/bin/date +%s%N >>" + (daemon.directory / "ran") + "; echo fine");
  ASSERT_TRUE(startAndListen());
  ASSERT_EQ(runAsAdmin({"run", "1"}).exitCode, 0);
  ASSERT_TRUE(waitForStatus(1, "PROCESS"));
  EXPECT_EQ(endOf(startWaiting(), [&] { release(); }), 0);
  EXPECT_EQ(readLines(daemon.directory / "ran").size(), 2U);
}

TEST_F(AwaitRunTest, RefusesATaskThatTheDaemonDoesNotRun) {
  TaskRow row = quietTask(1);
  row.pluginType = "web";
  database.insertTask(row);
  ASSERT_TRUE(startAndListen());
  const CtlResult result = runAsAdmin({"run", "1", "--wait"});
  EXPECT_EQ(result.exitCode, 65);
  EXPECT_THAT(result.err, HasSubstr("task 1 is of type web, which the daemon does not run"));
}

TEST_F(AwaitRunTest, RunsNothingOnTrial) {
  addTask("echo fine");
  const CtlResult result = runAsAdmin({"run", "1", "--wait", "--dry-run"});
  EXPECT_EQ(result.exitCode, 64);
  EXPECT_THAT(result.err, HasSubstr("--dry-run excludes --wait"));
  EXPECT_GT(database.nextExec(1), time(nullptr) + 3000);
}

TEST_F(AwaitRunTest, GivesUpWithoutADaemon) {
  addTask("echo fine");
  const CtlResult result = runAsAdmin({"run", "1", "--wait"});
  EXPECT_EQ(result.exitCode, 69);
  EXPECT_THAT(result.err, HasSubstr("no daemon is connected to the database: task 1 runs when one "
                                    "is\n"));
}

TEST_F(AwaitRunTest, GivesUpATaskThatIsPausedOrDeleted) {
  addTask("echo fine");
  EXPECT_EQ(endOf(startWaiting(), [&] { database.query("SELECT kodu_task_pause(1)"); }), 65);
  EXPECT_THAT(readFile(errPath()), HasSubstr("task 1 was paused: its run did not take place"));
  database.query("SELECT kodu_task_resume(1)");
  EXPECT_EQ(endOf(startWaiting(), [&] { database.query("SELECT kodu_task_delete(1)"); }), 65);
  EXPECT_THAT(readFile(errPath()), HasSubstr("task 1 is being deleted"));
}

TEST_F(AwaitRunTest, RefusesAPausedTaskAtOnce) {
  addTask("echo fine");
  database.query("SELECT kodu_task_pause(1)");
  EXPECT_EQ(runAsAdmin({"run", "1", "--wait"}).exitCode, 65);
}

}  // namespace
