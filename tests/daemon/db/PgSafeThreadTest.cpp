#include "db/pgSafeThread.h"

#include <atomic>
#include <memory>
#include <thread>
#include <type_traits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "db/PostgresqlException.h"
#include "db/result.h"
#include "tests/support/Database.h"
#include "tests/support/statements.h"
#include "tests/support/waitUntil.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

class PgSafeThreadTest : public testing::Test {
 protected:
  Database database;
  pgSafeThread connection{database.conninfo()};
};

TEST_F(PgSafeThreadTest, ConnectsWithFiveValues) {
  pgSafeThread other(database.host(), database.port(), database.name(), database.user(),
                     database.password());

  EXPECT_EQ(valueOf(other.executeRequest("SELECT current_user")), "kodu");
}

TEST_F(PgSafeThreadTest, ReturnsTheClientEncoding) {
  EXPECT_EQ(connection.getClientEncoding(), "UTF8");
  PQclear(connection.executeRequest("SET client_encoding TO LATIN1"));
  EXPECT_EQ(connection.getClientEncoding(), "LATIN1");
}

TEST_F(PgSafeThreadTest, RunsAPlainStatement) {
  EXPECT_EQ(valueOf(connection.executeRequest("SELECT 1 + 1")), "2");
}

TEST_F(PgSafeThreadTest, SendsParametersAsText) {
  EXPECT_EQ(valueOf(connection.executeParamRequest("SELECT $1::int + $2::int", {"2", "3"})), "5");
  EXPECT_EQ(valueOf(connection.executeParamRequest("SELECT $1::text || $2::text", {"it's", ""})),
            "it's");
  EXPECT_EQ(valueOf(connection.executeParamRequest("SELECT 7", {})), "7");
}

TEST_F(PgSafeThreadTest, RunsAPreparedStatementByName) {
  connection.prepareRequest("double", "SELECT $1::int * 2", 1);
  connection.prepareRequest("seven", "SELECT 7");

  EXPECT_EQ(valueOf(connection.executePrepareRequest("double", {"21"})), "42");
  EXPECT_EQ(valueOf(connection.executePrepareRequest("seven")), "7");
  EXPECT_EQ(valueOf(connection.executePrepareRequest("seven", {})), "7");
}

TEST_F(PgSafeThreadTest, SucceedsWithoutARow) {
  const ResultPtr update(
      connection.executeRequest("UPDATE kodu_cron_plugin SET cron_status = 'OK' WHERE FALSE"));
  EXPECT_EQ(PQresultStatus(update.get()), PGRES_COMMAND_OK);

  const ResultPtr select(connection.executeRequest("SELECT cron_id FROM kodu_cron_plugin"));
  EXPECT_EQ(PQresultStatus(select.get()), PGRES_TUPLES_OK);
  EXPECT_EQ(PQntuples(select.get()), 0);
}

TEST_F(PgSafeThreadTest, NamesTheKindOfStatementThatFailed) {
  EXPECT_EQ(failureOf([&] { connection.executeRequest("SELEKT"); }),
            "execute failed:  ERROR:  syntax error at or near \"SELEKT\"\nLINE 1: SELEKT\n"
            "        ^\n");
  EXPECT_THAT(failureOf([&] { connection.executeParamRequest("SELECT $1::int", {"x"}); }),
              StartsWith("Execute failed:  ERROR:  invalid input syntax for type integer"));
  EXPECT_THAT(failureOf([&] { connection.prepareRequest("a", "SELEKT", 0); }),
              StartsWith("prepare failed:  ERROR:  syntax error"));
  EXPECT_THAT(failureOf([&] { connection.executePrepareRequest("unknown"); }),
              StartsWith("Exec prepareRequest failed:  ERROR:  prepared statement \"unknown\""));
  EXPECT_THAT(failureOf([&] { connection.executePrepareRequest("unknown", {"1"}); }),
              StartsWith("Exec prepareRequest failed:  ERROR:  prepared statement \"unknown\""));
}

TEST_F(PgSafeThreadTest, RefusesADuplicateName) {
  connection.prepareRequest("one", "SELECT 1");

  EXPECT_THAT(failureOf([&] { connection.prepareRequest("one", "SELECT 1", 0); }),
              StartsWith("prepare failed:  ERROR:  prepared statement \"one\" already exists"));
}

TEST_F(PgSafeThreadTest, RefusesTheWrongNumberOfParameters) {
  connection.prepareRequest("one", "SELECT $1::int", 1);

  EXPECT_THAT(failureOf([&] {
                connection.executePrepareRequest("one", {"1", "2"});
              }),
              HasSubstr("requires 1"));
}

TEST_F(PgSafeThreadTest, TreatsEveryOtherStatusAsAFailure) {
  EXPECT_EQ(failureOf([&] { connection.executeRequest(""); }), "execute failed:  ");
  EXPECT_EQ(failureOf([&] { connection.executeParamRequest("", {}); }), "Execute failed:  ");
  EXPECT_EQ(failureOf([&] { connection.executeRequest("COPY kodu_cron_error TO STDOUT"); }),
            "execute failed:  ");
  EXPECT_EQ(failureOf([&] { connection.executeRequest("COPY kodu_cron_error FROM STDIN"); }),
            "execute failed:  ");
  connection.prepareRequest("nothing", "");
  EXPECT_EQ(failureOf([&] { connection.executePrepareRequest("nothing"); }),
            "Exec prepareRequest failed:  ");

  EXPECT_EQ(valueOf(connection.executeRequest("SELECT 1")), "1") << "the locks are released";
}

TEST_F(PgSafeThreadTest, ContinuesAfterAFailure) {
  for (int i = 0; i < 3; ++i) {
    EXPECT_THROW(connection.executeRequest("SELECT 1/0"), PostgresqlException);
    EXPECT_EQ(valueOf(connection.executeRequest("SELECT 1")), "1");
  }
}

// When libpq knows of the lost session, a call returns no result. Operations that read their
// message from the result then report only their prefix.
TEST_F(PgSafeThreadTest, ThrowsAtEveryCallOnceTheSessionIsGone) {
  connection.prepareRequest("one", "SELECT 1");
  database.query(
      "SELECT pg_terminate_backend(pid, 10000) FROM pg_stat_activity WHERE usename = 'kodu' "
      "AND datname = current_database()");

  EXPECT_THAT(failureOf([&] { connection.executeRequest("SELECT 1"); }),
              StartsWith("execute failed:  FATAL:  terminating connection due to administrator "
                         "command\nserver closed the connection unexpectedly\n"));
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(failureOf([&] { connection.executeRequest("SELECT 1"); }),
              "execute failed:  no connection to the server\n");
    EXPECT_EQ(failureOf([&] { connection.prepareRequest("two", "SELECT 2"); }),
              "prepare failed:  no connection to the server\n");
    EXPECT_EQ(failureOf([&] { connection.executeParamRequest("SELECT 1", {}); }),
              "Execute failed:  ");
    EXPECT_EQ(failureOf([&] { connection.executePrepareRequest("one"); }),
              "Exec prepareRequest failed:  ");
    EXPECT_EQ(connection.getClientEncoding(), "") << "it cannot fail";
  }
}

TEST_F(PgSafeThreadTest, LeavesTheResultToItsCaller) {
  auto other = std::make_unique<pgSafeThread>(database.conninfo());
  const ResultPtr first(other->executeRequest("SELECT 1"));
  const ResultPtr second(other->executeRequest("SELECT 2"));
  other.reset();

  EXPECT_STREQ(PQgetvalue(first.get(), 0, 0), "1");
  EXPECT_STREQ(PQgetvalue(second.get(), 0, 0), "2");
  EXPECT_EQ(PQfformat(first.get(), 0), 0) << "results come as text";
}

TEST_F(PgSafeThreadTest, ClosesItsSessionWhenDestroyed) {
  const auto sessions = [&] {
    return database.value(
        "SELECT count(*) FROM pg_stat_activity WHERE usename = 'kodu' AND "
        "datname = current_database()");
  };
  {
    const pgSafeThread other(database.conninfo());
    EXPECT_EQ(sessions(), "2");
  }

  EXPECT_TRUE(waitUntil([&] { return sessions() == "1"; }));
  EXPECT_TRUE(std::has_virtual_destructor_v<pgSafeThread>);
}

TEST_F(PgSafeThreadTest, LetsThreadsShareTheConnection) {
  std::vector<std::thread> threads;
  std::atomic<int> wrong = 0;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&, i] {
      const std::string number = std::to_string(i);
      for (int n = 0; n < 100; ++n) {
        wrong += valueOf(connection.executeParamRequest("SELECT $1::int", {number})) != number;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }

  EXPECT_EQ(wrong, 0);
}

TEST_F(PgSafeThreadTest, KeepsRepliesFromAThreadThatPollsNotifications) {
  constexpr int kStatements = 300;
  constexpr int kNotifications = 300;
  PQclear(connection.executeRequest("LISTEN test"));
  std::atomic<int> running = 4;
  std::atomic<int> received = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < kStatements; ++n) {
        PQclear(connection.executeRequest("SELECT 1"));
      }
      --running;
    });
  }
  std::thread poller([&] {
    while (received < kNotifications) {
      const std::lock_guard wireLock(connection.wire);
      ASSERT_EQ(PQconsumeInput(connection.connection), 1);
      while (PGnotify* notify = PQnotifies(connection.connection)) {
        PQfreemem(notify);
        ++received;
      }
    }
  });
  for (int n = 0; n < kNotifications; ++n) {
    database.query("NOTIFY test, '" + std::to_string(n) + "'");
  }

  // A thread that waits forever cannot be joined: returning while it runs ends the test at once.
  ASSERT_TRUE(waitUntil([&] { return running == 0; }, std::chrono::seconds(45)));
  ASSERT_TRUE(waitUntil([&] { return received == kNotifications; }, std::chrono::seconds(45)));
  poller.join();
  for (std::thread& thread : threads) {
    thread.join();
  }
}

// Port 1 of the loopback address, where no server listens.
constexpr const char* kNobody = "host=127.0.0.1 port=1 dbname=d user=u";

TEST(PgSafeThreadConnectTest, ThrowsLibpqsMessageAndANewline) {
  const std::string text =
      failureOf([] { pgSafeThread(std::string(kNobody) + " password=secret"); });

  EXPECT_THAT(text, StartsWith("connection to server at \"127.0.0.1\", port 1 failed: "));
  EXPECT_THAT(text, testing::EndsWith("\n\n")) << "libpq's own newline, and ours";
  EXPECT_THAT(text, testing::Not(HasSubstr("secret")));
}

TEST(PgSafeThreadConnectTest, AddsTheConnectionStringWithoutItsPassword) {
  const std::string text = failureOf([] { pgSafeThread("127.0.0.1", 1, "d", "u", "secret"); });

  EXPECT_THAT(text, StartsWith("connection to server at \"127.0.0.1\", port 1 failed: "));
  EXPECT_THAT(text, testing::EndsWith(std::string("\n\n") + kNobody));
  EXPECT_THAT(text, testing::Not(HasSubstr("secret")));
}

TEST(PgSafeThreadConnectTest, ThrowsForAWrongPassword) {
  const Database database;
  std::string conninfo = database.conninfo();
  conninfo += "x";

  EXPECT_THAT(failureOf([&] { const pgSafeThread connection(conninfo); }),
              HasSubstr("password authentication failed for user \"kodu\""));
}

TEST(PgSafeThreadConnectTest, KeepsAWrongPasswordOutOfTheText) {
  const Database database;
  const std::string text = failureOf([&] {
    pgSafeThread(database.host(), database.port(), database.name(), database.user(), "secret");
  });

  EXPECT_THAT(text, HasSubstr("password authentication failed for user \"kodu\"\n\nhost=" +
                              database.host() + " port=" + std::to_string(database.port()) +
                              " dbname=" + database.name() + " user=kodu"));
  EXPECT_THAT(text, testing::EndsWith(" user=kodu"));
  EXPECT_THAT(text, testing::Not(HasSubstr("secret")));
}

TEST(PgSafeThreadConnectTest, BreaksOnAValueWithABlank) {
  EXPECT_THAT(failureOf([] { pgSafeThread("127.0.0.1", 1, "a b", "u", "p"); }),
              StartsWith("missing \"=\" after \"b\" in connection info string"));
}

TEST(PostgresqlExceptionTest, ReturnsItsMessage) {
  EXPECT_STREQ(PostgresqlException("text").what(), "text");
  EXPECT_TRUE((std::is_base_of_v<std::exception, PostgresqlException>));
}

}  // namespace
