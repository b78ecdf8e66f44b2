#include "sched/nextTime.h"

#include <ctime>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "db/PostgresqlException.h"
#include "tests/support/FixedClock.h"
#include "tests/support/Globals.h"

namespace {

constexpr long kDay = 86400;
const char* const kFirstLine = "DEBUG#cron task: getNextTimeToExec";

/// Task 1 in the database; now is kMayDay.
class NextTimeTest : public DatabaseGlobalsTest {
 protected:
  /// Inserts the task with this interval, due `gapSeconds` before now.
  void insertTask(long gapSeconds, const std::string& interval) {
    TaskRow row;
    row.interval = interval;
    row.nextExec = "to_timestamp(" + std::to_string(kMayDay - gapSeconds) + ")";
    database.insertTask(row);
  }
  /// The next time of the task that insertTask(gapSeconds, ...) made.
  static long long nextTime(long gapSeconds, unsigned int interval) {
    return getNextTimeToExec(std::to_string(kMayDay - gapSeconds), interval, "1");
  }
  /// The task's next time in the database, in seconds from now.
  long databaseFromNow() const { return database.nextExec(1) - kMayDay; }

  FixedClock clock{kMayDay};
};

// The database's value differs from the text in the first two cases, so that an update would be
// visible.
TEST_F(NextTimeTest, LeavesATimeInTheFutureAlone) {
  insertTask(5000, "300 seconds");

  EXPECT_EQ(nextTime(-1, 300), kMayDay + 1);

  EXPECT_EQ(databaseFromNow(), -5000);
  EXPECT_EQ(log(), std::vector<std::string>{kFirstLine});
}

TEST_F(NextTimeTest, LeavesATimeEqualToNowAlone) {
  insertTask(5000, "300 seconds");

  EXPECT_EQ(nextTime(0, 300), kMayDay);

  EXPECT_EQ(databaseFromNow(), -5000);
  EXPECT_EQ(log(), std::vector<std::string>{kFirstLine});
}

TEST_F(NextTimeTest, RoundsAPartialIntervalUp) {
  insertTask(650, "300 seconds");

  EXPECT_EQ(nextTime(650, 300), kMayDay + 250);

  EXPECT_EQ(databaseFromNow(), 250);
}

TEST_F(NextTimeTest, LogsItsCalculation) {
  insertTask(650, "300 seconds");

  nextTime(650, 300);

  EXPECT_EQ(log(), (std::vector<std::string>{
                       kFirstLine, "DEBUG#calc time exec: calcule: 650.000000 / 300 = 3",
                       "DEBUG#change time exec: " + std::to_string(kMayDay + 250)}));
}

TEST_F(NextTimeTest, ComputesAGapOfWholeIntervalsExactly) {
  insertTask(600, "300 seconds");

  EXPECT_EQ(nextTime(600, 300), kMayDay);

  EXPECT_EQ(databaseFromNow(), 0);
  EXPECT_EQ(logged("DEBUG#calc time exec: calcule: 600.000000 / 300 = 2"), 1);
}

TEST_F(NextTimeTest, SkipsOneMoreIntervalASecondLater) {
  insertTask(601, "300 seconds");

  EXPECT_EQ(nextTime(601, 300), kMayDay + 299);

  EXPECT_EQ(logged("DEBUG#calc time exec: calcule: 601.000000 / 300 = 3"), 1);
}

TEST_F(NextTimeTest, SkipsADayWhenASecondLate) {
  insertTask(1, "1 day");

  EXPECT_EQ(nextTime(1, kDay), kMayDay + kDay - 1);

  EXPECT_EQ(logged("DEBUG#calc time exec: calcule: 1.000000 / 86400 = 1"), 1);
}

TEST_F(NextTimeTest, CountsAYearOfDaysExactly) {
  insertTask(365 * kDay, "1 day");

  EXPECT_EQ(nextTime(365 * kDay, kDay), kMayDay);

  EXPECT_EQ(logged("DEBUG#calc time exec: calcule: 31536000.000000 / 86400 = 365"), 1);
}

TEST_F(NextTimeTest, IsOneIntervalShortAfterAYear) {
  insertTask(365 * kDay + 1, "1 day");

  EXPECT_EQ(nextTime(365 * kDay + 1, kDay), kMayDay - 1);

  EXPECT_EQ(databaseFromNow(), -1);
  EXPECT_EQ(logged("DEBUG#calc time exec: calcule: 31536001.000000 / 86400 = 365"), 1);
}

TEST_F(NextTimeTest, CountsSecondsExactlyUpToTheBitsOfAFloat) {
  constexpr long kGap = 1L << 24;
  insertTask(kGap, "1 second");

  EXPECT_EQ(nextTime(kGap, 1), kMayDay);
}

TEST_F(NextTimeTest, LosesASecondBeyondTheBitsOfAFloat) {
  constexpr long kGap = (1L << 24) + 1;
  insertTask(kGap, "1 second");

  EXPECT_EQ(nextTime(kGap, 1), kMayDay - 1);

  EXPECT_EQ(logged("DEBUG#calc time exec: calcule: 16777217.000000 / 1 = 16777216"), 1);
}

TEST_F(NextTimeTest, PrintsTheIntervalUnsigned) {
  insertTask(1, "300 seconds");

  nextTime(1, 4294967295U);

  EXPECT_EQ(logged("DEBUG#calc time exec: calcule: 1.000000 / 4294967295 = 1"), 1);
}

TEST_F(NextTimeTest, ReturnsTheTimeInTheDatabase) {
  insertTask(5000, "7 seconds");

  // The number of intervals follows from the text and the given interval; the update starts from
  // the row's time and uses the row's interval.
  EXPECT_EQ(nextTime(650, 300), kMayDay - 5000 + 21);
}

TEST_F(NextTimeTest, MovesTheGivenTaskOnly) {
  insertTask(650, "300 seconds");
  TaskRow other;
  other.id = 2;
  other.nextExec = "to_timestamp(" + std::to_string(kMayDay - 650) + ")";
  database.insertTask(other);

  getNextTimeToExec(std::to_string(kMayDay - 650), 300, "2");

  EXPECT_EQ(databaseFromNow(), -650);
  EXPECT_EQ(database.nextExec(2), kMayDay + 250);
}

TEST_F(NextTimeTest, ReadsTheLeadingNumberOfTheText) {
  EXPECT_EQ(getNextTimeToExec(" " + std::to_string(kMayDay + 10) + "abc", 300, "1"), kMayDay + 10);
}

TEST_F(NextTimeTest, ReadsANumberOf64Bits) {
  EXPECT_EQ(getNextTimeToExec("9223372036854775807", 300, "1"), 9223372036854775807LL);
}

TEST_F(NextTimeTest, ThrowsForATextWithoutANumber) {
  for (const char* text : {"abc", ""}) {
    try {
      getNextTimeToExec(text, 300, "1");
      FAIL() << "no exception for '" << text << "'";
    } catch (const std::invalid_argument& e) {
      EXPECT_STREQ(e.what(), "stoll");
    }
  }
  EXPECT_EQ(log(), (std::vector<std::string>{kFirstLine, kFirstLine}));
}

TEST_F(NextTimeTest, ThrowsForANumberBeyond64Bits) {
  EXPECT_THROW(getNextTimeToExec("9223372036854775808", 300, "1"), std::out_of_range);

  EXPECT_EQ(log(), std::vector<std::string>{kFirstLine});
}

TEST_F(NextTimeTest, ThrowsWhenTheStatementFails) {
  insertTask(650, "300 seconds");
  database.query("REVOKE UPDATE (cron_next_exec) ON kodu_cron_plugin FROM kodu");

  EXPECT_THROW(nextTime(650, 300), PostgresqlException);

  EXPECT_EQ(databaseFromNow(), -650);
  EXPECT_EQ(log().back(), "DEBUG#calc time exec: calcule: 650.000000 / 300 = 3");
}

TEST_F(NextTimeTest, ThrowsWhenTheRowIsGone) {
  EXPECT_THROW(nextTime(650, 300), std::logic_error);

  EXPECT_EQ(log().back(), "DEBUG#calc time exec: calcule: 650.000000 / 300 = 3");
}

TEST_F(NextTimeTest, CountsTheMostNegativeNumberForAnIntervalOfZero) {
  insertTask(650, "300 seconds");

  EXPECT_THROW(nextTime(650, 0), PostgresqlException);

  EXPECT_EQ(databaseFromNow(), -650);
  EXPECT_EQ(log().back(), "DEBUG#calc time exec: calcule: 650.000000 / 0 = -2147483648");
}

}  // namespace
