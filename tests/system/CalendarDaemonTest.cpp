#include <csignal>
#include <ctime>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/DaemonTest.h"
#include "tests/support/Ledger.h"
#include "tests/support/Process.h"

namespace {

/// The running daemon and a task with a calendar.
class CalendarDaemonTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    database.query(readFile(projectFile("sql/calendar.sql")));
  }
  void TearDown() override {
    if (daemon.isRunning()) {
      kill();
    }
    calendars.expectComplete();
  }
  void kill() {
    daemon.signal(SIGKILL);
    EXPECT_EQ(signalOf(daemon.waitForEnd()), SIGKILL);
  }

  /// A task whose interval, of 7 seconds, is not the distance of the calendar's times.
  void insertCalendarTask(int id, const std::string& calendar, const std::string& body) {
    TaskRow row = makeTask(id, body);
    row.interval = "7 seconds";
    database.insertTask(row);
    database.query("UPDATE kodu_cron_plugin SET cron_calendar = '" + calendar +
                   "', cron_zone = 'Europe/Paris' WHERE cron_id = " + std::to_string(id));
  }

  Ledger calendars{database};
};

TEST_F(CalendarDaemonTest, RunsAtTheTimesOfTheCalendarAndAfterACrash) {
  insertCalendarTask(1, "* * * * *", "echo fine");
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForRuns(1, 2)) << "the first one was due soon";
  const long second = ledger(1).back();
  EXPECT_LT(second % 60, 10) << "in the seconds after a whole minute";

  kill();
  database.query(
      "SET session_replication_role = replica; UPDATE kodu_cron_plugin SET "
      "cron_next_exec = cron_next_exec - interval '1 day', "
      "ledger_to = ledger_to - interval '1 day'; "
      "UPDATE kodu_ledger SET moved_to = cron_next_exec FROM kodu_cron_plugin "
      "WHERE ledger_id = (SELECT max(ledger_id) FROM kodu_ledger); "
      "SET session_replication_role = origin");
  ASSERT_TRUE(daemon.startAndWait());

  const long next = database.nextExec(1);
  EXPECT_EQ(next % 60, 0);
  EXPECT_LE(next - std::time(nullptr), 60);
  EXPECT_GE(std::stol(database.value("SELECT sum(periods) FROM kodu_run WHERE reason = 'daemon'")),
            1439);
}

TEST_F(CalendarDaemonTest, KeepsRunningWithACalendarThatIsNoLongerValid) {
  insertCalendarTask(1, "* * * * *", "echo fine");
  database.query(
      "SET session_replication_role = replica; UPDATE kodu_cron_plugin SET cron_zone = "
      "'Europe/Atlantis'; SET session_replication_role = origin");
  ASSERT_TRUE(daemon.startAndWait());

  EXPECT_TRUE(waitForRuns(1, 3)) << "every interval";
  EXPECT_TRUE(daemon.isRunning());
  EXPECT_EQ(calendars.account(1, "difference"), "0");
}

TEST_F(CalendarDaemonTest, ParksATaskWithoutAComingTime) {
  insertCalendarTask(1, "0 0 31 2 *", "echo fine");
  ASSERT_TRUE(daemon.startAndWait());

  ASSERT_TRUE(waitForStatus(1, "OK"));

  EXPECT_EQ(database.value("SELECT parked FROM kodu_task_state"), "t");
  EXPECT_TRUE(daemon.isRunning());
}

}  // namespace
