#include <chrono>
#include <csignal>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libpq-fe.h>

#include "db/PostgresqlException.h"
#include "db/pgSafeThread.h"
#include "db/result.h"
#include "db/statements.h"
#include "tests/support/Daemon.h"
#include "tests/support/Database.h"
#include "tests/support/Files.h"
#include "tests/support/Ledger.h"
#include "tests/support/waitUntil.h"

namespace {

using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// A session of a daemon with its statements.
class Session {
 public:
  explicit Session(const std::string& conninfo) : connection(conninfo) {
    prepareNamedStatements(connection);
  }
  void begin(int id) const { run("UpdateCronProcess", {std::to_string(id)}); }
  void end(int id, const std::string& status = "OK") const {
    run("UpdateCronState", {std::to_string(id), status});
  }
  void fail(int id) const { run("insertCronError", {std::to_string(id), "copy"}); }
  void purge(int id) const { run("DeleteCron", {std::to_string(id)}); }
  void skip(int id) const { run("updateCronExecTask", {std::to_string(id), "1"}); }
  std::string value(const std::string& sql) const {
    const ResultPtr result(connection.executeRequest(sql));
    return PQgetvalue(result.get(), 0, 0);
  }
  /// The number of tasks that the daemon would load.
  int tasks() const {
    const ResultPtr result(connection.executeRequest(taskQuery(nullptr)));
    return PQntuples(result.get());
  }

 private:
  void run(const std::string& name, const std::vector<std::string>& parameters) const {
    PQclear(connection.executePrepareRequest(name, parameters));
  }
  mutable pgSafeThread connection;
};

/// Loads the file. The ids of its ping tasks begin at 1000.
void loadHosts(const Database& database) {
  database.query(
      "ALTER TABLE kodu_plugins ALTER plugin_id RESTART 1000;"
      "ALTER TABLE kodu_cron_plugin ALTER cron_id RESTART 1000");
  database.query(readFile(projectFile("sql/hosts.sql")));
}

/// A database with hosts: the first one, kodu, and another with a role of its own. Roles belong to
/// the whole cluster, so each test has its own.
class HostsTest : public testing::Test {
 protected:
  void SetUp() override { loadHosts(database); }
  void TearDown() override { database.query("DROP ROLE IF EXISTS " + other); }

  void addOther() const {
    database.query("SELECT kodu_host_add('" + other + "'); ALTER ROLE " + other + " PASSWORD '" +
                   database.password() + "'");
  }
  std::string otherConninfo() const { return database.conninfo() + " user=" + other; }

  /// A task that is due in an hour.
  void insertTask(int id, const std::string& host,
                  const std::string& interval = "60 seconds") const {
    TaskRow row;
    row.id = id;
    row.interval = interval;
    database.query("SET kodu.host = '" + host + "'");
    database.insertTask(row);
    database.query("RESET kodu.host");
  }

  std::string refusalOf(const std::string& sql) const {
    try {
      database.query(sql);
    } catch (const std::runtime_error& e) {
      return e.what();
    }
    return "";
  }
  template <typename Statement>
  static std::string failureOf(const Statement& statement) {
    try {
      statement();
    } catch (const PostgresqlException& e) {
      return e.what();
    }
    return "";
  }

  std::string ping(const std::string& host) const {
    return database.value("SELECT ping_task FROM kodu_host WHERE host = '" + host + "'");
  }
  bool hear(const std::string& host) const {
    return database.value("SELECT kodu_host_hear('" + host + "')") == "t";
  }
  /// Has the session answer as a daemon does that loads the ping task.
  void answer(const Session& session, const std::string& host) const {
    const int task = std::stoi(ping(host));
    if (database.value("SELECT kodu_host_answered('" + host + "')") == "f") {
      session.skip(task);
    }
  }
  void makeListen(const Session& session, const std::string& host) const {
    ASSERT_TRUE(waitUntil([&] {
      answer(session, host);
      return hear(host);
    }));
  }
  std::string take(const std::string& dead, const std::string& target) const {
    return database.value("SELECT kodu_host_takeover('" + dead + "', '" + target + "')");
  }
  /// What a call of the watch reports: "DEAD TARGET TASKS" each.
  std::vector<std::string> watch() const {
    std::vector<std::string> rows;
    for (const Database::Row& row : database.query("SELECT * FROM kodu_host_watch('3 seconds')")) {
      rows.push_back(row[0] + " " + row[1] + " " + row[2]);
    }
    return rows;
  }
  std::string status(const std::string& host, const std::string& column) const {
    return database.value("SELECT " + column + " FROM kodu_host_status WHERE host = '" + host +
                          "'");
  }

  Database database;
  Ledger ledger{database};
  std::string other = database.name() + "_b";
};

TEST_F(HostsTest, AreLoadedTwiceWithoutAChange) {
  const std::string everything =
      "SELECT string_agg(line, E'\\n' ORDER BY line) FROM ("
      "SELECT concat(attrelid::regclass, attname, atttypid, attacl, pg_get_expr(adbin, adrelid)) "
      "AS line"
      " FROM pg_attribute LEFT JOIN pg_attrdef ON attrelid = adrelid AND attnum = adnum JOIN "
      "pg_class"
      " ON pg_class.oid = attrelid WHERE relnamespace = 'public'::regnamespace "
      "UNION ALL SELECT concat(relname, relacl, relrowsecurity) FROM pg_class"
      " WHERE relnamespace = 'public'::regnamespace "
      "UNION ALL SELECT pg_policies::text FROM pg_policies "
      "UNION ALL SELECT pg_get_triggerdef(oid) FROM pg_trigger "
      "UNION ALL SELECT pg_get_constraintdef(oid) FROM pg_constraint "
      "UNION ALL SELECT concat(proname, proacl, prosrc) FROM pg_proc"
      " WHERE pronamespace = 'public'::regnamespace "
      "UNION ALL SELECT setconfig::text FROM pg_db_role_setting "
      " WHERE setdatabase = (SELECT oid FROM pg_database WHERE datname = current_database())"
      "UNION ALL SELECT kodu_host::text FROM kodu_host "
      "UNION ALL SELECT kodu_cron_plugin::text FROM kodu_cron_plugin) AS part";
  addOther();
  insertTask(1, other);
  const std::string before = database.value(everything);
  database.query(readFile(projectFile("sql/hosts.sql")));
  EXPECT_EQ(database.value(everything), before);
}

TEST_F(HostsTest, GiveAllPresentTasksAndHistoryToTheFirstOne) {
  const Database plain;
  const Ledger plainLedger(plain);
  TaskRow row;
  plain.insertTask(row);
  plain.query("INSERT INTO kodu_cron_error (cron_id, cron_logfile) VALUES (1, 'x')");
  loadHosts(plain);
  EXPECT_EQ(plain.task(1, "cron_host"), "kodu");
  EXPECT_EQ(plain.value("SELECT cron_host FROM kodu_cron_error"), "kodu");
  const Session daemon(plain.conninfo());
  daemon.begin(1);
  daemon.end(1);
  EXPECT_EQ(plain.task(1, "cron_status"), "OK");
  EXPECT_THAT(plainLedger.rows(1), ElementsAre("ok #1"));
}

TEST_F(HostsTest, CanBeginWithAnotherRoleOfTheDaemon) {
  const Database plain;
  const Ledger plainLedger(plain);
  plain.query("CREATE ROLE " + other + " LOGIN IN ROLE kodu; SET kodu.daemon_role = '" + other +
              "'");
  loadHosts(plain);
  EXPECT_EQ(plain.value("SELECT string_agg(host, ' ') FROM kodu_host_status WHERE is_default"),
            other);
}

TEST_F(HostsTest, CanBeginWithARoleOfAnyName) {
  const Database plain;
  const Ledger plainLedger(plain);
  const std::string role = database.name() + " Kodu's \"first\" \u00e9";
  const std::string quoted = plain.value("SELECT quote_ident($$" + role + "$$)");
  plain.query("CREATE ROLE " + quoted + " LOGIN; SET kodu.daemon_role = $$" + role + "$$");
  loadHosts(plain);
  EXPECT_EQ(plain.value("SELECT host FROM kodu_host_status WHERE is_default AND tasks = 0"), role);
  plain.query("DROP OWNED BY " + quoted + "; DROP ROLE " + quoted);
}

TEST_F(HostsTest, SeeOnlyTheirOwnTasks) {
  addOther();
  insertTask(1, "kodu");
  insertTask(2, other);
  insertTask(3, other);
  const Session first(database.conninfo());
  const Session second(otherConninfo());
  EXPECT_EQ(first.tasks(), 2) << "with its ping task";
  EXPECT_EQ(second.tasks(), 3);

  second.begin(2);
  second.end(2);
  second.purge(1);
  EXPECT_EQ(database.task(1, "cron_id"), "1");
  EXPECT_EQ(database.task(2, "cron_status"), "OK");
  EXPECT_THAT(ledger.rows(2), ElementsAre("ok #1"));
  EXPECT_THAT(failureOf([&] { second.begin(1); }),
              HasSubstr("the host " + other + " does not have this task any more"));
  EXPECT_THAT(failureOf([&] { first.skip(2); }), HasSubstr("does not have this task any more"));
  EXPECT_EQ(database.task(1, "cron_status"), "");
  ledger.expectComplete();
}

TEST_F(HostsTest, AreAllSeenByEverybodyElse) {
  addOther();
  insertTask(1, "kodu");
  insertTask(2, other);
  const std::string viewer = database.name() + "_viewer";
  database.query("CREATE ROLE " + viewer + "; GRANT SELECT, UPDATE ON kodu_cron_plugin TO " +
                 viewer);
  for (const std::string& role : {std::string("kodu_admin"), viewer}) {
    database.query("SET ROLE " + role);
    EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_plugin WHERE cron_id < 3"), "2")
        << role;
    EXPECT_EQ(database.value("WITH moved AS (UPDATE kodu_cron_plugin SET cron_next_exec ="
                             " cron_next_exec + cron_interval WHERE cron_id < 3 RETURNING 1)"
                             " SELECT count(*) FROM moved"),
              "2")
        << role;
    database.query(
        "UPDATE kodu_cron_plugin SET cron_next_exec = now() WHERE cron_id = 99; RESET ROLE");
  }
  database.query("DROP OWNED BY " + viewer + "; DROP ROLE " + viewer);
  const Session second(otherConninfo());
  EXPECT_EQ(second.value("SELECT count(*) FROM kodu_task_state WHERE id < 3"), "2");
  const std::string id = database.value("SET ROLE kodu_admin; SET kodu.host = '" + other +
                                        "'; SELECT kodu_task_add('/bin/true', '1 hour')");
  database.query("RESET ROLE; RESET kodu.host");
  EXPECT_EQ(database.task(std::stoi(id), "cron_host"), other);
}

TEST_F(HostsTest, FenceADaemonThatWaitedForTheRow) {
  addOther();
  insertTask(1, "kodu");
  const Session first(database.conninfo());
  database.query("BEGIN; UPDATE kodu_cron_plugin SET cron_host = '" + other +
                 "' WHERE cron_id = 1");
  std::future<std::string> beginning =
      std::async(std::launch::async, [&] { return failureOf([&] { first.begin(1); }); });
  ASSERT_TRUE(waitUntil([&] { return database.waitingSessions() > 0; }));
  database.query("COMMIT");
  EXPECT_THAT(beginning.get(), HasSubstr("does not have this task any more"));
  EXPECT_EQ(database.task(1, "cron_status"), "");
}

TEST_F(HostsTest, LetToolsOfTheDaemonsRoleUpdateNothing) {
  const std::string update = "UPDATE kodu_cron_plugin SET cron_status = 'OK' WHERE cron_id = 99";
  for (const std::string tool : {"psql", "kodu_repair"}) {
    pgSafeThread session(database.conninfo() + " application_name=" + tool);
    EXPECT_EQ(failureOf([&] { PQclear(session.executeRequest(update)); }), "") << tool;
  }
  pgSafeThread daemon(database.conninfo());
  EXPECT_NE(failureOf([&] { PQclear(daemon.executeRequest(update)); }), "");
}

TEST_F(HostsTest, HaveTheSettingsAndRightsOfTheFirstOne) {
  addOther();
  const Session second(otherConninfo());
  EXPECT_EQ(second.value("SHOW synchronous_commit"), "off");
  EXPECT_EQ(second.value("SHOW search_path"), "public");
  EXPECT_EQ(second.value("SELECT count(*) > 0 FROM kodu_run"), "f");
  EXPECT_EQ(second.value("SELECT sessions FROM kodu_daemon_state"), "0") << "but for itself";
  EXPECT_THAT(failureOf([&] { second.value("SET ROLE kodu"); }), HasSubstr("permission denied"));
  database.query("SELECT kodu_host_add('" + other + "')");
  EXPECT_EQ(
      database.value("SELECT count(*) FROM kodu_cron_plugin WHERE cron_host = '" + other + "'"),
      "1")
      << "its ping task, once";
}

TEST_F(HostsTest, AreNamedInHistoryAndRepair) {
  addOther();
  insertTask(1, "kodu");
  insertTask(2, other);
  const auto second = std::make_unique<Session>(otherConninfo());
  second->begin(2);
  second->fail(2);
  EXPECT_EQ(database.value("SELECT cron_host FROM kodu_cron_error"), other);
  {
    const Session first(database.conninfo());
    first.begin(1);
  }
  const std::string repair = readFile(projectFile("sql/repair.sql"));
  ASSERT_TRUE(
      waitUntil([&] { return database.value("SELECT sessions FROM kodu_daemon_state") == "0"; }));
  database.query(repair);
  EXPECT_EQ(database.task(1, "cron_status"), "FAILED");
  EXPECT_EQ(database.task(2, "cron_status"), "PROCESS") << "in progress on the other host";
  EXPECT_THAT(database.query("SELECT cron_id, cron_host FROM kodu_cron_repair"),
              ElementsAre(ElementsAre("1", "kodu")));
}

TEST_F(HostsTest, MustBeRolesWithoutOtherRights) {
  for (const std::string name : {"NULL", "''", "'Kodu'", "'a b'", "'kodu_hosts'", "'pg_monitor'"}) {
    EXPECT_THAT(refusalOf("SELECT kodu_host_add(" + name + ")"),
                HasSubstr("cannot be the name of a host"))
        << name;
  }
  EXPECT_THAT(
      refusalOf("CREATE ROLE " + other + " SUPERUSER; SELECT kodu_host_add('" + other + "')"),
      HasSubstr("it has rights to all tasks"));
}

TEST_F(HostsTest, AreRemovedOnceTheyHaveNothing) {
  addOther();
  insertTask(1, other);
  const std::string remove = "SELECT kodu_host_remove('" + other + "')";
  EXPECT_THAT(refusalOf(remove), HasSubstr("still has 1 tasks"));
  database.query("DELETE FROM kodu_cron_plugin WHERE cron_id = 1");
  {
    const Session second(otherConninfo());
    EXPECT_THAT(refusalOf(remove), HasSubstr("is connected"));
  }
  ASSERT_TRUE(waitUntil([&] { return status(other, "sessions") == "0"; }));
  database.query(remove);
  EXPECT_EQ(database.value("SELECT count(*) FROM pg_roles WHERE rolname = '" + other + "'"), "0");
  EXPECT_EQ(database.value("SELECT string_agg(host, ' ') FROM kodu_host"), "kodu");
  EXPECT_THAT(refusalOf(remove), HasSubstr("there is no host"));
  EXPECT_THAT(refusalOf("SELECT kodu_host_remove('kodu')"), HasSubstr("new tasks are its own"));
}

TEST_F(HostsTest, StayHostsInOtherDatabases) {
  const Database neighbour;
  const Ledger neighbourLedger(neighbour);
  loadHosts(neighbour);
  addOther();
  neighbour.query("SELECT kodu_host_add('" + other + "')");
  database.query("SELECT kodu_host_remove('" + other + "')");
  EXPECT_EQ(neighbour.value("SELECT pg_has_role('" + other + "', 'kodu_hosts', 'MEMBER')"), "t");
  neighbour.query("SELECT kodu_host_remove('" + other + "')");
}

TEST_F(HostsTest, GetTheirSettingsInACopyOfTheDatabase) {
  addOther();
  // What a restored dump lacks.
  database.query("ALTER ROLE " + other + " IN DATABASE " + database.name() + " RESET ALL");
  database.query(readFile(projectFile("sql/hosts.sql")));
  const Session second(otherConninfo());
  EXPECT_EQ(second.value("SHOW kodu.daemon_role"), other);
}

TEST_F(HostsTest, MustListenAgainInANewSessionWithTheSamePid) {
  addOther();
  insertTask(1, "kodu");
  const Session second(otherConninfo());
  makeListen(second, other);
  ASSERT_EQ(status(other, "listens"), "t");
  database.query("UPDATE kodu_host SET asked_began = asked_began - interval '1 hour'");
  EXPECT_EQ(status(other, "listens"), "f");
  EXPECT_THAT(refusalOf("SELECT kodu_host_takeover('kodu', '" + other + "')"),
              HasSubstr("is not known to listen"));
  EXPECT_FALSE(hear(other));
  makeListen(second, other);
}

TEST_F(HostsTest, ListenAfterTwoAnswers) {
  addOther();
  EXPECT_FALSE(hear(other)) << "no session";
  const Session second(otherConninfo());
  EXPECT_FALSE(hear(other)) << "the first is asked for";
  EXPECT_FALSE(hear(other)) << "not answered";
  answer(second, other);
  EXPECT_FALSE(hear(other)) << "its load may have answered";
  EXPECT_FALSE(hear(other));
  answer(second, other);
  EXPECT_TRUE(hear(other));
  EXPECT_EQ(status(other, "listens"), "t");
}

TEST_F(HostsTest, GetTheirPingTaskAgainWhenItWasDeleted) {
  const std::string before = ping("kodu");
  database.query("DELETE FROM kodu_cron_plugin WHERE cron_id = " + before);
  const Session first(database.conninfo());
  EXPECT_FALSE(hear("kodu"));
  EXPECT_NE(ping("kodu"), before);
  makeListen(first, "kodu");
}

TEST_F(HostsTest, TakeOverAllTasksInOneTransaction) {
  addOther();
  insertTask(1, "kodu");
  insertTask(2, "kodu", "300 seconds");
  insertTask(3, "kodu");
  database.query("SELECT kodu_task_pause(3, 'x')");
  const Session first(database.conninfo());
  const Session second(otherConninfo());
  first.begin(1);
  makeListen(second, other);
  database.query(
      "UPDATE kodu_cron_plugin SET cron_next_exec = cron_next_exec - interval '65 minutes'"
      " WHERE cron_id = 2");
  const long due = database.nextExec(2);

  EXPECT_EQ(take("kodu", other), "3");

  EXPECT_EQ(database.value("SELECT string_agg(cron_id::text, ' ' ORDER BY cron_id) FROM"
                           " kodu_cron_plugin WHERE cron_id < 4 AND cron_host = '" +
                           other + "'"),
            "1 2 3");
  EXPECT_EQ(database.task(1, "cron_status"), "FAILED");
  EXPECT_THAT(database.query("SELECT cron_id, cron_host FROM kodu_cron_repair"),
              ElementsAre(ElementsAre("1", "kodu")));
  EXPECT_THAT(ledger.rows(1), ElementsAre("interrupted #1"));
  EXPECT_THAT(ledger.rows(2), testing::Contains("moved 2"));
  EXPECT_EQ((database.nextExec(2) - due) % 300, 0);
  EXPECT_GE(database.nextExec(2), due + 300);
  EXPECT_EQ(database.value("SELECT paused FROM kodu_task_state WHERE id = 3"), "t");
  EXPECT_NE(failureOf([&] { first.end(1); }), "") << "its session was ended";
  second.begin(1);
  second.end(1);
  EXPECT_THAT(failureOf([&] { Session(database.conninfo()).begin(1); }),
              HasSubstr("does not have this task any more"));
  ledger.expectComplete();
}

TEST_F(HostsTest, TellTheNewHostOfItsTasks) {
  addOther();
  insertTask(1, "kodu");
  const Session second(otherConninfo());
  makeListen(second, other);
  const std::unique_ptr<PGconn, decltype(&PQfinish)> listener(
      PQconnectdb(database.adminConninfo().c_str()), PQfinish);
  PQclear(PQexec(listener.get(), "LISTEN koducronchannel"));
  take("kodu", other);
  PQclear(PQexec(listener.get(), "SELECT 1"));
  std::vector<std::string> payloads;
  while (PGnotify* notification = PQnotifies(listener.get())) {
    payloads.emplace_back(notification->extra);
    PQfreemem(notification);
  }
  EXPECT_THAT(payloads, ElementsAre(R"({"TYPE":"SERVICE","COMMAND":"ADD","ID":1})"));
}

TEST_F(HostsTest, RefuseATakeoverByAHostThatDoesNotListen) {
  addOther();
  insertTask(1, "kodu");
  const auto takeover = [&](const std::string& dead, const std::string& target) {
    return refusalOf("SELECT kodu_host_takeover('" + dead + "', '" + target + "')");
  };
  EXPECT_THAT(takeover("kodu", other), HasSubstr("is not known to listen"));
  const Session second(otherConninfo());
  EXPECT_THAT(takeover("kodu", other), HasSubstr("is not known to listen"));
  EXPECT_THAT(takeover("kodu", "kodu"), HasSubstr("cannot take over from itself"));
  EXPECT_THAT(takeover("missing", other), HasSubstr("there is no host 'missing'"));
  EXPECT_EQ(database.task(1, "cron_host"), "kodu");
}

/// A session of its own that has locked the row of a task until it goes.
class RowLock {
 public:
  RowLock(const Database& database, int id)
      : session(PQconnectdb(database.adminConninfo().c_str()), PQfinish) {
    PQclear(PQexec(session.get(), ("BEGIN; SELECT FROM kodu_cron_plugin WHERE cron_id = " +
                                   std::to_string(id) + " FOR UPDATE")
                                      .c_str()));
  }

 private:
  std::unique_ptr<PGconn, decltype(&PQfinish)> session;
};

TEST_F(HostsTest, RefuseATakeoverByAHostThatStartsAgainMeanwhile) {
  addOther();
  insertTask(1, "kodu");
  auto second = std::make_unique<Session>(otherConninfo());
  makeListen(*second, other);
  auto lock = std::make_unique<RowLock>(database, 1);
  std::future<std::string> takeover = std::async(std::launch::async, [&] {
    const Session admin(database.adminConninfo());
    return failureOf([&] { admin.value("SELECT kodu_host_takeover('kodu', '" + other + "')"); });
  });
  ASSERT_TRUE(waitUntil([&] { return database.waitingSessions() > 0; }));
  second.reset();
  const Session again(otherConninfo());
  EXPECT_EQ(again.tasks(), 1) << "it loads only its ping task";
  lock.reset();
  EXPECT_THAT(takeover.get(), HasSubstr("has ended during the takeover"));
  EXPECT_EQ(database.task(1, "cron_host"), "kodu");
}

TEST_F(HostsTest, TakeNothingBackWithASessionThatTheTakeoverEnds) {
  addOther();
  insertTask(1, "kodu");
  const Session first(database.conninfo());
  const Session second(otherConninfo());
  makeListen(first, "kodu");
  makeListen(second, other);
  database.query(
      "CREATE OR REPLACE FUNCTION kodu_host_end_sessions(host text) RETURNS void LANGUAGE sql AS "
      "'SELECT'");
  EXPECT_EQ(take("kodu", other), "1");
  EXPECT_THAT(refusalOf("SELECT kodu_host_takeover('" + other + "', 'kodu')"),
              HasSubstr("is not known to listen"));
}

TEST_F(HostsTest, KeepTasksInTheTimesOfTheirCalendars) {
  database.query(readFile(projectFile("sql/calendar.sql")));
  addOther();
  const Session first(database.conninfo());
  const Session second(otherConninfo());
  makeListen(first, "kodu");
  makeListen(second, other);
  for (int id = 1; id <= 4; ++id) {
    insertTask(id, "kodu", "7 minutes");
  }
  // The last day of February, which is none of the times that the interval would lead to.
  database.query(
      "UPDATE kodu_cron_plugin SET cron_calendar = '30 4 29 2 *' WHERE cron_id < 4;"
      "UPDATE kodu_cron_plugin SET cron_next_exec = now() - interval '1 minute'"
      " WHERE cron_id < 5");
  database.query(
      "SET session_replication_role = replica; UPDATE kodu_cron_plugin SET"
      " cron_slots = kodu_calendar_parse('30 4 29 2 *'), cron_calendar = '30 4 29 2 *',"
      " cron_zone = 'Europe/Atlantis' WHERE cron_id = 4;"
      "SET session_replication_role = origin");
  first.begin(1);
  const std::string slot =
      database.value("SELECT kodu_calendar_next('30 4 29 2 *', 'UTC', now()) AT TIME ZONE 'UTC'");

  EXPECT_EQ(take("kodu", other), "4");

  EXPECT_EQ(database.task(1, "cron_next_exec"), slot) << "its run was interrupted";
  EXPECT_EQ(database.task(2, "cron_next_exec"), slot) << "its time is past";
  EXPECT_EQ(database.value("SELECT cron_next_exec < now() + interval '8 minutes' FROM"
                           " kodu_cron_plugin WHERE cron_id = 4"),
            "t")
      << "a zone that the server does not know";

  database.query("SELECT kodu_host_park('" + other + "', 'kodu', 10)");
  database.query(
      "UPDATE kodu_host_moving SET next_exec = now() - interval '1 minute'"
      " WHERE cron_id = 3");
  database.query("SELECT kodu_host_give_back('" + other + "')");
  EXPECT_EQ(database.task(2, "cron_next_exec"), slot);
  EXPECT_EQ(database.task(3, "cron_next_exec"), slot) << "its time has passed on the way";
  ledger.expectComplete();
}

TEST_F(HostsTest, LeaveARowThatSomebodyHasLockedWhereItIs) {
  addOther();
  insertTask(1, "kodu");
  insertTask(2, "kodu");
  const RowLock lock(database, 1);
  database.query("SET lock_timeout = '1s'");
  EXPECT_EQ(database.value("SELECT kodu_host_park('kodu', '" + other + "', NULL)"), "1");
  EXPECT_EQ(status("kodu", "leaving"), "1");
}

TEST_F(HostsTest, TakeOverFromOneThatIsSilent) {
  addOther();
  insertTask(1, "kodu");
  const Session first(database.conninfo());
  const Session second(otherConninfo());
  makeListen(second, other);
  const Session watcher(otherConninfo());
  const auto start = std::chrono::steady_clock::now();
  std::string taken;
  ASSERT_TRUE(waitUntil(
      [&] {
        second.value("SELECT 1");
        taken = watcher.value(
            "SELECT string_agg(concat_ws(' ', dead, target, tasks), ', ') FROM"
            " kodu_host_watch('3 seconds')");
        return !taken.empty();
      },
      std::chrono::seconds(30)));
  EXPECT_EQ(taken, "kodu " + other + " 1");
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
  EXPECT_EQ(database.task(1, "cron_host"), other);
  EXPECT_THAT(watch(), IsEmpty());
}

TEST_F(HostsTest, AreNotTakenOverWhileTheirStatementWaitsForALock) {
  addOther();
  insertTask(1, "kodu");
  const Session first(database.conninfo());
  const Session second(otherConninfo());
  makeListen(second, other);
  const std::unique_ptr<PGconn, decltype(&PQfinish)> blocker(
      PQconnectdb(database.adminConninfo().c_str()), PQfinish);
  PQclear(
      PQexec(blocker.get(), "BEGIN; SELECT FROM kodu_cron_plugin WHERE cron_id = 1 FOR UPDATE"));
  std::future<void> waiting = std::async(std::launch::async, [&] { first.begin(1); });
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(6);
  ASSERT_TRUE(waitUntil(
      [&] {
        second.value("SELECT 1");
        EXPECT_THAT(watch(), IsEmpty());
        return std::chrono::steady_clock::now() > end;
      },
      std::chrono::seconds(30)));
  PQclear(PQexec(blocker.get(), "COMMIT"));
  waiting.get();
  EXPECT_EQ(database.task(1, "cron_host"), "kodu");
}

TEST_F(HostsTest, AreNotTakenOverAfterAnOutageOfTheServer) {
  addOther();
  insertTask(1, "kodu");
  const Session second(otherConninfo());
  makeListen(second, other);
  watch();
  database.query(
      "UPDATE kodu_host SET seen = seen - interval '1 hour', watched = watched - interval '1 hour',"
      " asked = seen - interval '59 minutes'");
  EXPECT_THAT(watch(), IsEmpty());
  EXPECT_EQ(database.value("SELECT max(silent_seconds) < 5 FROM kodu_host_status"), "t");
  EXPECT_THAT(refusalOf("SELECT kodu_host_watch('1 second')"), HasSubstr("3 seconds or more"));
}

TEST_F(HostsTest, GetTasksBackThatAnInterruptedMoveLeftParked) {
  addOther();
  insertTask(1, "kodu");
  const long due = database.nextExec(1);
  {
    const std::unique_ptr<PGconn, decltype(&PQfinish)> mover(
        PQconnectdb(database.adminConninfo().c_str()), PQfinish);
    const std::string park = "SELECT kodu_host_park('kodu', '" + other + "', 10)";
    PQclear(PQexec(mover.get(), park.c_str()));
    EXPECT_GE(database.nextExec(1), due + 3600);
    EXPECT_EQ(status("kodu", "leaving"), "1");
  }
  ASSERT_TRUE(waitUntil([&] {
    watch();
    return database.nextExec(1) == due;
  }));
  EXPECT_EQ(status("kodu", "leaving"), "0");
  ledger.expectComplete();
}

TEST_F(HostsTest, CanBeLoadedBeforeTheOtherFilesAreLoadedAgain) {
  for (const std::string file : {"schema", "functions", "ledger", "events", "metrics"}) {
    EXPECT_EQ(refusalOf(readFile(projectFile("sql/" + file + ".sql"))), "") << file;
  }
  addOther();
  EXPECT_EQ(database.value(
                "SELECT has_function_privilege('kodu_admin', 'kodu_host_add(text)', 'EXECUTE')"),
            "f");
}

/// Two daemons, the second as the other host, and tasks whose plugins note each run.
class TwoDaemonsTest : public HostsTest {
 protected:
  void SetUp() override {
    HostsTest::SetUp();
    addOther();
    for (Daemon* daemon : {&first, &second}) {
      daemon->threadNumber = "4";
      daemon->role = daemon == &first ? "kodu" : other;
      daemon->writeConfig();
    }
  }
  void TearDown() override {
    for (Daemon* daemon : {&first, &second}) {
      if (daemon->isRunning()) {
        daemon->signal(SIGKILL);
        daemon->waitForEnd();
      }
    }
    ledger.expectComplete();
    EXPECT_THAT(database.query("SELECT id, due FROM kodu_run WHERE outcome IN ('ok', 'failed')"
                               " GROUP BY id, due HAVING count(*) > 1"),
                IsEmpty())
        << "runs of one time";
    EXPECT_LE(notes(), number("SELECT count(*) FROM kodu_run WHERE reason IS NULL") +
                           number("SELECT count(*) FROM kodu_cron_plugin WHERE cron_status = "
                                  "'PROCESS' AND run_ended IS NULL"))
        << "runs that the ledger does not know";
    HostsTest::TearDown();
  }

  /// Tasks of the first host, with these ids.
  void insertTasks(int from, int to, const std::string& interval, const std::string& body = "") {
    for (int id = from; id <= to; ++id) {
      TaskRow row;
      row.id = id;
      row.name = "task" + std::to_string(id);
      row.path = writePlugin(directory / row.name,
                             "echo . >>" + (directory / "notes") + "\necho fine\n" + body);
      row.interval = interval;
      row.nextExec = "date_trunc('second', now()) + interval '5 seconds'";
      database.insertTask(row);
    }
  }
  void startBoth() {
    ASSERT_TRUE(first.startAndWait());
    ASSERT_TRUE(second.startAndWait());
    for (const std::string& host : {std::string("kodu"), other}) {
      ASSERT_TRUE(waitUntil([&] { return hear(host); }, std::chrono::seconds(30))) << host;
    }
  }

  long number(const std::string& sql) const { return std::stol(database.value(sql)); }
  long notes() const { return static_cast<long>(readLines(directory / "notes").size()); }
  long runs(const std::string& condition = "TRUE") const {
    return number("SELECT count(*) FROM kodu_run WHERE outcome = 'ok' AND " + condition);
  }
  bool waitForRuns(long more, const std::string& condition = "TRUE") const {
    const long before = runs(condition);
    return waitUntil([&] { return runs(condition) >= before + more; }, std::chrono::seconds(60));
  }
  long tasksOf(const std::string& host) const { return std::stol(status(host, "tasks")); }
  TempDir directory;
  Daemon first{database};
  Daemon second{database};
};

TEST_F(TwoDaemonsTest, RunNothingTwiceWhenAStoppedOneContinuesAfterItsTakeover) {
  insertTasks(1, 20, "2 seconds");
  startBoth();
  ASSERT_TRUE(waitForRuns(20));
  first.signal(SIGSTOP);
  EXPECT_EQ(take("kodu", other), "20");
  ASSERT_TRUE(waitForRuns(40));
  first.signal(SIGCONT);
  ASSERT_TRUE(first.waitForEnd()) << "it must end by itself";
  ASSERT_TRUE(waitForRuns(20));
  EXPECT_EQ(tasksOf(other), 20);
  EXPECT_TRUE(second.isRunning()) << second.console();
}

TEST_F(TwoDaemonsTest, FenceAStoppedOneWithoutAnEndOfItsSession) {
  insertTasks(1, 20, "2 seconds");
  startBoth();
  database.query(
      "CREATE OR REPLACE FUNCTION kodu_host_end_sessions(host text) RETURNS void LANGUAGE sql AS "
      "'SELECT'");
  ASSERT_TRUE(waitForRuns(20));
  first.signal(SIGSTOP);
  EXPECT_EQ(take("kodu", other), "20");
  ASSERT_TRUE(waitForRuns(20));
  first.signal(SIGCONT);
  ASSERT_TRUE(first.waitForEnd());
  // Two workers may end it at the same moment, and then neither error is printed.
  EXPECT_THAT(first.console(), AnyOf(HasSubstr("does not have this task any more"),
                                     HasSubstr("terminate called recursively")));
  ASSERT_TRUE(waitForRuns(20));
}

TEST_F(TwoDaemonsTest, TakeOverByThemselvesFromOneThatWasKilled) {
  insertTasks(1, 10, "2 seconds");
  startBoth();
  ASSERT_TRUE(waitForRuns(10));
  first.signal(SIGKILL);
  std::vector<std::string> taken;
  ASSERT_TRUE(waitUntil(
      [&] {
        const std::vector<std::string> now = watch();
        taken.insert(taken.end(), now.begin(), now.end());
        return !taken.empty();
      },
      std::chrono::seconds(60)));
  EXPECT_THAT(taken, ElementsAre("kodu " + other + " 10"));
  EXPECT_TRUE(waitForRuns(20));
}

TEST_F(TwoDaemonsTest, AreNotTakenOverWhileAllTheirWorkersAreBusy) {
  insertTasks(1, 8, "60 seconds", "/bin/sleep 12");
  startBoth();
  ASSERT_TRUE(
      waitUntil([&] { return status("kodu", "running") == "4"; }, std::chrono::seconds(60)));
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(8);
  ASSERT_TRUE(waitUntil(
      [&] {
        EXPECT_THAT(watch(), IsEmpty());
        return std::chrono::steady_clock::now() > end;
      },
      std::chrono::seconds(60)));
  EXPECT_EQ(tasksOf("kodu"), 8);
}

TEST_F(TwoDaemonsTest, MoveTasksBetweenThemWithoutAnEnd) {
  insertTasks(1, 5, "1 second");
  insertTasks(6, 15, "5 seconds", "/bin/sleep 0.2");
  insertTasks(16, 25, "3600 seconds");
  database.query("SELECT kodu_task_pause(25, 'x')");
  const std::string places =
      "SELECT string_agg(concat(cron_id, ':', EXTRACT(EPOCH FROM cron_next_exec)::bigint %"
      " EXTRACT(EPOCH FROM cron_interval)::bigint), ' ' ORDER BY cron_id) FROM kodu_cron_plugin"
      " WHERE cron_id < 25";
  const std::string before = database.value(places);
  startBoth();
  ASSERT_TRUE(waitForRuns(20));
  EXPECT_EQ(database.value("CALL kodu_host_move('kodu', '" + other + "', NULL)"), "25");
  EXPECT_EQ(tasksOf(other), 25);
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_host_moving"), "0");
  EXPECT_EQ(database.value("SELECT string_agg(id::text, ' ') FROM kodu_task_state WHERE paused"),
            "25");
  ASSERT_TRUE(waitForRuns(30));
  EXPECT_EQ(database.value(places), before);
  EXPECT_TRUE(first.isRunning()) << first.console();
  EXPECT_TRUE(second.isRunning()) << second.console();
  EXPECT_EQ(database.value("CALL kodu_host_move('" + other + "', 'kodu', 3)"), "3");
  EXPECT_EQ(tasksOf("kodu"), 3);
  ASSERT_TRUE(waitForRuns(10, "id <= 3"));
  EXPECT_TRUE(first.isRunning()) << first.console();
}

TEST_F(TwoDaemonsTest, RefuseToMoveFromOneThatIsSilent) {
  insertTasks(1, 1, "60 seconds");
  ASSERT_TRUE(second.startAndWait());
  EXPECT_THAT(refusalOf("CALL kodu_host_move('kodu', '" + other + "', 1)"),
              HasSubstr("the daemon of the host kodu does not answer"));
  EXPECT_EQ(tasksOf("kodu"), 1);
}

TEST(HostsWithoutAStopTest, AreLoadedWhileADaemonRuns) {
  const Database database;
  const Ledger ledger(database);
  TaskRow row;
  row.interval = "1 second";
  row.nextExec = "date_trunc('second', now()) + interval '2 seconds'";
  database.insertTask(row);
  Daemon daemon(database);
  ASSERT_TRUE(daemon.startAndWait());
  const auto waitForRuns = [&](std::size_t count) {
    return waitUntil([&] { return ledger.rows(1).size() >= count; }, std::chrono::seconds(60));
  };
  ASSERT_TRUE(waitForRuns(2));
  loadHosts(database);
  ASSERT_TRUE(waitForRuns(ledger.rows(1).size() + 3));
  EXPECT_TRUE(daemon.isRunning()) << daemon.console();
  EXPECT_TRUE(waitUntil([&] { return database.value("SELECT kodu_host_hear('kodu')") == "t"; },
                        std::chrono::seconds(30)));
}

}  // namespace
