#include <cstdlib>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/Database.h"
#include "tests/support/Files.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;

/// sql/calendar.sql in a session whose own zone has other changes of the clock than the zones of
/// the tests. lab/calendar compares far more cases with a walk of its own.
class CalendarTest : public testing::Test {
 protected:
  void SetUp() override {
    load();
    database.query("SET timezone = 'America/New_York'; SET statement_timeout = '20s'");
  }
  void load() const { database.query(readFile(projectFile("sql/calendar.sql"))); }

  static std::string literal(const std::string& text) { return "$text$" + text + "$text$"; }

  /// The moment after `after` by UTC's clock, or the zone's if that is given; "" for none.
  std::string next(const std::string& expression, const std::string& after,
                   const std::string& zone = "UTC") const {
    return database.value("SELECT to_char(kodu_calendar_next(" + literal(expression) + ", '" +
                          zone + "', '" + after + "') AT TIME ZONE 'UTC', 'YYYY-MM-DD HH24:MI')");
  }
  /// The numbers of a calendar, as they are stored.
  std::string parsed(const std::string& expression) const {
    return database.value("SELECT kodu_calendar_parse(" + literal(expression) + ")");
  }

  /// What the server says to `sql`; "" when it takes it.
  std::string refusalOf(const std::string& sql) const {
    try {
      database.query(sql);
    } catch (const std::runtime_error& e) {
      return e.what();
    }
    return "";
  }
  /// The refusal has `message`, which begins with the position, and a hint that has `hint`.
  void expectRefused(const std::string& expression, const std::string& message,
                     const std::string& hint) const {
    EXPECT_THAT(refusalOf("SELECT kodu_calendar_parse(" + literal(expression) + ")"),
                AllOf(HasSubstr(": ERROR:  the calendar is invalid at character " + message + "\n"),
                      HasSubstr("\nHINT:  "), HasSubstr(hint)))
        << expression;
  }
  std::string codeOf(const std::string& call) const {
    database.query(
        "CREATE OR REPLACE FUNCTION pg_temp.code() RETURNS text LANGUAGE plpgsql AS "
        "$code$ BEGIN PERFORM " +
        call +
        "; RETURN ''; EXCEPTION WHEN OTHERS THEN "
        "RETURN SQLSTATE; END $code$");
    return database.value("SELECT pg_temp.code()");
  }

  Database database;
};

TEST_F(CalendarTest, FindsTheNextMinuteOfFiveFields) {
  EXPECT_EQ(next("* * * * *", "2026-03-04 10:11:12+00"), "2026-03-04 10:12");
  EXPECT_EQ(next("0 3 * * mon-fri", "2026-11-20 03:00+00"), "2026-11-23 03:00");
  EXPECT_EQ(next("59 23 31 12 *", "2026-12-31 23:58+00"), "2026-12-31 23:59");
  EXPECT_EQ(next("0 12 * jun *", "2026-07-01 00:00+00"), "2027-06-01 12:00");
}

TEST_F(CalendarTest, ReturnsAMomentStrictlyAfterTheGivenOne) {
  EXPECT_EQ(next("30 10 * * *", "2026-03-04 10:29:59.999999+00"), "2026-03-04 10:30");
  EXPECT_EQ(next("30 10 * * *", "2026-03-04 10:30:00+00"), "2026-03-05 10:30");
  EXPECT_EQ(next("30 10 * * *", "2026-03-04 10:30:00.000001+00"), "2026-03-05 10:30");
}

TEST_F(CalendarTest, TakesListsRangesAndSteps) {
  EXPECT_EQ(parsed("*/20 * * * *"), parsed("0,20,40 * * * *"));
  EXPECT_EQ(parsed("10-40/10 * * * *"), parsed("10,20,30,40 * * * *"));
  EXPECT_EQ(parsed("7/15 * * * *"), parsed("7,22,37,52 * * * *"));
  EXPECT_EQ(parsed("0 6-8,22 * * *"), parsed("0 22,8,7,6 * * *"));
  EXPECT_EQ(parsed("0 0 20/5 * *"), parsed("0 0 20,25,30 * *"));
  EXPECT_EQ(parsed("0 0 1 10/1 *"), parsed("0 0 1 10-12 *"));
  EXPECT_EQ(parsed("*/60 * * * *"), "{1,16777215,4294967294,8190,127,0}");
}

TEST_F(CalendarTest, TakesNamesInAnyCase) {
  EXPECT_EQ(parsed("0 0 * JAN-mar Mon,FRI"), parsed("0 0 * 1-3 1,5"));
  EXPECT_EQ(parsed("0 0 * jan,feb,mar,apr,may,jun,jul,aug,sep,oct,nov,dec *"),
            parsed("0 0 * 1-12 *"));
  EXPECT_EQ(parsed("0 0 * * sun,mon,tue,wed,thu,fri,sat"), parsed("0 0 * * 0-6"));
}

TEST_F(CalendarTest, TakesBlanksAndTabs) {
  EXPECT_EQ(parsed("  0\t3  * * \t1 "), parsed("0 3 * * 1"));
}

TEST_F(CalendarTest, HasSundayAtBothEndsOfTheWeek) {
  EXPECT_EQ(parsed("0 0 * * 0"), parsed("0 0 * * 7"));
  EXPECT_EQ(parsed("0 0 * * sat-sun"), parsed("0 0 * * 0,6"));
  EXPECT_EQ(parsed("0 0 * * 6-7"), parsed("0 0 * * 0,6"));
  EXPECT_EQ(parsed("0 0 * * 5/1"), parsed("0 0 * * 5,6,0"));
  EXPECT_EQ(parsed("0 0 * * sun-sun"), parsed("0 0 * * 0"));
}

TEST_F(CalendarTest, FindsTheLastDayOfEachMonth) {
  EXPECT_EQ(next("0 0 L * *", "2028-01-31 00:00+00"), "2028-02-29 00:00");
  EXPECT_EQ(next("0 0 l * *", "2026-02-01 00:00+00"), "2026-02-28 00:00");
  EXPECT_EQ(next("0 0 L * *", "2026-03-31 00:00+00"), "2026-04-30 00:00");
}

TEST_F(CalendarTest, FindsTheNthAndTheLastWeekdayOfAMonth) {
  EXPECT_EQ(next("0 0 * * fri#2", "2026-05-01 00:00+00"), "2026-05-08 00:00");
  EXPECT_EQ(next("0 0 * * 5#5", "2026-02-01 00:00+00"), "2026-05-29 00:00");
  EXPECT_EQ(next("0 0 * * 5L", "2026-02-01 00:00+00"), "2026-02-27 00:00");
  EXPECT_EQ(next("0 0 * * friL", "2026-05-01 00:00+00"), "2026-05-29 00:00");
  EXPECT_EQ(next("0 0 * * 7L", "2026-05-01 00:00+00"), "2026-05-31 00:00");
  EXPECT_EQ(parsed("0 0 * * 7#1"), parsed("0 0 * * SUN#1"));
}

TEST_F(CalendarTest, TakesAMatchingDayOrWeekdayIfNeitherBeginsWithAStar) {
  EXPECT_EQ(next("0 0 13 * fri", "2026-02-01 00:00+00"), "2026-02-06 00:00");
  EXPECT_EQ(next("0 0 13 * fri", "2026-04-10 00:00+00"), "2026-04-13 00:00");
  EXPECT_EQ(next("0 0 */12 * fri", "2026-02-01 00:00+00"), "2026-02-13 00:00");
  EXPECT_EQ(next("0 0 13 * */5", "2026-02-01 00:00+00"), "2026-02-13 00:00");
}

TEST_F(CalendarTest, KnowsTheShorthands) {
  EXPECT_EQ(parsed("@hourly"), parsed("0 * * * *"));
  EXPECT_EQ(parsed("@Daily"), parsed("0 0 * * *"));
  EXPECT_EQ(parsed("@midnight"), parsed("0 0 * * *"));
  EXPECT_EQ(parsed("@weekly"), parsed("0 0 * * 0"));
  EXPECT_EQ(parsed("@monthly"), parsed("0 0 1 * *"));
  EXPECT_EQ(parsed("@yearly"), parsed("0 0 1 1 *"));
  EXPECT_EQ(parsed("@annually"), parsed("0 0 1 1 *"));
}

TEST_F(CalendarTest, JoinsExpressions) {
  EXPECT_EQ(next("0 3 * * *; @hourly ;30 2 * * *", "2026-03-04 02:10+00"), "2026-03-04 02:30");
  EXPECT_EQ(next("0 3 * * *; @hourly ;30 2 * * *", "2026-03-04 03:10+00"), "2026-03-04 04:00");
  EXPECT_EQ(next("0 0 31 2 *; 0 0 1 1 *", "2026-03-04 00:00+00"), "2027-01-01 00:00");
}

TEST_F(CalendarTest, RunsASkippedTimeOfTheWallClockAtTheEndOfTheGap) {
  EXPECT_EQ(next("30 2 * * *", "2026-03-28 12:00+00", "Europe/Paris"), "2026-03-29 01:00");
  EXPECT_EQ(next("30 2 * * *", "2026-03-29 01:00+00", "Europe/Paris"), "2026-03-30 00:30");
  EXPECT_EQ(next("30 2 * * *", "2026-03-29 00:59:59.999999+00", "Europe/Paris"),
            "2026-03-29 01:00");
  EXPECT_EQ(next("15 2 * * *", "2026-10-03 12:00+00", "Australia/Lord_Howe"), "2026-10-03 15:30");
  // Friday 30 December 2011 did not happen in Samoa.
  EXPECT_EQ(next("0 9 30 12 *", "2011-12-01 00:00+00", "Pacific/Apia"), "2011-12-30 10:00");
}

TEST_F(CalendarTest, RunsADoubledTimeOfTheWallClockTheFirstTimeOnly) {
  EXPECT_EQ(next("30 2 * * *", "2026-10-24 12:00+00", "Europe/Paris"), "2026-10-25 00:30");
  EXPECT_EQ(next("30 2 * * *", "2026-10-25 00:30+00", "Europe/Paris"), "2026-10-26 01:30");
  EXPECT_EQ(next("0,30 2-3 * * *", "2026-10-25 00:45+00", "Europe/Paris"), "2026-10-25 02:00");
}

TEST_F(CalendarTest, RunsOtherExpressionsInEachRealMinute) {
  EXPECT_EQ(next("*/30 2 * * *", "2026-03-28 01:30+00", "Europe/Paris"), "2026-03-30 00:00");
  EXPECT_EQ(next("*/30 2 * * *", "2026-10-25 00:30+00", "Europe/Paris"), "2026-10-25 01:00");
  EXPECT_EQ(next("30 * * * *", "2026-10-25 00:30+00", "Europe/Paris"), "2026-10-25 01:30");
}

TEST_F(CalendarTest, GivesEachExpressionOfAUnionItsOwnRule) {
  const std::string both = "30 2 * * *; */40 2 * * *";
  EXPECT_EQ(next(both, "2026-10-25 00:40+00", "Europe/Paris"), "2026-10-25 01:00");
  EXPECT_EQ(next(both, "2026-10-25 01:00+00", "Europe/Paris"), "2026-10-25 01:40");
}

TEST_F(CalendarTest, LooksEightYearsAhead) {
  EXPECT_EQ(next("0 0 29 2 *", "2096-02-29 00:00+00"), "2104-02-29 00:00");
  EXPECT_EQ(next("0 0 29 2 *", "2096-02-29 00:00-05", "America/New_York"), "2104-02-29 05:00");
  EXPECT_EQ(next("0 0 31 2 *", "2026-01-01 00:00+00"), "");
  EXPECT_EQ(next("* * 30 feb *", "2026-01-01 00:00+00", "Europe/Paris"), "");
  // A 29 February that is a Saturday or a Sunday comes in 2032 and in 2048.
  EXPECT_EQ(next("0 0 29 2 */6", "2032-02-29 00:00+00"), "");
  EXPECT_EQ(next("0 0 29 2 */6", "2040-02-28 23:59+00"), "");
  EXPECT_EQ(next("0 0 29 2 */6", "2040-02-29 00:00+00"), "2048-02-29 00:00");
}

TEST_F(CalendarTest, HasNoNextTimeAtTheEndsOfTime) {
  EXPECT_EQ(next("* * * * *", "infinity"), "");
  EXPECT_EQ(next("0 0 * * *", "-infinity"), "");
  EXPECT_EQ(next("* * * * *", "294276-12-31 23:59:59.999999+00"), "");
  EXPECT_EQ(next("* * * * *", "4714-11-24 00:00+00 BC"), "");
  EXPECT_EQ(next("0 0 1 1 *", "9999-12-01 00:00+00"), "10000-01-01 00:00");
  EXPECT_EQ(next("0 0 1 1 *", "0001-01-02 00:00+00"), "0002-01-01 00:00");
}

TEST_F(CalendarTest, ReturnsNullForNull) {
  EXPECT_EQ(database.value("SELECT kodu_calendar_next(NULL, 'UTC', now()) IS NULL AND "
                           "kodu_calendar_next('@daily', NULL, now()) IS NULL AND "
                           "kodu_calendar_next('@daily', 'UTC', NULL) IS NULL AND "
                           "kodu_calendar_parse(NULL) IS NULL"),
            "t");
}

TEST_F(CalendarTest, DoesNotDependOnTheSession) {
  database.query(
      "SET datestyle = 'SQL, DMY'; SET intervalstyle = 'sql_standard';"
      "SET timezone = 'Pacific/Apia'");
  EXPECT_EQ(next("30 2 * * *", "2026-10-24 12:00+00", "Europe/Paris"), "2026-10-25 00:30");
  EXPECT_EQ(next("*/5 0 29 2 *", "2026-10-24 12:00+00", "Europe/Paris"), "2028-02-28 23:00");
  database.query("SET standard_conforming_strings = off; SET escape_string_warning = off");
  EXPECT_EQ(next("*/5 1-5 29 2 *", "2026-10-24 12:00+00", "Europe/Paris"), "2028-02-29 00:00");
  expectRefused("* 1- * * *", "5: a value is missing", "An hour is");
  database.query("RESET standard_conforming_strings");
  database.query("SET search_path = pg_temp; CREATE TEMP TABLE pg_timezone_abbrevs (abbrev text)");
  EXPECT_EQ(
      database.value("SELECT public.kodu_calendar_next('@daily', 'Japan', '2026-01-01 00:00+00')"
                     " = '2026-01-01 15:00+00'"),
      "t");
}

TEST_F(CalendarTest, RefusesAWrongNumberOfFields) {
  const std::string fields = "Write minute, hour, day of the month, month and weekday";
  expectRefused("", "1: an expression is missing", fields);
  expectRefused("   ", "4: an expression is missing", fields);
  expectRefused("0 0 * * *;", "11: an expression is missing", fields);
  expectRefused(";0 0 * * *", "1: an expression is missing", fields);
  expectRefused("* * * *", "8: there are only 4 of five fields", fields);
  expectRefused("0 0 1 1 * ; 0 0 1 1", "20: there are only 4 of five fields", fields);
  expectRefused("0 0 * * * 2026", "11: there are more than five fields", "A \";\" joins");
  expectRefused("0 0 * * * # nightly", "11: there are more than five fields", "A \";\" joins");
}

TEST_F(CalendarTest, RefusesValuesThatAFieldDoesNotHave) {
  expectRefused("60 * * * *", "1: \"60\" is not a minute", "from 0 to 59");
  expectRefused("* 24 * * *", "3: \"24\" is not an hour", "from 0 to 23");
  expectRefused("* * 0 * *", "5: \"0\" is not a day of the month", "from 1 to 31");
  expectRefused("* * 3,32 * *", "7: \"32\" is not a day of the month", "from 1 to 31");
  expectRefused("* * * 0 *", "7: \"0\" is not a month", "from jan to dec");
  expectRefused("* * * 13 *", "7: \"13\" is not a month", "from jan to dec");
  expectRefused("* * * * 1-8", "11: \"8\" is not a weekday", "from sun to sat");
  expectRefused("* * * Janu *", "7: \"janu\" is not a month", "from jan to dec");
  expectRefused("mon * * * *", "1: \"mon\" is not a minute", "from 0 to 59");
  expectRefused("* * * * jan", "9: \"jan\" is not a weekday", "from sun to sat");
  expectRefused("99999999999999999999999 * * * *", "1: \"99999999999999999999...\" is not a minute",
                "from 0 to 59");
}

TEST_F(CalendarTest, RefusesBrokenItems) {
  expectRefused("1, * * * *", "3: a value is missing", "A minute is");
  expectRefused(",1 * * * *", "1: a value is missing", "A minute is");
  expectRefused("* 1,,2 * * *", "5: a value is missing", "An hour is");
  expectRefused("* 1- * * *", "5: a value is missing", "An hour is");
  expectRefused("* */ * * *", "5: a value is missing", "An hour is");
  expectRefused("-1 * * * *", "1: unexpected \"-\"", "A minute is");
  expectRefused("*-5 * * * *", "2: unexpected \"-\"", "A minute is");
  expectRefused("1-2-3 * * * *", "4: unexpected \"-\"", "A minute is");
  expectRefused("1/2/3 * * * *", "4: unexpected \"/\"", "A minute is");
  expectRefused("1.5 * * * *", "2: unexpected \".\"", "A minute is");
  expectRefused("+5 * * * *", "1: unexpected \"+\"", "A minute is");
}

TEST_F(CalendarTest, RefusesRangesAndStepsThatMeanNothing) {
  expectRefused("5-1 * * * *", "1: \"5-1\" ends before it begins", "22-23,0-5");
  expectRefused("0 0 * * fri-mon", "9: \"fri-mon\" ends before it begins", "two ranges");
  expectRefused("*/0 * * * *", "3: \"0\" is not a step of this field", "from 1 to 60");
  expectRefused("1-5/0 * * * *", "5: \"0\" is not a step of this field", "from 1 to 60");
  expectRefused("*/90 * * * *", "3: \"90\" is not a step of this field", "Every hour begins");
  expectRefused("0 */25 * * *", "5: \"25\" is not a step of this field", "from 1 to 24");
  expectRefused("0 0 */99999999999 * *", "7: \"99999999999\" is not a step of this field",
                "from 1 to 31");
}

TEST_F(CalendarTest, RefusesLastAndNthInOtherPlaces) {
  expectRefused("L * * * *", "1: \"l\" is not a minute", "A minute is");
  expectRefused("* * L-1 * *", "5: \"l\" is not a day of the month", "L for the last day");
  expectRefused("* * 15W * *", "7: unexpected \"w\"", "L for the last day");
  expectRefused("* * ? * *", "5: unexpected \"?\"", "L for the last day");
  expectRefused("* * 5L * *", "6: unexpected \"l\"", "L for the last day");
  expectRefused("* * * * L", "9: \"l\" is not a weekday", "5L is the last Friday");
  expectRefused("* * * * 5LL", "10: unexpected \"l\"", "5L is the last Friday");
  expectRefused("* * * * xyzL", "9: \"xyz\" is not a weekday", "5L is the last Friday");
  expectRefused("* * * * 8#1", "9: \"8\" is not a weekday", "fri#2 the second");
  expectRefused("* * * * fri#6", "13: \"6\" is not a number from 1 to 5", "fri#1 to fri#5");
  expectRefused("* * * * fri#0", "13: \"0\" is not a number from 1 to 5", "fri#1 to fri#5");
  expectRefused("* * * * fri#", "13: a value is missing", "fri#2 the second");
  expectRefused("* * * * #2", "9: unexpected \"#\"", "fri#2 the second");
  expectRefused("* * * * fri#2#3", "14: unexpected \"#\"", "fri#2 the second");
}

TEST_F(CalendarTest, RefusesOtherShorthands) {
  expectRefused("@reboot", "1: @reboot is not a time", "A calendar says when a task is due");
  expectRefused("@daily;  @Reboot", "10: @reboot is not a time", "A calendar says");
  expectRefused("@daily 5", "1: \"@daily 5\" is unknown", "Use @hourly");
  expectRefused("@every", "1: \"@every\" is unknown", "Use @hourly");
  expectRefused("0 0 @daily * *", "5: unexpected \"@\"", "A day of the month is");
}

TEST_F(CalendarTest, RefusesOtherCharactersWithoutShowingThem) {
  expectRefused("0\n0 * * *", "2: unexpected character U+000A", "A minute is");
  expectRefused("0 0 * * *\r", "10: unexpected character U+000D", "A weekday is");
  expectRefused("0 0 * * \x1b[31m", "9: unexpected character U+001B", "A weekday is");
  expectRefused("\u0663 * * * *", "1: unexpected character U+0663", "A minute is");
  expectRefused("0 \u00c9\u00c9 * * *", "3: unexpected character U+00C9", "An hour is");
}

TEST_F(CalendarTest, RefusesLongTextsAtOnce) {
  database.query("SET statement_timeout = '1s'");
  expectRefused(std::string(1'000'000, '*'), "1001: the text is too long", "1000 characters");
  expectRefused(std::string(1'000'000, ','), "1001: the text is too long", "1000 characters");
  std::string list = "1";
  while (list.size() < 990) {
    list += ",1";
  }
  EXPECT_EQ(parsed(list + " * * * *"), parsed("1 * * * *"));
}

TEST_F(CalendarTest, AnswersTheLongestCalendarsInTime) {
  database.query("SET statement_timeout = '1s'");
  std::string calendar = "*/9 2 * 3 7L";
  while (calendar.size() + 13 <= 1000) {
    calendar += ";*/9 2 * 3 7L";
  }
  EXPECT_EQ(next(calendar, "2026-01-01 00:00+00", "Europe/Paris"), "");
}

TEST_F(CalendarTest, AnswersInMicroseconds) {
  // The mean of 200 times in the fastest of ten rounds, since other tests run at the same time.
  const auto microseconds = [&](const std::string& expression) {
    database.query(
        "CREATE OR REPLACE FUNCTION pg_temp.speed(expression text) RETURNS numeric "
        "LANGUAGE plpgsql AS $speed$ DECLARE"
        " calendar bigint[] := kodu_calendar_parse(expression); begun timestamptz; best numeric;"
        " BEGIN FOR round IN 1..10 LOOP begun := clock_timestamp(); FOR i IN 1..200 LOOP"
        " PERFORM kodu_calendar_next_parsed(calendar, 'Europe/Paris', now() + i * '467 "
        "min'::interval);"
        " END LOOP; best := least(best, EXTRACT(EPOCH FROM clock_timestamp() - begun) * 5000);"
        " END LOOP; RETURN best; END $speed$");
    return std::stod(database.value("SELECT pg_temp.speed(" + literal(expression) + ")"));
  };
  for (const std::string everyday : {"*/5 * * * *", "0 3 * * mon-fri", "30 6 * * fri#2"}) {
    EXPECT_LT(microseconds(everyday), 50) << everyday;
  }
  for (const std::string rare : {"0 0 29 2 *", "*/5 0 29 2 *", "0 0 31 2 *", "0 0 29 2 */6"}) {
    EXPECT_LT(microseconds(rare), 5000) << rare;
  }
}

TEST_F(CalendarTest, EndsWithArraysThatNoTextHas) {
  database.query("SET statement_timeout = '1s'");
  for (const std::string array :
       {"{}", "{0}", "{0,0,0,0,0,0}", "{0,0,0,0,0,1}", "{-1,-1,-1,-1,-1,-1}",
        "{NULL,NULL,NULL,NULL,NULL,NULL}", "{1,0,-1,-1,-1,0}", "{0,1,-1,-1,-1,0}",
        "{1,1,-1,-1,9223372036854775807,3}"}) {
    EXPECT_EQ(refusalOf("SELECT kodu_calendar_next_parsed('" + array + "', 'Europe/Paris', now())"),
              "")
        << array;
  }
}

TEST_F(CalendarTest, RefusesWhatIsNotTheNameOfAZone) {
  for (const std::string zone : {"Europe/Pariss", "CET", "cet", "EST", "PDT", "Europe/Paris3",
                                 "UTC+3", "<a>5", "+05", "05:00", "", " UTC", "../UTC", "right/UTC",
                                 "Etc/GMT+13", "Etc/GMT-15", "EST8EDT", "Europe/Paris\n"}) {
    EXPECT_THAT(refusalOf("SELECT kodu_calendar_next('@daily', '" + zone + "', now())"),
                AllOf(HasSubstr("is not the name of a time zone"), HasSubstr("HINT:  Use a name")))
        << zone;
  }
  EXPECT_THAT(refusalOf("SELECT kodu_calendar_next('@daily', repeat('x', 1000000), now())"),
              HasSubstr("ERROR:  \"xxxxxxxxxxxxxxxxxxxx...\" is not the name of a time zone"));
}

TEST_F(CalendarTest, TakesTheServersOtherZones) {
  EXPECT_EQ(database.value("SELECT string_agg(name, ' ' ORDER BY name) FROM pg_timezone_names "
                           "WHERE name NOT IN ('CET', 'EET', 'EST', 'HST', 'MET', 'MST', 'WET') "
                           "AND kodu_calendar_zone(name) <> name"),
            "");
}

TEST_F(CalendarTest, RefusesWithTheCodeOfAnInvalidParameter) {
  EXPECT_EQ(codeOf("kodu_calendar_parse('60 * * * *')"), "22023");
  EXPECT_EQ(codeOf("kodu_calendar_parse('* * * *')"), "22023");
  EXPECT_EQ(codeOf("kodu_calendar_next('@daily', 'Mars/Base', now())"), "22023");
  EXPECT_EQ(codeOf("kodu_calendar_next_parsed('{1,1,2,2,1,1}', 'Mars/Base', now())"), "22023");
}

TEST_F(CalendarTest, CountsTheTimesThatAWalkFinds) {
  // Days with and without a change of the clock, whole and in part; unions whose times coincide.
  const std::string disagreement = database.value(R"(
    WITH RECURSIVE cases AS (
        SELECT row_number() OVER () AS id, kodu_calendar_parse(text) AS calendar, text, zone,
               start, start + length AS stop
        FROM unnest(ARRAY['*/7 * * * *', '30 2 * * *', '0,15,30,59 2,3 * * *', '*/10 2 * * *',
                          '0 9 * * mon-fri; 0 11 * * sat,sun; */30 * 1 * *', '0 0 L * *',
                          '0 12 * * fri#2; 30 2 * * *; 0 3 * * *', '15 1,2 * 3,10,11 5L'])
                 AS texts (text),
             unnest(ARRAY['UTC', 'Europe/Paris', 'Australia/Lord_Howe']) AS zone,
             unnest(ARRAY['2026-03-28 23:30', '2026-03-29 01:00', '2026-10-25 00:17',
                          '2026-10-25 01:00', '2026-10-25 02:00', '2026-04-04 15:00',
                          '2026-10-03 15:30', '2026-05-01 12:00:30']) AS begins,
             LATERAL (SELECT (begins || ' UTC')::timestamptz AS start) AS moment,
             unnest(ARRAY['40 minutes', '3 hours', '2 days 1 hour']::interval[]) AS length
    ), walk AS (
        SELECT id, kodu_calendar_next_parsed(calendar, zone, start - interval '1 microsecond') AS at
        FROM cases
        UNION ALL
        SELECT id, kodu_calendar_next_parsed(calendar, zone, at)
        FROM walk JOIN cases USING (id) WHERE at < stop
    )
    SELECT format('%s in %s from %s to %s', text, zone, start, stop) FROM cases
    WHERE kodu_calendar_count(calendar, zone, start, stop)
          <> (SELECT count(*) FROM walk WHERE walk.id = cases.id AND at < stop) LIMIT 1)");
  EXPECT_EQ(disagreement, "");
}

TEST_F(CalendarTest, CountsTheTimesOfAYearWithoutAWalk) {
  EXPECT_EQ(database.value("SELECT kodu_calendar_count(kodu_calendar_parse('* * * * *'), "
                           "'Europe/Paris', '2026-01-01', '2027-01-01')"),
            std::to_string(365 * 1440));
  EXPECT_EQ(database.value("SELECT kodu_calendar_count(kodu_calendar_parse('0 2 * * *'), "
                           "'Europe/Paris', '2027-01-01', '2026-01-01')"),
            "0");
}

TEST_F(CalendarTest, IsForTheTwoRolesOnlyAndMayBeLoadedAgain) {
  database.query(readFile(projectFile("sql/functions.sql")));
  load();
  load();
  database.query("DROP ROLE IF EXISTS calendar_stranger; CREATE ROLE calendar_stranger");
  const std::string rights =
      "SELECT string_agg(DISTINCT has_function_privilege(role, pg_proc.oid, 'EXECUTE')::text, ' ') "
      "FROM pg_proc, unnest(ARRAY[{}]) AS role WHERE proname LIKE 'kodu\\_calendar%'";
  const auto rightsOf = [&](const std::string& roles) {
    return database.value(std::string(rights).replace(rights.find("{}"), 2, roles));
  };
  EXPECT_EQ(rightsOf("'kodu', 'kodu_admin'"), "true");
  EXPECT_EQ(rightsOf("'calendar_stranger'"), "false");
  database.query("DROP ROLE calendar_stranger");
}

TEST_F(CalendarTest, AgreesWithAWalkThroughEachMinute) {
  const std::string command = "cd " + projectFile("") +
                              " && python3 -m lab.calendar.compare --short " + "--seed 1 " +
                              std::getenv("KODU_TEST_CLUSTER") + " " + database.name();
  EXPECT_EQ(std::system(command.c_str()), 0);
}

}  // namespace
