#include <pwd.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

/// koductl test.
class TestTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    writeFile(daemon.logPath(), "");  // its owner counts as the daemon's user
  }

  /// Runs a task whose plugin is a script with this body.
  CtlResult test(const std::string& body, const std::string& parameter = "") const {
    TaskRow row = quietTask(1);
    writePlugin(row.path, body);
    std::filesystem::permissions(row.path, std::filesystem::perms(0755));
    row.parameter = parameter;
    database.insertTask(row);
    return run({"test", "1"});
  }
};

TEST_F(TestTest, RunsThePluginAndEndsWithItsReturnCode) {
  const CtlResult result = test("echo bad; exit 2");
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_THAT(result.out, StartsWith("bad\n--- return code 2 (CRITICAL), "));
  EXPECT_THAT(result.out, HasSubstr("no stored output to compare with"));
}

TEST_F(TestTest, MapsExitCodesAsTheDaemonDoes) {
  EXPECT_EQ(test("echo x; exit 7").exitCode, 3);
}

TEST_F(TestTest, PassesTheArgumentsAndNoEnvironment) {
  const CtlResult result =
      test(R"(echo "$# <$1> <$2>"; /usr/bin/tr '\0' '\n' </proc/$$/environ; read x; echo "[$x]")",
           "-m \"two words\"");
  EXPECT_THAT(result.out, StartsWith("2 <-m> <two words>\n[]\n--- return code 0 (OK)"));
}

TEST_F(TestTest, LeavesNoPluginBehindWhenItIsStopped) {
  const std::string pidFile = daemon.directory / "pid";
  TaskRow row = quietTask(1);
  writePlugin(row.path, "echo $$ >" + pidFile + ".new; /bin/mv " + pidFile + ".new " + pidFile +
                            "; exec /bin/sleep 300");
  database.insertTask(row);
  for (const int signal : {SIGINT, SIGTERM}) {
    std::filesystem::remove(pidFile);
    const pid_t process = start({"-f", daemon.mainConfig(), "test", "1"});
    ASSERT_TRUE(waitUntil([&] { return std::filesystem::exists(pidFile); }));
    const pid_t plugin = std::stoi(readFile(pidFile));
    kill(process, signal);
    int status = 0;
    waitpid(process, &status, 0);
    EXPECT_EQ(signalOf(status), signal);
    EXPECT_TRUE(waitUntil([&] { return kill(plugin, 0) != 0; }));
    EXPECT_EQ(readFile(errPath()), "");
  }
}

TEST_F(TestTest, RunsThePluginWithoutATerminal) {
  TaskRow row = quietTask(1);
  writePlugin(row.path, "echo fine; if (echo typed >/dev/tty) 2>&-; then exit 1; fi; exit 3");
  database.insertTask(row);
  const std::string text = runOnTerminal({"test", "1"});
  EXPECT_THAT(text, HasSubstr("return code 3"));
  EXPECT_THAT(text, testing::Not(HasSubstr("typed")));
}

TEST_F(TestTest, RunsInTheDirectoryOfTheRunningDaemon) {
  ASSERT_TRUE(daemon.startAndWait());
  const std::string directory =
      std::filesystem::read_symlink("/proc/" + std::to_string(daemon.pid()) + "/cwd");
  const CtlResult result = test("pwd");
  EXPECT_THAT(result.out, StartsWith(directory + "\n"));
  EXPECT_THAT(result.out, HasSubstr(" in " + directory + "\n"));
}

TEST_F(TestTest, SaysThatNoDaemonRuns) {
  EXPECT_THAT(test("pwd").out,
              AllOf(StartsWith("/\n"), HasSubstr("no daemon with this configuration runs here")));
}

TEST_F(TestTest, RunsAsTheUserOfTheDaemon) {
  const passwd* user = getpwnam("postgres");
  if (geteuid() != 0 || user == nullptr) {
    GTEST_SKIP() << "only root can become another user";
  }
  std::filesystem::permissions(daemon.directory.path(), std::filesystem::perms(0755));
  ASSERT_EQ(chown(daemon.logPath().c_str(), user->pw_uid, user->pw_gid), 0);
  const CtlResult result = test("/usr/bin/id -un; /usr/bin/id -gn; /usr/bin/id -Gn");
  EXPECT_THAT(result.out, StartsWith("postgres\npostgres\npostgres"));
  EXPECT_THAT(result.out, HasSubstr("as user postgres in /"));
}

TEST_F(TestTest, PrefersTheUserOfTheRunningDaemon) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can become another user";
  }
  const passwd* user = getpwnam("postgres");
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_EQ(chown(daemon.outputDirectory().c_str(), user->pw_uid, user->pw_gid), 0);
  EXPECT_THAT(test("/usr/bin/id -un").out, StartsWith("root\n"));
}

TEST_F(TestTest, ShowsWhatDiffersFromTheStoredOutput) {
  writeOutput("out_1_last.txt", "same\nold\n");
  EXPECT_THAT(test("echo same; echo new").out, HasSubstr("out_1_last.txt:\n-old\n+new\n"));
}

TEST_F(TestTest, SaysThatNothingDiffers) {
  writeOutput("out_1_last.txt", "same\n");
  EXPECT_THAT(test("echo same").out, HasSubstr("--- the same as the stored output, "));
}

TEST_F(TestTest, RecognisesTheTailOfAnOlderLongerOutput) {
  writeOutput("out_1_last.txt", "same\nrest\n");
  EXPECT_THAT(test("echo same").out,
              HasSubstr("except for 5 bytes left from an older, longer one"));
}

TEST_F(TestTest, DescribesAPluginThatPrintsNothing) {
  const CtlResult result = test("exit 0");
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_THAT(result.out, HasSubstr("DAEMON: the plugin does not return anything on the stdout"));
  EXPECT_THAT(result.out, HasSubstr("the daemon tries three times"));
}

TEST_F(TestTest, ChangesNeitherDatabaseNorFiles) {
  TaskRow row = quietTask(1);
  writePlugin(row.path, "echo bad; exit 2");
  database.insertTask(row);
  writeOutput("out_1_last.txt", "old\n");
  const std::string before =
      database.value("SELECT md5(string_agg(t::text, '')) FROM kodu_cron_plugin t");
  run({"test", "1"});
  EXPECT_EQ(database.value("SELECT md5(string_agg(t::text, '')) FROM kodu_cron_plugin t"), before);
  EXPECT_EQ(database.failures(1), 0);
  EXPECT_EQ(daemon.output("out_1_last.txt"), "old\n");
  EXPECT_FALSE(std::filesystem::exists(archive(1)));
}

TEST_F(TestTest, SaysThatThereIsNoSandbox) {
  EXPECT_THAT(test("echo x").out,
              HasSubstr("\n--- without a sandbox: koducron.service does not run here\n"));
}

TEST_F(TestTest, HasItsEarlierName) {
  database.insertTask(quietTask(1));
  EXPECT_THAT(run({"rerun", "1"}).out, StartsWith("fine\n--- return code 0 (OK)"));
}

TEST_F(TestTest, PrintsTheResultAsJson) {
  writeOutput("out_1_last.txt", "old\n");
  TaskRow row = quietTask(1);
  database.insertTask(row);
  const Json::Value json = parsed(run({"test", "1", "--json"}).out);
  EXPECT_EQ(json["return_code"].asInt(), 0);
  EXPECT_EQ(json["output"].asString(), "fine\n");
  EXPECT_EQ(json["stored_output"].asString(), "old\n");
  EXPECT_EQ(json["diff"][1].asString(), "+fine");
  EXPECT_TRUE(json["sandbox"].isNull());
}

}  // namespace
