#include <sys/wait.h>

#include <csignal>
#include <memory>
#include <string>

#include "ctl/failure.h"
#include "ctl/session/session.h"
#include "db/pgSafeThread.h"
#include "tests/ctl/CtlTest.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

/// The time limits of koductl: for locks, statements and a server that hangs.
class LimitTest : public CtlTest {
 protected:
  /// Another session, in a transaction that has executed this statement.
  std::unique_ptr<pgSafeThread> transaction(const std::string& sql) const {
    auto session = std::make_unique<pgSafeThread>(
        "host=" + database.host() + " port=" + std::to_string(database.port()) + " dbname=" +
        database.name() + " user=" + admin() + " password=secret application_name=psql");
    PQclear(session->executeRequest("BEGIN"));
    PQclear(session->executeRequest(sql));
    return session;
  }
  std::string rows() const {
    return database.value(
        "SELECT md5(string_agg(t::text, '' ORDER BY cron_id)) FROM kodu_cron_plugin t");
  }
};

TEST_F(LimitTest, NamesTheLockedRowAndItsOwner) {
  database.insertTask(quietTask(6));
  database.insertTask(quietTask(7));
  const auto other = transaction("SELECT kodu_task_set(7, retries => 3)");
  const std::string pid = std::to_string(PQbackendPID(other->connection));
  const std::string before = rows();
  const CtlResult result = runAsAdmin({"--lock-timeout", "4", "set", "7", "--retries", "1"});
  EXPECT_EQ(result.exitCode, 69);
  EXPECT_THAT(
      result.err,
      MatchesRegex("koductl: task 7 \\(its row of kodu_cron_plugin\\) was locked for 4 s; nothing "
                   "was changed\n"
                   "the lock is held by session " +
                   pid + " of role " + admin() +
                   " \\(psql, idle in transaction for [0-9]+ s\\)\n"
                   "try again when that transaction has ended, or end it with SELECT "
                   "pg_terminate_backend\\(" +
                   pid + "\\); --lock-timeout SECONDS waits longer\n"));
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(rows(), before);
}

TEST_F(LimitTest, NamesTheLockedTable) {
  database.insertTask(quietTask(7));
  database.query("BEGIN");
  database.query("LOCK TABLE kodu_cron_plugin IN ACCESS EXCLUSIVE MODE");
  const CtlResult result = run({"status", "--lock-timeout", "4"});
  database.query("ROLLBACK");
  EXPECT_EQ(result.exitCode, 69);
  EXPECT_THAT(result.err, HasSubstr("koductl: the table kodu_cron_plugin was locked for 4 s"));
  EXPECT_THAT(result.err,
              MatchesRegex(".*the lock is held by session [0-9]+ of role postgres\n.*"));
  EXPECT_EQ(result.out, "");
}

TEST_F(LimitTest, NamesTheLockWhenTheStatementsLimitExpires) {
  database.insertTask(quietTask(7));
  database.query("BEGIN");
  database.query("LOCK TABLE kodu_cron_plugin IN ACCESS EXCLUSIVE MODE");
  const CtlResult result = run({"status", "--lock-timeout", "0", "--statement-timeout", "3"});
  database.query("ROLLBACK");
  EXPECT_EQ(result.exitCode, 69);
  EXPECT_THAT(result.err, HasSubstr("the table kodu_cron_plugin was locked for 3 s"));
  EXPECT_THAT(result.err, HasSubstr("--statement-timeout SECONDS waits longer"));
}

TEST_F(LimitTest, NamesTheSessionAtTheEndOfAChain) {
  database.insertTask(quietTask(7));
  const auto first = transaction("SELECT kodu_task_set(7, retries => 3)");
  // Waits for the first session and holds the tuple lock that koductl then waits for.
  const auto second = transaction("SELECT 1");
  PQsendQuery(second->connection, "SELECT kodu_task_set(7, retries => 4)");
  PQflush(second->connection);
  ASSERT_TRUE(waitUntil([&] {
    return database.value("SELECT count(*) FROM pg_locks WHERE NOT granted AND pid = " +
                          std::to_string(PQbackendPID(second->connection))) == "1";
  }));
  const CtlResult result = runAsAdmin({"pause", "7", "--lock-timeout", "4"});
  EXPECT_EQ(result.exitCode, 69);
  EXPECT_THAT(result.err, HasSubstr("koductl: task 7 (its row of kodu_cron_plugin) was locked"));
  EXPECT_THAT(result.err, HasSubstr("the lock is held by session " +
                                    std::to_string(PQbackendPID(first->connection)) + " of"));
  EXPECT_THAT(result.err, Not(HasSubstr(std::to_string(PQbackendPID(second->connection)))));
}

TEST_F(LimitTest, WaitsForALockThatIsReleasedInTime) {
  database.insertTask(quietTask(7));
  auto other = transaction("SELECT kodu_task_set(7, retries => 3)");
  environment.emplace_back("PGPASSWORD=secret");
  const pid_t pid =
      start({"-f", daemon.mainConfig(), "--user", admin(), "set", "7", "--retries", "1"});
  ASSERT_TRUE(waitUntil([&] {
    return database.value(
               "SELECT count(*) FROM pg_stat_activity WHERE wait_event_type = 'Lock'"
               " AND datname = current_database()") == "1";
  }));
  PQclear(other->executeRequest("ROLLBACK"));
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_EQ(exitStatusOf(status), 0) << readFile(errPath());
  EXPECT_EQ(database.task(7, "cron_retries"), "1");
}

TEST_F(LimitTest, ChangesNothingAfterItWasInterruptedAtALock) {
  database.insertTask(quietTask(7));
  const auto other = transaction("SELECT kodu_task_set(7, retries => 3)");
  environment.emplace_back("PGPASSWORD=secret");
  const pid_t pid =
      start({"-f", daemon.mainConfig(), "--user", admin(), "--lock-timeout", "60", "pause", "7"});
  ASSERT_TRUE(waitUntil([&] { return database.waitingSessions() > 0; }));
  kill(pid, SIGINT);
  waitpid(pid, nullptr, 0);
  EXPECT_TRUE(waitUntil([&] { return database.waitingSessions() == 0; }));
  PQclear(other->executeRequest("COMMIT"));
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_pause"), "0");
}

TEST_F(LimitTest, EndsAStatementThatTakesTooLong) {
  replaceRunNow("sql", "SELECT pg_sleep(60)");
  database.insertTask(quietTask(7));
  const CtlResult result = runAsAdmin({"run", "7", "--statement-timeout", "1"});
  EXPECT_EQ(result.exitCode, 69);
  EXPECT_EQ(result.err,
            "koductl: canceling statement due to statement timeout; nothing was changed\n"
            "the limit is 1 s; --statement-timeout SECONDS sets another\n");
}

TEST_F(LimitTest, GivesUpOnAServerThatIgnoresTheLimit) {
  replaceRunNow("plpgsql",
                "BEGIN PERFORM pg_sleep(60);"
                "EXCEPTION WHEN query_canceled THEN PERFORM pg_sleep(60); END");
  database.insertTask(quietTask(7));
  const CtlResult result = runAsAdmin({"run", "7", "--statement-timeout", "1"});
  EXPECT_EQ(result.exitCode, 69);
  EXPECT_THAT(result.err,
              HasSubstr("koductl: the server has not completed the statement after 1 s"));
}

TEST_F(LimitTest, ReportsOnceThatItsSessionWasTerminated) {
  replaceRunNow("sql", "SELECT pg_sleep(60)");
  database.insertTask(quietTask(7));
  environment.emplace_back("PGPASSWORD=secret");
  const pid_t pid = start({"-f", daemon.mainConfig(), "--user", admin(), "run", "7"});
  ASSERT_TRUE(waitUntil([&] {
    return database.value(
               "SELECT count(pg_terminate_backend(pid)) FROM pg_stat_activity"
               " WHERE wait_event = 'PgSleep' AND datname = current_database()") == "1";
  }));
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_EQ(exitStatusOf(status), 69);
  EXPECT_THAT(readFile(errPath()),
              HasSubstr("koductl: terminating connection due to administrator command"));
  EXPECT_THAT(readFile(errPath()), Not(HasSubstr("invalid socket")));
}

TEST_F(LimitTest, ConnectsByAUri) {
  environment.emplace_back("PGPASSWORD=secret");
  const std::string place = "postgresql://" + admin() + "@" + database.host() + ":" +
                            std::to_string(database.port()) + "/" + database.name();
  const CtlResult result = runWith({"schema", "--connect", place});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("The database has version"));
  EXPECT_EQ(runWith({"schema", "--connect", "no setting"}).exitCode, 64);
}

TEST_F(LimitTest, ReportsAServerThatIsNotPostgreSql) {
  const Rows none(PQmakeEmptyPGresult(nullptr, PGRES_TUPLES_OK));
  EXPECT_THROW(none.text(0, "column"), Failure);
  EXPECT_THROW(none.number(0, "column"), Failure);
}

TEST_F(LimitTest, RefusesAnInvalidLimit) {
  for (const char* limit : {"-1", "x", "86401"}) {
    EXPECT_EQ(run({"status", "--lock-timeout", limit}).exitCode, 64);
    EXPECT_EQ(run({"status", "--statement-timeout", limit}).exitCode, 64);
  }
}

}  // namespace
