#include <ctime>
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
#include "tests/support/Ledger.h"
#include "tests/support/waitUntil.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Rows = std::vector<Database::Row>;

constexpr const char* kParis = "Europe/Paris";

/// Tasks with calendars under the daemon's statements. The clock is the server's, so that the tests
/// compare with kodu_calendar_next, which CalendarTest proves.
class ScheduleTest : public testing::Test {
 protected:
  void SetUp() override {
    database.query(readFile(projectFile("sql/calendar.sql")));
    prepareNamedStatements(daemon);
  }
  void TearDown() override { ledger.expectComplete(); }

  int add(const std::string& calendar, const std::string& more = "") const {
    return std::stoi(database.value("SELECT kodu_task_add('/bin/true', at => '" + calendar +
                                    "', zone => '" + kParis + "'" + more + ")"));
  }
  void call(const std::string& function) const { database.query("SELECT " + function); }
  std::string refusalOf(const std::string& function) const {
    try {
      call(function);
    } catch (const std::runtime_error& e) {
      return e.what();
    }
    return "";
  }

  /// Changes rows behind the triggers' backs.
  void pretend(const std::string& sql) const {
    database.query("SET session_replication_role = replica; " + sql +
                   "; SET session_replication_role = origin");
  }
  /// Makes the task due at that time, in the ledger, too.
  void makeDue(int id, const std::string& time) const {
    const std::string task = " WHERE cron_id = " + std::to_string(id);
    pretend("UPDATE kodu_cron_plugin SET cron_next_exec = " + time +
            ", ledger_to = CASE WHEN ledger_to IS NOT NULL THEN " + time + " END" + task +
            "; UPDATE kodu_ledger SET moved_to = " + time +
            " WHERE ledger_id = (SELECT max(ledger_id) FROM kodu_ledger" + task + ")");
  }

  void begin(int id) { execute("UpdateCronProcess", {std::to_string(id)}); }
  /// The next time that the daemon is told, seconds since the epoch.
  long end(int id, const std::string& status = "OK") {
    return execute("UpdateCronState", {std::to_string(id), status});
  }
  long runOnce(int id, const std::string& status = "OK") {
    begin(id);
    return end(id, status);
  }
  /// What loading the task does when its time is past.
  long skip(int id) {
    return skip(
        id, std::stol(database.task(id,
                                    "ceil(EXTRACT(EPOCH FROM clock_timestamp() AT TIME ZONE 'UTC' "
                                    "- cron_next_exec) / EXTRACT(EPOCH FROM cron_interval))")));
  }
  long skip(int id, long intervals) {
    return execute("updateCronExecTask", {std::to_string(id), std::to_string(intervals)});
  }

  /// The calendar's first time after an SQL expression of a timestamp.
  long slotAfter(const std::string& calendar, const std::string& time) const {
    return std::stol(database.value("SELECT EXTRACT(EPOCH FROM kodu_calendar_next('" + calendar +
                                    "', '" + kParis + "', (" + time +
                                    ") AT TIME ZONE 'UTC'))::bigint"));
  }
  /// The first one that is not past.
  long slotAhead(const std::string& calendar) const {
    return slotAfter(calendar,
                     "date_trunc('second', clock_timestamp() AT TIME ZONE 'UTC') "
                     "- interval '1 microsecond'");
  }
  long lastRow() const {
    return std::stol(database.value("SELECT max(ledger_id) FROM kodu_ledger"));
  }
  /// What the rows after that one have counted, and what there was to count.
  void expectCounted(const std::string& calendar, long before = 0) const {
    EXPECT_EQ(database.query("SELECT sum(periods) = kodu_calendar_count(kodu_calendar_parse('" +
                             calendar + "'), '" + kParis +
                             "', min(moved_from) AT TIME ZONE 'UTC', max(moved_to) AT TIME ZONE "
                             "'UTC') FROM kodu_ledger WHERE ledger_id > " +
                             std::to_string(before)),
              (Rows{{"t"}}));
  }
  /// The calendar can no longer be evaluated: the server's zones have lost one.
  void breakCalendar(int id) const {
    pretend("UPDATE kodu_cron_plugin SET cron_zone = 'Europe/Atlantis' WHERE cron_id = " +
            std::to_string(id));
  }

  Database database;
  Ledger ledger{database};
  pgSafeThread daemon{database.conninfo()};

 private:
  /// The first value of the answer; 0 without one.
  long execute(const std::string& statement, const std::vector<std::string>& parameters) {
    PGresult* answer = daemon.executePrepareRequest(statement, parameters);
    const long value = PQntuples(answer) > 0 ? std::stol(PQgetvalue(answer, 0, 0)) : 0;
    PQclear(answer);
    return value;
  }
};

TEST_F(ScheduleTest, IsDueAtTheCalendarsTimes) {
  const int id = add("0 3 * * mon-fri");
  EXPECT_EQ(database.nextExec(id), slotAhead("0 3 * * mon-fri"));
  const long second =
      slotAfter("0 3 * * mon-fri",
                "to_timestamp(" + std::to_string(database.nextExec(id)) + ") AT TIME ZONE 'UTC'");

  EXPECT_EQ(runOnce(id), second);
  EXPECT_EQ(database.nextExec(id), second);
  EXPECT_EQ(runOnce(id, "FAILED"),
            slotAfter("0 3 * * mon-fri",
                      "to_timestamp(" + std::to_string(second) + ") AT TIME ZONE 'UTC'"));

  EXPECT_THAT(ledger.rows(id), ElementsAre("ok #1", "failed #1"));
  EXPECT_EQ(database.value("SELECT DISTINCT every FROM kodu_ledger"), "0");
  expectCounted("0 3 * * mon-fri");
}

TEST_F(ScheduleTest, IsDueAtTheCalendarsTimesWithoutTheLedgerToo) {
  call("kodu_ledger_off()");
  const int id = add("*/5 * * * *");

  const long first = database.nextExec(id);
  EXPECT_EQ(runOnce(id), first + 300);
  makeDue(id, "date_trunc('hour', now() AT TIME ZONE 'UTC') - interval '3 days'");

  EXPECT_EQ(skip(id), slotAhead("*/5 * * * *"));
  call("kodu_ledger_on()");
}

TEST_F(ScheduleTest, PassesOverTheTimesInARunThatTookTooLong) {
  const int id = add("* * * * *");
  runOnce(id);
  const long before = lastRow();
  makeDue(id, "date_trunc('minute', now() AT TIME ZONE 'UTC') - interval '10 minutes'");
  begin(id);
  pretend("UPDATE kodu_cron_plugin SET run_started = cron_next_exec + interval '130 seconds'");
  pretend("UPDATE kodu_ledger_life SET began = now() - interval '1 day'");

  EXPECT_EQ(end(id), slotAhead("* * * * *"));

  // It began after the times of two minutes later, and took the rest.
  EXPECT_EQ(ledger.rows(id).at(1), "ok #1");
  EXPECT_EQ(ledger.rows(id).at(2), "late 2");
  EXPECT_THAT(ledger.rows(id).at(3), testing::StartsWith("overrun "));
  expectCounted("* * * * *", before);
}

TEST_F(ScheduleTest, ContinuesInItsTimesAfterAnOutage) {
  const int id = add("0 3 * * mon-fri");
  runOnce(id);
  makeDue(
      id,
      "(SELECT kodu_calendar_next('0 3 * * mon-fri', 'Europe/Paris', now() - interval '20 days')"
      " AT TIME ZONE 'UTC')");
  pretend(
      "UPDATE kodu_cron_plugin SET run_started = now() - interval '1 day', "
      "run_ended = now() - interval '1 day'; "
      "UPDATE kodu_ledger_life SET began = now() - interval '1 hour'");

  EXPECT_EQ(skip(id), slotAhead("0 3 * * mon-fri"));

  EXPECT_THAT(ledger.rows(id).at(1), testing::StartsWith("daemon 1"));
  EXPECT_EQ(
      database.value("SELECT periods FROM kodu_run WHERE reason = 'daemon'"),
      database.value("SELECT count(*) FROM generate_series(now() - interval '20 days', now(), "
                     "'1 minute') AS minute WHERE to_char(minute AT TIME ZONE 'Europe/Paris',"
                     " 'HH24:MI') = '03:00' AND date_part('isodow', minute AT TIME ZONE "
                     "'Europe/Paris') < 6"));
}

TEST_F(ScheduleTest, CountsTheTimesOfAnOutageWithoutTheYearsToCome) {
  const int id = add("0 0 29 2 *");
  makeDue(id, "(now() - interval '1 day') AT TIME ZONE 'UTC'");
  database.query("ALTER DATABASE " + database.name() + " SET track_functions = 'all'");
  pgSafeThread counted(database.conninfo());
  prepareNamedStatements(counted);

  PQclear(counted.executePrepareRequest("updateCronExecTask", {std::to_string(id), "1"}));

  PQclear(counted.executeRequest("SELECT pg_stat_force_next_flush()"));
  EXPECT_LT(std::stol(database.value("SELECT COALESCE(pg_stat_get_function_calls("
                                     "'kodu_calendar_count_readings'::regproc), 0)")),
            20)
      << "two for each pair of days";
}

TEST_F(ScheduleTest, KeepsToItsTimesUnderADaemonWhoseClockIsAhead) {
  const int id = add("*/5 * * * *", ", every => '7 minutes'");
  makeDue(id, "date_trunc('second', now() AT TIME ZONE 'UTC') + interval '20 seconds'");
  const std::string due = database.task(id, "cron_next_exec");

  EXPECT_EQ(skip(id, 1), slotAfter("*/5 * * * *", "timestamp '" + due + "'"));
}

TEST_F(ScheduleTest, AppliesTheIntervalWhenTheCalendarIsNoLongerValid) {
  const int id = add("*/5 * * * *", ", every => '7 minutes'");
  const long first = database.nextExec(id);
  breakCalendar(id);

  EXPECT_EQ(runOnce(id), first + 420);

  EXPECT_THAT(ledger.rows(id), ElementsAre("calendar 0", "ok #1"));
  EXPECT_EQ(database.query("SELECT id, problem FROM kodu_calendar_fault"),
            (Rows{{std::to_string(id), "time zone \"Europe/Atlantis\" not recognized"}}));
  EXPECT_EQ(database.value("SELECT every FROM kodu_ledger WHERE outcome = 'O'"), "420");
}

TEST_F(ScheduleTest, AppliesTheIntervalWhenTheFunctionsOfCalendarsAreMissing) {
  const int id = add("*/5 * * * *", ", every => '7 minutes'");
  const long first = database.nextExec(id);
  database.query("DROP FUNCTION kodu_calendar_next_parsed CASCADE");

  EXPECT_EQ(runOnce(id), first + 420);
}

TEST_F(ScheduleTest, ParksATaskWhoseCalendarHasNoComingTime) {
  const int id = add("0 3 * * *");
  pretend(
      "UPDATE kodu_cron_plugin SET cron_slots = kodu_calendar_parse('0 0 31 2 *'), "
      "cron_calendar = '0 0 31 2 *'");

  EXPECT_EQ(runOnce(id),
            std::stol(database.value("SELECT EXTRACT(EPOCH FROM kodu_pause_time())::bigint")));

  EXPECT_EQ(database.query("SELECT paused, parked, due IS NULL FROM kodu_task_state"),
            (Rows{{"t", "t", "t"}}));
  EXPECT_EQ(database.value("SELECT problem FROM kodu_calendar_fault"),
            "it has no time from now to 2035");
  EXPECT_THAT(refusalOf("kodu_task_resume(" + std::to_string(id) + ")"),
              HasSubstr("the calendar '0 0 31 2 *' has no time from now to 2035"));

  call("kodu_task_set(" + std::to_string(id) + ", at => '0 4 * * *')");
  EXPECT_EQ(database.nextExec(id), slotAhead("0 4 * * *"));
  EXPECT_THAT(database.query("SELECT FROM kodu_calendar_fault"), IsEmpty());
  runOnce(id);
  EXPECT_THAT(ledger.rows(id), ElementsAre("ok #1", "paused 0", "paused 0", "ok #1"))
      << "a parked task has no periods";
}

TEST_F(ScheduleTest, LeavesATimeThatSomebodySets) {
  const int id = add("*/5 * * * *");
  call("kodu_task_set(" + std::to_string(id) + ", next_run => now() + interval '41 seconds')");
  const long set = database.nextExec(id);
  EXPECT_NEAR(static_cast<double>(set), static_cast<double>(std::time(nullptr)) + 41, 5);

  EXPECT_EQ(runOnce(id), slotAfter("*/5 * * * *",
                                   "to_timestamp(" + std::to_string(set) + ") AT TIME ZONE 'UTC'"));
}

TEST_F(ScheduleTest, RunsAtATimeThatIsSetDuringARun) {
  const int id = add("*/5 * * * *");
  makeDue(id, "date_trunc('minute', now() AT TIME ZONE 'UTC') - interval '1 minute'");
  begin(id);
  call("kodu_task_set(" + std::to_string(id) + ", next_run => '2034-01-01 00:00:30+00')");

  end(id);

  EXPECT_EQ(database.value("SELECT cron_next_exec FROM kodu_cron_plugin"), "2034-01-01 00:00:30");
}

TEST_F(ScheduleTest, RunsAtOnceBesideItsCalendar) {
  const int id = add("0 3 * * *");
  const long slot = database.nextExec(id);

  call("kodu_task_run_now(" + std::to_string(id) + ")");
  EXPECT_EQ(runOnce(id), slot);
}

TEST_F(ScheduleTest, TakesItsCalendarUpAfterAPause) {
  const int id = add("*/5 * * * *");
  const std::string task = std::to_string(id);
  call("kodu_task_pause(" + task + ", until => '2030-06-01 10:01:00+00')");
  EXPECT_EQ(database.value("SELECT cron_next_exec FROM kodu_cron_plugin"), "2030-06-01 10:05:00");
  call("kodu_task_pause(" + task + ", until => '2030-06-01 10:05:00+00')");
  EXPECT_EQ(database.value("SELECT cron_next_exec FROM kodu_cron_plugin"), "2030-06-01 10:05:00");

  call("kodu_task_resume(" + task + ")");
  EXPECT_EQ(database.nextExec(id) % 300, 0);
  EXPECT_LE(database.nextExec(id), slotAfter("*/5 * * * *", "now() AT TIME ZONE 'UTC'") + 300);

  makeDue(id, "date_trunc('minute', now() AT TIME ZONE 'UTC') - interval '1 minute'");
  begin(id);
  call("kodu_task_pause(" + task + ")");
  end(id);
  EXPECT_EQ(database.query("SELECT paused, parked FROM kodu_task_state"), (Rows{{"t", "f"}}));
  call("kodu_task_resume(" + task + ")");
  EXPECT_EQ(database.nextExec(id) % 300, 0);
}

TEST_F(ScheduleTest, KeepsAPausedTaskPausedWhenItsCalendarChanges) {
  const int id = add("*/5 * * * *");
  const std::string task = std::to_string(id);
  call("kodu_task_pause(" + task + ")");
  call("kodu_task_set(" + task + ", at => '0 4 * * *')");
  EXPECT_EQ(database.value("SELECT paused FROM kodu_task_state"), "t");

  call("kodu_task_resume(" + task + ")");
  EXPECT_EQ(database.nextExec(id), slotAhead("0 4 * * *"));
}

TEST_F(ScheduleTest, TakesACalendarFromTheEndOfARunInProgress) {
  const int id = add("*/5 * * * *");
  makeDue(id, "date_trunc('minute', now() AT TIME ZONE 'UTC') - interval '1 minute'");
  begin(id);
  const long due = database.nextExec(id);
  call("kodu_task_set(" + std::to_string(id) + ", at => '0 4 * * *')");
  EXPECT_EQ(database.nextExec(id), due);

  EXPECT_EQ(end(id), slotAhead("0 4 * * *"));
}

TEST_F(ScheduleTest, ReturnsToTheIntervalWithoutACalendar) {
  const int id = add("*/5 * * * *");
  const long due = database.nextExec(id);
  call("kodu_task_set(" + std::to_string(id) + ", at => '', every => '7 minutes')");

  EXPECT_EQ(database.query("SELECT cron_calendar, cron_zone, cron_slots FROM kodu_cron_plugin"),
            (Rows{{"", "", ""}}));
  EXPECT_EQ(runOnce(id), due + 420);
}

TEST_F(ScheduleTest, ChoosesAnIntervalThatFitsTheCalendar) {
  const auto interval = [&](const std::string& calendar) {
    return database.value("SELECT kodu_calendar_interval('" + calendar + "', 'Europe/Paris')");
  };
  EXPECT_EQ(interval("*/5 * * * *"), "00:05:00");
  EXPECT_EQ(interval("0 3 * * mon-fri"), "24:00:00");
  EXPECT_EQ(interval("0 0 1 * *"), "672:00:00");
  EXPECT_EQ(interval("0 0 29 2 *"), "366 days");
  EXPECT_EQ(interval("0 0 31 2 *"), "366 days");
}

TEST_F(ScheduleTest, RefusesACalendarThatIsInvalid) {
  EXPECT_THAT(refusalOf("kodu_task_add('/bin/true', at => '0 25 * * *')"),
              HasSubstr("invalid at character 3"));
  EXPECT_THAT(refusalOf("kodu_task_add('/bin/true', at => '0 2 * * *', zone => 'CET')"),
              HasSubstr("\"CET\" is not the name of a time zone"));
  EXPECT_THAT(refusalOf("kodu_task_add('/bin/true', '1 h', zone => 'UTC')"),
              HasSubstr("a time zone without a calendar"));
  EXPECT_THAT(refusalOf("kodu_task_add('/bin/true', at => '0 0 31 2 *')"),
              HasSubstr("has no time from now to 2035"));
  const int id = add("*/5 * * * *");
  EXPECT_THROW(database.query("UPDATE kodu_cron_plugin SET cron_calendar = 'x' WHERE cron_id = " +
                              std::to_string(id)),
               std::runtime_error);
}

TEST_F(ScheduleTest, WaitsForNoOtherRow) {
  const int id = add("*/5 * * * *");
  add("*/5 * * * *");
  const long first = database.nextExec(id);
  PQclear(daemon.executeRequest("SET statement_timeout = '20s'"));
  database.query("BEGIN; SELECT FROM kodu_cron_plugin WHERE cron_id <> " + std::to_string(id) +
                 " FOR UPDATE; LOCK TABLE kodu_cron_pause, kodu_cron_key, kodu_plugins");

  EXPECT_EQ(runOnce(id), first + 300);
  database.query("COMMIT");
}

TEST_F(ScheduleTest, UpdatesNoIndex) {
  const int id = add("*/5 * * * *");
  for (int run = 0; run < 50; ++run) {
    runOnce(id);
  }
  PQclear(daemon.executeRequest("SELECT pg_stat_force_next_flush()"));
  PQclear(daemon.executeRequest("SELECT"));

  EXPECT_EQ(database.value("SELECT n_tup_upd FROM pg_stat_user_tables "
                           "WHERE relname = 'kodu_cron_plugin'"),
            "100");
  // Snapshots of other tests may keep old rows on the page; an index would make it 100.
  EXPECT_LE(std::stoi(database.value("SELECT n_tup_upd - n_tup_hot_upd FROM pg_stat_user_tables "
                                     "WHERE relname = 'kodu_cron_plugin'")),
            10);
}

TEST_F(ScheduleTest, ForecastsTheRunsOfCalendars) {
  add("30 * * * *");
  add("30 * * * *");
  add("*/20 * * * *");

  const std::string runs = database.value("SELECT sum(runs) FROM kodu_forecast(24)");
  EXPECT_EQ(runs, database.value("SELECT count(*) FROM kodu_cron_plugin, kodu_coming_runs(cron_id, "
                                 "1000) AS due WHERE due < now() + interval '24 hours'"));
  EXPECT_GE(std::stol(runs), 24 * 5 - 3);
}

TEST_F(ScheduleTest, ListsTheComingRuns) {
  const int id = add("0 3 * * mon-fri");
  EXPECT_EQ(database.query("SELECT to_char(at AT TIME ZONE 'UTC' AT TIME ZONE 'Europe/Paris', "
                           "'HH24:MI') FROM kodu_coming_runs(" +
                           std::to_string(id) + ", 3) AS at"),
            (Rows{{"03:00"}, {"03:00"}, {"03:00"}}));
  call("kodu_task_pause(" + std::to_string(id) + ")");
  EXPECT_THAT(database.query("SELECT kodu_coming_runs(" + std::to_string(id) + ")"), IsEmpty());
}

TEST_F(ScheduleTest, LeavesTasksWithCalendarsWhereTheyAreWhenOthersAreStaggered) {
  add("0 * * * *");
  add("0 * * * *");

  EXPECT_EQ(database.query("SELECT id FROM kodu_stagger(dry_run => FALSE)"), Rows());
}

}  // namespace
