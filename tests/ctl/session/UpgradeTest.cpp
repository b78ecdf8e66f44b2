#include "ctl/session/upgrade.h"

#include <cstdlib>

#include "ctl/session/schemaSql.h"
#include "db/pgSafeThread.h"
#include "tests/ctl/CtlTest.h"

namespace {

using testing::HasSubstr;

/// koductl schema, on databases of this release and of the first.
class UpgradeTest : public CtlTest {
 protected:
  void TearDown() override {
    database.query("DROP OWNED BY " + admin());
    CtlTest::TearDown();
  }

  static void load(const Database& target, const std::string& file) {
    target.query(readFile(projectFile(file)));
  }
  static void empty(const Database& target) {
    target.query(
        "SET client_min_messages = warning;"
        "DROP SCHEMA public CASCADE; CREATE SCHEMA public; SET search_path = public");
  }
  void makeFirstRelease() const {
    empty(database);
    load(database, "tests/firstRelease/schema.sql");
    load(database, "tests/firstRelease/functions.sql");
  }
  void addFirstReleasesRows() const {
    std::string data = readFile(projectFile("tests/firstRelease/data.sql"));
    const auto fill = [&](const std::string& name, const std::string& path) {
      data.replace(data.find(name, data.find("VALUES")), name.size(), path);
    };
    fill("@OK@", makeTask(1, "echo fine").path);
    fill("@FAIL@", makeTask(2, "echo bad; exit 2").path);
    database.query(data);
  }

  /// Starts koductl schema as the superuser, whose password is in the environment.
  pid_t startSchema(std::vector<std::string> arguments) {
    std::string place = database.adminConninfo();
    const auto begin = place.find(" password=");
    const auto end = place.find(' ', begin + 1);
    environment.push_back("PGPASSWORD=" + place.substr(begin + 10, end - begin - 10));
    place.erase(begin, end - begin);
    arguments.insert(arguments.begin(), {"schema", "--connect", place});
    const pid_t pid = start(arguments);
    environment.pop_back();
    return pid;
  }
  CtlResult schema(const std::vector<std::string>& arguments = {}) {
    int status = 0;
    waitpid(startSchema(arguments), &status, 0);
    return {exitStatusOf(status), readFile(outPath()), readFile(errPath())};
  }
  void upgrade() {
    const CtlResult result = schema({"upgrade"});
    ASSERT_EQ(result.exitCode, 0) << result.out << result.err;
  }

  /// Writes the output of pg_dump for the database's definitions to a file, without its random
  /// keys.
  std::string dump(const Database& target, const std::string& name) const {
    std::string path = daemon.directory / name;
    const std::string command = "bash -c \"set -o pipefail; pg_dump --schema-only --dbname '" +
                                target.adminConninfo() + "' | grep -v restrict >'" + path + "'\"";
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    return path;
  }
  /// Shows the lines in which two dumps differ.
  void expectEqual(const std::string& one, const std::string& other) const {
    const std::string path = daemon.directory / "difference";
    const std::string command = "diff -u '" + one + "' '" + other + "' >'" + path + "'";
    EXPECT_EQ(std::system(command.c_str()), 0) << readFile(path) << "\nWhere " << one << " is right"
                                               << " sql/migrations lacks a step.";
    EXPECT_THAT(readFile(one), HasSubstr("CREATE TABLE public.kodu_cron_plugin ("));
  }

  std::string rowsOf(const std::string& select) const {
    return database.value("SELECT string_agg(row::text, E'\\n' ORDER BY row::text) FROM (" +
                          select + ") AS row");
  }
  /// The rows and columns that the daemon never changes, and the history so far.
  std::string rows() const {
    return rowsOf("SELECT * FROM kodu_plugins") +
           rowsOf(
               "SELECT cron_id, cron_plugin_id, cron_interval, cron_log_file, cron_retries,"
               " cron_retries_interval, cron_parameter, cron_delete FROM kodu_cron_plugin") +
           rowsOf("SELECT cron_id, next_exec, paused_at, paused_by, reason FROM kodu_cron_pause") +
           rowsOf("SELECT * FROM kodu_cron_repair") +
           rowsOf("SELECT * FROM kodu_cron_error WHERE cron_id = 4");
  }
};

TEST_F(UpgradeTest, MakesTheFirstReleaseEqualToAFreshDatabaseWhileTheDaemonRuns) {
  makeFirstRelease();
  addFirstReleasesRows();
  const std::string before = rows();
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForRuns(1, 2));
  const int failures = database.failures(2);

  upgrade();

  EXPECT_EQ(rows(), before);
  EXPECT_GE(database.failures(2), failures);
  const Database fresh;
  empty(fresh);
  load(fresh, "sql/schema.sql");
  load(fresh, "sql/functions.sql");
  load(fresh, "sql/ledger.sql");
  load(fresh, "sql/events.sql");
  load(fresh, "sql/metrics.sql");
  expectEqual(dump(fresh, "fresh.sql"), dump(database, "upgraded.sql"));
  EXPECT_EQ(fresh.value("SELECT max(version) FROM kodu_schema_version"),
            database.value("SELECT max(version) FROM kodu_schema_version"));
  ASSERT_TRUE(waitForRuns(1, runs(1) + 2));
  ASSERT_TRUE(waitForRuns(2, runs(2) + 2));
  EXPECT_TRUE(daemon.isRunning()) << daemon.console();
  EXPECT_THAT(daemon.log(), testing::Not(testing::Contains(HasSubstr("ERRORS#Failed to"))));
  EXPECT_EQ(runAsAdmin({"resume", "21"}).exitCode, 0);
  EXPECT_EQ(schema({"upgrade"}).exitCode, 0) << "a second time";
}

TEST_F(UpgradeTest, LetsTheDaemonUpdateOldRowsThatAreNowRefused) {
  makeFirstRelease();
  addFirstReleasesRows();
  upgrade();
  const pgSafeThread session(database.conninfo());
  database.query(
      "SET ROLE kodu; UPDATE kodu_cron_plugin SET cron_status = 'OK', cron_last_exec ="
      " cron_next_exec, cron_next_exec = cron_next_exec + cron_interval WHERE cron_id >= 10;"
      "RESET ROLE");
  EXPECT_EQ(runAsAdmin({"set", "14", "--retries", "0"}).exitCode, 0);
  EXPECT_EQ(runAsAdmin({"set", "17", "--file", "own_$DATE.txt"}).exitCode, 0);
  EXPECT_EQ(database.value("SELECT string_agg(cron_id::text, ' ') FROM kodu_cron_plugin"
                           " WHERE cron_shares_output"),
            "16");
  EXPECT_EQ(runAsAdmin({"set", "14", "--file", "sub/p_$DATE.txt"}).exitCode, 65);
}

TEST_F(UpgradeTest, ShowsTheStateOfTheTables) {
  CtlResult result = run({"schema"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr(": current.\n"));

  makeFirstRelease();
  result = schema();
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.out, testing::ContainsRegex("1  record the version  +pending\n"));
  EXPECT_THAT(result.out, HasSubstr("The database has version 0, this koductl knows version "));
  const Json::Value json = parsed(schema({"--json"}).out);
  EXPECT_EQ(json["state"].asString(), "behind");
  EXPECT_EQ(json["migrations"].size(), migrations().size());
}

TEST_F(UpgradeTest, RecordsTheNewestVersionInAFreshDatabase) {
  EXPECT_EQ(database.query("SELECT version, title, applied_by FROM kodu_schema_version"),
            (std::vector<Database::Row>{{std::to_string(migrations().back().version),
                                         migrations().back().title, "postgres"}}));
}

TEST_F(UpgradeTest, RefusesTablesOfALaterRelease) {
  database.query("INSERT INTO kodu_schema_version VALUES (99, 'to come')");
  for (const std::vector<std::string>& command :
       std::vector<std::vector<std::string>>{{"status"}, {"check"}, {"delete", "1", "--yes"}}) {
    const CtlResult result = run(command);
    EXPECT_EQ(result.exitCode, command[0] == "check" ? 2 : 65) << command[0];
    EXPECT_THAT(result.out + result.err, HasSubstr("tables have version 99, but this koductl"));
  }
  EXPECT_EQ(schema().exitCode, 2);
  EXPECT_EQ(schema({"upgrade"}).exitCode, 65);
  EXPECT_ANY_THROW(load(database, "sql/schema.sql"));
  database.query("ROLLBACK");
  EXPECT_TRUE(daemon.startAndWait()) << "the daemon does not ask for the version";
}

TEST_F(UpgradeTest, ReportsOldTablesWhenSomethingIsMissing) {
  makeFirstRelease();
  database.query("DROP TABLE kodu_cron_error CASCADE");
  const CtlResult result = run({"status"});
  EXPECT_EQ(result.exitCode, 65);
  EXPECT_THAT(result.err, HasSubstr("run koductl --user OWNER schema upgrade"));
}

TEST_F(UpgradeTest, WarnsInACheckOfTablesThatAreBehind) {
  makeFirstRelease();
  EXPECT_THAT(run({"check"}).out, HasSubstr("WARNING  the database's tables have version 0"));
}

TEST_F(UpgradeTest, DoesNotLoadSchemaSqlIntoAnOlderDatabase) {
  makeFirstRelease();
  const std::string before = dump(database, "before.sql");
  try {
    load(database, "sql/schema.sql");
    ADD_FAILURE() << "an older database was accepted";
  } catch (const std::runtime_error& e) {
    EXPECT_THAT(e.what(), HasSubstr("HINT:  Run koductl --user OWNER schema upgrade."));
  }
  database.query("ROLLBACK");
  expectEqual(before, dump(database, "after.sql"));
}

TEST_F(UpgradeTest, ChangesNothingInADryRun) {
  makeFirstRelease();
  const std::string before = dump(database, "before.sql");
  const CtlResult result = schema({"upgrade", "--dry-run"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("would apply 1: record the version\n"));
  expectEqual(before, dump(database, "after.sql"));
}

TEST_F(UpgradeTest, LeavesNoOverloadBehind) {
  database.query(
      "CREATE FUNCTION kodu_task_pause(integer) RETURNS void LANGUAGE sql AS ''; "
      "DROP FUNCTION kodu_task_run_now(integer);"
      "CREATE FUNCTION kodu_task_run_now(t integer) RETURNS text LANGUAGE sql AS 'SELECT null';"
      "DROP VIEW kodu_task_status; CREATE VIEW kodu_task_status AS SELECT 1 AS other");
  upgrade();
  EXPECT_EQ(database.value("SELECT string_agg(oid::regprocedure::text, ' ' ORDER BY proname)"
                           " FROM pg_proc WHERE proname IN ('kodu_task_pause',"
                           " 'kodu_task_run_now')"),
            "kodu_task_pause(integer,text,timestamp with time zone) kodu_task_run_now(integer)");
  EXPECT_EQ(database.query("SELECT id FROM kodu_task_status").size(), 0U);
}

TEST_F(UpgradeTest, KeepsTheGrantsOfAnAdministrator) {
  makeFirstRelease();
  database.query("GRANT SELECT ON kodu_task_status TO " + admin() +
                 "; GRANT SELECT (id, name) ON kodu_task_status TO " + admin() +
                 "; GRANT EXECUTE ON FUNCTION kodu_forecast TO " + admin() +
                 "; ALTER TABLE kodu_cron_plugin DISABLE TRIGGER kodu_task_added");
  upgrade();
  EXPECT_EQ(database.value("SELECT count(*) FROM pg_class, aclexplode(relacl) WHERE relname ="
                           " 'kodu_task_status' AND grantee = '" +
                           admin() + "'::regrole"),
            "1");
  EXPECT_EQ(database.value("SELECT string_agg(attname, ' ' ORDER BY attnum) FROM pg_attribute,"
                           " aclexplode(attacl) WHERE attrelid = 'kodu_task_status'::regclass"),
            "id name");
  EXPECT_EQ(database.value("SELECT count(*) FROM pg_proc, aclexplode(proacl) WHERE proname ="
                           " 'kodu_forecast' AND grantee = '" +
                           admin() + "'::regrole"),
            "1");
  EXPECT_EQ(database.value("SELECT tgenabled FROM pg_trigger WHERE tgname = 'kodu_task_added'"),
            "D");
}

TEST_F(UpgradeTest, KeepsTheSettingsOfTheLedger) {
  database.query("SELECT kodu_ledger_off(); SELECT kodu_ledger_keep(7)");
  upgrade();
  EXPECT_EQ(database.value("SELECT kodu_ledger_is_on()"), "f");
  EXPECT_EQ(database.value("SELECT kodu_ledger_bucket_seconds()"), "25200");
  database.query("SELECT kodu_ledger_on()");
  upgrade();
  EXPECT_EQ(database.value("SELECT kodu_ledger_is_on()"), "t");
}

TEST_F(UpgradeTest, RefusesWhenAnAdministratorsObjectsDependOnIt) {
  makeFirstRelease();
  database.query(
      "CREATE FUNCTION late() RETURNS bigint BEGIN ATOMIC"
      " SELECT count(*) FROM kodu_task_status WHERE lateness > 5; END");
  CtlResult result = schema({"upgrade"});
  EXPECT_EQ(result.exitCode, 65) << result.out;
  EXPECT_THAT(result.err, HasSubstr("the function late() uses what the upgrade recreates"));

  database.query(
      "DROP FUNCTION late(); CREATE TABLE mine (cron_id integer); CREATE TRIGGER told AFTER INSERT"
      " ON mine FOR EACH ROW EXECUTE FUNCTION kodu_notify_of_task('UPDATE')");
  result = schema({"upgrade"});
  EXPECT_EQ(result.exitCode, 65) << result.out;
  EXPECT_THAT(result.err, HasSubstr("the trigger told on table mine uses what"));

  database.query("DROP TABLE mine");
  upgrade();
}

TEST_F(UpgradeTest, LoadsNoFunctionsIntoADatabaseWithoutThem) {
  empty(database);
  load(database, "tests/firstRelease/schema.sql");
  upgrade();
  EXPECT_EQ(database.value("SELECT to_regproc('kodu_notify_of_task')"), "");
  EXPECT_EQ(schema().exitCode, 0);
}

TEST_F(UpgradeTest, KeepsCalendarsWhereTheyWereLoaded) {
  upgrade();
  EXPECT_EQ(database.value("SELECT to_regproc('kodu_calendar_parse')"), "");
  load(database, "sql/calendar.sql");
  upgrade();
  EXPECT_EQ(database.value("SELECT kodu_calendar_next('0 3 * * *', 'UTC', '2026-11-22 04:00Z')"
                           " = '2026-11-23 03:00Z'"),
            "t");
}

TEST_F(UpgradeTest, KeepsHostsWhereTheyWereLoaded) {
  upgrade();
  EXPECT_EQ(database.value("SELECT to_regclass('kodu_host')"), "");
  load(database, "sql/hosts.sql");
  const std::string before = dump(database, "before.sql");
  upgrade();
  expectEqual(before, dump(database, "after.sql"));
  EXPECT_THAT(readFile(before), HasSubstr("TRIGGER kodu_fence"));
}

TEST_F(UpgradeTest, GivesNewTablesTheOwnerOfTheOldOnes) {
  const std::string owner = "owner_of_" + database.name();
  database.query("CREATE ROLE " + owner + " CREATEROLE; GRANT CREATE ON SCHEMA public TO " + owner);
  makeFirstRelease();
  database.query("GRANT USAGE, CREATE ON SCHEMA public TO " + owner);
  for (const Database::Row& table :
       database.query("SELECT oid::regclass FROM pg_class WHERE relname LIKE 'kodu%'"
                      " AND relkind IN ('r', 'v') AND relnamespace = 'public'::regnamespace")) {
    database.query("ALTER TABLE " + table[0] + " OWNER TO " + owner);
  }
  upgrade();
  EXPECT_EQ(database.value("SELECT string_agg(DISTINCT pg_get_userbyid(relowner), ' ') FROM"
                           " pg_class WHERE relname LIKE 'kodu%' AND relnamespace ="
                           " 'public'::regnamespace"),
            owner);
  database.query("REASSIGN OWNED BY " + owner + " TO CURRENT_USER; DROP OWNED BY " + owner +
                 "; DROP ROLE " + owner);
}

TEST_F(UpgradeTest, RollsBackWhenAStatementFails) {
  makeFirstRelease();
  database.query("CREATE VIEW mine AS SELECT id FROM kodu_task_status");
  const std::string before = dump(database, "before.sql");
  const CtlResult result = schema({"upgrade"});
  EXPECT_EQ(result.exitCode, 65);
  EXPECT_THAT(result.err, HasSubstr("the view mine uses what the upgrade recreates"));
  expectEqual(before, dump(database, "after.sql"));
}

TEST_F(UpgradeTest, ReleasesTheTablesWhenItIsStopped) {
  makeFirstRelease();
  // sql/schema.sql makes this setting; a copied database lacks it.
  database.query(
      "DO $$BEGIN EXECUTE format('ALTER DATABASE %I RESET ALL', current_database()); END$$;"
      "CREATE FUNCTION slow() RETURNS event_trigger LANGUAGE plpgsql AS"
      " $$BEGIN PERFORM pg_sleep(1); END$$;"
      "CREATE EVENT TRIGGER slow ON ddl_command_start WHEN tag IN ('ALTER TABLE')"
      " EXECUTE FUNCTION slow()");
  const auto sessions = [&](const std::string& condition) {
    return database.value(
        "SELECT count(*) FROM pg_stat_activity JOIN pg_locks USING (pid) WHERE"
        " mode = 'AccessExclusiveLock' AND datname = current_database() AND " +
        condition);
  };
  const pid_t koductl = startSchema({"upgrade"});
  ASSERT_TRUE(waitUntil([&] { return sessions("wait_event = 'PgSleep'") != "0"; }));

  kill(koductl, SIGSTOP);
  EXPECT_TRUE(waitUntil([&] { return sessions("TRUE") == "0"; }, std::chrono::seconds(60)));
  kill(koductl, SIGCONT);

  int status = 0;
  waitpid(koductl, &status, 0);
  EXPECT_EQ(exitStatusOf(status), 69);
  database.query("DROP EVENT TRIGGER slow; DROP FUNCTION slow()");
  upgrade();
}

TEST_F(UpgradeTest, RefusesASecondUpgradeAtTheSameTime) {
  pgSafeThread other(database.adminConninfo());
  PQclear(other.executeRequest("BEGIN; SELECT pg_advisory_xact_lock(6420241122)"));
  const CtlResult result = schema({"upgrade"});
  EXPECT_EQ(result.exitCode, 65);
  EXPECT_THAT(result.err, HasSubstr("another upgrade of this database is in progress"));
}

TEST_F(UpgradeTest, DoesNotBlockTheDaemonWhileItWaitsForALock) {
  makeFirstRelease();
  addFirstReleasesRows();
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForRuns(1, 1));
  pgSafeThread reader(database.adminConninfo() + " application_name=report");
  PQclear(reader.executeRequest("BEGIN; SELECT count(*) FROM kodu_cron_plugin"));

  const pid_t pid = startSchema({"upgrade", "--wait", "4"});
  const std::size_t before = runs(1);
  EXPECT_TRUE(waitForRuns(1, before + 2));
  EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0) << "it has waited meanwhile";
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_EQ(exitStatusOf(status), 69);
  EXPECT_THAT(readFile(errPath()), AllOf(HasSubstr("the tables were in use for 4 s"),
                                         HasSubstr("of postgres (report)")));

  const pid_t again = startSchema({"upgrade"});
  PQclear(reader.executeRequest("COMMIT"));
  waitpid(again, &status, 0);
  EXPECT_EQ(exitStatusOf(status), 0) << readFile(errPath());
}

}  // namespace
