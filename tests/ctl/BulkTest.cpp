#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <libpq-fe.h>

#include "db/pgSafeThread.h"
#include "tests/ctl/CtlTest.h"

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

/// koductl pause, resume, run, set, delete, undelete and prune of several tasks.
class BulkTest : public CtlTest {
 protected:
  void insertTasks(int count) const {
    for (int id = 1; id <= count; ++id) {
      database.insertTask(quietTask(id));
    }
  }
  std::string paused() const {
    return database.value(
        "SELECT coalesce(string_agg(cron_id::text, ' ' ORDER BY cron_id), '')"
        " FROM kodu_cron_pause");
  }

  /// The exit status of a command on a terminal where somebody types that; outPath() gets the rest.
  int answering(const std::string& answer, const std::string& command) const {
    const std::string line = "echo " + answer + " | PGPASSWORD=secret TERM=xterm script -qec '\"" +
                             program() + "\" -f " + daemon.mainConfig() + " --user " + admin() +
                             " " + command + "' /dev/null >" + outPath();
    return exitStatusOf(std::system(line.c_str()));
  }

  /// The payloads that a session has heard since it began to listen.
  class Listener {
   public:
    explicit Listener(const std::string& conninfo)
        : connection(PQconnectdb(conninfo.c_str()), PQfinish) {
      PQclear(PQexec(connection.get(), "LISTEN koducronchannel"));
    }
    std::multiset<std::string> heard() {
      PQclear(PQexec(connection.get(), "SELECT"));
      std::multiset<std::string> payloads;
      while (PGnotify* notification = PQnotifies(connection.get())) {
        payloads.insert(notification->extra);
        PQfreemem(notification);
      }
      return payloads;
    }

   private:
    std::unique_ptr<PGconn, decltype(&PQfinish)> connection;
  };
};

TEST_F(BulkTest, PausesWhatASelectionSays) {
  insertTasks(4);
  setStatus(2, "FAILED");
  setStatus(4, "FAILED");
  const CtlResult result = runAsAdmin({"pause", "--failed", "--reason", "new disks", "--yes"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.out, "2 tasks paused\n");
  EXPECT_EQ(paused(), "2 4");
  EXPECT_EQ(database.value("SELECT string_agg(reason, ' ') FROM kodu_cron_pause"),
            "new disks new disks");
  EXPECT_EQ(runAsAdmin({"resume", "--paused", "--yes"}).out, "2 tasks resumed\n");
  EXPECT_EQ(paused(), "");
}

TEST_F(BulkTest, ChangesOneTaskWithoutAQuestion) {
  insertTasks(3);
  EXPECT_EQ(runAsAdmin({"pause", "--name", "task2"}).out, "task 2 (task2) paused\n");
  EXPECT_THAT(runAsAdmin({"resume", "2"}).out,
              ContainsRegex("task 2 \\(task2\\) resumed; next due"));
}

TEST_F(BulkTest, NeedsASelection) {
  insertTasks(2);
  const CtlResult none = runAsAdmin({"pause"});
  EXPECT_EQ(none.exitCode, 64);
  EXPECT_THAT(none.err, HasSubstr("say which tasks to pause: their ids, or conditions"));
  EXPECT_EQ(runAsAdmin({"pause", "--limit", "1", "--sort", "name"}).exitCode, 64);
  EXPECT_EQ(paused(), "");
  EXPECT_EQ(runAsAdmin({"pause", "--all", "--yes"}).out, "2 tasks paused\n");
  EXPECT_EQ(paused(), "1 2");
}

TEST_F(BulkTest, NeedsConfirmationForMoreThanOne) {
  insertTasks(3);
  const CtlResult asked = runAsAdmin({"pause", "1", "2"});
  EXPECT_EQ(asked.exitCode, 64);
  EXPECT_THAT(asked.err, HasSubstr("cannot ask for confirmation without a terminal: use --yes"));
  EXPECT_EQ(paused(), "");
  EXPECT_EQ(answering("n", "pause 1 2"), 65);
  EXPECT_THAT(readFile(outPath()), HasSubstr("Pause 2 tasks? [y/N] "));
  EXPECT_THAT(readFile(outPath()), ContainsRegex("1  task1 .*\n.*2  task2 "));
  EXPECT_THAT(readFile(outPath()), Not(HasSubstr("task3")));
  EXPECT_EQ(paused(), "");
  EXPECT_EQ(answering("y", "pause 1 2"), 0);
  EXPECT_EQ(paused(), "1 2");
}

TEST_F(BulkTest, ShowsWhatWouldHappenAndTakesItBack) {
  insertTasks(3);
  Listener listener(database.adminConninfo());
  const CtlResult result = runAsAdmin({"pause", "1", "3", "--dry-run", "--reason", "moving"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, ContainsRegex("1  task1  paused .*: moving\n"));
  EXPECT_THAT(result.out, HasSubstr("2 tasks would be paused; nothing was changed\n"));
  EXPECT_EQ(paused(), "");
  EXPECT_TRUE(listener.heard().empty());
  const Json::Value json = parsed(runAsAdmin({"pause", "1", "3", "--dry-run", "--json"}).out);
  EXPECT_TRUE(json["dry_run"].asBool());
  EXPECT_EQ(json["tasks"].size(), 2U);
}

TEST_F(BulkTest, ChangesAllOrNone) {
  insertTasks(3);
  ASSERT_EQ(runAsAdmin({"pause", "3"}).exitCode, 0);
  const std::string before = database.value(
      "SELECT sum(EXTRACT(EPOCH FROM cron_next_exec))"
      " FROM kodu_cron_plugin");
  const CtlResult result = runAsAdmin({"run", "1", "2", "3", "--yes"});
  EXPECT_EQ(result.exitCode, 65);
  EXPECT_THAT(result.err, HasSubstr("task 3 is paused\nhint: Call kodu_task_resume(3) first.\n"
                                    "none of the tasks was changed"));
  EXPECT_EQ(database.value("SELECT sum(EXTRACT(EPOCH FROM cron_next_exec)) FROM kodu_cron_plugin"),
            before);
  EXPECT_EQ(runAsAdmin({"run", "1", "99", "--yes"}).exitCode, 66);
}

TEST_F(BulkTest, TellsTheDaemonOfEachTaskInOneTransaction) {
  constexpr int kCount = 2000;
  database.query(
      "INSERT INTO kodu_plugins (plugin_id, plugin_name, plugin_path) VALUES (1, 'a', '/opt/x');"
      "INSERT INTO kodu_cron_plugin (cron_plugin_id, cron_interval, cron_next_exec, cron_log_file)"
      " SELECT 1, '1 hour', date_trunc('second', now()) + interval '1 hour', '$SERVICEID_$DATE'"
      " FROM generate_series(1, " +
      std::to_string(kCount) + ")");
  Listener listener(database.adminConninfo());
  const CtlResult result = runAsAdmin({"pause", "--plugin", "/opt/*", "--yes"});
  EXPECT_EQ(result.out, "2,000 tasks paused\n") << result.err;
  const std::multiset<std::string> heard = listener.heard();
  EXPECT_EQ(heard.size(), static_cast<std::size_t>(kCount));
  EXPECT_EQ(heard.count(R"({"TYPE":"SERVICE","COMMAND":"UPDATE","ID":2000})"), 1U);
  EXPECT_EQ(database.value("SELECT count(DISTINCT xmin::text) FROM kodu_cron_plugin"), "1");
}

TEST_F(BulkTest, PrintsNoStackOfMessages) {
  insertTasks(10);
  replaceRunNow("plpgsql", "BEGIN RAISE NOTICE 'task % waits', task; END");
  const CtlResult result = runAsAdmin({"run", "--all", "--yes"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err,
            "koductl: task 1 waits\nkoductl: task 2 waits\nkoductl: task 3 waits\n"
            "koductl: … and 7 more like these\n");
}

TEST_F(BulkTest, CountsOnlyTheTasksThatItChanges) {
  insertTasks(4);
  ASSERT_EQ(runAsAdmin({"pause", "2", "--reason", "disks"}).exitCode, 0);
  EXPECT_THAT(runAsAdmin({"pause", "--all", "--dry-run"}).out,
              HasSubstr("3 tasks would be paused; 1 was paused already; nothing was changed\n"));
  EXPECT_EQ(runAsAdmin({"pause", "1", "2", "--yes"}).out, "1 task paused; 1 was paused already\n");
  const CtlResult rest = runAsAdmin({"pause", "--all", "--yes"});
  EXPECT_EQ(rest.out, "2 tasks paused; 2 were paused already\n");
  EXPECT_EQ(rest.err, "");
  EXPECT_EQ(runAsAdmin({"pause", "--all", "--yes"}).out,
            "nothing was changed; 4 were paused already\n");
  EXPECT_EQ(runAsAdmin({"pause", "--all", "--until", "2h", "--yes"}).out, "4 tasks paused\n");
  EXPECT_EQ(runAsAdmin({"resume", "1", "--yes"}).exitCode, 0);
  const Json::Value json = parsed(runAsAdmin({"resume", "--all", "--yes", "--json"}).out);
  EXPECT_EQ(json["tasks"].size(), 3U);
  ASSERT_EQ(json["unchanged"].size(), 1U);
  EXPECT_EQ(json["unchanged"][0].asInt(), 1);
  ASSERT_EQ(runAsAdmin({"delete", "3", "--yes"}).exitCode, 0);
  EXPECT_EQ(runAsAdmin({"undelete", "--all", "--yes"}).out,
            "1 task kept; 3 were not being deleted\n");
}

TEST_F(BulkTest, SetsSeveralTasksByTheNameThatTheyHave) {
  insertTasks(3);
  database.query("SELECT setval('kodu_plugins_plugin_id_seq', 100)");
  const CtlResult result = runAsAdmin(
      {"set", "--where-name", "task?", "--where-plugin", "*task[23]", "--every", "2h", "--yes"});
  EXPECT_EQ(result.out, "no task is selected; nothing was changed\n");  // no sets of characters
  EXPECT_EQ(runAsAdmin({"set", "1", "3", "--name", "both", "--every", "2h", "--yes"}).out,
            "2 tasks changed\n");
  EXPECT_EQ(database.value("SELECT string_agg(id || name || every, ' ' ORDER BY id)"
                           " FROM kodu_task_state"),
            "1both02:00:00 2task200:05:00 3both02:00:00");
  EXPECT_EQ(runAsAdmin({"set", "--where-name", "both", "--retries", "2", "--yes"}).out,
            "2 tasks changed\n");
}

TEST_F(BulkTest, DeletesAndTakesItBack) {
  insertTasks(3);
  EXPECT_EQ(runAsAdmin({"delete", "1", "2", "--yes"}).out,
            "2 tasks will be deleted within four minutes, with files and history\n");
  EXPECT_EQ(run({"ids", "--deleting"}).out, "1\n2\n");
  EXPECT_EQ(runAsAdmin({"undelete", "--deleting", "--yes"}).out, "2 tasks kept\n");
  EXPECT_EQ(run({"ids", "--deleting"}).out, "");
  EXPECT_THAT(runAsAdmin({"undelete", "3"}).err, HasSubstr("task 3 is not being deleted"));
}

TEST_F(BulkTest, KeepsATaskFromTheDaemonsPurge) {
  daemon.programVariable = "KODU_TEST_SHORT_PURGE_DAEMON";
  TaskRow kept = makeTask(1, "echo fine");
  kept.nextExec = "date_trunc('second', now()) + interval '1 hour'";
  kept.interval = "1 hour";
  database.insertTask(kept);
  database.insertTask(quietTask(2));
  ASSERT_TRUE(startAndListen());
  ASSERT_EQ(runAsAdmin({"delete", "1", "--yes"}).exitCode, 0);
  ASSERT_EQ(runAsAdmin({"undelete", "1"}).exitCode, 0);
  ASSERT_EQ(runAsAdmin({"delete", "2", "--yes"}).exitCode, 0);
  EXPECT_TRUE(waitUntil([&] { return database.task(2, "cron_id").empty(); }, kPatience));
  EXPECT_EQ(database.task(1, "cron_id"), "1");
  ASSERT_EQ(runAsAdmin({"run", "1"}).exitCode, 0);
  EXPECT_TRUE(waitForStatus(1, "OK"));
}

TEST_F(BulkTest, LeavesOutWhatIsBeingDeletedUnlessItIsNamed) {
  insertTasks(3);
  ASSERT_EQ(runAsAdmin({"delete", "2", "--yes"}).exitCode, 0);
  EXPECT_EQ(runAsAdmin({"pause", "--all", "--yes"}).out, "2 tasks paused\n");
  EXPECT_EQ(paused(), "1 3");
  EXPECT_EQ(runAsAdmin({"resume", "--name", "task*", "--yes"}).out, "2 tasks resumed\n");
  for (const std::vector<std::string>& named :
       {std::vector<std::string>{"pause", "1", "2"}, {"pause", "--deleting"}}) {
    std::vector<std::string> all = named;
    all.emplace_back("--yes");
    const CtlResult result = runAsAdmin(all);
    EXPECT_EQ(result.exitCode, 65);
    EXPECT_THAT(result.err, HasSubstr("task 2 is being deleted"));
  }
  EXPECT_EQ(paused(), "");
  EXPECT_EQ(runAsAdmin({"delete", "--all", "--yes"}).out,
            "2 tasks will be deleted within four minutes, with files and history; 1 was being "
            "deleted already\n");
  EXPECT_EQ(runAsAdmin({"undelete", "--all", "--yes"}).out, "3 tasks kept\n");
}

TEST_F(BulkTest, RefusesWithoutTheRightBeforeItAsks) {
  insertTasks(2);
  const CtlResult result = run({"pause", "--all"});
  EXPECT_EQ(result.exitCode, 77);
  EXPECT_THAT(result.err, HasSubstr("connect as a member of kodu_admin"));
}

TEST_F(BulkTest, LeavesNothingHalfDoneWhenItIsInterrupted) {
  insertTasks(20);
  database.query(
      "CREATE FUNCTION slow() RETURNS trigger LANGUAGE plpgsql AS"
      " $$BEGIN PERFORM pg_sleep(0.3); RETURN NEW; END$$;"
      "CREATE TRIGGER slow BEFORE UPDATE ON kodu_cron_plugin FOR EACH ROW EXECUTE FUNCTION slow()");
  environment.emplace_back("PGPASSWORD=secret");
  const pid_t pid =
      start({"-f", daemon.mainConfig(), "--user", admin(), "pause", "--all", "--yes"});
  EXPECT_TRUE(waitUntil([&] {
    return database.value(
               "SELECT count(*) FROM pg_stat_activity WHERE wait_event = 'PgSleep'"
               " AND datname = current_database()") == "1";
  }));
  kill(pid, SIGINT);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_NE(status, 0);
  EXPECT_TRUE(waitUntil(
      [&] {
        return database.value(
                   "SELECT count(*) FROM pg_stat_activity WHERE application_name = 'kodu_ctl'"
                   " AND datname = current_database()") == "0";
      },
      std::chrono::seconds(20)));
  EXPECT_EQ(paused(), "");
  EXPECT_EQ(readFile(errPath()), "");
}

TEST_F(BulkTest, DoesNotKeepTheRowsWhileItIsStopped) {
  insertTasks(2);
  const Database::Row before =
      database.query("SELECT array_agg(t::text) FROM kodu_cron_plugin t")[0];
  pgSafeThread other(database.adminConninfo());
  PQclear(other.executeRequest("BEGIN"));
  PQclear(other.executeRequest("SELECT FROM kodu_cron_plugin WHERE cron_id = 2 FOR UPDATE"));
  environment.emplace_back("PGPASSWORD=secret");
  const pid_t pid =
      start({"-f", daemon.mainConfig(), "--user", admin(), "pause", "1", "2", "--yes"});
  EXPECT_TRUE(waitUntil([&] { return database.waitingSessions() > 0; }));
  kill(pid, SIGSTOP);
  PQclear(other.executeRequest("COMMIT"));
  EXPECT_TRUE(waitUntil([&] {
    return database.value(
               "SELECT count(*) FROM pg_stat_activity WHERE application_name = 'kodu_ctl'"
               " AND state = 'idle in transaction' AND datname = current_database()") == "1";
  }));
  EXPECT_TRUE(waitUntil([&] {
    return database.value(
               "SELECT count(*) FROM pg_stat_activity WHERE application_name = 'kodu_ctl'"
               " AND datname = current_database()") == "0";
  }));
  kill(pid, SIGCONT);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_EQ(exitStatusOf(status), 69) << readFile(errPath());
  EXPECT_EQ(database.query("SELECT array_agg(t::text) FROM kodu_cron_plugin t")[0], before);
  EXPECT_EQ(paused(), "");
}

TEST_F(BulkTest, SaysAsJsonThatNoTaskIsSelected) {
  insertTasks(1);
  const CtlResult result = runAsAdmin({"pause", "--name", "other", "--json"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(parsed(result.out)["tasks"].size(), 0U);
  EXPECT_EQ(runAsAdmin({"pause", "--name", "other"}).out,
            "no task is selected; nothing was changed\n");
}

TEST_F(BulkTest, PrunesNoOtherTasksThanThoseThatFollowAKey) {
  insertTasks(3);
  for (const int id : {1, 2, 3}) {
    addFailure(id, 200000, "old", "");
  }
  writeFile(daemon.logPath(), "");  // its owner counts as the daemon's user
  EXPECT_EQ(runAsAdmin({"prune", "--older-than", "1d", "--after", "2", "--yes"}).exitCode, 64);
  EXPECT_EQ(runAsAdmin({"prune", "--older-than", "1d", "--after", "2", "--all", "--yes"}).exitCode,
            0);
  EXPECT_EQ(database.failures(1) + database.failures(2), 2);
  EXPECT_EQ(database.failures(3), 0);
}

TEST_F(BulkTest, PrunesTheHistoryOfSelectedTasks) {
  writeFile(daemon.logPath(), "");  // whose owner the daemon's user is, while none runs
  insertTasks(3);
  for (const int id : {1, 2, 3}) {
    addFailure(id, 200000, "old.txt", "12345");
  }
  EXPECT_EQ(runAsAdmin({"prune", "1", "2", "--older-than", "1d"}).exitCode, 64);
  EXPECT_EQ(runAsAdmin({"prune", "1", "2", "--older-than", "1d", "--dry-run"}).out,
            "2 history rows would be deleted with the archived outputs\n");
  EXPECT_EQ(database.failures(1), 1);
  EXPECT_EQ(runAsAdmin({"prune", "1", "2", "--older-than", "1d", "--yes"}).out,
            "2 history rows and 2 archived outputs deleted, 10 bytes\n");
  EXPECT_EQ(database.failures(1) + database.failures(2), 0);
  EXPECT_EQ(database.failures(3), 1);
  EXPECT_TRUE(std::filesystem::exists(archive(3) + "/old.txt"));
  EXPECT_EQ(runAsAdmin({"prune", "--name", "none", "--older-than", "1d"}).exitCode, 66);
}

TEST_F(BulkTest, PrunesInBatchesAndShowsItsProgressOnATerminal) {
  writeFile(daemon.logPath(), "");
  insertTasks(1);
  database.query(
      "INSERT INTO kodu_cron_error (cron_id, cron_date, cron_logfile)"
      " SELECT 1, now() - interval '2 days' - n / 100 * interval '1 s', n || '.txt'"
      " FROM generate_series(1, 25000) AS n");
  writeOutput("x", "");
  EXPECT_EQ(answering("", "prune --older-than 1d"), 0);
  const std::string shown = readFile(outPath());
  EXPECT_THAT(shown, HasSubstr("\r[                              ] 0% of 25,000 history rows"));
  EXPECT_THAT(shown, HasSubstr("\r[############                  ] 40% of 25,000 history rows"));
  EXPECT_THAT(shown,
              HasSubstr("\r\x1b[K25,000 history rows and 0 archived outputs deleted, 0 bytes"));
  EXPECT_EQ(database.failures(1), 0);
}

TEST_F(BulkTest, SaysAsJsonThatNothingIsSelected) {
  insertTasks(2);
  for (const char* command : {"pause", "resume", "run", "delete", "undelete"}) {
    EXPECT_EQ(runAsAdmin({command, "--name", "none"}).out,
              "no task is selected; nothing was changed\n");
    const CtlResult result = runAsAdmin({command, "--name", "none", "--json"});
    EXPECT_EQ(result.exitCode, 0) << command;
    const Json::Value json = parsed(result.out);
    EXPECT_FALSE(json["dry_run"].asBool());
    EXPECT_TRUE(json["tasks"].isArray()) << command;
    EXPECT_EQ(json["tasks"].size(), 0U);
  }
}

TEST_F(BulkTest, ShowsWhatAnUndeletionWouldKeep) {
  insertTasks(2);
  ASSERT_EQ(runAsAdmin({"delete", "--all", "--yes"}).exitCode, 0);
  const CtlResult result = runAsAdmin({"undelete", "--all", "--dry-run"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("2 tasks would be kept; nothing was changed\n"));
  EXPECT_EQ(run({"ids", "--deleting"}).out, "1\n2\n");
  const Json::Value kept = parsed(runAsAdmin({"undelete", "2", "--json"}).out);
  EXPECT_EQ(kept["id"].asInt(), 2);
  EXPECT_FALSE(kept["deleted"].asBool());
  EXPECT_EQ(run({"ids", "--deleting"}).out, "1\n");
}

TEST_F(BulkTest, KeepsThePauseOfATaskThroughItsDeletion) {
  insertTasks(1);
  ASSERT_EQ(runAsAdmin({"pause", "1", "--reason", "new disks"}).exitCode, 0);
  ASSERT_EQ(runAsAdmin({"delete", "1", "--yes"}).exitCode, 0);
  EXPECT_EQ(runAsAdmin({"undelete", "1"}).out, "task 1 (task1) kept\n");
  EXPECT_EQ(cell(run({"status"}).out, "1", 2), "paused");
  EXPECT_THAT(run({"show", "1"}).out, HasSubstr("new disks"));
}

TEST_F(BulkTest, PerformsADryRunOfEachChange) {
  insertTasks(2);
  database.query("SELECT kodu_task_pause(2)");
  const std::string before =
      database.value("SELECT string_agg(t::text, ' ') FROM kodu_cron_plugin t");
  for (const auto& [command, result] : {std::pair("pause", "1 task would be paused"),
                                        {"resume", "1 task would be resumed"},
                                        {"run", "1 task would run"},
                                        {"delete", "1 task would be deleted within "}}) {
    const std::string id = std::string(command) == "resume" ? "2" : "1";
    const CtlResult trial = runAsAdmin({command, id, "--dry-run"});
    EXPECT_EQ(trial.exitCode, 0) << command << trial.err;
    EXPECT_THAT(trial.out, HasSubstr("task" + id));
    EXPECT_THAT(trial.out, HasSubstr(std::string("\n") + result));
    EXPECT_THAT(trial.out, testing::EndsWith("; nothing was changed\n"));
    EXPECT_EQ(database.value("SELECT string_agg(t::text, ' ') FROM kodu_cron_plugin t"), before)
        << command;
  }
  EXPECT_THAT(runAsAdmin({"set", "1", "--every", "7m", "--dry-run"}).out,
              ContainsRegex(" 7m +0/0 "));
  EXPECT_EQ(database.value("SELECT string_agg(t::text, ' ') FROM kodu_cron_plugin t"), before);
}

TEST_F(BulkTest, AsksInTheNameOfOneTaskWhatItLoses) {
  insertTasks(1);
  EXPECT_EQ(answering("n", "delete 1"), 65);
  EXPECT_THAT(readFile(outPath()), HasSubstr("Delete task 1 (task1), its "));
  EXPECT_THAT(readFile(outPath()), HasSubstr("nothing was changed"));
  EXPECT_EQ(run({"ids", "--deleting"}).out, "");
  EXPECT_EQ(answering("yes", "delete 1"), 0);
  EXPECT_EQ(run({"ids", "--deleting"}).out, "1\n");
  EXPECT_EQ(answering("Y", "undelete 1"), 0) << "nothing is lost, so nothing is asked";
  EXPECT_THAT(readFile(outPath()), Not(HasSubstr("[y/N]")));
}

TEST_F(BulkTest, WaitsForOneTaskOnly) {
  insertTasks(2);
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"run", "1", "2", "--wait"},
        {"run", "--all", "--wait"},
        {"run", "--name", "task1", "--wait"}}) {
    const CtlResult result = runAsAdmin(command);
    EXPECT_EQ(result.exitCode, 64) << testing::PrintToString(command);
    EXPECT_EQ(result.err, "koductl: --wait waits for one task: name it by its id\n");
  }
}

}  // namespace
