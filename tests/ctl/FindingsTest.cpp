#include "ctl/check/findings.h"

#include <algorithm>
#include <ctime>
#include <limits>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

/// Processor time that so many distinct findings take, the least of five tries.
std::clock_t timeFor(int count) {
  std::clock_t least = std::numeric_limits<std::clock_t>::max();
  for (int attempt = 0; attempt < 5; ++attempt) {
    const std::clock_t begin = std::clock();
    Findings findings;
    for (int task = 0; task < count; ++task) {
      findings.addError("output file of task " + std::to_string(task) + " cannot be written", task);
    }
    least = std::min(least, std::clock() - begin);
    EXPECT_EQ(findings.toJson().size(), 1000U);
  }
  return least;
}

TEST(FindingsTest, JoinsTheTasksOfOneText) {
  Findings findings;
  findings.addWarning("late", 4);
  findings.addError("gone", 5);
  findings.addWarning("late", 7);
  const Json::Value json = findings.toJson();
  ASSERT_EQ(json.size(), 2U);
  EXPECT_EQ(json[0]["text"].asString(), "late");
  EXPECT_EQ(json[0]["tasks"].size(), 2U);
  EXPECT_EQ(json[0]["tasks"][1].asInt(), 7);
  EXPECT_EQ(findings.exitCode(), 2);
}

TEST(FindingsTest, KeepsTheFirstThousandAndCountsTheOthers) {
  Findings findings;
  for (int task = 0; task < 3000; ++task) {
    findings.addWarning("late", task);
    findings.addError("no file " + std::to_string(task), task);
  }
  testing::internal::CaptureStdout();
  findings.print();
  const std::string text = testing::internal::GetCapturedStdout();
  EXPECT_THAT(text,
              testing::HasSubstr("tasks 0, 1, 2, 3, 4, 5, 6, 7, 8, 9 and 2,990 more: late\n"));
  EXPECT_THAT(text, testing::HasSubstr("ERROR    task 998: no file 998\n"));
  EXPECT_THAT(text, testing::Not(testing::HasSubstr("no file 999\n")));
  EXPECT_THAT(text,
              testing::HasSubstr("… and 2,001 more about single tasks\n3000 errors, 1 warning"));
  const Json::Value json = findings.toJson();
  ASSERT_EQ(json.size(), 1000U);
  EXPECT_EQ(json[0]["tasks"].size(), 1000U);
  EXPECT_EQ(json[0]["task_count"].asInt(), 3000);
}

TEST(FindingsTest, TakesTimeInProportionToTheirNumber) {
  // 40 times as many; one by one compared with all before they would take 1600 times as long.
  EXPECT_LT(timeFor(40000), 400 * timeFor(1000));
}

}  // namespace
