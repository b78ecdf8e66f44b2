#include <ctime>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libpq-fe.h>

#include "db/pgSafeThread.h"
#include "db/statements.h"
#include "tests/support/Database.h"
#include "tests/support/Files.h"
#include "tests/support/Ledger.h"
#include "tests/support/waitUntil.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using Rows = std::vector<Database::Row>;

constexpr long kMinute = 60;
constexpr long kHour = 3600;
constexpr long kDay = 86400;

/// Maintenance windows under the daemon's statements. Times are seconds since the epoch; `now` is
/// that of the server as the test began.
class WindowTest : public testing::Test {
 protected:
  void SetUp() override {
    database.query(readFile(projectFile("sql/calendar.sql")));
    database.query(readFile(projectFile("sql/windows.sql")));
    prepareNamedStatements(daemon);
    PQclear(listener.executeRequest(kListen));
  }
  void TearDown() override { ledger.expectComplete(); }

  /// A task of this interval that is due in so many seconds.
  int add(const std::string& every, long in, const std::string& more = "") {
    const int id = std::stoi(database.value("SELECT kodu_task_add('/bin/true', '" + every +
                                            "', first_run => " + momentOf(now + in) + more + ")"));
    heard();
    return id;
  }
  int addWindow(const std::string& arguments) const {
    return std::stoi(
        database.value("SELECT kodu_window_add(reason => 'new disks', " + arguments + ")"));
  }
  /// For all tasks; without a spread.
  int addWindow(long begin, long end) const {
    return addWindow("names => '{*}', spread => '0', begins => " + momentOf(now + begin) +
                     ", ends => " + momentOf(now + end));
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
  static std::string momentOf(long time) { return "to_timestamp(" + std::to_string(time) + ")"; }

  /// Changes rows behind the triggers' backs.
  void pretend(const std::string& sql) const {
    database.query("SET session_replication_role = replica; " + sql +
                   "; SET session_replication_role = origin");
  }
  /// Makes the task due at that time, in the ledger, too.
  void makeDue(int id, long time) const {
    const std::string task = " WHERE cron_id = " + std::to_string(id);
    const std::string utc = momentOf(time) + " AT TIME ZONE 'UTC'";
    pretend("UPDATE kodu_cron_plugin SET cron_wanted = NULL, cron_next_exec = " + utc +
            ", ledger_to = CASE WHEN ledger_to IS NOT NULL THEN " + utc + " END" + task +
            "; UPDATE kodu_ledger SET moved_to = " + utc +
            " WHERE ledger_id = (SELECT max(ledger_id) FROM kodu_ledger" + task + ")");
  }

  void begin(int id) { execute("UpdateCronProcess", {std::to_string(id)}); }
  /// The next time that the daemon is told.
  long end(int id, const std::string& status = "OK") {
    return execute("UpdateCronState", {std::to_string(id), status});
  }
  long runOnce(int id) {
    begin(id);
    return end(id);
  }
  /// What loading the task does when its time is past.
  long skip(int id) {
    return execute("updateCronExecTask",
                   {std::to_string(id),
                    database.task(id,
                                  "ceil(EXTRACT(EPOCH FROM clock_timestamp() AT TIME ZONE 'UTC' "
                                  "- cron_next_exec) / EXTRACT(EPOCH FROM cron_interval))")});
  }
  /// When the next run would be due without the window; 0: no window holds it.
  long heldFrom(int id) const {
    const std::string text = database.task(id, "EXTRACT(EPOCH FROM cron_held)::bigint");
    return text.empty() ? 0 : std::stol(text);
  }
  std::string windowsOf(int id) const { return database.task(id, "cron_windows"); }

  /// What the daemon has been told since the last call.
  std::vector<std::string> heard() {
    database.notify("last");
    std::vector<std::string> payloads;
    waitUntil([&] {
      PQconsumeInput(listener.connection);
      while (PGnotify* notification = PQnotifies(listener.connection)) {
        payloads.emplace_back(notification->extra);
        PQfreemem(notification);
      }
      return !payloads.empty() && payloads.back() == "last";
    });
    payloads.pop_back();
    return payloads;
  }
  static std::string update(int id) {
    return R"({"TYPE":"SERVICE","COMMAND":"UPDATE","ID":)" + std::to_string(id) + "}";
  }

  Database database;
  Ledger ledger{database};
  pgSafeThread daemon{database.conninfo()};
  pgSafeThread listener{database.conninfo()};
  long now = std::stol(database.value("SELECT floor(EXTRACT(EPOCH FROM now()))"));

 private:
  /// The first value of the answer; 0 without one.
  long execute(const std::string& statement, const std::vector<std::string>& parameters) {
    PGresult* answer = daemon.executePrepareRequest(statement, parameters);
    const long value = PQntuples(answer) > 0 ? std::stol(PQgetvalue(answer, 0, 0)) : 0;
    PQclear(answer);
    return value;
  }
};

TEST_F(WindowTest, MovesARunThatIsDueInItToItsEnd) {
  const int inside = add("1 day", kHour);
  const int before = add("1 day", kHour - 1);
  const int behind = add("1 day", 2 * kHour);

  addWindow(kHour, 2 * kHour);

  EXPECT_EQ(database.nextExec(inside), now + 2 * kHour);
  EXPECT_EQ(heldFrom(inside), now + kHour);
  EXPECT_EQ(database.nextExec(before), now + kHour - 1);
  EXPECT_EQ(database.nextExec(behind), now + 2 * kHour);
  EXPECT_THAT(heard(), ElementsAre(update(inside)));
  EXPECT_EQ(database.query("SELECT id FROM kodu_task_state WHERE held_from IS NOT NULL"),
            (Rows{{std::to_string(inside)}}));
  EXPECT_EQ(
      database.query("SELECT concerns, holds, is_open, is_over, reason, made_by = session_user"
                     " FROM kodu_window_status"),
      (Rows{{"3", "1", "f", "f", "new disks", "t"}}));
}

TEST_F(WindowTest, MovesTheRunAfterTheOneThatEnds) {
  const int id = add("1 hour", kHour);
  addWindow(90 * kMinute, 5 * kHour + 90);
  makeDue(id, now + kHour);

  EXPECT_EQ(runOnce(id), now + 5 * kHour + 90);
  EXPECT_EQ(heldFrom(id), now + 2 * kHour);
  EXPECT_EQ(runOnce(id), now + 6 * kHour) << "its own times again";

  EXPECT_EQ(heldFrom(id), 0);
  EXPECT_THAT(ledger.rows(id), ElementsAre("ok #1", "maintenance 3", "ok #1", "maintenance 0"));
}

TEST_F(WindowTest, ReturnsToTheTimesOfANightlyTask) {
  const int id = add("1 day", kHour);
  addWindow(0, 2 * kHour);
  makeDue(id, now + 2 * kHour);
  pretend("UPDATE kodu_cron_plugin SET cron_held = cron_next_exec - interval '1 hour'");

  EXPECT_EQ(runOnce(id), now + kHour + kDay);
  EXPECT_EQ(database.query("SELECT kodu_coming_runs(" + std::to_string(id) + ", 2)").size(), 2U);
}

TEST_F(WindowTest, SpreadsTheRunsByTheirIds) {
  for (int task = 0; task < 40; ++task) {
    add("1 day", kHour);
  }
  addWindow("names => '{*}', lasts => '2 hours', spread => '10 minutes'");

  EXPECT_EQ(database.query("SELECT min(cron_next_exec) >= ends AND max(cron_next_exec) < ends + "
                           "interval '10 minutes', count(DISTINCT cron_next_exec) > 30, "
                           "count(DISTINCT cron_held) FROM kodu_cron_plugin, kodu_window_status "
                           "GROUP BY ends"),
            (Rows{{"t", "t", "1"}}));
  const std::string times =
      "SELECT string_agg(cron_next_exec::text, ' ' ORDER BY cron_id) FROM "
      "kodu_cron_plugin";
  const std::string before = database.value(times);
  call("kodu_window_settle(1)");
  EXPECT_EQ(database.value(times), before);
}

TEST_F(WindowTest, LeavesATimeOfItsOwnWithinTheSpread) {
  const int id = add("10 minutes", kHour);
  const int rare = add("1 hour", kHour);
  addWindow("names => '{*}', spread => '10 minutes', ends => " +
            momentOf(now + 2 * kHour - 3 * kMinute));

  EXPECT_EQ(database.nextExec(id), now + 2 * kHour);
  EXPECT_EQ(database.nextExec(rare), now + 2 * kHour);
  EXPECT_EQ(heldFrom(id), now + kHour);
}

TEST_F(WindowTest, TakesTheLatestEndOfWindowsThatOverlap) {
  const int id = add("1 day", kHour);
  addWindow(30 * kMinute, 2 * kHour);
  addWindow(50 * kMinute, 90 * kMinute);
  EXPECT_EQ(database.nextExec(id), now + 2 * kHour) << "the second one ends earlier";
  addWindow(110 * kMinute, 3 * kHour);
  EXPECT_EQ(database.nextExec(id), now + 3 * kHour) << "the end of the first is in the third";
  addWindow(3 * kHour, 4 * kHour);
  EXPECT_EQ(database.nextExec(id), now + 4 * kHour) << "without a gap";
  EXPECT_EQ(heldFrom(id), now + kHour);

  call("kodu_window_end(3)");
  EXPECT_EQ(database.nextExec(id), now + 2 * kHour);
  call("kodu_window_end(1)");
  EXPECT_EQ(database.nextExec(id), now + 90 * kMinute);
  call("kodu_window_end(2)");
  EXPECT_EQ(database.nextExec(id), now + kHour);
  EXPECT_EQ(heldFrom(id), 0);
}

TEST_F(WindowTest, LeavesARunInProgressAlone) {
  const int id = add("1 hour", kHour);
  makeDue(id, now - 5);
  begin(id);

  addWindow(-1, 3 * kHour);

  EXPECT_EQ(database.nextExec(id), now - 5);
  EXPECT_THAT(heard(), IsEmpty());
  EXPECT_EQ(end(id), now + 3 * kHour);
  EXPECT_EQ(heldFrom(id), now - 5 + kHour);
}

TEST_F(WindowTest, KeepsItsTimeWhenARunBeginsAsItIsMoved) {
  const int id = add("1 day", 30);
  addWindow(0, 2 * kHour);
  begin(id);  // a worker had it before the daemon heard of the window

  EXPECT_EQ(end(id), now + 2 * kHour);
  EXPECT_EQ(heldFrom(id), now + 30);
}

TEST_F(WindowTest, BringsItsTasksBackWhenItIsEndedEarly) {
  const int late = add("1 day", kHour);
  const int coming = add("1 day", kHour + kMinute);
  const int frequent = add("1 minute", 30);
  addWindow("names => '{*}', lasts => '2 hours', spread => '20 seconds'");
  pretend("UPDATE kodu_cron_plugin SET cron_held = now() - interval '1 hour' WHERE cron_id = " +
          std::to_string(late));
  heard();

  call("kodu_window_end(1)");

  EXPECT_GE(database.nextExec(late), now + 1);
  EXPECT_LE(database.nextExec(late), static_cast<long>(std::time(nullptr)) + 23);
  EXPECT_NE(heldFrom(late), 0) << "it knows its own time";
  EXPECT_EQ(database.nextExec(coming), now + kHour + kMinute);
  EXPECT_EQ(heldFrom(coming), 0);
  EXPECT_EQ(database.nextExec(frequent), now + 30);
  EXPECT_THAT(heard(), ElementsAre(update(late), update(coming), update(frequent)));
  EXPECT_EQ(database.value("SELECT is_over FROM kodu_window_status"), "t");

  makeDue(coming, now + kHour + kMinute);
  EXPECT_EQ(runOnce(coming), now + kHour + kMinute + kDay);
  EXPECT_EQ(windowsOf(coming), "") << "it costs nothing from now on";
  makeDue(late, database.nextExec(late) - 30);
  begin(late);
  EXPECT_LT(end(late), now + kDay);
  EXPECT_EQ(windowsOf(late), "");
}

TEST_F(WindowTest, ForgetsAWindowThatIsOverAtTheEndOfARun) {
  const int id = add("1 day", kHour);
  addWindow(0, kMinute);
  const int second = addWindow(5 * kDay, 6 * kDay);
  pretend("UPDATE kodu_window SET ends_at = now() - interval '1 s' WHERE window_id = 1");

  makeDue(id, now + kHour);
  runOnce(id);

  EXPECT_EQ(windowsOf(id), "{" + std::to_string(second) + "}");
}

TEST_F(WindowTest, Recurs) {
  // Each day at a whole minute some hours ahead.
  const long begins = (now / kMinute + 300) * kMinute;
  const int id = add("1 hour", begins + 30 * kMinute - now);
  const std::string calendar = database.value("SELECT to_char(" + momentOf(begins) +
                                              " AT TIME ZONE 'UTC', 'MI HH24 * * *')");
  const int number =
      addWindow("names => '{*}', spread => '0', at => '" + calendar + "', lasts => '2 hours'");

  EXPECT_EQ(database.nextExec(id), begins + 2 * kHour);
  makeDue(id, begins + kDay - kHour);
  pretend("UPDATE kodu_cron_plugin SET cron_held = NULL");
  EXPECT_EQ(runOnce(id), begins + kDay + 2 * kHour);
  EXPECT_EQ(heldFrom(id), begins + kDay);
  EXPECT_EQ(database.query("SELECT begins, ends, is_open, last_end FROM kodu_window_status"),
            (Rows{{database.value("SELECT " + momentOf(begins) + " AT TIME ZONE 'UTC'"),
                   database.value("SELECT " + momentOf(begins + 2 * kHour) + " AT TIME ZONE 'UTC'"),
                   "f", ""}}));
  call("kodu_window_end(" + std::to_string(number) + ")");
  EXPECT_EQ(database.nextExec(id), begins + kDay);
}

TEST_F(WindowTest, EndsOnlyThisTime) {
  const int id = add("1 hour", kHour);
  const long began = (now / kMinute - 10) * kMinute;
  const std::string calendar =
      database.value("SELECT to_char(" + momentOf(began) + " AT TIME ZONE 'UTC', 'MI HH24 * * *')");
  addWindow("names => '{*}', spread => '0', at => '" + calendar + "', lasts => '2 hours'");
  EXPECT_EQ(database.nextExec(id), began + 2 * kHour);

  call("kodu_window_end(1, once => TRUE)");

  EXPECT_EQ(database.nextExec(id), now + kHour);
  EXPECT_EQ(database.query("SELECT is_open, is_over FROM kodu_window_status"), (Rows{{"f", "f"}}));
  makeDue(id, began + kDay - 10);
  EXPECT_EQ(runOnce(id), began + kDay + 2 * kHour) << "the next day it holds again";
}

TEST_F(WindowTest, HoldsTheTimesOfACalendar) {
  const int id =
      std::stoi(database.value("SELECT kodu_task_add('/bin/true', at => '*/5 * * * *')"));
  const long first = database.nextExec(id);
  addWindow(first + 1 - now, first + kHour + 7 - now);

  EXPECT_EQ(runOnce(id), first + kHour + 7);
  EXPECT_EQ(heldFrom(id), first + 300);
  EXPECT_EQ(runOnce(id), first + kHour + 300);

  // 12 of its times are in between, of which the last run stands for one.
  EXPECT_THAT(ledger.rows(id), ElementsAre("ok #1", "maintenance 11", "ok #1"));
}

TEST_F(WindowTest, HoldsATaskThatTheDaemonLoadsInIt) {
  const int id = add("1 minute", kHour);
  addWindow(-10, kHour + 30);
  makeDue(id, now - 10 * kMinute);

  EXPECT_EQ(skip(id), now + kHour + 30);

  EXPECT_EQ(heldFrom(id) % kMinute, now % kMinute) << "one of its own times";
  EXPECT_THAT(ledger.rows(id).back(), StartsWith("maintenance "));
}

TEST_F(WindowTest, SkipsARunThatWasHeldAndMissed) {
  const int id = add("1 day", kHour);
  addWindow(0, 2 * kHour);
  pretend(
      "UPDATE kodu_window SET begins_at = begins_at - interval '1 day', ends_at = ends_at - "
      "interval '1 day'");
  makeDue(id, now + 2 * kHour - kDay);
  pretend("UPDATE kodu_cron_plugin SET cron_held = cron_next_exec - interval '1 hour'");

  EXPECT_EQ(skip(id), now + kHour);
  EXPECT_EQ(heldFrom(id), 0);
}

TEST_F(WindowTest, LetsPeopleRunATaskInIt) {
  const int id = add("1 hour", kHour);
  const std::string task = std::to_string(id);
  addWindow(0, 3 * kHour);

  call("kodu_task_run_now(" + task + ")");
  EXPECT_LE(database.nextExec(id), static_cast<long>(std::time(nullptr)) + 4);
  EXPECT_EQ(heldFrom(id), 0);
  EXPECT_EQ(runOnce(id), now + 3 * kHour);

  call("kodu_task_set(" + task + ", next_run => " + momentOf(now + kHour + 7) + ")");
  EXPECT_EQ(database.nextExec(id), now + kHour + 7);
  makeDue(id, now + kHour + 7);
  EXPECT_EQ(runOnce(id), now + 3 * kHour);
  EXPECT_EQ(heldFrom(id), now + 2 * kHour + 7);
}

TEST_F(WindowTest, HoldsATaskThatIsResumedInIt) {
  const int id = add("1 hour", 30 * kMinute);
  const std::string task = std::to_string(id);
  addWindow(0, 2 * kHour);

  call("kodu_task_pause(" + task + ")");
  EXPECT_EQ(database.value("SELECT paused AND held_from IS NULL FROM kodu_task_state"), "t");
  call("kodu_task_resume(" + task + ")");
  EXPECT_EQ(database.nextExec(id), now + 2 * kHour);
  EXPECT_EQ(heldFrom(id), now + 30 * kMinute);

  call("kodu_task_pause(" + task + ", until => " + momentOf(now + kHour) + ")");
  EXPECT_EQ(database.nextExec(id), now + 2 * kHour);
  EXPECT_EQ(heldFrom(id), now + 90 * kMinute);
}

TEST_F(WindowTest, LeavesAPausedTaskPaused) {
  const int id = add("1 hour", kHour);
  call("kodu_task_pause(" + std::to_string(id) + ")");
  addWindow(0, 2 * kHour);
  call("kodu_window_end(1)");
  EXPECT_EQ(database.value("SELECT paused FROM kodu_task_state"), "t");
}

TEST_F(WindowTest, HoldsATaskWhoseDeletionIsTakenBack) {
  const int id = add("1 hour", 30 * kMinute);
  addWindow(0, 2 * kHour);
  call("kodu_task_delete(" + std::to_string(id) + ")");
  call("kodu_window_settle(1)");
  EXPECT_EQ(database.value("SELECT deleting FROM kodu_task_state"), "t");

  call("kodu_task_undelete(" + std::to_string(id) + ")");
  EXPECT_EQ(database.nextExec(id), now + 2 * kHour);
  EXPECT_EQ(heldFrom(id), now + 30 * kMinute);
}

TEST_F(WindowTest, EndsWhatItHoldsWithATimeThatAProgramWrites) {
  const int id = add("1 hour", 30 * kMinute);
  addWindow(0, 2 * kHour);
  database.query("UPDATE kodu_cron_plugin SET cron_next_exec = cron_next_exec + interval '7 s'");
  EXPECT_EQ(heldFrom(id), 0);
}

TEST_F(WindowTest, ConcernsTasksByIdPluginAndName) {
  const int byId = add("1 day", kHour);
  const int byPlugin = add("1 day", kHour, ", name => 'disk'");
  const int byPath = add("1 day", kHour, ", timeout => '10 s', name => 'guarded'");
  const int byName = add("1 day", kHour, ", name => 'web_1'");
  const int other = add("1 day", kHour, ", name => 'webx1'");
  addWindow("lasts => '2 hours', tasks => '{" + std::to_string(byId) + "}'");
  addWindow("lasts => '2 hours', plugins => '{disk}'");
  addWindow("lasts => '2 hours', names => '{w?b_*}'");

  EXPECT_EQ(windowsOf(byId), "{1}");
  EXPECT_EQ(windowsOf(byPlugin), "{2}");
  EXPECT_EQ(windowsOf(byName), "{3}");
  EXPECT_EQ(windowsOf(other), "");
  addWindow("lasts => '2 hours', plugins => '{/bin/true}'");
  EXPECT_EQ(windowsOf(byPath), "{4}") << "what koduguard runs";
}

TEST_F(WindowTest, ConcernsTasksThatComeLater) {
  addWindow("lasts => '2 hours', spread => '0', names => '{web*}'");
  const long ends =
      std::stol(database.value("SELECT EXTRACT(EPOCH FROM ends)::bigint FROM kodu_window_status"));
  const int id = add("1 day", kHour, ", name => 'web1'");
  const int other = add("1 day", kHour, ", name => 'disk'");
  EXPECT_EQ(database.nextExec(id), ends);
  EXPECT_EQ(windowsOf(other), "");

  call("kodu_task_set(" + std::to_string(other) + ", name => 'web2')");
  EXPECT_EQ(database.nextExec(other), ends);
  database.query("UPDATE kodu_plugins SET plugin_name = 'x' || plugin_name");
  EXPECT_EQ(windowsOf(id), "{1}") << "while it is held";
  add("1 day", kHour, ", name => 'disk'");
  database.query("UPDATE kodu_plugins SET plugin_name = 'web3' WHERE plugin_name = 'disk'");
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_plugin WHERE cron_held IS NOT NULL"),
            "3");
}

TEST_F(WindowTest, ListsTheComingRuns) {
  const int id = add("1 hour", kHour);
  addWindow(90 * kMinute, 5 * kHour + 90);
  EXPECT_EQ(database.query("SELECT EXTRACT(EPOCH FROM due)::bigint - " + std::to_string(now) +
                           " FROM kodu_coming_runs(" + std::to_string(id) + ", 3) AS due"),
            (Rows{{"3600"}, {"18090"}, {"21600"}}));
}

TEST_F(WindowTest, ForecastsTheRunsAroundIt) {
  add("1 hour", kHour);
  add("1 day", 2 * kHour);
  add("10 minutes", 30 * kMinute);
  add("1 hour", 30 * kMinute);  // held already
  database.query("SELECT kodu_task_add('/bin/true', at => '*/20 * * * *')");
  addWindow("names => '{*}', spread => '7 minutes', begins => " + momentOf(now + 20 * kMinute) +
            ", ends => " + momentOf(now + 3 * kHour + 100));
  addWindow("names => '{*}', spread => '7 minutes', lasts => '30 minutes', at => '17 */6 * * *'");

  // In one statement, so that both have the same present.
  EXPECT_EQ(database.value("SELECT (SELECT sum(runs) FROM kodu_forecast(24)) - count(*)"
                           " FROM kodu_cron_plugin, kodu_coming_runs(cron_id, 1000) AS due"
                           " WHERE due < date_trunc('second', now() AT TIME ZONE 'UTC')"
                           " + interval '24 hours'"),
            "0");
  EXPECT_EQ(
      database.value("SELECT string_agg(runs::text, ' ') FROM kodu_forecast(3) WHERE minute > "
                     "now() + interval '21 minutes' AND runs > 0"),
      "");
}

TEST_F(WindowTest, LeavesTasksThatAreHeldWhereTheyAreWhenOthersAreStaggered) {
  add("10 minutes", 5 * kMinute);
  add("10 minutes", 5 * kMinute);
  addWindow(0, kHour);
  EXPECT_EQ(database.query("SELECT id FROM kodu_stagger(dry_run => FALSE)"), Rows());
}

TEST_F(WindowTest, RunsAtItsOwnTimesWithAnInvalidCalendar) {
  const int id = add("1 hour", kHour);
  addWindow("names => '{*}', at => '*/2 * * * *', lasts => '1 minute', begins => now() + '1 day'");
  addWindow("names => '{*}', at => '0 3 * * *', lasts => '1 hour'");
  pretend("UPDATE kodu_window SET zone = 'Europe/Atlantis', begins_at = now()");

  makeDue(id, now + kHour);
  EXPECT_EQ(runOnce(id), now + 2 * kHour);
  EXPECT_EQ(database.query("SELECT DISTINCT problem FROM kodu_window_fault"),
            (Rows{{"time zone \"Europe/Atlantis\" not recognized"}}));
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_window_status"), "2");
}

TEST_F(WindowTest, RunsAtItsOwnTimesWithoutItsFunctions) {
  const int id = add("1 hour", kHour);
  addWindow(0, kMinute);
  makeDue(id, now + kHour);
  database.query("DROP FUNCTION kodu_window_hold");
  EXPECT_EQ(runOnce(id), now + 2 * kHour);
}

TEST_F(WindowTest, WaitsForNoLock) {
  const int id = add("1 hour", kHour);
  const int other = add("1 hour", kHour);
  addWindow(90 * kMinute, 5 * kHour);
  makeDue(id, now + kHour);
  PQclear(daemon.executeRequest("SET statement_timeout = '20s'"));
  database.query(
      "BEGIN; LOCK TABLE kodu_cron_pause, kodu_plugins; UPDATE kodu_window SET reason = "
      "'x'; SELECT FROM kodu_cron_plugin WHERE cron_id = " +
      std::to_string(other) + " FOR UPDATE");
  EXPECT_EQ(runOnce(id), now + 5 * kHour);
  database.query("COMMIT; BEGIN; LOCK TABLE kodu_window");
  EXPECT_EQ(runOnce(id), now + 6 * kHour) << "the interval applies after 100 ms";
  database.query("COMMIT");
}

TEST_F(WindowTest, UpdatesNoIndex) {
  const int id = add("1 hour", kHour);
  addWindow("names => '{*}', at => '0 3 * * *', lasts => '1 hour'");
  PQclear(daemon.executeRequest("SELECT pg_stat_force_next_flush()"));
  database.query("SELECT pg_stat_force_next_flush(); SELECT pg_stat_reset()");
  for (int run = 0; run < 50; ++run) {
    runOnce(id);
  }
  PQclear(daemon.executeRequest("SELECT pg_stat_force_next_flush()"));
  PQclear(daemon.executeRequest("SELECT"));
  // Snapshots of other tests may keep old rows on the page; an index would make it 100.
  EXPECT_LE(std::stoi(database.value("SELECT n_tup_upd - n_tup_hot_upd FROM pg_stat_user_tables "
                                     "WHERE relname = 'kodu_cron_plugin'")),
            10);
}

TEST_F(WindowTest, MovesTasksInSeveralTransactions) {
  for (int task = 0; task < 5; ++task) {
    add("1 day", kHour);
  }
  addWindow("names => '{*}', lasts => '2 hours', settle => FALSE");
  const auto settle = [this](const std::string& after, const std::string& more) {
    return database.value("SELECT kodu_window_settle(1, after => " + after + ", most => 3" + more +
                          ")");
  };
  const std::string held = "SELECT count(cron_held) FROM kodu_cron_plugin";
  EXPECT_EQ(database.value(held), "0");
  const std::string third = settle("-1", "");
  EXPECT_EQ(database.value(held), "3");
  EXPECT_EQ(settle(third, ""), std::to_string(std::stoi(third) + 2));
  EXPECT_EQ(settle(std::to_string(std::stoi(third) + 2), ""), "");
  EXPECT_EQ(database.value(held), "5");

  call("kodu_window_end(1, settle => FALSE)");
  EXPECT_EQ(database.value(held), "5");
  settle("-1", ", released => TRUE");
  EXPECT_EQ(database.value(held), "2");
}

TEST_F(WindowTest, RefusesWhatIsNoWindow) {
  const auto refusal = [this](const std::string& arguments) {
    return refusalOf("kodu_window_add(" + arguments + ")");
  };
  EXPECT_THAT(refusal("' ', names => '{*}', lasts => '1 h'"), HasSubstr("needs a reason"));
  EXPECT_THAT(refusal("'x', lasts => '1 h'"), HasSubstr("the window has no tasks"));
  EXPECT_THAT(refusal("'x', names => '{*}'"), HasSubstr("needs either an end or a duration"));
  EXPECT_THAT(refusal("'x', names => '{*}', lasts => '-1 h'"), HasSubstr("must lie ahead"));
  EXPECT_THAT(refusal("'x', names => '{*}', ends => now()"), HasSubstr("must lie ahead"));
  EXPECT_THAT(refusal("'x', names => '{*}', ends => '2035-01-01'"), HasSubstr("before 2035"));
  EXPECT_THAT(refusal("'x', names => '{*}', lasts => '1 h', spread => '-1 s'"),
              HasSubstr("the spread must be"));
  EXPECT_THAT(refusal("'x', names => '{*}', at => '0 25 * * *', lasts => '1 h'"),
              HasSubstr("invalid at character 3"));
  EXPECT_THAT(refusal("'x', names => '{*}', at => '0 3 * * *'"), HasSubstr("needs a duration"));
  EXPECT_THAT(refusal("'x', names => '{*}', at => '0 * * * *', lasts => '60 min'"),
              HasSubstr("would never end: it lasts 01:00:00 and begins again after 01:00:00"));
  EXPECT_THAT(refusal("'x', tasks => '{99}', lasts => '1 h'"), HasSubstr("there is no task 99"));
  EXPECT_THAT(refusal("'x', plugins => '{nix}', lasts => '1 h'"),
              HasSubstr("there is no plugin 'nix'"));
  EXPECT_THAT(refusalOf("kodu_window_end(99)"), HasSubstr("there is no window 99"));
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_window"), "0");
}

TEST_F(WindowTest, IsForAdministrators) {
  const int id = add("1 day", kHour);
  database.query("SET ROLE kodu_admin");
  addWindow(0, 2 * kHour);
  EXPECT_EQ(database.nextExec(id), now + 2 * kHour);
  call("kodu_task_add('/bin/true', '1 day', first_run => " + momentOf(now + kHour) + ")");
  call("kodu_window_end(1)");
  EXPECT_EQ(database.value("SELECT count(cron_held) FROM kodu_cron_plugin"), "0");
  database.query("RESET ROLE");

  PQclear(daemon.executeRequest("SELECT * FROM kodu_window_status, kodu_window_fault"));
  EXPECT_ANY_THROW(PQclear(daemon.executeRequest("SELECT kodu_window_end(1)")));
}

TEST_F(WindowTest, IsLoadedAgainWithoutAChange) {
  add("1 day", kHour);
  addWindow(0, 2 * kHour);
  for (const char* file : {"sql/functions.sql", "sql/windows.sql"}) {
    database.query(readFile(projectFile(file)));
  }
  EXPECT_EQ(database.value("SELECT holds FROM kodu_window_status"), "1");
}

}  // namespace
