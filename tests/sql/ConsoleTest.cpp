#include <unistd.h>

#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/Database.h"
#include "tests/support/Files.h"
#include "tests/support/Ledger.h"

namespace {

using testing::HasSubstr;

/// sql/console.sql, with a role of the test's own.
class ConsoleTest : public testing::Test {
 protected:
  ConsoleTest() {
    load();
    database.query("CREATE ROLE " + alice + " LOGIN");
  }
  ~ConsoleTest() override { database.query("DROP ROLE " + alice); }

  void load() const { database.query(readFile(projectFile("sql/console.sql"))); }
  /// "" when it succeeds, else the server's message.
  std::string tryQuery(const std::string& sql) const {
    try {
      database.query(sql);
      return "";
    } catch (const std::runtime_error& e) {
      database.query("RESET SESSION AUTHORIZATION");
      return e.what();
    }
  }
  std::string allow() const { return tryQuery("SELECT kodu_web_allow('" + alice + "')"); }
  std::string person(const std::string& column) const {
    return database.value("SELECT " + column + " FROM kodu_web_person WHERE role = '" + alice +
                          "'");
  }

  const std::string alice = "alice_" + std::to_string(getpid());
  Database database;
  Ledger ledger{database};
};

TEST_F(ConsoleTest, AllowsARoleToRead) {
  load();  // again
  EXPECT_EQ(person("role"), "");
  EXPECT_EQ(allow(), "");
  EXPECT_EQ(person("is_allowed"), "t");
  EXPECT_EQ(person("may_change"), "f");
  EXPECT_EQ(tryQuery("SET SESSION AUTHORIZATION " + alice +
                     "; SELECT FROM kodu_task_state, kodu_run, kodu_cron_error;"
                     " SELECT kodu_coming_runs(1); RESET SESSION AUTHORIZATION"),
            "");
  database.query("GRANT kodu_admin TO " + alice);
  EXPECT_EQ(person("may_change"), "t");
  database.query("ALTER ROLE " + alice + " VALID UNTIL '2020-01-01'");
  EXPECT_EQ(person("is_allowed"), "f");
  database.query("SELECT kodu_web_forbid('" + alice + "')");
  EXPECT_EQ(person("role"), "");
}

TEST_F(ConsoleTest, RefusesRolesThatCouldDoMore) {
  EXPECT_THAT(tryQuery("SELECT kodu_web_allow('postgres')"), HasSubstr("postgres is a superuser"));
  EXPECT_THAT(tryQuery("SELECT kodu_web_allow('kodu')"), HasSubstr("is a daemon's role"));
  EXPECT_THAT(tryQuery("SELECT kodu_web_allow('kodu_web')"), HasSubstr("the console's own role"));
  EXPECT_THAT(tryQuery("SELECT kodu_web_allow('kodu_nobody')"), HasSubstr("there is no role"));
  EXPECT_THAT(tryQuery("SELECT kodu_web_allow('kodu_admin')"), HasSubstr("that can log in"));
  EXPECT_THAT(tryQuery("SELECT kodu_web_allow(NULL)"), HasSubstr("there is no role"));
  for (const char* attribute :
       {"SUPERUSER", "CREATEROLE", "CREATEDB", "REPLICATION", "BYPASSRLS"}) {
    database.query("ALTER ROLE " + alice + " " + attribute);
    EXPECT_THAT(allow(), HasSubstr("the console must not act as this role")) << attribute;
    database.query("ALTER ROLE " + alice + " NO" + attribute);
  }
  for (const char* role :
       {"postgres", "pg_execute_server_program", "pg_write_server_files", "pg_read_all_data"}) {
    database.query(std::string("GRANT ") + role + " TO " + alice);
    EXPECT_THAT(allow(), HasSubstr(alice + " can become ")) << role;
    database.query(std::string("REVOKE ") + role + " FROM " + alice);
  }
  EXPECT_EQ(allow(), "");
  database.query("ALTER ROLE " + alice + " SUPERUSER");
  EXPECT_EQ(person("is_allowed"), "f") << "also what it becomes later";
}

TEST_F(ConsoleTest, GivesTheConsoleItsViewsAlone) {
  EXPECT_EQ(database.value("SELECT string_agg(relname, ' ' ORDER BY relname) FROM pg_class"
                           " WHERE relnamespace = 'public'::regnamespace AND relkind IN ('r', 'p')"
                           " AND has_table_privilege('kodu_web', oid,"
                           " 'SELECT, INSERT, UPDATE, DELETE, TRUNCATE')"),
            "kodu_schema_version");
  EXPECT_EQ(database.value("SELECT count(*) FROM pg_class WHERE relnamespace = "
                           "'public'::regnamespace AND relkind IN ('r', 'p', 'v', 'S') AND "
                           "has_table_privilege('kodu_web', oid, 'INSERT, UPDATE, DELETE')"),
            "0");
  EXPECT_EQ(database.value("SELECT count(*) FROM pg_class WHERE relnamespace = "
                           "'public'::regnamespace AND relkind IN ('r', 'p', 'v', 'S') AND "
                           "has_table_privilege('kodu_viewer', oid, 'INSERT, UPDATE, DELETE')"),
            "0");
  allow();
  database.query("GRANT kodu_admin TO " + alice);
  EXPECT_THAT(tryQuery("SET SESSION AUTHORIZATION kodu_web; SELECT FROM kodu_cron_plugin"),
              HasSubstr("permission denied"))
      << "it inherits nothing";
}

TEST_F(ConsoleTest, WritesItsAuditItself) {
  database.insertTask(TaskRow());
  allow();
  database.query("GRANT kodu_admin TO " + alice);
  EXPECT_THAT(tryQuery("SET SESSION AUTHORIZATION " + alice +
                       "; SELECT kodu_web_note('run', 1, '{}', '{}')"),
              HasSubstr("only the console writes its audit"));
  EXPECT_THAT(tryQuery("SET SESSION AUTHORIZATION " + alice +
                       "; INSERT INTO kodu_audit (role) VALUES ('bob')"),
              HasSubstr("permission denied"));
  database.query("SET SESSION AUTHORIZATION kodu_web; SET ROLE " + alice +
                 "; SELECT kodu_web_change('pause', 1, 'why', NULL); RESET SESSION AUTHORIZATION");
  EXPECT_EQ(database.value("SELECT role || ' ' || action FROM kodu_audit"), alice + " pause");
  EXPECT_EQ(database.value("SELECT paused_by FROM kodu_cron_pause"), alice);
  EXPECT_EQ(database.value("SELECT before ->> 'paused' || ' ' || (after ->> 'paused') || ' ' ||"
                           " (after ->> 'reason') FROM kodu_audit"),
            "false true why");
}

TEST_F(ConsoleTest, RecordsTheSessionsRoleElsewhere) {
  database.insertTask(TaskRow());
  database.query("GRANT kodu_admin TO " + alice + "; SET SESSION AUTHORIZATION " + alice +
                 "; SET ROLE kodu_admin; SELECT kodu_task_pause(1); RESET SESSION AUTHORIZATION");
  EXPECT_EQ(database.value("SELECT paused_by FROM kodu_cron_pause"), alice);
}

TEST_F(ConsoleTest, SaysWhichTasksHaveChanged) {
  const std::string changes = "SELECT tasks::text || is_cut FROM kodu_web_changes(";
  const std::string place =
      "'" + database.value("SELECT place FROM kodu_web_changes(NULL, 10)") + "'";
  EXPECT_EQ(database.value(changes + place + ", 10)"), "");
  database.query(
      "INSERT INTO kodu_ledger (xact, due, ended, moved_from, moved_to, cron_id, periods, every,"
      " life, bucket, attempt, outcome) SELECT pg_current_xact_id()::text::bigint, utc, utc, utc,"
      " utc, id, 1, 60, 0, kodu_ledger_bucket(utc), 1, 'O' FROM generate_series(7, 9) AS id,"
      " (SELECT now() AT TIME ZONE 'UTC' AS utc) AS moment");
  EXPECT_EQ(database.value(changes + place + ", 3)"), "{7,8,9}false");
  EXPECT_THAT(database.value(changes + place + ", 2)"), HasSubstr("true"));
  EXPECT_EQ(database.value("SELECT tasks FROM kodu_web_changes(NULL, 10)"), "");
}

}  // namespace
