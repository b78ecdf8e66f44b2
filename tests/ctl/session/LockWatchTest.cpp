#include "ctl/session/lockWatch.h"

#include <chrono>
#include <memory>
#include <string>

#include "db/pgSafeThread.h"
#include "tests/ctl/CtlTest.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

/// A session that waits for a lock, and the sessions that hold it.
class LockWatchTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    waiting = std::make_unique<pgSafeThread>(database.adminConninfo());
  }

  /// Another session, in a transaction that has executed this statement.
  std::unique_ptr<pgSafeThread> holder(const std::string& sql,
                                       const std::string& name = "psql") const {
    auto session =
        std::make_unique<pgSafeThread>(database.adminConninfo() + " application_name=" + name);
    PQclear(session->executeRequest("BEGIN"));
    PQclear(session->executeRequest(sql));
    return session;
  }
  static std::string pidOf(const pgSafeThread& session) {
    return std::to_string(PQbackendPID(session.connection));
  }
  /// Starts a statement in the waiting session; returns when it waits for a lock.
  void await(const std::string& sql) const {
    ASSERT_EQ(PQsendQuery(waiting->connection, sql.c_str()), 1);
    PQflush(waiting->connection);
    ASSERT_TRUE(waitUntil([&] {
      return database.value("SELECT count(*) FROM pg_locks WHERE NOT granted AND pid = " +
                            pidOf(*waiting)) != "0";
    }));
  }
  /// What a watch finds: a busy machine may need more than one look.
  LockWatch watch(const std::string& conninfo) const {
    LockWatch result(conninfo, PQbackendPID(waiting->connection));
    EXPECT_TRUE(waitUntil([&] {
      result.look();
      return !result.lock().empty() && !result.holders().empty();
    }));
    return result;
  }
  LockWatch watch() const { return watch(database.adminConninfo()); }

  std::unique_ptr<pgSafeThread> waiting;
};

TEST_F(LockWatchTest, FindsNothingForASessionThatDoesNotWait) {
  LockWatch idle(database.adminConninfo(), PQbackendPID(waiting->connection));
  idle.look();
  EXPECT_EQ(idle.lock(), "");
  EXPECT_EQ(idle.holders(), "");
  EXPECT_EQ(idle.remedy(), "");
}

TEST_F(LockWatchTest, DescribesALockedTable) {
  const auto other = holder("LOCK TABLE kodu_plugins");
  await("SELECT * FROM kodu_plugins");
  const LockWatch found = watch();
  EXPECT_EQ(found.lock(), "the table kodu_plugins");
  EXPECT_THAT(found.holders(),
              MatchesRegex("session " + pidOf(*other) +
                           " of role postgres \\(psql, idle in transaction for [0-9]+ s\\)"));
  EXPECT_EQ(found.remedy(), "SELECT pg_terminate_backend(" + pidOf(*other) + ")");
}

TEST_F(LockWatchTest, DescribesTheRowOfATask) {
  database.insertTask(quietTask(7));
  const auto other = holder("UPDATE kodu_cron_plugin SET cron_retries = 3 WHERE cron_id = 7");
  await("UPDATE kodu_cron_plugin SET cron_retries = 4 WHERE cron_id = 7");
  EXPECT_EQ(watch().lock(), "task 7 (its row of kodu_cron_plugin)");
}

TEST_F(LockWatchTest, DescribesTheRowOfAPlugin) {
  database.insertTask(quietTask(8));
  const auto other = holder("UPDATE kodu_plugins SET plugin_name = 'a' WHERE plugin_id = 8");
  await("UPDATE kodu_plugins SET plugin_name = 'b' WHERE plugin_id = 8");
  EXPECT_EQ(watch().lock(), "plugin 8 (its row of kodu_plugins)");
}

TEST_F(LockWatchTest, DescribesARowOfAnotherTable) {
  database.query("CREATE TABLE mine AS SELECT 1 AS n");
  const auto other = holder("UPDATE mine SET n = 2");
  await("UPDATE mine SET n = 3");
  EXPECT_EQ(watch().lock(), "a row of mine");
}

TEST_F(LockWatchTest, DescribesARowThatIsBeingInserted) {
  database.query("CREATE TABLE mine (n int PRIMARY KEY)");
  const auto other = holder("INSERT INTO mine VALUES (1)");
  await("INSERT INTO mine VALUES (1)");
  EXPECT_EQ(watch().lock(), "a row that another session is writing");
}

TEST_F(LockWatchTest, DescribesOtherLocksByTheirType) {
  const auto other = holder("SELECT pg_advisory_xact_lock(1)");
  await("SELECT pg_advisory_xact_lock(1)");
  EXPECT_EQ(watch().lock(), "a lock of type advisory");
}

TEST_F(LockWatchTest, NamesEverySessionThatHoldsTheLock) {
  const auto first = holder("LOCK TABLE kodu_plugins IN SHARE MODE", "first");
  const auto second = holder("LOCK TABLE kodu_plugins IN SHARE MODE", "second");
  await("BEGIN; LOCK TABLE kodu_plugins");
  const LockWatch found = watch();
  EXPECT_THAT(found.holders(), HasSubstr("(first, idle in transaction for "));
  EXPECT_THAT(found.holders(), HasSubstr(" s) and session "));
  EXPECT_THAT(found.holders(), HasSubstr("(second, idle in transaction for "));
  EXPECT_THAT(found.remedy(), StartsWith("SELECT pg_terminate_backend("));
  EXPECT_THAT(found.remedy(), HasSubstr("pg_terminate_backend(" + pidOf(*first) + ")"));
  EXPECT_THAT(found.remedy(), HasSubstr("pg_terminate_backend(" + pidOf(*second) + ")"));
}

TEST_F(LockWatchTest, EndsTheSessionsByItsRemedy) {
  const auto other = holder("LOCK TABLE kodu_plugins");
  await("SELECT count(*) FROM kodu_plugins");
  database.query(watch().remedy());
  ASSERT_TRUE(hasReplied(waiting->connection, std::chrono::seconds(10)));
  EXPECT_EQ(PQresultStatus(replyOf(waiting->connection).get()), PGRES_TUPLES_OK);
}

TEST_F(LockWatchTest, KeepsWhatItFoundAfterTheWait) {
  auto other = holder("LOCK TABLE kodu_plugins");
  await("SELECT count(*) FROM kodu_plugins");
  LockWatch found = watch();
  PQclear(other->executeRequest("ROLLBACK"));
  ASSERT_TRUE(hasReplied(waiting->connection, std::chrono::seconds(10)));
  replyOf(waiting->connection);
  found.look();
  EXPECT_EQ(found.lock(), "the table kodu_plugins");
  EXPECT_THAT(found.holders(), HasSubstr(pidOf(*other)));
}

TEST_F(LockWatchTest, OmitsTheStateThatARoleMayNotSee) {
  const auto other = holder("LOCK TABLE kodu_plugins");
  await("SELECT * FROM kodu_plugins");
  EXPECT_EQ(watch(database.conninfo()).holders(),
            "session " + pidOf(*other) + " of role postgres (psql)");
}

TEST_F(LockWatchTest, FindsNothingWithoutAConnection) {
  LockWatch refused("host=127.0.0.1 port=1", PQbackendPID(waiting->connection));
  refused.look();
  refused.look();
  EXPECT_EQ(refused.lock(), "");
  EXPECT_EQ(refused.holders(), "");
}

TEST_F(LockWatchTest, DoesNotChangeTheDatabase) {
  // A watch of a superuser must not be able to, whatever it executes.
  const auto other = holder("LOCK TABLE kodu_plugins");
  await("SELECT * FROM kodu_plugins");
  const LockWatch found = watch();
  EXPECT_EQ(database.value("SELECT count(*) FROM pg_stat_activity WHERE datname ="
                           " current_database() AND backend_xid IS NOT NULL AND pid <> " +
                           pidOf(*other)),
            "0");
}

/// The functions that wait for a reply.
class ReplyTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    session = std::make_unique<pgSafeThread>(database.adminConninfo());
  }
  void send(const std::string& sql) const {
    ASSERT_EQ(PQsendQuery(session->connection, sql.c_str()), 1);
  }
  ResultPtr reply() const {
    EXPECT_TRUE(hasReplied(session->connection, std::chrono::seconds(10)));
    return replyOf(session->connection);
  }
  std::unique_ptr<pgSafeThread> session;
};

TEST_F(ReplyTest, IsTheLastResult) {
  send("SELECT 1; SELECT 2");
  const ResultPtr result = reply();
  ASSERT_EQ(PQresultStatus(result.get()), PGRES_TUPLES_OK);
  EXPECT_STREQ(PQgetvalue(result.get(), 0, 0), "2");
}

TEST_F(ReplyTest, IsTheFirstFailure) {
  send("SELECT 1; SELECT 1/0; SELECT 2");
  const ResultPtr result = reply();
  EXPECT_EQ(PQresultStatus(result.get()), PGRES_FATAL_ERROR);
  EXPECT_THAT(PQresultErrorMessage(result.get()), HasSubstr("division by zero"));
}

TEST_F(ReplyTest, IsAwaitedForTheGivenTimeOnly) {
  send("SELECT pg_sleep(60)");
  EXPECT_FALSE(hasReplied(session->connection, std::chrono::milliseconds(50)));
  EXPECT_FALSE(hasReplied(session->connection, std::chrono::milliseconds(0)));
}

TEST_F(ReplyTest, IsAFailureWhenTheSessionIsLost) {
  send("SELECT pg_sleep(60)");
  database.query("SELECT pg_terminate_backend(" +
                 std::to_string(PQbackendPID(session->connection)) + ")");
  EXPECT_EQ(PQresultStatus(reply().get()), PGRES_FATAL_ERROR);
}

TEST_F(ReplyTest, EndsAtACopy) {
  send("COPY kodu_plugins TO STDOUT");
  EXPECT_EQ(PQresultStatus(reply().get()), PGRES_COPY_OUT);
}

}  // namespace
