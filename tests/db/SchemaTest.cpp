#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "db/PostgresqlException.h"
#include "db/pgSafeThread.h"
#include "db/statements.h"
#include "tests/support/Database.h"
#include "tests/support/Files.h"
#include "tests/support/waitUntil.h"

namespace {

using testing::HasSubstr;
using Rows = std::vector<Database::Row>;

class SchemaTest : public testing::Test {
 protected:
  /// Loads the shipped file into the test's own database: a copy of the template has the tables,
  /// but not what the file says about the database itself.
  void loadSchema() const { database.query(readFile(projectFile("sql/schema.sql"))); }

  Rows columns(const std::string& table) const {
    return database.query(
        "SELECT column_name, data_type FROM information_schema.columns WHERE "
        "table_name = '" +
        table + "' ORDER BY ordinal_position");
  }

  /// What the server says to `sql`; "" when it takes it.
  std::string refusalOf(const std::string& sql) const {
    try {
      database.query(sql);
    } catch (const std::runtime_error& e) {
      return e.what();
    }
    return "";
  }

  /// What the server says to this change of a good row.
  std::string refusalOfChange(const std::string& assignment) const {
    return refusalOf("UPDATE kodu_cron_plugin SET " + assignment);
  }

  Database database;
};

TEST_F(SchemaTest, HasTheColumnsThatTheStatementsName) {
  EXPECT_EQ(columns("kodu_cron_plugin"), (Rows{{"cron_id", "integer"},
                                               {"cron_plugin_id", "integer"},
                                               {"cron_interval", "interval"},
                                               {"cron_status", "character varying"},
                                               {"cron_last_exec", "timestamp without time zone"},
                                               {"cron_next_exec", "timestamp without time zone"},
                                               {"cron_log_file", "text"},
                                               {"cron_retries", "integer"},
                                               {"cron_retries_interval", "interval"},
                                               {"cron_parameter", "text"},
                                               {"cron_delete", "boolean"}}));
  EXPECT_EQ(columns("kodu_plugins"), (Rows{{"plugin_id", "integer"},
                                           {"plugin_name", "text"},
                                           {"plugin_path", "text"},
                                           {"plugin_type", "text"}}));
  EXPECT_EQ(columns("kodu_cron_error"), (Rows{{"cron_error_id", "integer"},
                                              {"cron_id", "integer"},
                                              {"cron_date", "timestamp without time zone"},
                                              {"cron_logfile", "character varying"}}));
}

TEST_F(SchemaTest, CanBeLoadedAgain) {
  database.insertTask(TaskRow());

  loadSchema();
  loadSchema();

  EXPECT_EQ(database.task(1, "cron_id"), "1");
}

TEST_F(SchemaTest, RefusesIntervalsThatTheDaemonCannotRun) {
  database.insertTask(TaskRow());

  for (const char* interval : {"0", "-1 s", "0.5 s", "1.5 s"}) {
    EXPECT_THAT(refusalOfChange("cron_interval = '" + std::string(interval) + "'"),
                HasSubstr("violates check constraint"))
        << interval;
  }
  EXPECT_THAT(refusalOfChange("cron_interval = NULL"), HasSubstr("not-null"));
  EXPECT_EQ(refusalOfChange("cron_interval = '1 s'"), "");
  EXPECT_EQ(refusalOfChange("cron_interval = '1 day'"), "");
}

TEST_F(SchemaTest, RefusesFileNamesThatTheDaemonMustNotWriteOrPurge) {
  database.insertTask(TaskRow());

  for (const char* name : {"''", "'/etc/passwd'", "'../x'", "'a/../b'", "'a..b'", "E'a\\nb'",
                           "E'a\\tb'", "E'a\\x7fb'", "'directory/'", "'.'", "'archive'"}) {
    EXPECT_THAT(refusalOfChange(std::string("cron_log_file = ") + name),
                HasSubstr("violates check constraint"))
        << name;
  }
  EXPECT_THAT(refusalOfChange("cron_log_file = NULL"), HasSubstr("not-null"));
  for (const char* name :
       {"'a'", "'a/b.txt'", "'.hidden'", "'out_$SERVICEID_$DATE.txt'", "'é ß'"}) {
    EXPECT_EQ(refusalOfChange(std::string("cron_log_file = ") + name), "") << name;
  }
}

TEST_F(SchemaTest, RefusesNegativeRetries) {
  database.insertTask(TaskRow());

  EXPECT_THAT(refusalOfChange("cron_retries = -1"), HasSubstr("violates check constraint"));
  EXPECT_THAT(refusalOfChange("cron_retries_interval = '-1 s'"),
              HasSubstr("violates check constraint"));
  EXPECT_EQ(refusalOfChange("cron_retries = 0, cron_retries_interval = '0'"), "");
  EXPECT_EQ(refusalOfChange("cron_retries = NULL, cron_retries_interval = NULL"), "");
}

TEST_F(SchemaTest, RefusesTimesBeyondWholeSecondsInAnInteger) {
  database.insertTask(TaskRow());

  EXPECT_THAT(refusalOfChange("cron_next_exec = '2038-01-19 03:14:08'"),
              HasSubstr("violates check constraint"));
  EXPECT_THAT(refusalOfChange("cron_next_exec = 'infinity'"),
              HasSubstr("violates check constraint"));
  EXPECT_THAT(refusalOfChange("cron_next_exec = NULL"), HasSubstr("not-null"));
  EXPECT_EQ(refusalOfChange("cron_next_exec = '2038-01-19 03:14:07'"), "");
}

TEST_F(SchemaTest, RefusesATaskWithoutItsPlugin) {
  database.insertTask(TaskRow());

  EXPECT_THAT(refusalOfChange("cron_plugin_id = 99"), HasSubstr("violates foreign key constraint"));
  EXPECT_THAT(refusalOf("UPDATE kodu_plugins SET plugin_path = NULL"), HasSubstr("not-null"));
  EXPECT_THAT(refusalOf("UPDATE kodu_plugins SET plugin_path = ''"),
              HasSubstr("violates check constraint"));
}

TEST_F(SchemaTest, NumbersHistoryRowsByItself) {
  database.query("INSERT INTO kodu_cron_error(cron_id, cron_logfile) VALUES (1, 'a'), (1, 'b')");

  EXPECT_EQ(database.query("SELECT cron_error_id FROM kodu_cron_error ORDER BY cron_error_id"),
            (Rows{{"1"}, {"2"}}));
}

TEST_F(SchemaTest, SetsTheDatabasesTimeZoneToUtc) {
  loadSchema();
  pgSafeThread connection(database.conninfo());

  const auto settings = database.query(
      "SELECT unnest(setconfig) FROM pg_db_role_setting JOIN pg_database ON oid = setdatabase "
      "WHERE "
      "datname = current_database() ORDER BY 1");

  EXPECT_THAT(settings, testing::Contains(Database::Row{"TimeZone=UTC"}));
  EXPECT_THAT(settings, testing::Contains(Database::Row{"synchronous_commit=off"}));
}

TEST_F(SchemaTest, LetsOnlyTheDaemonsRoleConnect) {
  loadSchema();
  const std::string other = "kodu_other_" + database.name();
  database.query("CREATE ROLE " + other);

  EXPECT_EQ(database.value("SELECT has_database_privilege('kodu', current_database(), 'CONNECT')"),
            "t");
  EXPECT_EQ(database.value("SELECT has_database_privilege('" + other +
                           "', current_database(), 'CONNECT')"),
            "f");
  database.query("DROP ROLE " + other);
}

TEST_F(SchemaTest, GivesTheDaemonJustTheRightsOfItsStatements) {
  database.insertTask(TaskRow());
  pgSafeThread daemon(database.conninfo());
  prepareNamedStatements(daemon);
  PQclear(daemon.executeRequest(taskQuery(nullptr)));
  PQclear(daemon.executeRequest(kListen));
  PQclear(daemon.executePrepareRequest("UpdateCronProcess", {"1"}));
  PQclear(daemon.executePrepareRequest("UpdateCronState", {"1", "OK"}));
  PQclear(daemon.executePrepareRequest("updateCronExecTask", {"1", "1"}));
  PQclear(daemon.executePrepareRequest("insertCronError", {"1", "a.txt"}));
  PQclear(daemon.executePrepareRequest("SelectCronHistory", {"1"}));
  PQclear(daemon.executePrepareRequest("SelectDeleteCron"));
  PQclear(daemon.executePrepareRequest("DeleteCronHistory", {"1"}));
  PQclear(daemon.executePrepareRequest("DeleteCron", {"1"}));

  for (const char* sql :
       {"UPDATE kodu_plugins SET plugin_path = '/x'",
        "INSERT INTO kodu_plugins(plugin_name, plugin_path) VALUES ('a', 'b')",
        "UPDATE kodu_cron_plugin SET cron_parameter = 'x'",
        "INSERT INTO kodu_cron_plugin DEFAULT VALUES", "UPDATE kodu_cron_error SET cron_id = 2",
        "TRUNCATE kodu_cron_error", "CREATE TABLE public.mine()"}) {
    EXPECT_THROW(daemon.executeRequest(sql), PostgresqlException) << sql;
  }
}

TEST_F(SchemaTest, LetsTheDaemonsUpdatesStayBesideTheirRows) {
  database.insertTask(TaskRow());
  {
    pgSafeThread daemon(database.conninfo());
    prepareNamedStatements(daemon);
    for (int run = 0; run < 20; ++run) {
      PQclear(daemon.executePrepareRequest("UpdateCronProcess", {"1"}));
      PQclear(daemon.executePrepareRequest("UpdateCronState", {"1", "OK"}));
    }
  }

  // The session's counts arrive when it ends.
  EXPECT_TRUE(waitUntil([&] {
    database.query("SELECT pg_stat_clear_snapshot()");
    return database.value(
               "SELECT n_tup_upd FROM pg_stat_user_tables WHERE relname = "
               "'kodu_cron_plugin'") == "40";
  }));
  EXPECT_EQ(database.value("SELECT n_tup_hot_upd FROM pg_stat_user_tables WHERE relname = "
                           "'kodu_cron_plugin'"),
            "40");
}

class RepairTest : public SchemaTest {
 protected:
  void repair() const { database.query(readFile(projectFile("sql/repair.sql"))); }
};

TEST_F(RepairTest, EndsTheRunsOfALifeThatEnded) {
  database.insertTask(TaskRow());
  TaskRow other;
  other.id = 2;
  database.insertTask(other);
  database.query(
      "UPDATE kodu_cron_plugin SET cron_status = CASE cron_id WHEN 1 THEN 'PROCESS' "
      "ELSE 'OK' END, cron_next_exec = '2030-01-01 00:00:00'");

  repair();
  repair();

  EXPECT_EQ(database.task(1, "cron_status"), "FAILED");
  EXPECT_EQ(database.task(2, "cron_status"), "OK");
  EXPECT_EQ(database.query("SELECT cron_id, was_due FROM kodu_cron_repair"),
            (Rows{{"1", "2030-01-01 00:00:00"}}));
}

TEST_F(RepairTest, ChangesNothingDuringALifeOfTheDaemon) {
  database.insertTask(TaskRow());
  database.query("UPDATE kodu_cron_plugin SET cron_status = 'PROCESS'");
  const pgSafeThread daemon(database.conninfo());

  repair();

  EXPECT_EQ(database.task(1, "cron_status"), "PROCESS");
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_repair"), "0");
}

TEST_F(RepairTest, MayBeRunByTheDaemonsRole) {
  database.insertTask(TaskRow());
  database.query("UPDATE kodu_cron_plugin SET cron_status = 'PROCESS'");
  pgSafeThread tool(database.conninfo() + " application_name=kodu_repair");

  PQclear(tool.executeRequest(readFile(projectFile("sql/repair.sql"))));

  EXPECT_EQ(database.task(1, "cron_status"), "FAILED");
}

}  // namespace
