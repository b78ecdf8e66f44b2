#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <libpq-fe.h>

#include "db/pgSafeThread.h"
#include "db/statements.h"
#include "tests/ctl/CtlTest.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// koductl apply.
class ApplyTest : public CtlTest {
 protected:
  std::string file(const std::string& name = "tasks.yaml") const { return daemon.directory / name; }

  CtlResult apply(const std::string& content, const std::vector<std::string>& options = {}) {
    writeFile(file(), content);
    std::vector<std::string> all = {"apply", file()};
    all.insert(all.end(), options.begin(), options.end());
    return runAsAdmin(all);
  }
  /// The same, which is to succeed.
  std::string applied(const std::string& content, const std::vector<std::string>& options = {}) {
    const CtlResult result = apply(content, options);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.err, "");
    return result.out;
  }
  static std::string task(const std::string& key, const std::string& settings = "every: 5m") {
    return "  " + key + ": {plugin: /bin/true, " + settings + "}\n";
  }
  std::string count() const { return database.value("SELECT count(*) FROM kodu_cron_plugin"); }
  std::string snapshot() const {
    return database.value(
        "SELECT string_agg(task::text, '|' ORDER BY cron_id) FROM kodu_cron_plugin"
        " AS task");
  }
};

TEST_F(ApplyTest, AddsChangesAndDeletes) {
  EXPECT_EQ(applied("set: web\ntasks:\n" + task("a", "every: 5m, retries: 3") + task("b")),
            "+ a  task 1 (true)\n"
            "    plugin       /bin/true\n"
            "    every        5m\n"
            "    retries      3\n"
            "    set          web\n"
            "+ b  task 2 (true)\n"
            "    plugin       /bin/true\n"
            "    every        5m\n"
            "    set          web\n"
            "2 tasks added, 0 changed, 0 deleted, 0 unchanged\n");
  const std::string next = "set: web\ntasks:\n" + task("a", "every: 1h, name: new") + task("c");
  EXPECT_EQ(applied(next, {"--prune", "--yes"}),
            "~ a  task 1 (new)\n"
            "    name         (default) -> new\n"
            "    every        5m -> 1h\n"
            "    retries      3 -> (default)\n"
            "+ c  task 3 (true)\n"
            "    plugin       /bin/true\n"
            "    every        5m\n"
            "    set          web\n"
            "- b  task 2 (true)\n"
            "1 task added, 1 changed, 1 deleted, 0 unchanged\n");
  EXPECT_EQ(database.task(1, "cron_interval"), "01:00:00");
  EXPECT_EQ(database.task(1, "cron_retries"), "");
  EXPECT_EQ(database.task(2, "cron_delete"), "t");
  EXPECT_EQ(applied(next, {"--prune", "--yes"}),
            "0 tasks added, 0 changed, 0 deleted, 2 unchanged\n");
}

TEST_F(ApplyTest, ChangesNothingAndTellsNobodyTheSecondTime) {
  pgSafeThread listener(database.adminConninfo());
  PQclear(listener.executeRequest(kListen));
  const auto heard = [&] {
    database.notify("last");
    std::vector<std::string> payloads;
    waitUntil([&] {
      PQconsumeInput(listener.connection);
      while (PGnotify* notification = PQnotifies(listener.connection)) {
        payloads.emplace_back(notification->extra);
        PQfreemem(notification);
      }
      return !payloads.empty() && payloads.back() == "last";
    });
    return payloads;
  };
  const std::string content = "set: s\ntasks:\n" +
                              task("a", "every: 90s, timeout: 10s, arguments: [a b]") +
                              task("b", "every: 1 day, first: 2020-01-01 03:00, paused: true") +
                              task("c", "every: 5m, retry-after: 2.5s, file: $DATE c, name: no");
  applied(content);
  EXPECT_EQ(heard().size(), 5U);  // three are added, and one of them is paused
  const std::string before = snapshot();
  EXPECT_EQ(applied(content), "0 tasks added, 0 changed, 0 deleted, 3 unchanged\n");
  EXPECT_EQ(snapshot(), before);
  EXPECT_THAT(heard(), ElementsAre("last"));
}

TEST_F(ApplyTest, ShowsWhatItWouldDoAndTriesIt) {
  const std::string content = "tasks:\n" + task("a");
  EXPECT_EQ(applied(content, {"--dry-run"}),
            "+ a\n    plugin       /bin/true\n    every        5m\n"
            "1 task to be added, 0 changed, 0 deleted, 0 unchanged\nNothing has been changed.\n");
  EXPECT_EQ(count(), "0");
  const CtlResult refused = apply("tasks:\n" + task("a", "every: 400d"), {"--dry-run"});
  EXPECT_EQ(refused.exitCode, 65);
  EXPECT_THAT(refused.err, HasSubstr("the interval must be between 1 second and 366 days"));
}

TEST_F(ApplyTest, AppliesNothingWhenOneTaskIsWrong) {
  std::string content = "tasks:\n";
  for (int i = 0; i < 600; ++i) {
    content += task("k" + std::to_string(i), i % 200 == 150 ? "every: 400d" : "every: 5m");
  }
  const CtlResult result = apply(content);
  EXPECT_EQ(result.exitCode, 65);
  EXPECT_EQ(result.out, "");
  for (const char* wrong : {":152: k150: the interval must be", ":352: k350: ", ":552: k550: "}) {
    EXPECT_THAT(result.err, HasSubstr(file() + wrong));
  }
  EXPECT_THAT(result.err, HasSubstr("\nnothing was changed\n"));
  EXPECT_EQ(count(), "0");
}

TEST_F(ApplyTest, NamesFileLineKeyAndSettingOfWhatTheDatabaseRefuses) {
  const CtlResult result = apply("tasks:\n  a:\n    plugin: nobody\n    every: soon\n" +
                                 task("b", "every: 5m, timeout: short") + task("c"));
  EXPECT_EQ(result.exitCode, 65);
  EXPECT_THAT(result.err, StartsWith("koductl: " + file() + ":4: a: every: invalid input syntax"));
  EXPECT_THAT(result.err, HasSubstr(file() + ":3: a: plugin: there is no plugin 'nobody'"));
  EXPECT_THAT(result.err, HasSubstr(file() + ":5: b: timeout: invalid input syntax"));
  EXPECT_THAT(result.err, Not(HasSubstr(": c: ")));
  EXPECT_THAT(apply("tasks:\n" + task("a", "every: 5m, timeout: 2d")).err,
              HasSubstr(":2: a: the timeout must be whole seconds, from 1 second to 1 day"));
  EXPECT_THAT(apply("tasks:\n" + task("a", "every: 5m, file: x")).err,
              HasSubstr("lacks $DATE. Without it "));
  EXPECT_EQ(count(), "0");
}

TEST_F(ApplyTest, FindsThePluginThatANameMeans) {
  database.query("INSERT INTO kodu_plugins (plugin_name, plugin_path) VALUES ('load', '/opt/l')");
  applied("tasks:\n  a: {plugin: load, every: 5m}\n");
  EXPECT_EQ(database.value("SELECT name FROM kodu_task_status"), "load");
  EXPECT_EQ(applied("tasks:\n  a: {plugin: /opt/l, name: load, every: 300s}\n"),
            "0 tasks added, 0 changed, 0 deleted, 1 unchanged\n");
}

TEST_F(ApplyTest, SetsAndTakesAwayATimeLimit) {
  applied("tasks:\n" + task("a", "every: 5m, arguments: [x]"));
  EXPECT_THAT(applied("tasks:\n" + task("a", "every: 5m, arguments: [x], timeout: 10s")),
              HasSubstr("    timeout      (default) -> 10s\n"));
  EXPECT_EQ(database.task(1, "cron_parameter"), "-t 10 -- /bin/true x");
  applied("tasks:\n" + task("a", "every: 5m, arguments: [y], timeout: 1m"));
  EXPECT_EQ(database.task(1, "cron_parameter"), "-t 60 -- /bin/true y");
  applied("tasks:\n" + task("a", "every: 5m"));
  EXPECT_EQ(database.task(1, "cron_parameter"), "");
  EXPECT_EQ(database.value("SELECT plugin_path FROM kodu_task_state"), "/bin/true");
}

TEST_F(ApplyTest, TakesAGuardThatIsSpelledOutForATimeLimit) {
  applied("tasks:\n" + task("a", "every: 5m, arguments: [x y], timeout: 10s"));
  EXPECT_EQ(applied("tasks:\n  a:\n    plugin: /usr/bin/koduguard\n    every: 5m\n    name: true\n"
                    "    arguments: [-t, \"10\", --, /bin/true, x y]\n"),
            "0 tasks added, 0 changed, 0 deleted, 1 unchanged\n");
}

TEST_F(ApplyTest, PausesResumesAndMovesTheRhythm) {
  applied("tasks:\n" + task("a", "every: 1 day, first: 1970-01-01 03:00, paused: true, reason: x"));
  EXPECT_EQ(database.value("SELECT pause_reason FROM kodu_task_status"), "x");
  EXPECT_EQ(database.value("SELECT next_exec::time FROM kodu_cron_pause"), "03:00:00");
  applied("tasks:\n" + task("a", "every: 1 day, first: 1970-01-01 04:30, paused: false"));
  EXPECT_EQ(database.value("SELECT next_run::time FROM kodu_task_status"), "04:30:00");
  EXPECT_EQ(database.value("SELECT next_run > now() AND next_run < now() + interval '25 hours'"
                           " FROM kodu_task_status"),
            "t");
  EXPECT_EQ(applied("tasks:\n" + task("a", "every: 1 day")),
            "0 tasks added, 0 changed, 0 deleted, 1 unchanged\n");
}

TEST_F(ApplyTest, PausesUntilATimeInUtc) {
  const auto until = [](const std::string& time) {
    return "tasks:\n" +
           task("a", "every: 1 day, first: 1970-01-01 03:00, paused: true, until: " + time);
  };
  const std::string pausedUntil = "SELECT paused_until FROM kodu_task_status";
  const std::string unchanged = "0 tasks added, 0 changed, 0 deleted, 1 unchanged\n";
  const std::vector<std::string> elsewhere = {"--zone", "Asia/Kathmandu"};
  applied(until("2034-06-01 12:00"), elsewhere);
  EXPECT_EQ(database.value(pausedUntil), "2034-06-01 12:00:00");
  EXPECT_EQ(database.task(1, "cron_next_exec"), "2034-06-02 03:00:00");
  EXPECT_EQ(applied(until("2034-06-01 12:00:00"), elsewhere), unchanged);
  EXPECT_EQ(applied(until("2034-07-01 02:00"), elsewhere),
            "~ a  task 1 (true)\n"
            "    until        2034-06-01 12:00:00 -> 2034-07-01 02:00:00\n"
            "0 tasks added, 1 changed, 0 deleted, 0 unchanged\n");
  EXPECT_EQ(database.task(1, "cron_next_exec"), "2034-07-01 03:00:00");
  EXPECT_EQ(applied("tasks:\n" + task("a", "every: 1 day, paused: true")), unchanged);
  EXPECT_EQ(database.value(pausedUntil), "2034-07-01 02:00:00");
}

TEST_F(ApplyTest, ForgetsADeclaredPauseThatIsOver) {
  const std::string over =
      "tasks:\n" + task("a", "every: 1 day, paused: true, until: 2020-01-01 00:00");
  EXPECT_THAT(applied(over), Not(HasSubstr("paused")));
  EXPECT_EQ(database.value("SELECT paused FROM kodu_task_status"), "f");
  ASSERT_EQ(runAsAdmin({"pause", "1"}).exitCode, 0);
  EXPECT_EQ(applied(over), "0 tasks added, 0 changed, 0 deleted, 1 unchanged\n");
  EXPECT_EQ(database.value("SELECT paused FROM kodu_task_status"), "t");
}

TEST_F(ApplyTest, LeavesAPauseThatAnOperatorHasSet) {
  applied("tasks:\n" + task("a"));
  ASSERT_EQ(runAsAdmin({"pause", "1"}).exitCode, 0);
  EXPECT_THAT(applied("tasks:\n" + task("a", "every: 10m, first: 2020-01-01 00:00:07")),
              HasSubstr("every        5m -> 10m"));
  EXPECT_EQ(database.value("SELECT paused FROM kodu_task_status"), "t");
}

TEST_F(ApplyTest, KnowsATaskWithoutAKeyByItsId) {
  database.insertTask(quietTask(1));
  database.query("UPDATE kodu_plugins SET plugin_path = '/bin/true', plugin_name = 'true'");
  EXPECT_THAT(applied("tasks:\n" + task("task-1",
                                        "every: 7m, retries: 0, retry-after: 2s,"
                                        " file: out_$SERVICEID_$DATE.txt")),
              StartsWith("~ task-1  task 1 (true)\n    every        5m -> 7m\n0 tasks added"));
  EXPECT_EQ(count(), "1");
  // In another database the key is one like any other, and a later task 2 gets another one.
  applied("tasks:\n" + task("task-3"));
  EXPECT_EQ(count(), "2");
  runAsAdmin({"add", "/bin/true", "--every", "5m"});
  EXPECT_EQ(database.value("SELECT kodu_key_of(3)"), "task-3x");
  EXPECT_THAT(applied("tasks:\n" + task("task-3x", "every: 9m")), StartsWith("~ task-3x  task 3 "));
}

TEST_F(ApplyTest, KeepsTheKeyWhenATaskIsRenamed) {
  applied("tasks:\n" + task("a", "every: 5m, name: one"));
  ASSERT_EQ(runAsAdmin({"set", "1", "--name", "two"}).exitCode, 0);
  EXPECT_THAT(applied("tasks:\n" + task("a", "every: 5m, name: three")),
              HasSubstr("    name         two -> three\n"));
  EXPECT_EQ(count(), "1");
}

TEST_F(ApplyTest, GivesTheKeyOfADeletedTaskToANewOne) {
  applied("tasks:\n" + task("a"));
  ASSERT_EQ(runAsAdmin({"delete", "1", "--yes"}).exitCode, 0);
  EXPECT_THAT(applied("tasks:\n" + task("a")), StartsWith("+ a  task 2 (true)\n"));
  EXPECT_EQ(database.value("SELECT kodu_task_with_key('a')"), "2");
}

TEST_F(ApplyTest, LetsATaskJoinASetButNotLeaveIt) {
  applied("tasks:\n" + task("a"));
  EXPECT_THAT(applied("set: web\ntasks:\n" + task("a")),
              HasSubstr("    set          (default) -> web\n"));
  const CtlResult result = apply("set: db\ntasks:\n" + task("a"));
  EXPECT_EQ(result.exitCode, 65);
  EXPECT_THAT(result.err, HasSubstr(":3: a: the key belongs to task 1 of the set web"));
  EXPECT_EQ(applied("tasks:\n" + task("a")), "0 tasks added, 0 changed, 0 deleted, 1 unchanged\n");
  EXPECT_EQ(database.value("SELECT task_set FROM kodu_cron_key"), "web");
}

TEST_F(ApplyTest, DeletesOnlyWhenAskedToAndConfirmed) {
  applied("set: web\ntasks:\n" + task("a") + task("b"));
  const std::string less = "set: web\ntasks:\n" + task("a");
  EXPECT_EQ(applied(less),
            "0 tasks added, 0 changed, 0 deleted, 1 unchanged\n"
            "1 task of the set web is not declared; --prune deletes it\n");
  const CtlResult unasked = apply(less, {"--prune"});
  EXPECT_EQ(unasked.exitCode, 64);
  EXPECT_THAT(unasked.err, HasSubstr("cannot ask without a terminal whether to delete 1 task"));
  EXPECT_EQ(database.task(2, "cron_delete"), "f");
  EXPECT_THAT(applied(less, {"--prune", "--dry-run"}),
              StartsWith("- b  task 2 (true)\n0 tasks to"));
  EXPECT_EQ(database.task(2, "cron_delete"), "f");
  EXPECT_THAT(applied(less, {"--prune", "--yes"}), HasSubstr("1 deleted"));
  const CtlResult nameless = apply("tasks: {}\n", {"--prune", "--yes"});
  EXPECT_EQ(nameless.exitCode, 65);
  EXPECT_THAT(nameless.err, HasSubstr("names no set"));
  EXPECT_EQ(database.task(1, "cron_delete"), "f");
}

TEST_F(ApplyTest, AsksOnATerminal) {
  applied("set: web\ntasks:\n" + task("a") + task("b"));
  writeFile(file(), "set: web\ntasks:\n" + task("a"));
  const std::string command = "\"" + program() + "\" -f " + daemon.mainConfig() + " --user " +
                              admin() + " apply --prune " + file();
  const auto answering = [&](const std::string& answer) {
    const std::string line = "echo " + answer + " | PGPASSWORD=secret script -qec '" + command +
                             "' /dev/null >" + outPath();
    return exitStatusOf(std::system(line.c_str()));  // NOLINT(cert-env33-c,concurrency-mt-unsafe)
  };
  EXPECT_EQ(answering("n"), 65);
  EXPECT_THAT(readFile(outPath()), HasSubstr("b  task 2 (true)"));
  EXPECT_THAT(readFile(outPath()),
              HasSubstr("Delete 1 task, their outputs, archives and histories? [y/N] "));
  EXPECT_EQ(database.task(2, "cron_delete"), "f");
  EXPECT_EQ(answering("y"), 0);
  EXPECT_EQ(database.task(2, "cron_delete"), "t");
}

TEST_F(ApplyTest, PrintsThePlanAsJson) {
  applied("set: web\ntasks:\n" + task("a") + task("b"));
  const Json::Value plan = parsed(applied("set: web\ntasks:\n" + task("a", "every: 1h") + task("c"),
                                          {"--prune", "--yes", "--json"}));
  EXPECT_TRUE(plan["applied"].asBool());
  EXPECT_EQ(plan["set"].asString(), "web");
  EXPECT_EQ(plan["added"].asInt(), 1);
  EXPECT_EQ(plan["changed"].asInt(), 1);
  EXPECT_EQ(plan["deleted"].asInt(), 1);
  const Json::Value& change = plan["changes"][0];
  EXPECT_EQ(change["action"].asString(), "change");
  EXPECT_EQ(change["key"].asString(), "a");
  EXPECT_EQ(change["id"].asInt(), 1);
  EXPECT_EQ(change["settings"]["every"]["old"].asString(), "5m");
  EXPECT_EQ(change["settings"]["every"]["new"].asString(), "1h");
  EXPECT_TRUE(plan["changes"][1]["settings"]["plugin"]["old"].isNull());
  EXPECT_EQ(plan["changes"][2]["action"].asString(), "delete");
}

TEST_F(ApplyTest, ReadsADirectoryAsOneDeclaration) {
  const std::string folder = daemon.directory / "tasks";
  std::filesystem::create_directories(folder + "/sub.d");
  writeFile(folder + "/a.yaml", "set: web\ntasks:\n" + task("a"));
  writeFile(folder + "/b.yml", "tasks:\n" + task("b"));
  writeFile(folder + "/.b.yaml", "not: read");
  writeFile(folder + "/README", "not read");
  writeFile(daemon.directory / "elsewhere", "tasks:\n" + task("c"));
  std::filesystem::create_symlink(daemon.directory / "elsewhere", folder + "/c.yaml");
  const CtlResult result = runAsAdmin({"apply", folder});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("3 tasks added"));
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_key WHERE task_set = 'web'"), "3");
}

TEST_F(ApplyTest, RefusesFilesThatItCannotRead) {
  const std::string folder = daemon.directory / "tasks";
  std::filesystem::create_directories(folder);
  EXPECT_THAT(runAsAdmin({"apply", folder}).err, HasSubstr("has no files *.yaml or *.yml"));
  EXPECT_EQ(runAsAdmin({"apply", folder + "/none"}).exitCode, 66);
  ASSERT_EQ(mkfifo((folder + "/a.yaml").c_str(), 0600), 0);
  EXPECT_THAT(runAsAdmin({"apply", folder}).err, HasSubstr("a.yaml: it is a FIFO"));
  std::filesystem::remove(folder + "/a.yaml");
  std::filesystem::create_directory(folder + "/a.yaml");
  EXPECT_THAT(runAsAdmin({"apply", folder}).err, HasSubstr("it is not a regular file"));
  std::filesystem::remove(folder + "/a.yaml");
  std::filesystem::create_symlink("nowhere", folder + "/a.yaml");
  EXPECT_THAT(runAsAdmin({"apply", folder}).err, HasSubstr("No such file"));
  EXPECT_THAT(runAsAdmin({"apply", "/dev/zero"}).err, HasSubstr("it is not a regular file"));
  writeFile(file(), "");
  std::filesystem::resize_file(file(), (16UL << 20) + 1);
  const CtlResult large = runAsAdmin({"apply", file()});
  EXPECT_EQ(large.exitCode, 65);
  EXPECT_THAT(large.err, HasSubstr("more than 16 MB"));
}

TEST_F(ApplyTest, ReadsStandardInput) {
  const std::string command =
      "printf 'tasks: {a: {plugin: /bin/true, every: 5m}}' | PGPASSWORD=secret"
      " '" +
      program() + "' -f " + daemon.mainConfig() + " --user " + admin() + " apply - >" + outPath() +
      " 2>&1";
  // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe)
  EXPECT_EQ(exitStatusOf(std::system(command.c_str())), 0) << readFile(outPath());
  EXPECT_EQ(count(), "1");
  const std::string endless =
      "yes '# x' | head -c 20000000 | '" + program() + "' apply - >" + outPath() + " 2>&1";
  // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe)
  EXPECT_EQ(exitStatusOf(std::system(endless.c_str())), 65);
}

TEST_F(ApplyTest, NeedsAnAdministrator) {
  writeFile(file(), "tasks:\n" + task("a"));
  const CtlResult result = run({"apply", file()});
  EXPECT_EQ(result.exitCode, 77);
  EXPECT_THAT(result.err, HasSubstr("role kodu may not do this"));
}

TEST_F(ApplyTest, LetsTwoCallsFollowEachOther) {
  std::string content = "set: web\ntasks:\n";
  for (int i = 0; i < 300; ++i) {
    content += task("k" + std::to_string(i));
  }
  writeFile(file(), content);
  environment.emplace_back("PGPASSWORD=secret");
  std::vector<pid_t> calls;
  for (int i = 0; i < 4; ++i) {
    calls.push_back(start(
        {"-f", daemon.mainConfig(), "--user", admin(), "--lock-timeout", "60", "apply", file()}));
  }
  environment.pop_back();
  for (const pid_t call : calls) {
    int status = 0;
    waitpid(call, &status, 0);
    EXPECT_EQ(exitStatusOf(status), 0) << readFile(errPath());
  }
  EXPECT_EQ(count(), "300");
  EXPECT_EQ(database.value("SELECT count(DISTINCT task_key) FROM kodu_cron_key"), "300");
}

TEST_F(ApplyTest, NamesTheSessionThatHoldsATask) {
  applied("tasks:\n" + task("a"));
  pgSafeThread other(database.adminConninfo());
  PQclear(other.executeRequest("BEGIN"));
  PQclear(other.executeRequest("UPDATE kodu_cron_plugin SET cron_status = 'OK'"));
  writeFile(file(), "tasks:\n" + task("a", "every: 7m") + task("b"));
  const CtlResult result = runAsAdmin({"apply", file(), "--lock-timeout", "1"});
  EXPECT_EQ(result.exitCode, 69);
  EXPECT_THAT(result.err, HasSubstr("task 1 (its row of kodu_cron_plugin) was locked for 1 s"));
  PQclear(other.executeRequest("ROLLBACK"));
  EXPECT_EQ(count(), "1");
  EXPECT_EQ(database.task(1, "cron_interval"), "00:05:00");
}

TEST_F(ApplyTest, LeavesNothingHalfDoneWhenItIsInterrupted) {
  // The second batch waits for a lock when the signal comes.
  applied("tasks:\n" + task("z"));
  for (const int signal : {SIGINT, SIGKILL}) {
    pgSafeThread other(database.adminConninfo());
    PQclear(other.executeRequest("BEGIN"));
    PQclear(other.executeRequest("SELECT FROM kodu_cron_plugin FOR UPDATE"));
    std::string content = "tasks:\n" + task("z", "every: 7m");
    for (int i = 0; i < 300; ++i) {
      content += task("k" + std::to_string(i));
    }
    writeFile(file(), content);
    environment.emplace_back("PGPASSWORD=secret");
    const pid_t process = start({"-f", daemon.mainConfig(), "--user", admin(), "apply", file()});
    environment.pop_back();
    EXPECT_TRUE(waitUntil([&] { return database.waitingSessions() > 0; }));
    kill(process, signal);
    int status = 0;
    waitpid(process, &status, 0);
    EXPECT_EQ(signalOf(status), signal);
    EXPECT_EQ(readFile(outPath()), "");
    EXPECT_EQ(readFile(errPath()), "");
    // The server notices that koductl is gone while the lock is still held.
    EXPECT_TRUE(waitUntil([&] { return database.waitingSessions() == 0; }));
    PQclear(other.executeRequest("ROLLBACK"));
    EXPECT_EQ(count(), "1");
  }
}

TEST_F(ApplyTest, AddsTasksThatTheRunningDaemonRuns) {
  const std::string path = makeTask(1, "echo \"$@\"").path;
  ASSERT_TRUE(startAndListen());
  applied("tasks:\n  a: {plugin: " + path + ", every: 1h, arguments: [two words, x]}\n");
  ASSERT_TRUE(waitForStatus(1, "OK"));
  EXPECT_EQ(daemon.output("1_last.txt"), "two words x\n");
}

TEST_F(ApplyTest, ChangesATaskDuringItsRunWithoutLosingASlot) {
  const std::string path = makeTask(1, waitForRelease() + "echo \"$@\"").path;
  const std::string task = "tasks:\n  a:\n    plugin: " + path + "\n    every: ";
  ASSERT_TRUE(startAndListen());
  applied(task + "30m\n    arguments: [old]\n");
  ASSERT_TRUE(waitForStatus(1, "PROCESS"));
  const std::string slot = database.value("SELECT date_trunc('second', now()) + interval '12 s'");
  const long second =
      std::stol(database.value("SELECT extract(epoch FROM '" + slot + "'::timestamptz)::bigint"));
  applied(task + "1h\n    arguments: [new]\n    first: " + slot.substr(0, 19) + "\n");
  EXPECT_EQ(database.task(1, "cron_status"), "PROCESS");
  release();
  ASSERT_TRUE(waitForRuns(1, 2));
  EXPECT_THAT(ledger(1)[1], testing::AllOf(testing::Ge(second), testing::Le(second + 5)));
  EXPECT_TRUE(waitUntil([&] { return daemon.output("1_last.txt") == "new\n"; }, kPatience));
  EXPECT_TRUE(waitUntil([&] { return database.nextExec(1) == second + 3600; }, kPatience));
}

TEST_F(ApplyTest, HasTheDaemonPurgeWhatIsNoLongerDeclared) {
  daemon.programVariable = "KODU_TEST_SHORT_PURGE_DAEMON";
  applied("set: web\ntasks:\n" + task("a") + task("b"));
  ASSERT_TRUE(startAndListen());
  applied("set: web\ntasks:\n" + task("a"), {"--prune", "--yes"});
  EXPECT_TRUE(waitUntil([&] { return database.task(2, "cron_id").empty(); }, kPatience));
  EXPECT_EQ(database.value("SELECT string_agg(task_key, ' ') FROM kodu_cron_key"), "a");
  EXPECT_TRUE(daemon.isRunning());
}

TEST_F(ApplyTest, SaysWhatWasLostWhenTheServerEndsTheSession) {
  applied("tasks:\n" + task("z"));
  pgSafeThread other(database.adminConninfo());
  PQclear(other.executeRequest("BEGIN"));
  PQclear(other.executeRequest("SELECT FROM kodu_cron_plugin FOR UPDATE"));
  writeFile(file(), "tasks:\n" + task("z", "every: 7m") + task("a"));
  environment.emplace_back("PGPASSWORD=secret");
  const pid_t process = start({"-f", daemon.mainConfig(), "--user", admin(), "apply", file()});
  environment.pop_back();
  EXPECT_TRUE(waitUntil([&] { return database.waitingSessions() > 0; }));
  database.query(
      "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = current_database()"
      " AND cardinality(pg_blocking_pids(pid)) > 0");
  int status = 0;
  waitpid(process, &status, 0);
  EXPECT_EQ(exitStatusOf(status), 69);
  EXPECT_THAT(readFile(errPath()), HasSubstr("terminating connection"));
  EXPECT_EQ(readFile(outPath()), "");
  PQclear(other.executeRequest("ROLLBACK"));
  EXPECT_EQ(count(), "1");
  EXPECT_EQ(database.task(1, "cron_interval"), "00:05:00");
}

TEST_F(ApplyTest, EndsQuietlyWhenNobodyReadsThePlan) {
  std::string content = "tasks:\n";
  for (int i = 0; i < 2000; ++i) {
    content += task("k" + std::to_string(i));
  }
  writeFile(file(), content);
  const std::string line = "PGPASSWORD=secret '" + program() + "' -f " + daemon.mainConfig() +
                           " --user " + admin() + " apply " + file() + " 2>" + errPath() +
                           " | head -1 >" + outPath();
  // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe)
  EXPECT_EQ(exitStatusOf(std::system(line.c_str())), 0);
  EXPECT_THAT(readFile(outPath()), StartsWith("+ k0  task "));
  EXPECT_EQ(readFile(errPath()), "");
  EXPECT_EQ(count(), "2000");
}

TEST_F(ApplyTest, KeepsOneGuardForAllTimeLimits) {
  const std::string content =
      "tasks:\n  a: {plugin: /opt/koduguard, every: 5m, arguments: [-t, \"5\", --, /bin/true]}\n" +
      task("b", "every: 5m, timeout: 10s");
  applied(content);
  EXPECT_EQ(database.value("SELECT string_agg(plugin_path, ' ' ORDER BY kodu_key_of(id))"
                           " FROM kodu_task_state"),
            "/opt/koduguard /usr/bin/koduguard");
  EXPECT_EQ(applied(content), "0 tasks added, 0 changed, 0 deleted, 2 unchanged\n");
}

TEST_F(ApplyTest, ShowsNothingOfAFileThatCouldCommandATerminal) {
  const std::string name = R"("a\u001b[31m\nb\u202e")";
  writeFile(file(), "tasks:\n" + task("a", "every: 5m, name: " + name));
  const std::string shown = runOnTerminal({"--user", admin(), "apply", file()},
                                          {"TERM=xterm", "NO_COLOR=1", "PGPASSWORD=secret"});
  EXPECT_THAT(shown, HasSubstr("+ a  task 1 (a?[31m b?)"));
  EXPECT_EQ(shown.find('\x1b'), std::string::npos);
  EXPECT_EQ(database.value("SELECT name FROM kodu_task_status"), "a\x1b[31m\nb\xe2\x80\xae");
  const CtlResult wrong = apply("tasks:\n  ? \"\\u001b[31m\\n\"\n  : {}\n");
  EXPECT_THAT(wrong.err, HasSubstr(": ?[31m : the key must be one word"));
}

TEST_F(ApplyTest, ColoursTheSignsOnATerminal) {
  writeFile(file(), "tasks:\n" + task("a"));
  const std::string shown = runOnTerminal({"--user", admin(), "apply", file(), "--dry-run"},
                                          {"TERM=xterm", "PGPASSWORD=secret"});
  EXPECT_THAT(shown, HasSubstr("\x1b[32m+\x1b[0m a\r\n"));
}

TEST_F(ApplyTest, ShortensLongValuesInThePlanAlone) {
  const std::string longText(900000, 'x');
  const std::string content = "tasks:\n" + task("a", "every: 5m, arguments: [" + longText + "]");
  EXPECT_THAT(applied(content, {"--dry-run"}),
              HasSubstr("arguments    " + std::string(200, 'x') + "...\n"));
  EXPECT_EQ(parsed(applied(content, {"--json"}))["changes"][0]["settings"]["arguments"]["new"],
            longText);
  EXPECT_EQ(database.value("SELECT length(cron_parameter) FROM kodu_cron_plugin"), "900000");
  EXPECT_THAT(
      apply("tasks:\n" + task("a", "every: 5m, arguments: [" + longText + longText + "]")).err,
      HasSubstr(":2: a: the parameters are longer than 1,000,000 bytes"));
}

TEST_F(ApplyTest, WaitsForAnotherCallAndSaysSo) {
  pgSafeThread other(database.adminConninfo());
  PQclear(other.executeRequest("BEGIN"));
  PQclear(other.executeRequest("SELECT pg_advisory_xact_lock(6420241123)"));
  writeFile(file(), "tasks:\n" + task("a"));
  const CtlResult result = runAsAdmin({"apply", file(), "--lock-timeout", "1"});
  EXPECT_EQ(result.exitCode, 69);
  EXPECT_THAT(result.err,
              HasSubstr("was locked for 1 s; nothing was changed\nthe lock is held by "));
  PQclear(other.executeRequest("COMMIT"));
  EXPECT_EQ(runAsAdmin({"apply", file()}).exitCode, 0);
}

TEST_F(ApplyTest, DeletesNothingThatWasNotInThePlanThatWasConfirmed) {
  applied("set: web\ntasks:\n" + task("a") + task("b") + task("c"));
  database.query("UPDATE kodu_cron_key SET task_set = 'db' WHERE task_key = 'c'");
  writeFile(file(), "set: web\ntasks:\n" + task("a"));
  const std::string asked = daemon.directory / "asked";
  const std::string command = "\"" + program() + "\" -f " + daemon.mainConfig() + " --user " +
                              admin() + " apply --prune " + file();
  const std::string line = "(until [ -e " + asked +
                           " ]; do sleep 0.05; done; echo y) |"
                           " PGPASSWORD=secret script -qefc '" +
                           command + "' /dev/null >" + outPath() + " & echo $! >" + errPath();
  ASSERT_EQ(std::system(line.c_str()), 0);  // NOLINT(cert-env33-c,concurrency-mt-unsafe)
  ASSERT_TRUE(waitUntil([&] { return readFile(outPath()).find("[y/N]") != std::string::npos; }));
  database.query("UPDATE kodu_cron_key SET task_set = 'web' WHERE task_key = 'c'");
  writeFile(asked, "");
  EXPECT_TRUE(waitUntil([&] {
    return readFile(outPath()).find("task 3 has joined the set web meanwhile") != std::string::npos;
  }));
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_plugin WHERE cron_delete"), "0");
}

TEST_F(ApplyTest, SaysThatTheFunctionsAreMissing) {
  database.query("DROP FUNCTION kodu_task_define");
  const CtlResult result = apply("tasks:\n" + task("a"));
  EXPECT_EQ(result.exitCode, 65);
  EXPECT_THAT(result.err, HasSubstr("no function kodu_task_define: load sql/functions.sql"));
}

TEST_F(ApplyTest, ChangesEachSettingByItself) {
  const std::string plain = "every: 5m, file: x_$DATE, arguments: [a], retries: 2";
  struct Case {
    std::string settings, name, before, after;
  };
  for (const Case& one : std::vector<Case>{
           {"every: 6m, file: x_$DATE, arguments: [a], retries: 2", "every", "5m", "6m"},
           {"every: 5m, file: y_$DATE, arguments: [a], retries: 2", "file", "x_$DATE", "y_$DATE"},
           {"every: 5m, file: x_$DATE, arguments: [b c], retries: 2", "arguments", "a", "\"b c\""},
           {"every: 5m, file: x_$DATE, retries: 2", "arguments", "a", "(default)"},
           {"every: 5m, file: x_$DATE, arguments: [a]", "retries", "2", "(default)"},
           {plain + ", name: n", "name", "(default)", "n"},
           {plain + ", retry-after: 3m", "retry-after", "(default)", "3m"},
           {plain + ", timeout: 1h", "timeout", "(default)", "1h"},
           {plain + ", paused: true", "paused", "false", "true"}}) {
    applied("tasks:\n" + task("a", plain + ", paused: false"));
    const std::string plan = applied("tasks:\n" + task("a", one.settings));
    const std::string heading = "~ a  task 1 (" + std::string(one.name == "name" ? "n" : "true") +
                                ")\n    " + one.name + std::string(13 - one.name.size(), ' ');
    EXPECT_EQ(plan, heading + one.before + " -> " + one.after +
                        "\n0 tasks added, 1 changed, 0 deleted, 0 unchanged\n");
    EXPECT_EQ(applied("tasks:\n" + task("a", one.settings)),
              "0 tasks added, 0 changed, 0 deleted, 1 unchanged\n");
  }
  EXPECT_EQ(count(), "1");
}

TEST_F(ApplyTest, TakesEqualPeriodsForEqual) {
  applied("tasks:\n" + task("a", "every: 1 day, retry-after: 90s"));
  for (const char* same :
       {"every: 24h, retry-after: 90", "every: 86400, retry-after: 1m 30s",
        "every: \"24:00:00\", retry-after: 0:01:30", "every: P1D, retry-after: 1.5 minutes"}) {
    EXPECT_EQ(applied("tasks:\n" + task("a", same)),
              "0 tasks added, 0 changed, 0 deleted, 1 unchanged\n")
        << same;
  }
}

TEST_F(ApplyTest, RefusesTwoTasksWithOneOutputFile) {
  const CtlResult result = apply("tasks:\n" + task("a", "every: 5m, file: x_$DATE") +
                                 task("b", "every: 5m, file: x_$DATE"));
  EXPECT_EQ(result.exitCode, 65);
  EXPECT_THAT(result.err, HasSubstr(":3: b: another task has this output file. Write "));
  EXPECT_EQ(count(), "0");
}

TEST_F(ApplyTest, LetsTasksTakeEachOthersOutputFiles) {
  const auto files = [&] {
    return database.value(
        "SELECT string_agg(cron_log_file, ' ' ORDER BY cron_id) FROM kodu_cron_plugin");
  };
  const auto content = [](const std::string& a, const std::string& b, const std::string& c) {
    return "tasks:\n" + task("a", "every: 5m, file: " + a) + task("b", "every: 5m, file: " + b) +
           task("c", "every: 5m, file: " + c);
  };
  applied(content("x_$DATE", "y_$DATE", "z_$DATE"));
  applied(content("y_$DATE", "x_$DATE", "z_$DATE"));
  EXPECT_EQ(files(), "y_$DATE x_$DATE z_$DATE");
  applied(content("x_$DATE", "z_$DATE", "new_$DATE"));  // a chain, whose end is free
  EXPECT_EQ(files(), "x_$DATE z_$DATE new_$DATE");
  // By names that mean the file of another task without being its name.
  applied(content("2_$DATE.txt", "$SERVICEID_$DATE", "z_$DATE"));
  applied(content("$SERVICEID_$DATE", "$SERVICEID_$DATE.txt", "z_$DATE"));
  EXPECT_EQ(files(), "$SERVICEID_$DATE $SERVICEID_$DATE.txt z_$DATE");
  const CtlResult taken = apply(content("z_$DATE", "x_$DATE", "z_$DATE"));
  EXPECT_EQ(taken.exitCode, 65);
  EXPECT_THAT(taken.err, HasSubstr(":2: a: another task has this output file"));
  EXPECT_EQ(files(), "$SERVICEID_$DATE $SERVICEID_$DATE.txt z_$DATE");
}

TEST_F(ApplyTest, AddsATaskOfAKeyOnce) {
  const std::vector<std::string> add = {"add", "/bin/true", "--every", "5m", "--key", "web/load"};
  ASSERT_EQ(runAsAdmin(add).exitCode, 0);
  const CtlResult again = runAsAdmin(add);
  EXPECT_EQ(again.exitCode, 65);
  EXPECT_THAT(again.err, StartsWith("koductl: task 1 has the key 'web/load'\nhint: "));
  std::vector<std::string> unlessThere = add;
  unlessThere.emplace_back("--if-missing");
  const CtlResult there = runAsAdmin(unlessThere);
  EXPECT_EQ(there.exitCode, 0) << there.err;
  EXPECT_THAT(there.out, StartsWith("task 1 (true) has this key already; nothing was changed"));
  EXPECT_EQ(count(), "1");
  unlessThere[5] = "web/other";
  EXPECT_THAT(runAsAdmin(unlessThere).out, StartsWith("task 2 (true) added"));
  EXPECT_EQ(runAsAdmin({"add", "/bin/true", "--every", "5m", "--if-missing"}).exitCode, 64);
}

TEST_F(ApplyTest, ChangesTheKeyOfATask) {
  database.insertTask(quietTask(1));
  database.insertTask(quietTask(2));
  ASSERT_EQ(runAsAdmin({"set", "1", "--key", "a"}).exitCode, 0);
  ASSERT_EQ(runAsAdmin({"set", "1", "--key", "b"}).exitCode, 0);
  EXPECT_EQ(database.value("SELECT kodu_task_with_key('b')"), "1");
  EXPECT_THAT(runAsAdmin({"set", "2", "--key", "b"}).err, HasSubstr("another task has this key"));
  EXPECT_THAT(runAsAdmin({"set", "2", "--key", "no key"}).err, HasSubstr("a key must be one word"));
}

}  // namespace
