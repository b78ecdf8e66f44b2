#include "ctl/import/schedule.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

std::vector<std::string> words(const std::string& text) {
  std::vector<std::string> parts(1);
  for (const char c : text) {
    if (c == ' ') {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  return parts;
}

std::string reasonOf(const std::string& fields) {
  return scheduleOf(words(fields)).reason;
}

TEST(ScheduleTest, TakesTheFormsOfCrontab) {
  for (const char* fields :
       {"* * * * *", "0 3 * * mon-fri", "*/15 9-17/2 1,15 jan,DEC 0", "59 23 31 12 7",
        "*/60 */24 */31 */12 */7", "0 0 29 2 *", "0 0 31 1-3 *", "0 0 30 2 mon", "00 007 01 1 1"}) {
    EXPECT_EQ(scheduleOf(words(fields)).calendar, fields) << reasonOf(fields);
  }
}

TEST(ScheduleTest, SaysWhyAFieldIsNone) {
  EXPECT_EQ(reasonOf("60 * * * *"), "\"60\" is not a minute");
  EXPECT_EQ(reasonOf("0 24 * * *"), "\"24\" is not an hour");
  EXPECT_EQ(reasonOf("0 0 0 * *"), "\"0\" is not a day of the month");
  EXPECT_EQ(reasonOf("0 0 1 13 *"), "\"13\" is not a month");
  EXPECT_EQ(reasonOf("0 0 * * 8"), "\"8\" is not a weekday");
  EXPECT_EQ(reasonOf("0 0 * * monday"), "\"monday\" is not a weekday");
  EXPECT_EQ(reasonOf("0 0 * fri *"), "\"fri\" is not a month");
  EXPECT_EQ(reasonOf("5,,6 * * * *"), "\"\" is not a minute");
  EXPECT_EQ(reasonOf("5- * * * *"), "\"\" is not a minute");
  EXPECT_EQ(reasonOf("-5 * * * *"), "\"\" is not a minute");
  EXPECT_EQ(reasonOf("99999999999 * * * *"), "\"99999999999\" is not a minute");
  EXPECT_EQ(reasonOf("22-5 * * * *"), "\"22-5\" ends before it begins");
  EXPECT_EQ(reasonOf("L * * * *"), "\"L\" is not a minute");
}

TEST(ScheduleTest, RefusesStepsThatProgramsReadDifferently) {
  EXPECT_EQ(reasonOf("7/15 * * * *"),
            "\"7/15\" means different times in different programs; write 7-59/15");
  const std::string reason = " has a step that is not a number, or longer than the field";
  EXPECT_EQ(reasonOf("*/0 * * * *"), "\"*/0\"" + reason);
  EXPECT_EQ(reasonOf("*/90 * * * *"), "\"*/90\"" + reason);
  EXPECT_EQ(reasonOf("*/ * * * *"), "\"*/\"" + reason);
  EXPECT_EQ(reasonOf("*/x * * * *"), "\"*/x\"" + reason);
}

TEST(ScheduleTest, RefusesDatesThatNeverCome) {
  EXPECT_EQ(reasonOf("0 0 30 2 *"), "there is no such date in any year");
  EXPECT_EQ(reasonOf("0 0 31 4,6 *"), "there is no such date in any year");
}

TEST(ScheduleTest, NeedsFiveFieldsOfLimitedLength) {
  EXPECT_EQ(reasonOf("1 2 3"), "a schedule has five fields: minute, hour, day, month, weekday");
  std::string list = "1";
  while (list.size() < 1000) {
    list += ",1";
  }
  EXPECT_EQ(reasonOf(list + " * * * *"),
            "the schedule is longer than the 1000 characters of a calendar");
}

TEST(ScheduleTest, KnowsWords) {
  EXPECT_EQ(scheduleOf(std::string("@weekly")).calendar, "@weekly");
  EXPECT_THAT(scheduleOf(std::string("@reboot")).reason,
              testing::StartsWith("@reboot is not a time"));
  EXPECT_EQ(scheduleOf(std::string("@soon")).reason, "the schedule \"@soon\" is unknown");
}

}  // namespace
