#include "ctl/session/session.h"

#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "ctl/failure.h"
#include "ctl/options.h"
#include "db/pgSafeThread.h"
#include "tests/ctl/CtlTest.h"
#include "tests/support/outputOf.h"

namespace {

using testing::Eq;
using testing::HasSubstr;
using testing::Optional;
using testing::StartsWith;

TEST(ServerMessageTest, RemovesWhatOnlyDevelopersRead) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"ERROR:  42P01: relation \"x\" does not exist\nLINE 1: SELECT * FROM x\n"
       "                      ^\nLOCATION:  parserOpenTable, parse_relation.c:1392\n",
       "relation \"x\" does not exist\nLINE 1: SELECT * FROM x\n                      ^"},
      {"ERROR:  P0001: task 7 does not exist\nCONTEXT:  PL/pgSQL function f() line 3 at RAISE\n"
       "LOCATION:  exec_stmt_raise, pl_exec.c:3917\n",
       "task 7 does not exist"},
      {"ERROR:  23505: duplicate key\nDETAIL:  Key (id)=(1) already exists.\n"
       "SCHEMA NAME:  public\nTABLE NAME:  t\nLOCATION:  x\n",
       "duplicate key\nDETAIL:  Key (id)=(1) already exists."},
      {"ERROR:  P0001: no such plugin\nHINT:  Add it first.\nLOCATION:  x\n",
       "no such plugin\nhint: Add it first."},
      {"NOTICE:  00000: task 7 is paused already\n", "task 7 is paused already"},
      {"FEHLER:  42P01: Relation fehlt\nLOCATION:  x\n", "Relation fehlt"},
  };
  for (const auto& [text, message] : cases) {
    EXPECT_EQ(serverMessage(text), message);
  }
}

TEST(ServerMessageTest, KeepsAMessageWithoutACode) {
  for (const char* text :
       {"server closed the connection unexpectedly", "note:  two spaces", "a:  b: c", "",
        "ERROR:  4270: four digits", "ERROR:  42-01: no code", "ERROR:  42P011: six digits",
        "connection to server at \"h\" failed: no route"}) {
    EXPECT_EQ(serverMessage(text), text);
  }
}

TEST(ServerMessageTest, DoesNotLookForACodeBeyondTheFirstLine) {
  EXPECT_EQ(serverMessage("first\nERROR:  42P01: second"), "first\nERROR:  42P01: second");
}

TEST(ServerMessageTest, RemovesTheTabsOfFurtherLines) {
  EXPECT_EQ(serverMessage("lost\n\tThis probably means\n\tan end of the server.\n"),
            "lost\nThis probably means\nan end of the server.");
  EXPECT_EQ(serverMessage("a\tb"), "a\tb");
}

/// A result of one column named "value", as the server sends it.
Rows rowsOf(const std::vector<const char*>& cells) {
  PGresult* result = PQmakeEmptyPGresult(nullptr, PGRES_TUPLES_OK);
  std::string name = "value";
  PGresAttDesc column{name.data(), 0, 0, 0, 25, -1, -1};
  PQsetResultAttrs(result, 1, &column);
  for (std::size_t row = 0; row < cells.size(); ++row) {
    std::string cell = cells[row] == nullptr ? "" : cells[row];
    PQsetvalue(result, static_cast<int>(row), 0, cells[row] == nullptr ? nullptr : cell.data(),
               cells[row] == nullptr ? -1 : static_cast<int>(cell.size()));
  }
  return Rows(result);
}

TEST(RowsTest, ReadsTexts) {
  const Rows rows = rowsOf({"one", "", nullptr});
  EXPECT_EQ(rows.count(), 3);
  EXPECT_EQ(rows.text(0, "value"), "one");
  EXPECT_EQ(rows.text(1, "value"), "");
  EXPECT_EQ(rows.text(2, "value"), "");
  EXPECT_THAT(rows.optionalText(1, "value"), Optional(Eq("")));
  EXPECT_EQ(rows.optionalText(2, "value"), std::nullopt);
  EXPECT_FALSE(rows.isNull(1, "value"));
  EXPECT_TRUE(rows.isNull(2, "value"));
}

TEST(RowsTest, ReadsNumbers) {
  const Rows rows = rowsOf({"0", "-7", "9223372036854775807", nullptr});
  EXPECT_EQ(rows.number(0, "value"), 0);
  EXPECT_EQ(rows.number(1, "value"), -7);
  EXPECT_EQ(rows.number(2, "value"), std::numeric_limits<long>::max());
  EXPECT_EQ(rows.number(3, "value"), 0);
  EXPECT_EQ(rows.optionalNumber(3, "value"), std::nullopt);
  EXPECT_THAT(rows.optionalNumber(0, "value"), Optional(0));
}

TEST(RowsTest, ReadsBooleans) {
  const Rows rows = rowsOf({"t", "f", nullptr, "true"});
  EXPECT_TRUE(rows.isTrue(0, "value"));
  EXPECT_FALSE(rows.isTrue(1, "value"));
  EXPECT_FALSE(rows.isTrue(2, "value"));
  EXPECT_FALSE(rows.isTrue(3, "value"));
}

TEST(RowsTest, RefusesAResultThatPostgreSqlDoesNotSend) {
  const Rows rows = rowsOf({"x", "", "9223372036854775808"});
  const std::vector<std::function<void()>> reads = {
      [&] { rows.text(0, "other"); },      [&] { rows.text(3, "value"); },
      [&] { rows.isNull(3, "value"); },    [&] { rows.number(0, "value"); },
      [&] { rows.number(1, "value"); },    [&] { rows.number(2, "value"); },
      [&] { rowsOf({}).text(0, "value"); }};
  for (const auto& read : reads) {
    try {
      read();
      ADD_FAILURE() << "was read";
    } catch (const Failure& e) {
      EXPECT_EQ(e.exitCode, kNoDatabase);
      EXPECT_THAT(e.what(), testing::AllOf(HasSubstr("PostgreSQL"), HasSubstr("no valid ")));
    }
  }
}

/// A session of the daemon's role in this process.
class SessionTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    options.configFile = daemon.mainConfig();
    session = std::make_unique<Session>(options);
  }
  std::string valueOf(const std::string& sql, const std::vector<std::string>& params = {}) const {
    return session->query("SELECT (" + sql + ")::text AS value", params).text(0, "value");
  }
  void expectFailure(const std::string& sql, ExitCode code, const std::string& text,
                     const std::string& state) const {
    try {
      session->query(sql);
      ADD_FAILURE() << sql << " succeeded";
    } catch (const Failure& e) {
      EXPECT_EQ(e.exitCode, code) << sql;
      EXPECT_THAT(e.what(), StartsWith(text)) << sql;
      EXPECT_EQ(e.sqlState, state) << sql;
    }
  }

  Options options;
  std::unique_ptr<Session> session;
};

TEST_F(SessionTest, DoesNotDependOnTheSettingsOfItsRole) {
  database.query("ALTER ROLE kodu IN DATABASE " + database.name() + " SET timezone = 'Asia/Tokyo'");
  database.query("ALTER ROLE kodu IN DATABASE " + database.name() + " SET search_path = other");
  session = std::make_unique<Session>(options);
  EXPECT_EQ(valueOf("current_setting('timezone')"), "UTC");
  EXPECT_EQ(valueOf("current_setting('search_path')"), "public");
  EXPECT_EQ(valueOf("current_setting('client_encoding')"), "UTF8");
  EXPECT_EQ(valueOf("current_setting('lock_timeout')"), "5s");
  EXPECT_EQ(valueOf("current_setting('statement_timeout')"), "1min");
  EXPECT_EQ(valueOf("current_setting('kodu.daemon_role')"), "kodu");
  EXPECT_EQ(valueOf("current_setting('application_name')"), "kodu_ctl");
}

TEST_F(SessionTest, PassesParametersAsTexts) {
  EXPECT_EQ(valueOf("$1::text || $2::text", {"'; DROP TABLE x; --", " é"}),
            "'; DROP TABLE x; -- é");
  EXPECT_EQ(valueOf("$1::int + $2::int", {"2", "40"}), "42");
}

TEST_F(SessionTest, ReportsErrorsByTheirKind) {
  expectFailure("SELECT * FROM nowhere", kRefused, "relation \"nowhere\" does not exist", "42P01");
  expectFailure("SELECT 1/0", kRefused, "division by zero", "22012");
  expectFailure("SELEC", kRefused, "syntax error at or near \"SELEC\"", "42601");
  expectFailure("DELETE FROM kodu_plugins", kNotPermitted,
                "permission denied for table kodu_plugins", "42501");
  EXPECT_EQ(valueOf("1"), "1") << "the session is still usable";
}

TEST_F(SessionTest, RefusesChangesWhenItIsReadOnly) {
  session->makeReadOnly();
  expectFailure("DELETE FROM kodu_cron_error", kRefused,
                "cannot execute DELETE in a read-only transaction", "25006");
  EXPECT_EQ(session->query("SELECT * FROM kodu_cron_error").count(), 0);
}

TEST_F(SessionTest, ExecutesSeveralStatements) {
  session->execute("CREATE TEMP TABLE t (n int); INSERT INTO t VALUES (1), (2);");
  EXPECT_EQ(valueOf("SELECT sum(n) FROM t"), "3");
  EXPECT_THROW(session->execute("INSERT INTO t VALUES (3); SELECT 1/0"), Failure);
  EXPECT_EQ(valueOf("SELECT sum(n) FROM t"), "3") << "they are one transaction";
}

TEST_F(SessionTest, PrintsNoticesInItsOwnForm) {
  EXPECT_EQ(outputOf(
                [&] {
                  session->execute(
                      "DO $$BEGIN RAISE NOTICE 'careful \x1b[31m'; RAISE WARNING 'two'; END$$");
                },
                STDERR_FILENO),
            "koductl: careful ?[31m\nkoductl: two\n");
}

TEST_F(SessionTest, ReportsALostSession) {
  database.query(
      "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE application_name ="
      " 'kodu_ctl' AND datname = current_database()");
  expectFailure("SELECT 1", kNoDatabase, "terminating connection due to administrator command", "");
}

TEST_F(SessionTest, ExplainsAFailedConnection) {
  daemon.writeDatabaseConfig("127.0.0.1", 1);
  for (const std::string role : {"", "alice"}) {
    options.user = role;
    try {
      const Session unreachable(options);
      ADD_FAILURE() << "connected";
    } catch (const Failure& e) {
      EXPECT_EQ(e.exitCode, kNoDatabase);
      EXPECT_THAT(e.what(), HasSubstr("\ncheck that the server is running, and check " +
                                      daemon.databaseConfig()));
      EXPECT_EQ(std::string(e.what()).ends_with("the password comes from PGPASSWORD or ~/.pgpass"),
                !role.empty());
    }
  }
}

TEST_F(SessionTest, CountsTheDaemons) {
  EXPECT_FALSE(isDaemonConnected(*session));
  EXPECT_EQ(countDaemons(*session), 0);
  const pgSafeThread first(database.conninfo());
  const pgSafeThread tool(database.conninfo() + " application_name=kodu_health");
  EXPECT_TRUE(isDaemonConnected(*session));
  EXPECT_EQ(countDaemons(*session), 1);
  const pgSafeThread second(database.conninfo());
  EXPECT_EQ(countDaemons(*session), 2);
}

}  // namespace
