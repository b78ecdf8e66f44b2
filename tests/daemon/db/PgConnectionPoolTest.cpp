#include "db/pgConnectionPool.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <set>
#include <thread>
#include <type_traits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "db/PostgresqlException.h"
#include "db/pgSafeThread.h"
#include "tests/support/Database.h"
#include "tests/support/Files.h"
#include "tests/support/statements.h"
#include "tests/support/waitUntil.h"

namespace {

using testing::ElementsAre;
using testing::StartsWith;

class PgConnectionPoolTest : public testing::Test {
 protected:
  std::string sessionOf(pgConnectionPool& pool) {
    return valueOf(pool.executeRequest("SELECT pg_backend_pid()"));
  }
  std::string sessions() const {
    return database.value(
        "SELECT count(*) FROM pg_stat_activity WHERE usename = 'kodu' AND "
        "datname = current_database()");
  }

  Database database;
};

TEST_F(PgConnectionPoolTest, UsesItsConnectionsInTurn) {
  pgConnectionPool pool(database.conninfo(), 3);
  std::vector<int> ids = {pool.getNextConnectionID()};
  std::vector<std::string> used;
  for (int i = 0; i < 6; ++i) {
    used.push_back(sessionOf(pool));
    ids.push_back(pool.getNextConnectionID());
  }

  EXPECT_THAT(ids, ElementsAre(0, 1, 2, 3, 1, 2, 3));
  EXPECT_EQ(std::set<std::string>(used.begin(), used.begin() + 3).size(), 3U);
  EXPECT_TRUE(std::equal(used.begin(), used.begin() + 3, used.begin() + 3));
}

TEST_F(PgConnectionPoolTest, ReturnsItsConnectionsInTurn) {
  pgConnectionPool pool(database.conninfo(), 2);
  pgSafeThread* const first = pool.getNextConnection();
  pgSafeThread* const second = pool.getNextConnection();

  EXPECT_NE(first, second);
  EXPECT_EQ(pool.getNextConnection(), first);
  EXPECT_EQ(pool.getClientEncoding(), "UTF8");
  EXPECT_EQ(pool.getNextConnection(), first) << "the encoding took the second's turn";
}

TEST_F(PgConnectionPoolTest, CountsItsConnections) {
  pgConnectionPool pool(database.host(), database.port(), database.name(), database.user(),
                        database.password(), 3);

  EXPECT_EQ(pool.getConnectionNumber(), 3);
  EXPECT_EQ(pool.getWaitRequest(), 0);
  EXPECT_EQ(sessions(), "3");
}

TEST_F(PgConnectionPoolTest, IsEmptyForACountBelowOne) {
  pgConnectionPool none(database.conninfo(), 0);
  pgConnectionPool negative(database.conninfo(), -1);

  EXPECT_EQ(none.getConnectionNumber(), 0);
  EXPECT_EQ(negative.getConnectionNumber(), 0);
}

TEST_F(PgConnectionPoolTest, ClosesItsSessionsWhenDestroyed) {
  { const pgConnectionPool pool(database.conninfo(), 3); }

  EXPECT_TRUE(waitUntil([&] { return sessions() == "0"; }));
  EXPECT_TRUE(std::has_virtual_destructor_v<pgConnectionPool>);
}

TEST_F(PgConnectionPoolTest, PreparesOnEveryConnection) {
  pgConnectionPool pool(database.conninfo(), 3);

  pool.prepareRequest("double", "SELECT $1::int * 2", 1);
  pool.prepareRequest("seven", "SELECT 7");

  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(valueOf(pool.executePrepareRequest("double", {"21"})), "42");
  }
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(valueOf(pool.executePrepareRequest("seven")), "7");
  }
}

TEST_F(PgConnectionPoolTest, StopsPreparingAtTheFirstFailure) {
  pgConnectionPool pool(database.conninfo(), 3);
  pool.getNextConnection();
  pool.getNextConnection()->prepareRequest("taken", "SELECT 0");
  pool.getNextConnection();

  EXPECT_THAT(failureOf([&] { pool.prepareRequest("taken", "SELECT 1"); }),
              StartsWith("prepare failed:  ERROR:  prepared statement \"taken\" already exists"));

  EXPECT_EQ(valueOf(pool.executePrepareRequest("taken")), "1");
  EXPECT_EQ(valueOf(pool.executePrepareRequest("taken")), "0");
  EXPECT_THAT(failureOf([&] { pool.executePrepareRequest("taken"); }),
              StartsWith("Exec prepareRequest failed:  ERROR:  prepared statement \"taken\" does"));
}

TEST_F(PgConnectionPoolTest, TracesOnlySuccessesAndOnlyOnRequest) {
  pgConnectionPool pool(database.conninfo(), 2);
  testing::internal::CaptureStdout();
  PQclear(pool.executeRequest("SELECT 1"));
  pool.Trace("not shown");
  PQclear(pool.executeRequest("SELECT 1"));

  pool.enableDebugMode(true);
  PQclear(pool.executeRequest("SELECT 1"));
  PQclear(pool.executeParamRequest("SELECT $1", {"1"}));
  EXPECT_THROW(pool.executeRequest("SELEKT"), PostgresqlException);
  PQclear(pool.executeRequest("SET application_name TO x"));
  pool.Trace("shown");
  pool.enableDebugMode(false);
  PQclear(pool.executeRequest("SELECT 1"));

  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "   [ 0 ] exec status: PGRES_TUPLES_OK\n"
            "   [ 1 ] exec status: PGRES_TUPLES_OK\n"
            "   [ 1 ] exec status: PGRES_COMMAND_OK\n"
            "shown\n");
}

TEST_F(PgConnectionPoolTest, FlushesItsTrace) {
  pgConnectionPool pool(database.conninfo(), 1);
  pool.enableDebugMode(true);
  const TempDir directory;
  const std::string path = directory / "trace";
  const int file = open(path.c_str(), O_WRONLY | O_CREAT, 0600);
  std::fflush(stdout);
  const int console = dup(STDOUT_FILENO);
  dup2(file, STDOUT_FILENO);
  close(file);
  pool.Trace("line");
  const std::string written = readFile(path);
  dup2(console, STDOUT_FILENO);
  close(console);

  EXPECT_EQ(written, "line\n");
}

TEST_F(PgConnectionPoolTest, ReportsTheFailureOfAStatement) {
  pgConnectionPool pool(database.conninfo(), 1);

  EXPECT_THAT(failureOf([&] { pool.executeRequest("SELEKT"); }),
              StartsWith("execute failed:  ERROR:  syntax error"));
  EXPECT_THAT(failureOf([&] { pool.executeParamRequest("SELEKT", {}); }),
              StartsWith("Execute failed:  ERROR:  syntax error"));
  EXPECT_THAT(failureOf([&] { pool.executePrepareRequest("x", {"1"}); }),
              StartsWith("Exec prepareRequest failed:  ERROR:  prepared statement"));
}

TEST_F(PgConnectionPoolTest, ThrowsLibpqsMessageForAWrongPassword) {
  const std::string conninfo = database.conninfo() + "x";
  const std::string alone = failureOf([&] { const pgSafeThread connection(conninfo); });

  EXPECT_THAT(alone, testing::EndsWith("\n"));
  EXPECT_EQ(failureOf([&] { const pgConnectionPool pool(conninfo, 2); }), alone);
  EXPECT_EQ(failureOf([&] {
              const pgConnectionPool pool(database.host(), database.port(), database.name(),
                                          database.user(), database.password() + "x", 2);
            }),
            alone);
  EXPECT_THAT(alone, testing::Not(testing::HasSubstr(database.password())));
}

TEST_F(PgConnectionPoolTest, ClosesItsConnectionsWhenOneFails) {
  database.query("ALTER DATABASE " + database.name() + " CONNECTION LIMIT 3");

  EXPECT_THAT(failureOf([&] { const pgConnectionPool pool(database.conninfo(), 5); }),
              testing::HasSubstr("too many connections for database"));

  EXPECT_TRUE(waitUntil([&] { return sessions() == "0"; }));
}

// The second statement returns while the first one waits for the lock. The third uses the same
// connection as the first and waits; it holds nothing that the others need.
TEST_F(PgConnectionPoolTest, RunsStatementsWhileAnotherOneWaits) {
  pgConnectionPool pool(database.conninfo(), 2);
  std::atomic<int> ended = 0;
  const auto waitForLock = [&] {
    PQclear(pool.executeRequest("SELECT pg_advisory_lock_shared(1)"));
    ++ended;
  };
  database.query("SELECT pg_advisory_lock(1)");
  std::thread first(waitForLock);
  EXPECT_TRUE(waitUntil([&] {
    return database.value(
               "SELECT count(*) FROM pg_locks JOIN pg_stat_activity USING (pid) "
               "WHERE NOT granted AND datname = current_database()") == "1";
  }));

  EXPECT_EQ(valueOf(pool.executeRequest("SELECT 2")), "2");
  std::thread third(waitForLock);
  EXPECT_TRUE(waitUntil([&] { return pool.getNextConnectionID() == 1; })) << "it took its turn";
  EXPECT_EQ(valueOf(pool.executeRequest("SELECT 4")), "4");
  EXPECT_EQ(ended, 0);

  database.query("SELECT pg_advisory_unlock(1)");
  first.join();
  third.join();
  EXPECT_EQ(ended, 2);
}

TEST_F(PgConnectionPoolTest, ServesThreadsAtTheSameTime) {
  pgConnectionPool pool(database.conninfo(), 3);
  std::atomic<int> wrong = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 6; ++i) {
    threads.emplace_back([&, i] {
      const std::string number = std::to_string(i);
      for (int n = 0; n < 50; ++n) {
        wrong += valueOf(pool.executeParamRequest("SELECT $1::int", {number})) != number;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }

  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(pool.getNextConnectionID(), 3);
}

}  // namespace
