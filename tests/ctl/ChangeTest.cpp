#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

/// koductl add, set, pause, resume, run and delete.
class ChangeTest : public CtlTest {
 protected:
  /// A plugin that records its runs and its arguments.
  std::string plugin(int id, const std::string& body = "echo \"$@\"") const {
    return makeTask(id, body).path;
  }

  /// The exit status of `delete 1` on a terminal on which a user types `answer`; its output is in
  /// outPath().
  int deleteAnswering(const std::string& answer) const {
    const std::string command =
        "\"" + program() + "\" -f " + daemon.mainConfig() + " --user " + admin() + " delete 1";
    const std::string line = "echo " + answer + " | PGPASSWORD=secret script -qec '" + command +
                             "' /dev/null >" + outPath();
    return exitStatusOf(std::system(line.c_str()));
  }
};

TEST_F(ChangeTest, AddsATaskThatTheRunningDaemonRuns) {
  ASSERT_TRUE(startAndListen());
  const CtlResult added = runAsAdmin({"add", plugin(1), "--every", "1h", "--name", "mine",
                                      "--retries", "0", "--", "-m", "two words"});
  EXPECT_EQ(added.exitCode, 0) << added.err;
  EXPECT_THAT(added.out, MatchesRegex("task 1 \\(mine\\) added; next due at .*\n"));
  EXPECT_EQ(database.task(1, "cron_parameter"), "-m \"two words\"");
  EXPECT_EQ(database.task(1, "cron_retries"), "0");
  ASSERT_TRUE(waitForStatus(1, "OK"));
  EXPECT_EQ(run({"output", "1"}).out, "-m two words\n");
}

TEST_F(ChangeTest, SetsTheGivenFieldsAndKeepsTheOthers) {
  ASSERT_EQ(runAsAdmin({"add", plugin(1), "--every", "1h", "--", "a"}).exitCode, 0);
  const CtlResult result = runAsAdmin({"set", "1", "--every", "2h", "--retry-after", "5m"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(database.task(1, "cron_interval"), "02:00:00");
  EXPECT_EQ(database.task(1, "cron_retries_interval"), "00:05:00");
  EXPECT_EQ(database.task(1, "cron_parameter"), "a");
  EXPECT_EQ(runAsAdmin({"set", "1", "--"}).exitCode, 0);
  EXPECT_EQ(database.task(1, "cron_parameter"), "");
}

TEST_F(ChangeTest, AddsATaskWithATimeLimitAndKeepsItsGuard) {
  database.query("INSERT INTO kodu_plugins (plugin_name, plugin_path) VALUES ('guard', '" +
                 guard() + "')");
  const std::string path = plugin(1);
  ASSERT_EQ(runAsAdmin({"add", path, "--every", "1h", "--timeout", "10s", "--", "a"}).exitCode, 0);
  EXPECT_EQ(database.task(1, "cron_parameter"), "-t 10 -- " + path + " a");
  EXPECT_EQ(runAsAdmin({"set", "1", "--", "b c", "d"}).exitCode, 0);
  EXPECT_EQ(database.task(1, "cron_parameter"), "-t 10 -- " + path + " \"b c\" d");
  EXPECT_EQ(runAsAdmin({"set", "1", "--plugin", plugin(2)}).exitCode, 0);
  EXPECT_EQ(database.task(1, "cron_parameter"), "-t 10 -- " + plugin(2) + " \"b c\" d");
}

TEST_F(ChangeTest, WarnsOfAPluginThatCannotBeRunHere) {
  const CtlResult added = runAsAdmin({"add", "/nowhere/plugin", "--every", "5m"});
  EXPECT_EQ(added.exitCode, 0);
  EXPECT_THAT(added.out, StartsWith("task 1 (plugin) added; "));
  EXPECT_THAT(added.err, MatchesRegex("koductl: warning: user [^ ]+ cannot run /nowhere/plugin "
                                      "here: No such file or directory\n"));
  EXPECT_EQ(runAsAdmin({"set", "1", "--every", "6m"}).err, "");
  EXPECT_EQ(runAsAdmin({"set", "1", "--plugin", plugin(1)}).err, "");
  const std::string locked = plugin(2);
  chmod(locked.c_str(), 0644);
  const CtlResult set = runAsAdmin({"set", "1", "--plugin", locked});
  EXPECT_EQ(set.exitCode, 0);
  EXPECT_THAT(set.err, HasSubstr(" cannot run " + locked + " here: Permission denied\n"));
}

TEST_F(ChangeTest, WarnsOfAGuardAndAGuardedPluginThatCannotBeRunHere) {
  database.query(
      "INSERT INTO kodu_plugins (plugin_name, plugin_path) VALUES ('g', '/nowhere/koduguard')");
  const CtlResult added =
      runAsAdmin({"add", "/nowhere/plugin", "--every", "5m", "--timeout", "10s"});
  EXPECT_EQ(added.exitCode, 0);
  EXPECT_THAT(added.err, HasSubstr(" cannot run /nowhere/koduguard here: No such file"));
  EXPECT_THAT(added.err, HasSubstr(" cannot run /nowhere/plugin here: No such file"));
}

TEST_F(ChangeTest, AddsATaskAsARootThatCannotTakeTheDaemonsRights) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root is refused this way";
  }
  std::filesystem::create_directories(daemon.outputDirectory());
  ASSERT_EQ(chown(daemon.outputDirectory().c_str(), 65534, 65534), 0);
  const std::string command = "PGPASSWORD=secret setpriv --bounding-set -setgid,-setuid '" +
                              program() + "' -f " + daemon.mainConfig() + " --user " + admin() +
                              " add " + plugin(1) + " --every 5m >" + outPath() + " 2>" + errPath();
  EXPECT_EQ(exitStatusOf(std::system(command.c_str())), 0);
  EXPECT_THAT(readFile(errPath()), HasSubstr("warning: cannot take the rights of user "));
}

TEST_F(ChangeTest, RefusesArgumentsThatTheDaemonCannotPass) {
  const CtlResult result = runAsAdmin({"add", plugin(1), "--every", "1h", "--", "it's"});
  EXPECT_EQ(result.exitCode, 65);
  EXPECT_THAT(result.err, HasSubstr("the argument it's contains a quote"));
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_plugin"), "0");
}

TEST_F(ChangeTest, ReportsAnErrorOfTheDatabase) {
  const CtlResult result = runAsAdmin({"add", "nobody", "--every", "1h"});
  EXPECT_EQ(result.exitCode, 65);
  EXPECT_THAT(result.err, StartsWith("koductl: there is no plugin 'nobody'\nhint: "));
  EXPECT_EQ(runAsAdmin({"add", plugin(1), "--every", "soon"}).exitCode, 65);
}

TEST_F(ChangeTest, SaysWhichRoleMayChangeTasks) {
  database.insertTask(quietTask(1));
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"add", "/bin/true", "--every", "1h"},
        {"set", "1", "--every", "1h"},
        {"pause", "1"},
        {"resume", "1"},
        {"run", "1"},
        {"delete", "1", "--yes"},
        {"forecast"},
        {"stagger"},
        {"prune", "--older-than", "1d"}}) {
    const CtlResult result = run(command);
    EXPECT_EQ(result.exitCode, 77) << command.front();
    EXPECT_THAT(result.err, HasSubstr("role kodu may not do this: connect as a member of "
                                      "kodu_admin with --user ROLE"));
  }
}

TEST_F(ChangeTest, ExitsWith77WithoutTheRightToRead) {
  database.query("REVOKE SELECT ON kodu_cron_plugin FROM kodu_admin");
  const CtlResult result = runAsAdmin({"status"});
  EXPECT_EQ(result.exitCode, 77);
  EXPECT_EQ(result.err, "koductl: permission denied for table kodu_cron_plugin\n");
}

TEST_F(ChangeTest, ReportsMissingFunctions) {
  database.insertTask(quietTask(1));
  database.query("DROP FUNCTION kodu_task_resume");
  const CtlResult result = runAsAdmin({"resume", "1"});
  EXPECT_EQ(result.exitCode, 65);
  EXPECT_THAT(result.err, HasSubstr("load sql/functions.sql"));
}

TEST_F(ChangeTest, PausesAndResumesATaskOfTheRunningDaemon) {
  TaskRow row = makeTask(1, "echo fine");
  row.interval = "1 second";
  database.insertTask(row);
  ASSERT_TRUE(startAndListen());
  ASSERT_TRUE(waitForRuns(1, 1));

  const CtlResult paused = runAsAdmin({"pause", "1", "--reason", "too loud"});
  EXPECT_EQ(paused.out, "task 1 (task1) paused\n");
  EXPECT_EQ(database.value("SELECT reason FROM kodu_cron_pause"), "too loud");
  EXPECT_EQ(cell(run({"status"}).out, "1", 2), "paused");
  EXPECT_THAT(runAsAdmin({"pause", "1"}).err, HasSubstr("task 1 is paused already"));

  EXPECT_THAT(runAsAdmin({"resume", "1"}).out, StartsWith("task 1 (task1) resumed; next due at "));
  const std::size_t before = runs(1);
  EXPECT_TRUE(waitForRuns(1, before + 2));
}

TEST_F(ChangeTest, RunsATaskNow) {
  database.insertTask(quietTask(1));
  ASSERT_TRUE(startAndListen());
  EXPECT_THAT(runAsAdmin({"run", "1"}).out, StartsWith("task 1 (task1) will run; next due at "));
  EXPECT_TRUE(waitForStatus(1, "OK"));
}

TEST_F(ChangeTest, ReportsWhatFollowsTheRunInProgress) {
  TaskRow row = quietTask(1);
  row.nextExec = "date_trunc('second', now()) - interval '5 s'";
  database.insertTask(row);
  setStatus(1, "PROCESS");
  const CtlResult result = runAsAdmin({"run", "1"});
  EXPECT_THAT(result.out, MatchesRegex("task 1 \\(task1\\) will run; next due at .*in [123]s.*\n"));
  EXPECT_THAT(result.err, HasSubstr("a run of task 1 is in progress"));
  EXPECT_EQ(runAsAdmin({"pause", "1"}).out, "task 1 (task1) paused\n");
  EXPECT_EQ(runAsAdmin({"delete", "1", "--yes"}).out,
            "the daemon deletes task 1 (task1) and its files within four minutes of the end of its "
            "run\n");
  EXPECT_EQ(database.task(1, "cron_delete"), "f");
}

TEST_F(ChangeTest, DeletesATaskOnlyAfterConfirmation) {
  database.insertTask(quietTask(1));
  const CtlResult asked = runAsAdmin({"delete", "1"});
  EXPECT_EQ(asked.exitCode, 64);
  EXPECT_THAT(asked.err, HasSubstr("use --yes"));
  EXPECT_EQ(database.task(1, "cron_delete"), "f");
  const CtlResult told = runAsAdmin({"delete", "1", "--yes"});
  EXPECT_EQ(told.exitCode, 0);
  EXPECT_EQ(told.out, "the daemon deletes task 1 (task1) and its files within four minutes\n");
  EXPECT_EQ(database.task(1, "cron_delete"), "t");
}

TEST_F(ChangeTest, AsksForConfirmationOnATerminal) {
  database.insertTask(quietTask(1));
  EXPECT_EQ(deleteAnswering("n"), 65);
  EXPECT_EQ(database.task(1, "cron_delete"), "f");
  EXPECT_THAT(readFile(outPath()),
              HasSubstr("Delete task 1 (task1), its output, archive and history? [y/N] "));
  EXPECT_EQ(deleteAnswering("y"), 0);
  EXPECT_EQ(database.task(1, "cron_delete"), "t");
}

TEST_F(ChangeTest, LeavesThePurgeOfADeletedTaskToTheDaemon) {
  daemon.programVariable = "KODU_TEST_SHORT_PURGE_DAEMON";
  database.insertTask(quietTask(1));
  writeOutput("out_1_last.txt", "fine\n");
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_EQ(runAsAdmin({"delete", "1", "--yes"}).exitCode, 0);
  EXPECT_TRUE(waitUntil([&] { return database.task(1, "cron_id").empty(); }, kPatience));
  EXPECT_TRUE(waitUntil([&] { return daemon.output("out_1_last.txt").empty(); }));
}

TEST_F(ChangeTest, PrintsTheChangedTaskAsJson) {
  const Json::Value json =
      parsed(runAsAdmin({"add", plugin(1), "--every", "90 s", "--json", "--", "x"}).out);
  EXPECT_EQ(json["id"].asInt(), 1);
  EXPECT_EQ(json["every_seconds"].asInt(), 90);
  EXPECT_EQ(json["parameters"].asString(), "x");
}

}  // namespace
