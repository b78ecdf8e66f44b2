#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/DaemonTest.h"

namespace {

using testing::HasSubstr;

namespace fs = std::filesystem;

/// Task 1 has a defective plugin; task 2 runs each second at the same time.
class BadPluginTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    TaskRow other = makeTask(2, "echo fine");
    other.interval = "1 second";
    database.insertTask(other);
  }

  /// Starts the daemon and expects task 1's run to end with this status and current output file,
  /// and task 2 to run after it.
  void expectRun(const TaskRow& row, const std::string& status, const std::string& output) {
    database.insertTask(row);
    ASSERT_TRUE(daemon.startAndWait());
    ASSERT_TRUE(waitForStatus(1, status));
    EXPECT_EQ(daemon.output("out_1_last.txt"), output);
    EXPECT_EQ(database.failures(1), status == "FAILED" ? 1 : 0);
    const std::size_t runsBefore = runs(2);
    EXPECT_TRUE(waitForRuns(2, runsBefore + 2));
  }

  std::string log() const { return readFile(daemon.logPath()); }
};

TEST_F(BadPluginTest, DoesNotExist) {
  TaskRow row = makeTask(1, "");
  fs::remove(row.path);

  expectRun(row, "FAILED", "DAEMON: plugin is not executable No such file or directory\n");

  EXPECT_THAT(daemon.console(),
              HasSubstr("outputDAEMON: plugin is not executable No such file or directory\n\n"));
  EXPECT_THAT(daemon.console(), HasSubstr("return2\n"));
}

TEST_F(BadPluginTest, IsNotExecutable) {
  const TaskRow row = makeTask(1, "echo fine");
  fs::permissions(row.path, fs::perms::owner_read);

  expectRun(row, "FAILED", "DAEMON: plugin is not executable Permission denied\n");

  EXPECT_EQ(runs(1), 0U);
}

TEST_F(BadPluginTest, PrintsNothing) {
  expectRun(makeTask(1, "exit 0"), "FAILED", "");

  EXPECT_EQ(daemon.logged("ERRORS#TH EXEC: Excute failed retrytask1 1 DAEMON: the plugin does not "
                          "return anything on the stdout"),
            3);
  const auto starts = ledger(1);
  ASSERT_EQ(starts.size(), 3U);
  EXPECT_GE(starts.back() - starts.front(), 2);  // a second's pause after each attempt
  EXPECT_THAT(daemon.console(), HasSubstr("return2\n"));
}

TEST_F(BadPluginTest, LogsNoSuccessForARunThatPrintsNothing) {
  database.insertTask(makeTask(1, "exit 0"));
  ASSERT_TRUE(daemon.startAndWait({"-D"}));
  ASSERT_TRUE(waitForLog("DEBUG#TH EXEC: UPDATE TASK STATE: FAILED task1"));
  EXPECT_EQ(daemon.logged("DEBUG#TH EXEC: crontask exec SUCCESS task1"), 0);
  EXPECT_EQ(daemon.logged("DEBUG#TH EXEC: FAILED EXEC STATE: task1"), 1);
}

TEST_F(BadPluginTest, PrintsOnStandardErrorOnly) {
  expectRun(makeTask(1, "echo lost >&2"), "FAILED", "");

  EXPECT_THAT(daemon.console(), HasSubstr("lost\n"));
}

TEST_F(BadPluginTest, CannotConnect) {
  expectRun(makeTask(1, "exit 255"), "FAILED", "UNKNOWN: KoduDaemon could not connect to host");
}

TEST_F(BadPluginTest, ExitsSilentlyWithAnUnknownCode) {
  TaskRow row = makeTask(1, "exit 9");
  row.parameter = "-a b";
  expectRun(row, "FAILED", "Error execute: Bad return code\ntask1\npath:" + row.path + " -a b ");
}

TEST_F(BadPluginTest, IsKilled) {
  TaskRow row = makeTask(1, "echo started; kill -9 $$");
  row.parameter = "-a b";

  expectRun(row, "FAILED", "Error: kodu can't execute " + row.path);

  const std::string message =
      "#ERRORS#TH EXEC: Excute failed retrytask1 1 Error: kodu can't execute "
      "task1\npath:" +
      row.path + " -a bstarted\n";
  EXPECT_THAT(log(), HasSubstr(message));
  EXPECT_EQ(runs(1), 3U);
}

TEST_F(BadPluginTest, PrintsAHundredMebibytes) {
  constexpr std::size_t kLength = 100UL << 20;
  expectRun(makeTask(1, "/usr/bin/head -c " + std::to_string(kLength) +
                            " /dev/zero | /usr/bin/tr '\\000' x"),
            "OK", std::string(kLength, 'x'));
}

TEST_F(BadPluginTest, PrintsInvalidUtf8) {
  expectRun(makeTask(1, R"(printf 'a\377b\303\251\303(')"), "OK", "a bé (");
}

}  // namespace
