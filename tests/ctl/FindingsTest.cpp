#include "ctl/check/findings.h"

#include <algorithm>
#include <ctime>
#include <limits>
#include <string>

#include <gtest/gtest.h>

namespace {

/// Processor time for `count` distinct findings, the minimum of five tries.
std::clock_t timeFor(int count) {
  std::clock_t least = std::numeric_limits<std::clock_t>::max();
  for (int attempt = 0; attempt < 5; ++attempt) {
    const std::clock_t begin = std::clock();
    Findings findings;
    for (int task = 0; task < count; ++task) {
      findings.addError("output file of task " + std::to_string(task) + " cannot be written", task);
    }
    least = std::min(least, std::clock() - begin);
    EXPECT_EQ(findings.toJson().size(), static_cast<unsigned>(count));
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

TEST(FindingsTest, TakesTimeInProportionToTheFindings) {
  // 40 times as many. Comparing each with all earlier ones would take 1600 times as long.
  EXPECT_LT(timeFor(40000), 400 * timeFor(1000));
}

}  // namespace
