#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libpq-fe.h>

#include "db/pgSafeThread.h"
#include "db/result.h"
#include "db/statements.h"
#include "tests/support/Database.h"
#include "tests/support/Files.h"
#include "tests/support/Ledger.h"
#include "tests/support/waitUntil.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using ConnectionPtr = std::unique_ptr<PGconn, decltype(&PQfinish)>;

/// A session of the daemon with its statements.
class Session {
 public:
  explicit Session(const Database& database) : connection(database.conninfo()) {
    prepareNamedStatements(connection);
  }
  void begin(int id) { run("UpdateCronProcess", {std::to_string(id)}); }
  void end(int id, const std::string& status) {
    run("UpdateCronState", {std::to_string(id), status});
  }
  void runOnce(int id, const std::string& status = "OK") {
    begin(id);
    end(id, status);
  }
  void skip(int id, int intervals) {
    run("updateCronExecTask", {std::to_string(id), std::to_string(intervals)});
  }
  void execute(const std::string& sql) { PQclear(connection.executeRequest(sql)); }
  std::string value(const std::string& sql) {
    const ResultPtr result(connection.executeRequest(sql));
    return PQgetvalue(result.get(), 0, 0);
  }

 private:
  void run(const std::string& name, const std::vector<std::string>& parameters) {
    PQclear(connection.executePrepareRequest(name, parameters));
  }
  pgSafeThread connection;
};

/// The daemon's statements on a database with the events. Task 1 has an interval of a minute and is
/// due in an hour.
class EventsTest : public testing::Test {
 protected:
  void SetUp() override {
    database.query(readFile(projectFile("sql/events.sql")));
    insertTask(1);
    daemon.runOnce(1);  // its session's life is known from here on
    take("r");          // makes the reader
  }

  void insertTask(int id) const {
    TaskRow row;
    row.id = id;
    row.interval = "60 seconds";
    database.insertTask(row);
  }

  /// Reads what is next; "failed 1" each.
  std::vector<std::string> take(const std::string& reader, int limit = 100) const {
    std::vector<std::string> events;
    for (const Database::Row& row : database.query(
             "SELECT (event ->> 'event') || ' ' || (event ->> 'task'), position, key FROM"
             " kodu_events('" +
             reader + "', " + std::to_string(limit) + ")")) {
      events.push_back(row[0]);
      lastPosition = row[1];
      keys.push_back(row[2]);
    }
    return events;
  }
  void finish(const std::string& reader) const {
    database.query("SELECT kodu_events_done('" + reader + "', '" + lastPosition + "')");
  }
  /// The same, done at once, until so many are there: events become readable when all transactions
  /// that are older have ended, also those of other tests, which share the server.
  /// A reader gets nothing that is newer than the oldest transaction of the whole server, and other
  /// tests may have long ones.
  template <class Condition>
  static bool waitForReader(const Condition& condition) {
    return waitUntil(condition, std::chrono::seconds(60));
  }
  std::vector<std::string> takeAll(const std::string& reader, std::size_t count) const {
    std::vector<std::string> all;
    waitForReader([&] {
      const std::vector<std::string> some = take(reader);
      all.insert(all.end(), some.begin(), some.end());
      if (!some.empty()) {
        finish(reader);
      }
      return all.size() >= count;
    });
    return all;
  }
  std::string refusalOf(const std::string& sql) const {
    try {
      database.query(sql);
    } catch (const std::runtime_error& e) {
      return e.what();
    }
    return "";
  }

  /// A session of its own.
  static ConnectionPtr connect(const std::string& conninfo) {
    return {PQconnectdb(conninfo.c_str()), PQfinish};
  }
  static ConnectionPtr listen(const Database& database) {
    ConnectionPtr connection = connect(database.adminConninfo());
    PQclear(PQexec(connection.get(), "LISTEN kodu_run"));
    return connection;
  }
  /// The payloads that have arrived.
  static std::vector<std::string> payloads(PGconn* connection) {
    PQclear(PQexec(connection, "SELECT 1"));
    PQconsumeInput(connection);
    std::vector<std::string> texts;
    while (PGnotify* notification = PQnotifies(connection)) {
      texts.emplace_back(notification->extra);
      PQfreemem(notification);
    }
    return texts;
  }

  Database database;
  Ledger ledger{database};
  Session daemon{database};
  mutable std::string lastPosition;
  mutable std::vector<std::string> keys;  // of all that was taken
};

// Events
// -----------------------------------------------------------------------------------------

TEST_F(EventsTest, AreTheChangesAndNotTheRuns) {
  daemon.runOnce(1);
  daemon.runOnce(1, "FAILED");
  daemon.runOnce(1, "FAILED");
  daemon.runOnce(1);
  daemon.runOnce(1);
  daemon.skip(1, 3);
  EXPECT_THAT(takeAll("r", 3), ElementsAre("failed 1", "recovered 1", "skipped 1"));
}

TEST_F(EventsTest, IncludeARunThatTheEndOfTheDaemonInterrupted) {
  daemon.begin(1);
  Session next(database);
  next.begin(1);
  EXPECT_THAT(takeAll("r", 1), ElementsAre("interrupted 1"));
}

TEST_F(EventsTest, SayWhatHappened) {
  daemon.skip(1, 3);
  ASSERT_EQ(takeAll("r", 1).size(), 1U);
  EXPECT_THAT(database.value("SELECT json ->> 'version' || ' ' || (json ->> 'reason') || ' ' || "
                             "(json ->> 'periods') || ' ' || (json ->> 'name') || ' ' || (json "
                             "->> 'task_key') FROM kodu_event"),
              testing::MatchesRegex("1 (overrun|reload) 3 task task-1"));
  EXPECT_EQ(database.value("SELECT key FROM kodu_event"), keys.back());
}

// Reading
// ----------------------------------------------------------------------------------------

TEST_F(EventsTest, AreReturnedUntilTheyAreDone) {
  daemon.runOnce(1, "FAILED");
  daemon.runOnce(1);
  ASSERT_TRUE(waitForReader([&] { return take("r").size() == 2; }));
  EXPECT_THAT(take("r", 1), ElementsAre("failed 1"));
  EXPECT_EQ(keys[keys.size() - 1], keys[keys.size() - 3]) << "the same key";
  const std::string first = lastPosition;
  finish("r");
  EXPECT_THAT(take("r"), ElementsAre("recovered 1"));
  finish("r");
  EXPECT_THAT(take("r"), IsEmpty());
  lastPosition = first;
  finish("r");
  EXPECT_THAT(take("r"), IsEmpty()) << "a position does not go back";
}

TEST_F(EventsTest, AreForEachReader) {
  EXPECT_THAT(take("s"), IsEmpty());
  daemon.runOnce(1, "FAILED");
  EXPECT_THAT(takeAll("r", 1), ElementsAre("failed 1"));
  EXPECT_THAT(takeAll("s", 1), ElementsAre("failed 1"));
  EXPECT_THAT(take("new"), IsEmpty()) << "a new reader begins at the present";
}

TEST_F(EventsTest, OfATransactionThatCommitsLateAreNotMissed) {
  insertTask(2);
  Session early(database);
  early.begin(1);
  early.execute("BEGIN");
  early.end(1, "FAILED");
  daemon.runOnce(2, "FAILED");
  ASSERT_EQ(database.value("SELECT count(*) FROM kodu_event"), "1") << "the later one is visible";
  EXPECT_THAT(take("r"), IsEmpty()) << "the earlier one would be missed";

  early.execute("COMMIT");

  EXPECT_THAT(takeAll("r", 2), ElementsAre("failed 1", "failed 2"));
}

TEST_F(EventsTest, OfManyWritersReachEachReaderOnce) {
  constexpr int kWriters = 4;
  constexpr int kRuns = 50;
  const std::vector<std::string> readers = {"s1", "s2"};
  for (const std::string& reader : readers) {
    take(reader);
  }
  std::vector<std::future<void>> writers;
  for (int writer = 0; writer < kWriters; ++writer) {
    insertTask(10 + writer);
    writers.push_back(std::async(std::launch::async, [this, writer] {
      Session session(database);
      for (int run = 0; run < kRuns; ++run) {
        session.begin(10 + writer);
        session.execute("BEGIN");
        session.end(10 + writer, run % 2 == 0 ? "FAILED" : "OK");
        // Some commit later than those that began after them.
        session.execute("SELECT pg_sleep(0.001 * " + std::to_string((run + writer) % 4) + ")");
        session.execute("COMMIT");
      }
    }));
  }
  for (const std::string& reader : readers) {
    keys.clear();
    EXPECT_EQ(takeAll(reader, std::size_t{kWriters} * kRuns).size(), kWriters * kRuns);
    EXPECT_EQ(std::set<std::string>(keys.begin(), keys.end()).size(), kWriters * kRuns);
  }
  for (std::future<void>& writer : writers) {
    writer.get();
  }
  EXPECT_THAT(take("s1"), IsEmpty());
}

TEST_F(EventsTest, AreFoundByAReaderThatIsFarBehind) {
  daemon.runOnce(1, "FAILED");
  database.query(
      "CREATE TABLE many (n int); DO $$ BEGIN FOR n IN 1..25000 LOOP BEGIN"
      " INSERT INTO many VALUES (n); EXCEPTION WHEN OTHERS THEN NULL; END; END LOOP; END $$");
  daemon.runOnce(1);
  EXPECT_THAT(takeAll("r", 2), ElementsAre("failed 1", "recovered 1"));
  database.query("UPDATE kodu_event_reader SET xact = xact - 30000, ledger_id = 0");
  EXPECT_THAT(takeAll("r", 2), ElementsAre("failed 1", "recovered 1"));
}

TEST_F(EventsTest, MoveAReaderThatNothingHappensFor) {
  database.query("UPDATE kodu_event_reader SET moved = moved - interval '2 minutes'");
  const std::string before = database.value("SELECT xact FROM kodu_event_reader");
  EXPECT_TRUE(waitForReader([&] {
    daemon.runOnce(1);
    take("r");
    return database.value("SELECT xact FROM kodu_event_reader") != before;
  }));
}

TEST_F(EventsTest, StartAgainAfterTheDatabaseWasCopiedToAnotherServer) {
  database.query("UPDATE kodu_event_reader SET xact = xact + 1000000");
  EXPECT_THAT(take("r"), IsEmpty());
  daemon.runOnce(1, "FAILED");
  EXPECT_THAT(takeAll("r", 1), ElementsAre("failed 1"));
}

TEST_F(EventsTest, BeginWhereAReaderIsStarted) {
  daemon.runOnce(1, "FAILED");
  ASSERT_EQ(takeAll("r", 1).size(), 1U);
  database.query("SELECT kodu_events_start('r', now() - interval '1 hour')");
  database.query("SELECT kodu_events_start('new', now() - interval '1 hour')");
  EXPECT_THAT(takeAll("r", 1), ElementsAre("failed 1"));
  EXPECT_THAT(takeAll("new", 1), ElementsAre("failed 1"));
  database.query("SELECT kodu_events_start('r', now() + interval '1 hour')");
  EXPECT_THAT(take("r"), IsEmpty());
  database.query("SELECT kodu_events_forget('r')");
  EXPECT_EQ(database.value("SELECT string_agg(name, ' ') FROM kodu_event_reader"), "new");
}

TEST_F(EventsTest, CanBePutAside) {
  daemon.runOnce(1, "FAILED");
  ASSERT_TRUE(waitForReader([&] { return take("r").size() == 1; }));
  database.query(
      "SELECT kodu_events_bury('r', position, event, 10, 'HTTP 500') FROM"
      " kodu_events('r')");
  EXPECT_THAT(take("r"), IsEmpty());
  EXPECT_EQ(database.value("SELECT key || ' ' || tries || ' ' || error FROM kodu_event_dead"),
            keys.back() + " 10 HTTP 500");
}

TEST_F(EventsTest, ReturnOnceMoreAfterTheyWerePutAside) {
  daemon.runOnce(1, "FAILED");
  daemon.runOnce(1);
  const std::string bury =
      "SELECT kodu_events_bury('r', position, event, 3, 'HTTP 500') FROM kodu_events('r', 1)";
  ASSERT_TRUE(waitForReader([&] { return take("r").size() == 2; }));
  database.query(bury);
  database.query(bury);
  ASSERT_EQ(database.value("SELECT count(*) FROM kodu_event_dead"), "2");
  const std::string first = database.value("SELECT min(key::bigint) FROM kodu_event_dead");
  EXPECT_THAT(take("r"), IsEmpty());
  daemon.runOnce(1, "FAILED");

  EXPECT_EQ(database.value("SELECT kodu_events_redeliver('r', '" + first + "')"), "1");
  EXPECT_THAT(take("r"), ElementsAre("failed 1")) << "before newer events";
  EXPECT_THAT(take("r"), ElementsAre("failed 1")) << "until it is done";
  const std::string position = database.value("SELECT position FROM kodu_events('r')");
  EXPECT_EQ(database.value("SELECT kodu_events_redeliver('r')"), "1");
  database.query("SELECT kodu_events_done('r', '" + position + "')");
  EXPECT_THAT(take("r"), ElementsAre("recovered 1"));
  database.query("SELECT kodu_events_done('r', '" + position + "')");
  EXPECT_THAT(take("r"), ElementsAre("recovered 1")) << "not by an old position";

  database.query(bury);
  EXPECT_EQ(
      database.value("SELECT key::bigint > " + first + " AND again IS NULL FROM kodu_event_dead"),
      "t")
      << "put aside once more";
  EXPECT_EQ(database.value("SELECT kodu_events_redeliver('r')"), "1");
  database.query("SELECT kodu_events_done('r', max(position)) FROM kodu_events('r')");
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_event_dead"), "0");
  EXPECT_EQ(database.value("SELECT kodu_events_redeliver('r')"), "0");
  EXPECT_TRUE(waitForReader([&] { return take("r") == std::vector<std::string>{"failed 1"}; }));
  EXPECT_THAT(refusalOf("SELECT kodu_events_redeliver('r', '1')"),
              HasSubstr("no event 1 of the reader r was put aside"));
  EXPECT_THAT(refusalOf("SELECT kodu_events_redeliver('missing')"),
              HasSubstr("there is no reader missing"));
}

TEST_F(EventsTest, HaveOnlyPositionsThatWereReturned) {
  EXPECT_THAT(refusalOf("SELECT kodu_events_done('r', '1; DROP')"), HasSubstr("not a position"));
  EXPECT_THAT(refusalOf("SELECT kodu_events_done('r', NULL)"), HasSubstr("not a position"));
  EXPECT_THAT(refusalOf("SELECT kodu_events_done('r', '99999999999/1')"),
              HasSubstr("has not been reached yet"));
  EXPECT_THAT(refusalOf("SELECT kodu_events_done('missing', '3/1')"),
              HasSubstr("there is no reader missing"));
  EXPECT_THAT(refusalOf("SELECT kodu_events('two words')"), HasSubstr("name_is_one_word"));
}

TEST_F(EventsTest, BelongToTheRoleThatReadsThem) {
  const std::string one = "one_of_" + database.name();
  const std::string other = "other_of_" + database.name();
  database.query("CREATE ROLE " + one + " IN ROLE kodu_reader; CREATE ROLE " + other +
                 " IN ROLE kodu_reader");
  database.query("SET SESSION AUTHORIZATION " + one + "; SELECT kodu_events('mine')");
  EXPECT_THAT(refusalOf("SELECT * FROM kodu_ledger"), HasSubstr("permission denied"));
  EXPECT_THAT(refusalOf("SELECT * FROM kodu_event_reader"), HasSubstr("permission denied"));
  EXPECT_THAT(refusalOf("SELECT kodu_events_notify('off')"), HasSubstr("permission denied"));
  EXPECT_THAT(refusalOf("SELECT kodu_event_end_receivers(0, '0 s')"),
              HasSubstr("permission denied"));
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_event"), "0");
  database.query("RESET SESSION AUTHORIZATION; SET SESSION AUTHORIZATION " + other);
  for (const std::string call : {"kodu_events('mine')", "kodu_events_done('mine', '3/1')",
                                 "kodu_events_start('mine', now())",
                                 "kodu_events_redeliver('mine')", "kodu_events_forget('mine')"}) {
    EXPECT_THAT(refusalOf("SELECT " + call), HasSubstr("belongs to the role " + one)) << call;
  }
  database.query("RESET SESSION AUTHORIZATION");
  EXPECT_EQ(refusalOf("SELECT kodu_events('mine')"), "") << "an administrator";
  database.query("REVOKE ALL ON DATABASE " + database.name() + " FROM " + one + "; DROP ROLE " +
                 one + ", " + other);
}

// Notifications
// ----------------------------------------------------------------------------------

TEST_F(EventsTest, AreNotifiedWithoutTheRuns) {
  const ConnectionPtr listener = listen(database);
  daemon.runOnce(1);
  daemon.runOnce(1, "FAILED");
  daemon.runOnce(1, "FAILED");
  daemon.runOnce(1);
  EXPECT_THAT(payloads(listener.get()),
              ElementsAre(HasSubstr(R"("version":1,"event":"failed","task":1,"due":")"),
                          HasSubstr(R"("event":"recovered")")));
}

TEST_F(EventsTest, OfSkippedPeriodsNotifyOnceASecond) {
  const ConnectionPtr listener = listen(database);
  daemon.execute("BEGIN");
  for (int run = 0; run < 10; ++run) {
    daemon.skip(1, 1);
  }
  daemon.execute("COMMIT");
  EXPECT_LE(payloads(listener.get()).size(), 2U);
  EXPECT_EQ(takeAll("r", 10).size(), 10U);
}

TEST_F(EventsTest, NotifyAsTheSettingSays) {
  const ConnectionPtr listener = listen(database);
  database.query("SELECT kodu_events_notify('off')");
  daemon.runOnce(1, "FAILED");
  EXPECT_THAT(payloads(listener.get()), IsEmpty());
  database.query("SELECT kodu_events_notify('all')");
  database.query(readFile(projectFile("sql/events.sql")));  // keeps it
  daemon.runOnce(1, "FAILED");
  EXPECT_THAT(payloads(listener.get()),
              ElementsAre(HasSubstr(R"("event":"started")"), HasSubstr(R"("event":"ended")")));
  database.query("SELECT kodu_events_notify('changes')");
  daemon.runOnce(1);
  EXPECT_THAT(payloads(listener.get()), ElementsAre(HasSubstr(R"("event":"recovered")")));
  EXPECT_THAT(refusalOf("SELECT kodu_events_notify('some')"), HasSubstr("off, changes or all"));
  EXPECT_THAT(refusalOf("SELECT kodu_events_notify(NULL)"), HasSubstr("off, changes or all"));
}

TEST_F(EventsTest, DoNotNotifyWhenTheQueueIsHalfFull) {
  const ConnectionPtr listener = listen(database);
  // In place of 4 GB of notifications.
  database.query(
      "ALTER FUNCTION pg_catalog.pg_notification_queue_usage RENAME TO pg_queue_usage_of_server;"
      "CREATE FUNCTION pg_catalog.pg_notification_queue_usage() RETURNS double precision"
      " LANGUAGE sql AS 'SELECT 0.5::double precision'");
  daemon.runOnce(1, "FAILED");
  EXPECT_THAT(payloads(listener.get()), IsEmpty());
  EXPECT_THAT(takeAll("r", 1), ElementsAre("failed 1"));
}

TEST_F(EventsTest, NeverFailTheDaemonsStatements) {
  for (const std::string damage :
       {"REVOKE EXECUTE ON FUNCTION kodu_event_notify FROM PUBLIC",
        "ALTER TABLE kodu_event_setting RENAME TO away", "DROP FUNCTION kodu_event_send CASCADE",
        "DROP FUNCTION kodu_event_notify"}) {
    database.query(damage);
    EXPECT_NO_THROW(daemon.runOnce(1, "FAILED")) << damage;
    EXPECT_NO_THROW(daemon.skip(1, 2)) << damage;
    EXPECT_NO_THROW(daemon.runOnce(1, "OK")) << damage;
    EXPECT_THAT(takeAll("r", 3), ElementsAre("failed 1", "skipped 1", "recovered 1")) << damage;
  }
  ledger.expectComplete();
}

TEST_F(EventsTest, OfEachRunNeverFailTheDaemonsStatements) {
  database.query("SELECT kodu_events_notify('all'); ALTER FUNCTION kodu_event_send RENAME TO away");
  EXPECT_NO_THROW(daemon.runOnce(1, "FAILED"));
}

// A commit that notifies waits for the commits of other sessions that do. With the ledger's limit
// of 100 ms, that wait would fail, and end the daemon.
TEST_F(EventsTest, LeaveNoTimeLimitForTheCommit) {
  for (const std::string status : {"FAILED", "OK"}) {
    daemon.begin(1);
    daemon.execute("BEGIN");
    daemon.end(1, status);
    EXPECT_EQ(daemon.value("SHOW lock_timeout"), "0") << status;
    daemon.execute("COMMIT");
  }
}

/// Whatever blocks the server's queue of notifications is ended, in any database.
using AloneEventsTest = EventsTest;

TEST_F(AloneEventsTest, DisconnectAReceiverThatDoesNotRead) {
  const ConnectionPtr listener = listen(database);
  const std::string pid = std::to_string(PQbackendPID(listener.get()));
  const auto isStuck = [&] {
    database.query("SELECT pg_stat_clear_snapshot()");
    return database.value("SELECT wait_event = 'ClientWrite' FROM pg_stat_activity WHERE pid = " +
                          pid) == "t";
  };
  ASSERT_TRUE(waitForReader([&] {
    database.query(
        "SELECT pg_notify('kodu_run', n || repeat('x', 7900)) FROM generate_series(1, 1000) AS n");
    return isStuck();
  }));
  // More than a receiver's buffers and the server's usage without it.
  database.query(
      "SELECT pg_notify('kodu_run', n || repeat('x', 7900)) FROM generate_series(1, 4000) AS n");
  EXPECT_EQ(database.value("SELECT kodu_event_end_receivers(0.9, '0 s')"), "0");
  EXPECT_EQ(database.value("SELECT kodu_event_end_receivers(0.002, '0 s')"), "1");
  EXPECT_EQ(database.value("SELECT count(*) FROM pg_stat_activity WHERE pid = " + pid), "0");
  EXPECT_EQ(daemon.value("SELECT kodu_event_maintain()"), "0");
}

}  // namespace
