#include "tests/support/Ledger.h"

#include <chrono>
#include <cstdlib>
#include <future>
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
#include "tests/support/Database.h"
#include "tests/support/Files.h"
#include "tests/support/waitUntil.h"

namespace {

using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Rows = std::vector<Database::Row>;

/// A session of the daemon with its statements.
class Session {
 public:
  explicit Session(const Database& database) : connection(database.conninfo()) {
    prepareNamedStatements(connection);
  }
  void begin(int id) { run("UpdateCronProcess", {std::to_string(id)}); }
  void end(int id, const std::string& status = "OK") {
    run("UpdateCronState", {std::to_string(id), status});
  }
  void skip(int id, int intervals) {
    run("updateCronExecTask", {std::to_string(id), std::to_string(intervals)});
  }
  void noteFailure(int id) { run("insertCronError", {std::to_string(id), "a.txt"}); }
  void runOnce(int id, const std::string& status = "OK") {
    begin(id);
    end(id, status);
  }
  void execute(const std::string& sql) { PQclear(connection.executeRequest(sql)); }

 private:
  void run(const std::string& name, const std::vector<std::string>& parameters) {
    PQclear(connection.executePrepareRequest(name, parameters));
  }
  pgSafeThread connection;
};

/// The daemon's statements on a database with the ledger. Task 1 has an interval of a minute and is
/// due in an hour, unless a test makes it overdue.
class LedgerTest : public testing::Test {
 protected:
  void SetUp() override { insertTask(1); }
  void TearDown() override { ledger.expectComplete(); }

  void insertTask(int id) const {
    TaskRow row;
    row.id = id;
    row.interval = "60 seconds";
    database.insertTask(row);
  }

  /// Changes rows behind the ledger's back.
  void pretend(const std::string& sql) const {
    database.query("SET session_replication_role = replica; " + sql +
                   "; SET session_replication_role = origin");
  }
  /// Makes all that has happened, and all that is due, so much earlier.
  void letPass(const std::string& by) const {
    const auto shift = [&](const std::string& table, const std::vector<std::string>& columns) {
      std::string assignments;
      for (const std::string& column : columns) {
        assignments += assignments.empty() ? "" : ", ";
        assignments += column;
        assignments += " = ";
        assignments += column;
        assignments += " - interval '" + by + "'";
      }
      pretend("UPDATE " + table + " SET " + assignments);
    };
    shift("kodu_cron_plugin",
          {"cron_next_exec", "cron_last_exec", "run_due", "run_started", "run_ended",
           "run_failing_since", "pause_due", "ledger_to", "cron_wanted"});
    shift("kodu_ledger", {"due", "started", "ended", "moved_from", "moved_to"});
    shift("kodu_ledger_life", {"began", "server_began", "previous_began"});
    shift("kodu_cron_error", {"cron_date"});
    shift("kodu_cron_pause", {"next_exec"});
    pretend(
        "UPDATE kodu_cron_plugin SET cron_next_exec = kodu_pause_time() "
        "WHERE cron_next_exec > now() + interval '1 year'");
  }

  /// Gives the session a life whose server started long ago.
  void beginLife(Session& session) const {
    insertTask(2);
    session.runOnce(2);
    pretend(
        "UPDATE kodu_ledger_life SET server_began = now() - interval '1 year' "
        "WHERE life_id = (SELECT max(life_id) FROM kodu_ledger_life)");
  }
  /// Adds so many rows to the summaries; returns how many were added. They wait for older
  /// transactions of other tests, which share the server.
  long summarise(long expected) const {
    long added = 0;
    waitUntil([&] {
      added += std::stol(database.value("SELECT kodu_ledger_summarise(TRUE)"));
      return added >= expected;
    });
    return added;
  }

  std::string refusalOf(const std::string& sql) const {
    try {
      database.query(sql);
    } catch (const std::runtime_error& e) {
      return e.what();
    }
    return "";
  }
  /// The bucket that is being written.
  std::string bucket() const {
    return database.value(
        "SELECT 'kodu_ledger_' || to_char(kodu_ledger_bucket(now() AT TIME ZONE "
        "'UTC'), 'FM00')");
  }
  /// What the daemon's role is told.
  std::string refusalOfDaemon(const std::string& sql) {
    try {
      daemon.execute(sql);
    } catch (const PostgresqlException& e) {
      return e.what();
    }
    return "";
  }

  Database database;
  Ledger ledger{database};
  Session daemon{database};
};

// Outcomes
// -----------------------------------------------------------------------------------------

TEST_F(LedgerTest, HasARowForARun) {
  daemon.begin(1);
  EXPECT_EQ(database.query("SELECT due = cron_next_exec, started <= now(), ended IS NULL, attempt "
                           "FROM kodu_task_run JOIN kodu_cron_plugin ON cron_id = id"),
            (Rows{{"t", "t", "t", "1"}}));
  EXPECT_THAT(ledger.rows(1), IsEmpty());

  daemon.end(1);

  EXPECT_EQ(
      database.query(
          "SELECT id, outcome, reason, attempt, periods, due = cron_last_exec, "
          "moved_from = cron_last_exec, moved_to = cron_next_exec, started <= ended, "
          "ended <= now(), life > 0, host FROM kodu_run JOIN kodu_cron_plugin ON cron_id = id"),
      (Rows{{"1", "ok", "", "1", "1", "t", "t", "t", "t", "t", "t", "127.0.0.1"}}));
}

TEST_F(LedgerTest, CountsRunsAsPeriods) {
  for (int run = 0; run < 3; ++run) {
    daemon.runOnce(1, run == 1 ? "FAILED" : "OK");
  }

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "failed #1", "ok #1"));
  EXPECT_EQ(database.query("SELECT periods, runs, failed, skipped FROM kodu_account()"),
            (Rows{{"3", "3", "1", "0"}}));
}

TEST_F(LedgerTest, HasARowForEachAttempt) {
  daemon.begin(1);
  daemon.noteFailure(1);
  daemon.begin(1);
  daemon.noteFailure(1);
  daemon.begin(1);
  daemon.end(1);

  EXPECT_THAT(ledger.rows(1), ElementsAre("retried #1", "retried #2", "ok #3"));
  EXPECT_EQ(database.value("SELECT count(DISTINCT due) FROM kodu_run"), "1");
  EXPECT_EQ(database.value("SELECT ended = cron_date FROM kodu_run, kodu_cron_error "
                           "ORDER BY ledger_id, cron_error_id LIMIT 1"),
            "t")
      << "a failed attempt has ended when its history row was written";
}

TEST_F(LedgerTest, DoesNotKnowWhenARunBeganThatWasInProgressAsItWasLoaded) {
  database.query("SELECT kodu_ledger_off()");
  daemon.begin(1);
  database.query("SELECT kodu_ledger_on()");
  database.query("UPDATE kodu_cron_plugin SET cron_next_exec = cron_next_exec + interval '1 min'");
  daemon.end(1);

  EXPECT_THAT(ledger.rows(1), ElementsAre("changed 1", "ok #1"));
  EXPECT_EQ(database.value("SELECT started IS NULL FROM kodu_run WHERE outcome = 'ok'"), "t");
}

TEST_F(LedgerTest, KnowsSinceWhenATaskHasBeenFailing) {
  const auto since = [&] { return database.value("SELECT failing_since FROM kodu_task_run"); };
  daemon.runOnce(1);
  EXPECT_EQ(since(), "");

  daemon.runOnce(1, "FAILED");
  const std::string first = since();
  daemon.runOnce(1, "FAILED");

  EXPECT_EQ(first, database.value("SELECT min(ended) FROM kodu_run WHERE outcome = 'failed'"));
  EXPECT_EQ(since(), first);
  daemon.runOnce(1);
  EXPECT_EQ(since(), "");
}

TEST_F(LedgerTest, DoesNotKnowSinceWhenATaskHasBeenFailingThatFailedBefore) {
  database.query("SELECT kodu_ledger_off()");
  daemon.runOnce(1, "FAILED");
  database.query("SELECT kodu_ledger_on()");
  for (const std::string status : {"FAILED", "FAILED", "OK", "FAILED"}) {
    daemon.runOnce(1, status);
    const bool isKnown = database.task(1, "isfinite(run_failing_since)") == "t";
    EXPECT_EQ(isKnown, ledger.rows(1).size() == 4) << status;
  }
  database.query("SELECT kodu_ledger_off()");
  daemon.runOnce(1, "OK");
  daemon.runOnce(1, "FAILED");
  database.query("SELECT kodu_ledger_on()");
  daemon.runOnce(1, "FAILED");
  EXPECT_EQ(database.task(1, "run_failing_since"), "-infinity");
  EXPECT_EQ(database.value("SELECT failing_since FROM kodu_task_run"), "");
}

TEST_F(LedgerTest, CallsARunInterruptedThatTheNextLifeFinds) {
  daemon.begin(1);
  Session next(database);

  next.begin(1);
  next.end(1);

  EXPECT_THAT(ledger.rows(1), ElementsAre("interrupted #1", "ok #2"));
}

TEST_F(LedgerTest, CallsARunInterruptedThatRepairEnds) {
  daemon.runOnce(1);
  daemon.begin(1);

  database.query(
      "UPDATE kodu_cron_plugin SET cron_status = 'FAILED' WHERE cron_status = 'PROCESS'");

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "interrupted #1"));
  EXPECT_NE(database.value("SELECT failing_since FROM kodu_task_run"), "");
  Session(database).runOnce(1);
  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "interrupted #1", "ok #2"));
}

TEST_F(LedgerTest, CallsAnAttemptRetriedWhoseRetryNeverCame) {
  daemon.begin(1);
  daemon.noteFailure(1);
  Session next(database);

  next.runOnce(1);

  EXPECT_THAT(ledger.rows(1), ElementsAre("retried #1", "ok #2"));
}

// Reasons
// ------------------------------------------------------------------------------------------

TEST_F(LedgerTest, CallsPeriodsOverrunThatPassInARun) {
  daemon.runOnce(1);
  letPass("1 hour 1 minute");
  daemon.begin(1);
  letPass("150 seconds");
  daemon.end(1);
  daemon.skip(1, 2);

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "ok #1", "overrun 2"));
}

TEST_F(LedgerTest, CallsAllPeriodsOverrunThatPassBetweenRetries) {
  daemon.runOnce(1);
  letPass("1 hour 1 minute");
  daemon.begin(1);
  daemon.noteFailure(1);
  letPass("150 seconds");
  daemon.begin(1);
  daemon.end(1);
  daemon.skip(1, 2);

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "retried #1", "ok #2", "overrun 2"));
}

TEST_F(LedgerTest, CallsPeriodsLateThatPassBeforeARun) {
  daemon.runOnce(1);
  letPass("1 hour 211 seconds");

  daemon.runOnce(1);
  daemon.skip(1, 2);

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "ok #1", "late 2"));
}

TEST_F(LedgerTest, BlamesTheDaemonForPeriodsBeforeItsLife) {
  daemon.runOnce(1);
  letPass("1 hour 151 seconds");
  Session next(database);
  beginLife(next);

  next.skip(1, 2);

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "daemon 2"));
}

TEST_F(LedgerTest, CallsThePeriodOfAnInterruptedRunInterrupted) {
  daemon.runOnce(1);
  letPass("1 hour 151 seconds");
  daemon.begin(1);
  Session next(database);
  beginLife(next);

  next.skip(1, 2);
  next.runOnce(1);

  EXPECT_THAT(ledger.rows(1),
              ElementsAre("ok #1", "interrupted #1", "interrupted 1", "daemon 1", "ok #1"));
}

TEST_F(LedgerTest, CallsThePeriodOfARepairedRunInterrupted) {
  daemon.runOnce(1);
  letPass("1 hour 151 seconds");
  daemon.begin(1);
  database.query("UPDATE kodu_cron_plugin SET cron_status = 'FAILED'");
  Session next(database);
  beginLife(next);

  next.skip(1, 2);

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "interrupted #1", "interrupted 1", "daemon 1"));
}

TEST_F(LedgerTest, BlamesTheDatabaseForPeriodsBeforeItsServersStart) {
  daemon.runOnce(1);
  letPass("1 hour 3 minutes 30 seconds");
  Session next(database);
  insertTask(2);
  next.runOnce(2);  // its life has a row now
  pretend(
      "UPDATE kodu_ledger_life SET began = now() - interval '10 s', "
      "server_began = now() - interval '70 s', previous_began = now() - interval '1 day' "
      "WHERE life_id = (SELECT max(life_id) FROM kodu_ledger_life)");

  next.skip(1, 3);

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "database 2", "daemon 1"));
}

TEST_F(LedgerTest, CallsPeriodsReloadWhenTheTaskIsLoadedInARun) {
  daemon.runOnce(1);
  letPass("1 hour 90 seconds");
  daemon.begin(1);

  daemon.skip(1, 2);
  daemon.end(1);

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "reload 2", "ok #1"));
}

TEST_F(LedgerTest, EndsARunWhoseRetryIsLostByALoad) {
  daemon.runOnce(1);
  letPass("1 hour 90 seconds");
  daemon.begin(1);
  daemon.noteFailure(1);

  daemon.skip(1, 2);
  daemon.runOnce(1);

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "retried #1", "reload 2", "ok #1"));
}

TEST_F(LedgerTest, CallsPeriodsReloadWhenALateTaskIsLoaded) {
  insertTask(2);
  daemon.runOnce(2);  // the life has begun
  pretend("UPDATE kodu_ledger_life SET began = now() - interval '1 day'");
  daemon.runOnce(1);
  pretend(
      "UPDATE kodu_cron_plugin SET run_started = now() - interval '1 h', "
      "run_ended = now() - interval '1 h'");
  letPass("1 hour 90 seconds");

  daemon.skip(1, 1);

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "reload 1"));
}

TEST_F(LedgerTest, CountsThePeriodsOfAPause) {
  daemon.runOnce(1);
  database.query("SELECT kodu_task_pause(1)");
  EXPECT_EQ(database.value("SELECT moved_to = pause_due FROM kodu_run, kodu_cron_plugin "
                           "WHERE reason = 'paused'"),
            "t");
  letPass("2 hours 30 seconds");

  database.query("SELECT kodu_task_resume(1)");
  daemon.runOnce(1);

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "paused 0", "paused 60", "ok #1"));
  EXPECT_EQ(database.task(1, "pause_due"), "");
}

TEST_F(LedgerTest, CountsThePeriodsOfAPauseThatEndsByItself) {
  daemon.runOnce(1);
  database.query(
      "SELECT kodu_task_pause(1, until => (cron_next_exec + interval '150 seconds')"
      " AT TIME ZONE 'UTC') FROM kodu_cron_plugin WHERE cron_id = 1");
  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "paused 3"));
}

TEST_F(LedgerTest, StaysCompleteWhenSuchAPauseIsEndedEarlier) {
  daemon.runOnce(1);
  database.query("SELECT kodu_task_pause(1, until => now() + interval '1 hour')");
  database.query("SELECT kodu_task_resume(1)");
  EXPECT_EQ(ledger.rows(1).front(), "ok #1");
}

TEST_F(LedgerTest, CountsARunThatEndsInAPause) {
  daemon.runOnce(1);
  letPass("1 hour 1 minute");
  daemon.begin(1);
  database.query("SELECT kodu_task_pause(1)");

  daemon.end(1);
  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "ok #1", "paused 0"));
  letPass("150 seconds");
  database.query("SELECT kodu_task_resume(1)");

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "ok #1", "paused 0", "paused 2"));
  EXPECT_EQ(
      database.value("SELECT count(*) FROM kodu_run WHERE moved_to > now() + interval '1 day'"),
      "0");
}

TEST_F(LedgerTest, CallsPeriodsChangedThatAPersonLeavesOut) {
  daemon.runOnce(1);
  database.query("SELECT kodu_task_set(1, next_run => now() + interval '4 hours 30 seconds')");
  database.query("SELECT kodu_task_run_now(1)");
  daemon.runOnce(1);

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "changed 179", "changed 0", "ok #1"));
  EXPECT_EQ(ledger.account(1, "changed"), "179");
}

/// What is asked for during a run takes effect at its end, in the daemon's own statement.
class LedgerRequestTest : public LedgerTest {
 protected:
  void SetUp() override {
    LedgerTest::SetUp();
    daemon.runOnce(1);
    letPass("1 hour 1 minute 10 seconds");
    daemon.begin(1);
  }
  void ask(const std::string& call) const { database.query("SELECT kodu_task_" + call); }
};

TEST_F(LedgerRequestTest, CountsWhatAnotherTimeLeavesOut) {
  ask("set(1, next_run => now() + interval '10 minutes 30 seconds')");
  daemon.end(1);

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "ok #1", "changed 9"));
  EXPECT_EQ(database.task(1, "ledger_to = cron_next_exec"), "t");
}

TEST_F(LedgerRequestTest, ShiftsTheRhythmForARunThatFollowsAtOnce) {
  ask("run_now(1)");
  daemon.end(1);
  daemon.runOnce(1);

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "ok #1", "changed 0", "ok #1"));
}

TEST_F(LedgerRequestTest, LeavesOutTheTimeUpToADeletion) {
  ask("delete(1)");
  daemon.end(1, "FAILED");
  EXPECT_EQ(database.task(1, "cron_delete"), "t");

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "failed #1", "changed 4"));
  database.query("DELETE FROM kodu_cron_plugin WHERE cron_id = 1");
  EXPECT_EQ(ledger.account(1, "difference"), "0") << "the history outlives its task";
}

TEST_F(LedgerRequestTest, HasNoRowForAPauseThatEndedBeforeTheRun) {
  ask("pause(1)");
  ask("resume(1)");
  daemon.end(1);

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "ok #1"));
}

TEST_F(LedgerRequestTest, EndsAnAbandonedRunWithWhatWasAskedFor) {
  ask("set(1, next_run => now() + interval '10 minutes 30 seconds')");
  database.query(
      "UPDATE kodu_cron_plugin SET cron_status = 'FAILED' WHERE cron_status = 'PROCESS'");

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "interrupted #1", "changed 10"));
}

TEST_F(LedgerRequestTest, CountsARunThatBeganAsItWasPaused) {
  daemon.end(1);
  ask("pause(1)");
  daemon.begin(1);  // by a worker that had the task already
  EXPECT_EQ(database.task(1, "run_due < now() + interval '1 hour'"), "t") << "not in 2036";
  daemon.end(1);
  letPass("150 seconds");
  ask("resume(1)");

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "ok #1", "paused 0", "ok #1", "paused 1"));
}

TEST_F(LedgerRequestTest, MovesARunThatWasAskedForWhenItIsLoadedLate) {
  daemon.end(1);
  ask("run_now(1)");
  letPass("5 minutes 30 seconds");
  Session next(database);
  beginLife(next);

  next.skip(1, 6);  // the trigger makes it a run in two seconds
  next.runOnce(1);

  EXPECT_THAT(ledger.rows(1),
              ElementsAre("ok #1", "ok #1", "changed 0", "daemon 5", "changed 0", "ok #1"));
}

TEST_F(LedgerTest, CountsByEachIntervalThatATaskHasHad) {
  daemon.runOnce(1);
  daemon.runOnce(1);
  database.query("SELECT kodu_task_set(1, every => '10 seconds')");
  daemon.runOnce(1);

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "ok #1", "ok #1"));
  EXPECT_EQ(ledger.account(1, "periods"), "3");
}

TEST_F(LedgerTest, LeavesARunAloneWhoseTaskAPersonChanges) {
  daemon.runOnce(1);
  daemon.begin(1);
  database.query("SELECT kodu_task_set(1, every => '10 seconds', retries => 2)");
  database.query("UPDATE kodu_cron_plugin SET cron_status = cron_status");
  daemon.end(1);

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "ok #1"));
}

TEST_F(LedgerTest, TakesTheReasonOfATool) {
  daemon.runOnce(1);
  for (const std::string reason : {"moved", "maintenance", "paused"}) {
    database.query(
        "BEGIN; SET LOCAL kodu.reason = '" + reason +
        "'; UPDATE kodu_cron_plugin SET cron_next_exec = cron_next_exec + interval '90 s'; "
        "COMMIT");
  }
  database.query("UPDATE kodu_cron_plugin SET cron_next_exec = cron_next_exec + interval '60 s'");

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "moved 1", "changed 0", "maintenance 1",
                                          "changed 0", "paused 1", "changed 0", "changed 1"));
}

TEST_F(LedgerTest, StartsAgainWhenTheIdOfATaskIsUsedAgain) {
  daemon.runOnce(1);
  database.query("DELETE FROM kodu_cron_plugin; DELETE FROM kodu_plugins");
  insertTask(1);

  daemon.runOnce(1);

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "ok #1"));
}

TEST_F(LedgerTest, SaysNothingOfChangesThatAreNone) {
  daemon.runOnce(1);
  database.query("SELECT kodu_task_set(1, parameters => 'x')");
  database.query("UPDATE kodu_cron_plugin SET cron_next_exec = cron_next_exec, cron_status = 'OK'");

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1"));
}

// What cannot be written
// ---------------------------------------------------------------------------

/// Something that keeps the ledger from being written, and what ends it.
struct Fault {
  std::string name;
  std::string begins;
  std::string ends;
};

class LedgerFaultTest : public LedgerTest, public testing::WithParamInterface<Fault> {
 protected:
  static std::string with(std::string sql, const std::string& name) {
    for (auto at = sql.find('@'); at != std::string::npos; at = sql.find('@')) {
      sql.replace(at, 1, name);
    }
    return sql;
  }
};

TEST_P(LedgerFaultTest, LetsRunsGoOnAndCountsThem) {
  daemon.runOnce(1);
  const std::string present = bucket();
  database.query(with(GetParam().begins, present));

  daemon.runOnce(1);
  daemon.runOnce(1, "FAILED");
  daemon.begin(1);
  daemon.noteFailure(1);
  daemon.begin(1);
  daemon.end(1);
  daemon.skip(1, 2);
  EXPECT_EQ(database.task(1, "ledger_lost"), "5");
  EXPECT_EQ(database.value("SELECT kodu_ledger_unwritten()"), "5");

  database.query(with(GetParam().ends, present));
  Session(database).runOnce(1);

  std::vector<std::string> rows = ledger.rows(1);
  ASSERT_GE(rows.size(), 2U);
  rows.erase(rows.begin(), rows.end() - 2);
  EXPECT_THAT(rows, ElementsAre("unrecorded 5", "ok #1"));
  EXPECT_EQ(ledger.status("unwritten || ' ' || unrecorded"), "0 5");
  EXPECT_EQ(ledger.account(1, "unrecorded"), "5");
}

INSTANTIATE_TEST_SUITE_P(
    Faults, LedgerFaultTest,
    testing::Values(Fault{"Detached", "ALTER TABLE kodu_ledger DETACH PARTITION @",
                          "DROP TABLE @; SELECT kodu_ledger_make_buckets()"},
                    Fault{"Dropped", "DROP TABLE @", "SELECT kodu_ledger_make_buckets()"},
                    Fault{"NoRight",
                          "REVOKE INSERT ON kodu_ledger FROM kodu; ALTER FUNCTION "
                          "kodu_ledger_other SECURITY INVOKER",
                          "GRANT INSERT ON kodu_ledger TO kodu; ALTER FUNCTION kodu_ledger_other "
                          "SECURITY DEFINER"},
                    Fault{"NoFunction",
                          "ALTER FUNCTION kodu_ledger_other RENAME TO other; ALTER "
                          "FUNCTION kodu_ledger_bucket RENAME TO bucket",
                          "ALTER FUNCTION other RENAME TO kodu_ledger_other; ALTER FUNCTION bucket "
                          "RENAME TO kodu_ledger_bucket"},
                    Fault{"NoTable", "ALTER TABLE kodu_ledger RENAME TO away",
                          "ALTER TABLE away RENAME TO kodu_ledger"}),
    [](const auto& fault) { return fault.param.name; });

TEST_F(LedgerTest, CountsWhatIsLostBeforeItsFirstRow) {
  database.query("ALTER TABLE kodu_ledger RENAME TO away");
  daemon.runOnce(1);
  daemon.runOnce(1);
  database.query("ALTER TABLE away RENAME TO kodu_ledger");
  Session(database).runOnce(1);

  EXPECT_THAT(ledger.rows(1), ElementsAre("unrecorded 2", "ok #1"));
  EXPECT_EQ(ledger.status("unrecorded"), "2");
}

TEST_F(LedgerTest, LetsAPersonGoOnWhenItCannotBeWritten) {
  daemon.runOnce(1);
  database.query("ALTER TABLE kodu_ledger RENAME TO away");

  database.query("SELECT kodu_task_pause(1)");
  EXPECT_EQ(database.task(1, "ledger_lost"), "1");
  database.query("ALTER TABLE away RENAME TO kodu_ledger");
  letPass("2 hours 30 seconds");
  database.query("SELECT set_config('kodu.ledger_rests_until', '', FALSE)");
  database.query("SELECT kodu_task_resume(1)");

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "unrecorded 0", "paused 60"));
}

TEST_F(LedgerTest, WaitsForALockATenthOfASecondAtMost) {
  daemon.runOnce(1);
  database.query("BEGIN; LOCK TABLE " + bucket() + " IN ACCESS EXCLUSIVE MODE");

  const auto begin = steady_clock::now();
  daemon.runOnce(1);
  const auto first = steady_clock::now() - begin;
  for (int run = 0; run < 20; ++run) {
    daemon.runOnce(1);
  }
  const auto all = steady_clock::now() - begin;
  EXPECT_THAT(refusalOfDaemon("SELECT * FROM kodu_ledger_status()"), HasSubstr("lock timeout"));
  database.query("COMMIT");

  EXPECT_GE(first, std::chrono::milliseconds(100));
  EXPECT_LT(all, 10 * first) << "a run behind the first waits again only after a second";
  EXPECT_EQ(database.value("SELECT kodu_ledger_unwritten()"), "21");
}

TEST_F(LedgerTest, WritesAgainASecondAfterAFault) {
  daemon.runOnce(1);
  database.query("ALTER TABLE kodu_ledger RENAME TO away");
  daemon.runOnce(1);
  database.query("ALTER TABLE away RENAME TO kodu_ledger");

  for (int run = 0; run < 1000 && ledger.rows(1).size() < 3; ++run) {
    daemon.runOnce(1);
    database.query("SELECT pg_sleep(0.02)");
  }

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", testing::StartsWith("unrecorded "), "ok #1"));
}

/// A file system of a hundred kilobytes for one bucket; only root may make one.
TEST_F(LedgerTest, LetsRunsGoOnWhenTheDiskIsFull) {
  TempDir directory;
  const std::string place = directory / "full";
  const std::string mount = "mkdir " + place + " && mount -t tmpfs -o size=100k tmpfs " + place +
                            " 2>/dev/null && chown postgres: " + place + " && chmod 755 " +
                            directory.path();
  if (std::system(mount.c_str()) != 0) {
    GTEST_SKIP() << "no file system can be mounted here";
  }
  daemon.runOnce(1);
  const std::string present = bucket();
  database.query("CREATE TABLESPACE full_" + database.name() + " LOCATION '" + place + "'");
  database.query("ALTER TABLE " + present + " SET TABLESPACE full_" + database.name());

  int runs = 0;
  while (database.task(1, "ledger_lost").empty() && runs++ < 10000) {
    daemon.runOnce(1);
  }
  EXPECT_GT(runs, 100);
  EXPECT_LT(runs, 10000);
  EXPECT_EQ(database.task(1, "cron_status"), "OK");

  database.query("TRUNCATE " + present);
  database.query("ALTER TABLE " + present + " SET TABLESPACE pg_default");
  database.query("UPDATE kodu_cron_plugin SET ledger_to = NULL");
  database.query("DROP TABLESPACE full_" + database.name());
  EXPECT_EQ(std::system(("umount " + place).c_str()), 0);
}

// Switching, keeping
// -------------------------------------------------------------------------------

TEST_F(LedgerTest, HasOneRowForWhatHappensWhileItIsOff) {
  daemon.runOnce(1);
  database.query("SELECT kodu_ledger_off()");
  EXPECT_EQ(ledger.status("is_on"), "f");
  daemon.runOnce(1);
  daemon.begin(1);

  database.query("SELECT kodu_ledger_on()");
  daemon.end(1);
  daemon.runOnce(1);

  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "unrecorded 1", "ok #1", "ok #1"));
  EXPECT_EQ(
      database.value("SELECT count(*) FROM kodu_run WHERE started IS NULL AND reason IS NULL"), "1")
      << "when the run began is not known";
}

TEST_F(LedgerTest, WritesAnotherBucketAfterAChangeOfWhatIsKept) {
  daemon.runOnce(1);
  const std::string before = bucket();
  std::string after = before;
  for (int days = 1; days <= 30 && after == before; ++days) {
    database.query("SELECT kodu_ledger_keep(" + std::to_string(days) + ")");
    after = bucket();
  }
  ASSERT_NE(after, before);

  daemon.runOnce(1);

  EXPECT_EQ(database.value("SELECT count(*) FROM " + after), "1")
      << "the session takes the new length though its plan holds the old one";
  for (const std::string days : {"0", "31", "NULL"}) {
    EXPECT_THAT(refusalOf("SELECT kodu_ledger_keep(" + days + ")"),
                HasSubstr("the days to keep must be between 1 and 30"));
  }
}

/// Buckets of the past.
class LedgerRingTest : public LedgerTest {
 protected:
  /// Runs of task 1 that ended so many hours ago, as many as are asked for.
  void insertRuns(int hours, int count = 1) const {
    const std::string ended =
        "(date_trunc('second', now()) - interval '" + std::to_string(hours) + " hours')";
    database.query(
        "INSERT INTO kodu_ledger (xact, due, started, ended, moved_from, moved_to, cron_id, "
        "periods, "
        "every, life, bucket, attempt, outcome) SELECT pg_current_xact_id()::text::bigint, slot, "
        "slot, slot, slot, slot + interval '1 s', 1, 1, 1, 0, kodu_ledger_bucket(slot::timestamp), "
        "1, 'O' "
        "FROM generate_series(" +
        ended + ", " + ended + " + interval '" + std::to_string(count - 1) + " s', '1 s') AS slot");
  }
  void TearDown() override {}  // there are gaps between these runs
  std::string count() const { return database.value("SELECT count(*) FROM kodu_ledger"); }
};

TEST_F(LedgerRingTest, ForgetsWhatIsOlderThanItKeeps) {
  for (const int hours : {1, 71, 77, 90}) {
    insertRuns(hours);
  }
  ASSERT_EQ(summarise(4), 4);

  EXPECT_EQ(database.value("SELECT kodu_ledger_prune()"), "2");

  EXPECT_EQ(count(), "2");
  EXPECT_EQ(database.value("SELECT sum(rows) FROM kodu_task_day"), "4");
  database.query("SELECT kodu_ledger_keep(1)");
  EXPECT_EQ(database.value("SELECT kodu_ledger_prune()"), "1");
  EXPECT_EQ(count(), "1");
}

TEST_F(LedgerRingTest, ForgetsNothingThatIsNotSummarised) {
  insertRuns(90);

  EXPECT_EQ(database.value("SELECT kodu_ledger_prune()"), "0");

  EXPECT_EQ(count(), "1");
}

TEST_F(LedgerRingTest, LeavesABucketThatIsReadForTheNextTime) {
  insertRuns(90);
  ASSERT_EQ(summarise(1), 1);
  const Database::Row old = database.query("SELECT tableoid::regclass FROM kodu_ledger").at(0);
  PGconn* reader = PQconnectdb(database.conninfo().c_str());
  PQclear(
      PQexec(reader, "BEGIN ISOLATION LEVEL REPEATABLE READ; SELECT count(*) FROM kodu_ledger"));

  EXPECT_EQ(database.value("SELECT kodu_ledger_prune()"), "0");
  daemon.runOnce(1);
  PQfinish(reader);

  EXPECT_EQ(database.task(1, "cron_status || ' ' || (ledger_lost IS NULL)"), "OK true");
  EXPECT_EQ(database.value("SELECT kodu_ledger_prune()"), "1");
}

TEST_F(LedgerRingTest, GivesClosedBucketsAnIndex) {
  insertRuns(10);
  daemon.runOnce(1);

  const std::string indexed = database.value("SELECT kodu_ledger_index()");
  EXPECT_EQ(indexed,
            database.value("SELECT tableoid::regclass FROM kodu_ledger ORDER BY ended LIMIT 1"));
  EXPECT_EQ(database.value("SELECT kodu_ledger_index()"), "") << "not the bucket that is written";

  database.query("ANALYZE kodu_ledger");
  std::string plan;
  for (const Database::Row& line :
       database.query("EXPLAIN SELECT * FROM kodu_run WHERE id = 7 ORDER BY ended DESC LIMIT 20")) {
    plan += line[0] + "\n";
  }
  EXPECT_THAT(plan, HasSubstr(indexed + "_of_task"));
  ASSERT_EQ(summarise(2), 2);
  pretend("UPDATE kodu_ledger SET ended = ended - interval '10 days' WHERE tableoid = '" + indexed +
          "'::regclass");
  EXPECT_EQ(database.value("SELECT kodu_ledger_prune()"), "1");
  EXPECT_EQ(database.value("SELECT to_regclass('" + indexed + "_of_task')"), "");
}

// Summaries
// ----------------------------------------------------------------------------------------

TEST_F(LedgerTest, AddsEachRowToTheSummariesOnce) {
  daemon.runOnce(1);
  daemon.runOnce(1, "FAILED");
  PGconn* open = PQconnectdb(database.conninfo().c_str());
  PQclear(PQexec(open,
                 "BEGIN; UPDATE kodu_cron_plugin SET cron_status = 'PROCESS'; UPDATE "
                 "kodu_cron_plugin SET cron_status = 'OK', cron_last_exec = cron_next_exec, "
                 "cron_next_exec = cron_next_exec + cron_interval"));

  EXPECT_EQ(summarise(2), 2);
  insertTask(2);
  daemon.runOnce(2);
  EXPECT_EQ(database.value("SELECT kodu_ledger_summarise(TRUE)"), "0")
      << "what begins behind an open transaction waits for its end";
  PQclear(PQexec(open, "COMMIT"));
  PQfinish(open);
  EXPECT_EQ(database.value("SELECT kodu_ledger_summarise()"), "0") << "once an hour";
  EXPECT_EQ(summarise(2), 2);
  EXPECT_EQ(database.value("SELECT kodu_ledger_summarise(TRUE)"), "0");

  EXPECT_EQ(database.query("SELECT id, outcome, rows, periods, abs(seconds - max_seconds) < 1, "
                           "max_lateness <> 0 FROM kodu_task_day ORDER BY 1, 2"),
            (Rows{{"1", "failed", "1", "1", "t", "t"},
                  {"1", "ok", "2", "2", "t", "t"},
                  {"2", "ok", "1", "1", "t", "t"}}));
  EXPECT_EQ(database.query("SELECT name, host, outcome, sum(rows) FROM kodu_plugin_hour "
                           "GROUP BY 1, 2, 3 ORDER BY 1, 2, 3"),
            (Rows{{"task", "127.0.0.1", "failed", "1"}, {"task", "127.0.0.1", "ok", "3"}}));
}

TEST_F(LedgerTest, CountsSinceAMomentAndByTask) {
  insertTask(2);
  daemon.runOnce(1);
  daemon.runOnce(2);
  database.query("SELECT pg_sleep(0.01)");
  const std::string moment = database.value("SELECT clock_timestamp()");
  daemon.runOnce(2);

  EXPECT_EQ(database.query("SELECT id, periods, difference FROM kodu_account('" + moment + "')"),
            (Rows{{"2", "1", "0"}}));
  EXPECT_EQ(database.query("SELECT id, periods FROM kodu_account(task => 2)"), (Rows{{"2", "2"}}));
}

// Loading, rights
// ----------------------------------------------------------------------------------

/// What a load may change: definitions, rights, triggers, rows of the settings.
Rows everythingOf(const Database& database) {
  Rows all;
  for (const std::string sql :
       {"SELECT oid, relname, relkind, relacl::text FROM pg_class WHERE relname LIKE 'kodu%' ORDER "
        "BY oid",
        "SELECT oid, proname, prosrc, proacl::text FROM pg_proc WHERE proname LIKE 'kodu%' ORDER "
        "BY oid",
        "SELECT oid, tgname, tgenabled FROM pg_trigger ORDER BY oid",
        "SELECT attrelid, attname, attacl::text FROM pg_attribute WHERE attnum > 0 AND attrelid IN "
        "(SELECT oid FROM pg_class WHERE relname LIKE 'kodu%') ORDER BY 1, 2",
        "SELECT * FROM kodu_ledger_state"}) {
    const Rows some = database.query(sql);
    all.insert(all.end(), some.begin(), some.end());
  }
  return all;
}

TEST_F(LedgerTest, CanBeLoadedAgain) {
  database.query("SELECT kodu_ledger_keep(7); SELECT kodu_ledger_off()");
  const Rows once = everythingOf(database);

  ledger.load();
  EXPECT_EQ(everythingOf(database), once);
  database.query(readFile(projectFile("sql/functions.sql")));
  database.query(readFile(projectFile("sql/schema.sql")));

  EXPECT_EQ(everythingOf(database), once);
  EXPECT_EQ(ledger.status("keep_days || ' ' || is_on"), "7 false");
}

TEST_F(LedgerTest, CanBeLoadedAgainBesideReadersAndWriters) {
  daemon.runOnce(1);
  PGconn* open = PQconnectdb(database.conninfo().c_str());
  PQclear(PQexec(open,
                 "BEGIN; SELECT count(*) FROM kodu_cron_plugin; UPDATE kodu_cron_plugin SET "
                 "cron_status = 'PROCESS'; UPDATE kodu_cron_plugin SET cron_status = 'OK', "
                 "cron_last_exec = cron_next_exec, cron_next_exec = cron_next_exec + "
                 "cron_interval"));
  database.query("SET statement_timeout = '20s'");

  EXPECT_NO_THROW(ledger.load()) << "it waits for none of their locks";

  PQclear(PQexec(open, "COMMIT"));
  PQfinish(open);
}

TEST_F(LedgerTest, LoadsForTheFirstTimeBesideADaemonAndAReport) {
  const Database fresh;
  fresh.query(readFile(projectFile("sql/functions.sql")));
  fresh.insertTask(TaskRow());
  Session other(fresh);
  PGconn* report = PQconnectdb(fresh.conninfo().c_str());
  PQclear(PQexec(report, "BEGIN; SELECT count(*) FROM kodu_cron_plugin"));
  auto loaded =
      std::async(std::launch::async, [&] { fresh.query(readFile(projectFile("sql/ledger.sql"))); });

  for (int run = 0; run < 50; ++run) {
    const auto begin = steady_clock::now();
    other.runOnce(1);
    EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(2));
  }
  PQclear(PQexec(report, "COMMIT"));
  PQfinish(report);
  loaded.get();
  other.runOnce(1);

  EXPECT_EQ(fresh.value("SELECT count(*) > 0 FROM kodu_run WHERE outcome = 'ok'"), "t");
}

TEST_F(LedgerTest, GivesTheDaemonNoMoreRightsThanItNeeds) {
  daemon.runOnce(1);

  for (const std::string sql :
       {"UPDATE kodu_ledger SET periods = 2", "DELETE FROM kodu_ledger", "TRUNCATE kodu_ledger",
        "UPDATE kodu_cron_plugin SET ledger_lost = NULL",
        "UPDATE kodu_ledger_state SET keep_days = 30", "SELECT kodu_ledger_off()",
        "SELECT kodu_ledger_keep(1)", "SELECT kodu_ledger_make_buckets()",
        "DELETE FROM kodu_ledger_day"}) {
    EXPECT_THAT(refusalOfDaemon(sql), HasSubstr("permission denied")) << sql;
  }
  for (const std::string sql :
       {"SELECT kodu_ledger_summarise()", "SELECT kodu_ledger_prune()",
        "SELECT kodu_ledger_index()", "SELECT * FROM kodu_ledger_status()"}) {
    EXPECT_EQ(refusalOfDaemon(sql), "") << sql;
  }
}

TEST_F(LedgerTest, LetsAdministratorsReadAndSwitchIt) {
  daemon.runOnce(1);
  database.query("SET ROLE kodu_admin");

  for (const std::string sql :
       {"SELECT * FROM kodu_run", "SELECT * FROM kodu_ledger_gap", "SELECT * FROM kodu_account()",
        "SELECT * FROM kodu_task_run", "SELECT * FROM kodu_plugin_hour",
        "SELECT * FROM kodu_task_day", "SELECT * FROM kodu_ledger_status()",
        "SELECT kodu_ledger_off()", "SELECT kodu_ledger_on()", "SELECT kodu_ledger_keep(3)",
        "SELECT kodu_ledger_prune()", "SELECT kodu_task_pause(1)", "SELECT kodu_task_resume(1)"}) {
    EXPECT_EQ(refusalOf(sql), "") << sql;
  }
  for (const std::string sql : {"DELETE FROM kodu_ledger", "INSERT INTO kodu_ledger DEFAULT VALUES",
                                "UPDATE kodu_cron_plugin SET run_failing_since = NULL",
                                "SELECT kodu_ledger_put(t, 1, 'O', t.run_due, t.run_due, "
                                "t.run_due, 1) FROM kodu_cron_plugin AS t"}) {
    EXPECT_THAT(refusalOf(sql), HasSubstr("permission denied")) << sql;
  }
  EXPECT_THAT(refusalOf("SELECT kodu_ledger_other(t, t, t, 1) FROM kodu_cron_plugin AS t"),
              HasSubstr("only the trigger of the ledger calls this function"));
  database.query("RESET ROLE");
  EXPECT_THAT(ledger.rows(1), ElementsAre("ok #1", "paused 0"));
}

TEST_F(LedgerTest, CountsNoToolAsALifeOfTheDaemon) {
  daemon.runOnce(1);
  database.query("SET SESSION AUTHORIZATION kodu; SET application_name = 'kodu_repair'");
  database.query("UPDATE kodu_cron_plugin SET cron_status = 'PROCESS'");
  database.query("UPDATE kodu_cron_plugin SET cron_status = 'FAILED'");
  database.query("RESET SESSION AUTHORIZATION");

  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_ledger_life"), "1");
  EXPECT_EQ(database.value("SELECT life FROM kodu_run WHERE outcome = 'interrupted'"), "0");
}

TEST_F(LedgerTest, NeedsNoSearchPathOfTheSessionThatChangesATask) {
  pgSafeThread session(database.adminConninfo());
  PQclear(session.executeRequest("SET search_path = pg_temp"));
  PQclear(session.executeRequest(
      "UPDATE public.kodu_cron_plugin SET cron_next_exec = cron_next_exec + interval '1 minute'"));
  EXPECT_THAT(ledger.rows(1), testing::ElementsAre("changed 1"));
}

}  // namespace
