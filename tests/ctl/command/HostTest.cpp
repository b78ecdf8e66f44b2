#include <string>
#include <vector>

#include "db/PostgresqlException.h"
#include "db/pgSafeThread.h"
#include "tests/ctl/CtlTest.h"
#include "tests/support/waitUntil.h"

namespace {

using testing::HasSubstr;

/// koductl host, on a database with sql/hosts.sql and a second host.
class HostCommandTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    database.query(
        "ALTER TABLE kodu_plugins ALTER plugin_id RESTART 1000;"
        "ALTER TABLE kodu_cron_plugin ALTER cron_id RESTART 1000");
    database.query(readFile(projectFile("sql/hosts.sql")));
    database.query("CREATE ROLE " + owner + " LOGIN SUPERUSER PASSWORD 'secret'");
    second.role = other;
    second.writeConfig();
  }
  void TearDown() override {
    database.query("DROP ROLE IF EXISTS " + other + "; DROP ROLE " + owner);
    CtlTest::TearDown();
  }

  CtlResult runAsOwner(std::vector<std::string> arguments) {
    environment.emplace_back("PGPASSWORD=secret");
    arguments.insert(arguments.begin(), {"--user", owner});
    CtlResult result = run(arguments);
    environment.pop_back();
    return result;
  }
  void addOther() {
    const std::string file = daemon.directory / "password";
    writeFile(file, database.password() + "\n");
    const CtlResult result = runAsOwner({"host", "add", other, "--password-file", file});
    ASSERT_EQ(result.exitCode, 0) << result.err;
  }

  /// "kodu 2, kodu_b 1": the tasks of tests.
  std::string hostsOfTasks() const {
    return database.value(
        "SELECT string_agg(concat_ws(' ', host, tasks), ', ' ORDER BY host) FROM (SELECT cron_host "
        "AS"
        " host, count(*) AS tasks FROM kodu_cron_plugin WHERE cron_id < 1000 GROUP BY 1) AS each");
  }

  std::string hostsOfKeys() const {
    return database.value(
        "SELECT string_agg(concat_ws(' ', task_key, host), ', ' ORDER BY task_key) FROM"
        " kodu_cron_key JOIN kodu_task_host ON id = cron_id");
  }

  std::string other = database.name() + "_b";
  std::string owner = "owner_of_" + database.name();
  Daemon second{database};
};

TEST_F(HostCommandTest, LeavesPingTasksOutOfAnExport) {
  addOther();
  EXPECT_EQ(runAsOwner({"export"}).out, "tasks: {}\n") << "they belong to this database";
}

TEST_F(HostCommandTest, AddsAndRemovesAHost) {
  EXPECT_EQ(runAsOwner({"host", "add", other, "--dry-run"}).out,
            "would add the host " + other + "\n");
  EXPECT_EQ(run({"host", "list"}).out, "kodu\n");

  addOther();

  EXPECT_EQ(run({"host", "list"}).out, "kodu\n" + other + "\n");
  const pgSafeThread session(database.conninfo() + " user=" + other);
  for (const std::string& line : database.serverLog()) {
    EXPECT_THAT(line, testing::Not(HasSubstr(database.password())));
  }
  EXPECT_EQ(runAsOwner({"host", "remove", "kodu"}).exitCode, 65);
}

TEST_F(HostCommandTest, RemovesAHostWithoutTasks) {
  addOther();
  EXPECT_EQ(runAsOwner({"host", "remove", other, "--dry-run"}).exitCode, 0);
  EXPECT_EQ(run({"host", "list"}).out, "kodu\n" + other + "\n");
  EXPECT_EQ(runAsOwner({"host", "remove", other}).out, "removed the host " + other + "\n");
  EXPECT_EQ(run({"host", "list"}).out, "kodu\n");
}

TEST_F(HostCommandTest, ShowsWhatEachHostDoes) {
  database.insertTask(quietTask(1));
  EXPECT_EQ(run({"host"}).out,
            "HOST            TASKS  RUNNING  LATE  LEAVING  LENT  DAEMON\n"
            "kodu (default)      1        0     -        0     0  not connected\n");
  const Json::Value json = parsed(run({"host", "status", "--json"}).out);
  EXPECT_EQ(json["hosts"][0]["host"], "kodu");
  EXPECT_EQ(json["hosts"][0]["tasks"], 1);
  EXPECT_EQ(json["hosts"][0]["sessions"], 0);
  EXPECT_TRUE(json["tasks"].isNull());
}

TEST_F(HostCommandTest, GivesTheTasksOfAHostThatIsDownToAnother) {
  addOther();
  database.insertTask(quietTask(1));
  database.insertTask(quietTask(2));
  EXPECT_EQ(runAsAdmin({"host", "takeover", "kodu", other, "--dry-run"}).out,
            "would give at most 2 tasks of the host kodu to the host " + other + "\n");
  EXPECT_THAT(runAsAdmin({"host", "takeover", "kodu", other}).err, HasSubstr("does not answer"));
  EXPECT_EQ(database.task(1, "cron_host"), "kodu");

  ASSERT_TRUE(second.startAndWait());
  const CtlResult result = runAsAdmin({"host", "takeover", "kodu", other});

  EXPECT_EQ(result.out, "gave 2 tasks of the host kodu to the host " + other + "\n") << result.err;
  EXPECT_EQ(database.task(1, "cron_host"), other);
}

TEST_F(HostCommandTest, MovesTasksBetweenTwoDaemons) {
  addOther();
  for (const int id : {1, 2, 3}) {
    database.insertTask(quietTask(id));
  }
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(second.startAndWait());
  const CtlResult refused = runAsAdmin({"host", "takeover", "kodu", other});
  EXPECT_EQ(refused.exitCode, 65);
  EXPECT_THAT(refused.err, HasSubstr("is connected"));
  EXPECT_EQ(runAsAdmin({"host", "move", "kodu", other, "--tasks", "2", "--dry-run"}).out,
            "would give at most 2 tasks of the host kodu to the host " + other + "\n");
  EXPECT_EQ(database.task(1, "cron_host"), "kodu");

  const CtlResult result = runAsAdmin({"host", "move", "kodu", other, "--tasks", "2", "--json"});

  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(parsed(result.out)["tasks"], 2);
  EXPECT_EQ(database.value("SELECT string_agg(cron_id::text, ' ' ORDER BY cron_id) FROM"
                           " kodu_cron_plugin WHERE cron_id < 4 AND cron_host = '" +
                           other + "'"),
            "1 2");
  EXPECT_TRUE(daemon.isRunning());
  EXPECT_TRUE(second.isRunning());
}

TEST_F(HostCommandTest, DrainsAHostAndFillsItAgain) {
  addOther();
  for (const int id : {1, 2, 3}) {
    database.insertTask(quietTask(id));
  }
  ASSERT_TRUE(daemon.startAndWait());
  EXPECT_THAT(runAsAdmin({"host", "drain", "kodu"}).err,
              HasSubstr("no other host than kodu listens"));
  ASSERT_TRUE(second.startAndWait());
  EXPECT_THAT(runAsAdmin({"host", "drain", "kodu", "--dry-run"}).out,
              HasSubstr("\nwould move 3 tasks\n"));
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_host WHERE instead IS NOT NULL"), "0");

  const CtlResult drained = runAsAdmin({"host", "drain", "kodu"});

  EXPECT_THAT(drained.out, HasSubstr("\nmoved 3 tasks\n")) << drained.err;
  EXPECT_EQ(hostsOfTasks(), other + " 3");
  EXPECT_THAT(run({"host"}).out, HasSubstr("drained, new tasks go to " + other));
  database.insertTask(quietTask(4));
  EXPECT_EQ(database.task(4, "cron_host"), other) << "a new task";
  EXPECT_EQ(runAsAdmin({"host", "return", "kodu", "--dry-run"}).out,
            "would give at most 3 tasks back to the host kodu\n");

  const CtlResult returned = runAsAdmin({"host", "return", "kodu"});

  EXPECT_EQ(returned.out, "gave 3 tasks back to the host kodu\n") << returned.err;
  EXPECT_EQ(hostsOfTasks(), "kodu 3, " + other + " 1");
  database.insertTask(quietTask(5));
  EXPECT_EQ(database.task(5, "cron_host"), "kodu");
  EXPECT_TRUE(daemon.isRunning());
  EXPECT_TRUE(second.isRunning());
}

TEST_F(HostCommandTest, EvensOutWhatTheHostsHave) {
  addOther();
  for (const int id : {1, 2, 3, 4}) {
    TaskRow row = quietTask(id);
    row.interval = id == 1 ? "100 seconds" : "300 seconds";
    database.insertTask(row);
  }
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(second.startAndWait());
  const std::string table = runAsAdmin({"host", "balance", "--dry-run"}).out;
  EXPECT_THAT(table, HasSubstr("HOST"));
  EXPECT_EQ(cell(table, "kodu", 1) + " to " + cell(table, "kodu", 2), "4 to 3");
  EXPECT_EQ(cell(table, "kodu", 3) + " to " + cell(table, "kodu", 4), "0.02 to 0.01");
  EXPECT_EQ(cell(table, "kodu", 5), "-") << "the ledger has no summary";
  // Its runs take so long that the others together cost as much.
  database.query(
      "INSERT INTO kodu_ledger_day (day, cron_id, outcome, rows, periods, seconds, max_seconds,"
      " lateness, max_lateness) SELECT current_date, id, 'O', 10, 10, CASE id WHEN 1 THEN 10 ELSE "
      "40"
      " END, 4, 0, 0 FROM generate_series(1, 4) AS id");

  const CtlResult result = runAsAdmin({"host", "balance", "--json"});

  const Json::Value json = parsed(result.out);
  EXPECT_EQ(json["tasks"], 2) << result.err;
  EXPECT_EQ(json["plan"][0]["then"]["tasks"], 2);
  EXPECT_NEAR(json["plan"][0]["now"]["busy_workers"].asDouble(), 0.05, 0.0001);
  EXPECT_EQ(hostsOfTasks(), "kodu 2, " + other + " 2");
  EXPECT_EQ(runAsAdmin({"host", "balance"}).exitCode, 0);
  EXPECT_TRUE(daemon.isRunning());
  EXPECT_TRUE(second.isRunning());
}

TEST_F(HostCommandTest, ChoosesTheHostOfNewTasks) {
  addOther();
  EXPECT_EQ(runAsAdmin({"host", "default", other, "--dry-run"}).out,
            "new tasks would go to the host " + other + "\n");
  EXPECT_EQ(runAsAdmin({"host", "default", other}).out, "new tasks go to the host " + other + "\n");
  database.insertTask(quietTask(1));
  EXPECT_EQ(database.task(1, "cron_host"), other);
  EXPECT_EQ(runAsAdmin({"host", "default", "b"}).exitCode, 66);
}

TEST_F(HostCommandTest, AddsATaskForAHost) {
  addOther();
  const CtlResult result =
      runAsAdmin({"add", "/bin/true", "--every", "1h", "--host", other, "--name", "far"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(database.value("SELECT host FROM kodu_task_host JOIN kodu_task_state USING (id) WHERE"
                           " name = 'far'"),
            other);
  EXPECT_EQ(runAsAdmin({"add", "/bin/true", "--every", "1h", "--host", "b"}).exitCode, 66);
}

TEST_F(HostCommandTest, KeepsTheHostInDeclarations) {
  addOther();
  const std::string file = daemon.directory / "tasks.yaml";
  const std::string tasks =
      "tasks:\n  far:\n    plugin: /bin/true\n    every: 1h\n    host: " + other +
      "\n  near:\n    plugin: /bin/true\n    every: 1h\n";
  writeFile(file, tasks);
  const CtlResult applied = runAsAdmin({"apply", file});
  EXPECT_EQ(applied.exitCode, 0) << applied.err;
  EXPECT_EQ(hostsOfKeys(), "far " + other + ", near kodu");
  const std::string exported = runAsAdmin({"export", "--all"}).out;
  EXPECT_THAT(exported, HasSubstr("    host: " + other + "\n"));
  EXPECT_THAT(exported, testing::Not(HasSubstr("host: kodu\n")));
  // Where a task is now is no matter of the file.
  writeFile(file, tasks + "    host: " + other + "\n");
  EXPECT_THAT(runAsAdmin({"apply", file, "--dry-run"}).out,
              HasSubstr("0 changed, 0 deleted, 2 unchanged"));
  writeFile(file, tasks + "    host: nowhere\n");
  EXPECT_THAT(runAsAdmin({"apply", file}).err, HasSubstr("there is no host nowhere"));
}

TEST_F(HostCommandTest, SaysWhereATaskAndItsOutputsAre) {
  addOther();
  database.insertTask(quietTask(1));
  EXPECT_THAT(run({"explain", "1"}).out, HasSubstr("It runs on the host kodu.\n"));
  database.query(
      "UPDATE kodu_cron_plugin SET cron_host = '" + other +
      "', cron_moved_from = 'kodu', cron_moved_at = '2026-11-22 12:00', cron_status = 'OK'"
      " WHERE cron_id = 1");
  const std::string place = "It runs on the host " + other +
                            ", and its files are there, not on this machine, which is the host "
                            "kodu.\nIt came from the host kodu at 2026-11-22 12:00:00 UTC; the "
                            "outputs of earlier runs are on the machine of that host.\n";
  EXPECT_THAT(run({"explain", "1"}).out, HasSubstr(place));
  EXPECT_THAT(run({"logs", "1"}).err, HasSubstr(place));
}

TEST_F(HostCommandTest, RepairsOnlyTheRunsOfItsOwnHost) {
  addOther();
  database.insertTask(quietTask(1));
  database.insertTask(quietTask(2));
  database.query("UPDATE kodu_cron_plugin SET cron_host = '" + other + "' WHERE cron_id = 2");
  setStatus(1, "PROCESS");
  setStatus(2, "PROCESS");
  EXPECT_EQ(runWith({"-f", second.mainConfig(), "repair"}).exitCode, 0);
  EXPECT_EQ(database.task(1, "cron_status"), "PROCESS");
  EXPECT_EQ(database.task(2, "cron_status"), "FAILED");
  EXPECT_EQ(run({"repair"}).exitCode, 0);
  EXPECT_EQ(database.task(1, "cron_status"), "FAILED");
  EXPECT_EQ(database.value("SELECT string_agg(cron_id || ' ' || cron_host, ', ' ORDER BY cron_id)"
                           " FROM kodu_cron_repair"),
            "1 kodu, 2 " + other);
}

TEST_F(HostCommandTest, MayOnlyFetchWhatAHostHasLent) {
  addOther();
  database.insertTask(quietTask(1));
  database.insertTask(quietTask(2));
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(second.startAndWait());
  ASSERT_EQ(runAsAdmin({"host", "move", "kodu", other}).exitCode, 0);
  const auto asFirst = [&](const std::string& sql) {
    pgSafeThread session(database.conninfo() + " application_name=kodu_test");
    try {
      PQclear(session.executeRequest(sql));
    } catch (const PostgresqlException& e) {
      return std::string(e.what());
    }
    return std::string();
  };
  EXPECT_EQ(asFirst("CALL kodu_host_move('" + other + "', 'kodu', NULL)"), "");
  EXPECT_EQ(hostsOfTasks(), other + " 2") << "it has given them away";
  EXPECT_THAT(asFirst("CALL kodu_host_move('kodu', '" + other + "', NULL)"),
              HasSubstr("may not give tasks to others"));
}

TEST_F(HostCommandTest, SaysWhatIsWrong) {
  EXPECT_EQ(run({"host", "takeover", "kodu"}).exitCode, 64);
  EXPECT_THAT(run({"host", "takeover", "kodu"}).err,
              HasSubstr("host takeover needs 2 hosts, as in koductl host takeover kodu kodu_b"));
  EXPECT_EQ(run({"host", "status", "kodu"}).exitCode, 64);
  EXPECT_EQ(run({"host", "status", "--tasks", "3"}).exitCode, 64);
  EXPECT_EQ(run({"host", "remove", "kodu", "--password-file", "x"}).exitCode, 64);
  EXPECT_EQ(run({"host", "takeover", "kodu", "b"}).exitCode, 77);
  EXPECT_EQ(runAsAdmin({"host", "add", "b"}).exitCode, 77);
  EXPECT_THAT(runAsAdmin({"host", "takeover", "kodu", "b"}).err, HasSubstr("there is no host b"));
  EXPECT_THAT(runAsAdmin({"host", "move", "b", "kodu"}).err, HasSubstr("there is no host b"));
  EXPECT_EQ(runAsOwner({"host", "add", "b", "--password-file", "/nowhere"}).exitCode, 66);
  EXPECT_THAT(runAsOwner({"host", "add", "B"}).err, HasSubstr("cannot be the name of a host"));
}

class NoHostsTest : public CtlTest {};

TEST_F(NoHostsTest, NamesTheFileToLoad) {
  const CtlResult result = run({"host"});
  EXPECT_EQ(result.exitCode, 65);
  EXPECT_THAT(result.err, HasSubstr("load sql/hosts.sql"));
  const CtlResult added = runAsAdmin({"add", "/bin/true", "--every", "1h", "--host", "b"});
  EXPECT_EQ(added.exitCode, 65);
  EXPECT_THAT(added.err, HasSubstr("the database has no hosts"));
}

}  // namespace
