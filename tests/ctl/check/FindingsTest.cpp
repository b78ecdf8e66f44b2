#include "ctl/check/findings.h"

#include <algorithm>
#include <ctime>
#include <limits>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/outputOf.h"

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

TEST(FindingsTest, HasAnExitCodeForTheGravestFinding) {
  Findings findings;
  EXPECT_EQ(findings.exitCode(), 0);
  findings.addWarning("a");
  EXPECT_EQ(findings.exitCode(), 1);
  findings.addError("b");
  findings.addWarning("c");
  EXPECT_EQ(findings.exitCode(), 2);
}

std::string printed(const Findings& findings) {
  return outputOf([&] { findings.print(); });
}

TEST(FindingsTest, PrintsThatNothingWasFound) {
  EXPECT_EQ(printed(Findings()), "OK       nothing found\n");
}

TEST(FindingsTest, PrintsErrorsFirst) {
  Findings findings;
  findings.addWarning("first");
  findings.addError("second", 7);
  findings.addWarning("third", 8);
  findings.addError("fourth");
  EXPECT_EQ(printed(findings),
            "ERROR    task 7: second\n"
            "ERROR    fourth\n"
            "WARNING  first\n"
            "WARNING  task 8: third\n"
            "2 errors, 2 warnings\n");
}

TEST(FindingsTest, CountsASingleFinding) {
  Findings findings;
  findings.addError("gone", 1);
  EXPECT_EQ(printed(findings), "ERROR    task 1: gone\n1 error, 0 warnings\n");
}

TEST(FindingsTest, NamesTenTasksAndCountsTheOthers) {
  Findings findings;
  for (int task = 1; task <= 10; ++task) {
    findings.addWarning("late", task);
  }
  EXPECT_THAT(printed(findings),
              testing::StartsWith("WARNING  tasks 1, 2, 3, 4, 5, 6, 7, 8, 9, 10: late\n"));
  findings.addWarning("late", 11);
  findings.addWarning("late", 12);
  EXPECT_THAT(
      printed(findings),
      testing::StartsWith("WARNING  tasks 1, 2, 3, 4, 5, 6, 7, 8, 9, 10 and 2 more: late\n"));
  EXPECT_EQ(findings.toJson()[0]["tasks"].size(), 12U) << "JSON names all of them";
}

TEST(FindingsTest, CountsAFindingOfSeveralTasksOnce) {
  Findings findings;
  findings.addError("late", 1);
  findings.addError("late", 2);
  EXPECT_THAT(printed(findings), testing::EndsWith("\n1 error, 0 warnings\n"));
}

TEST(FindingsTest, PrintsEachFindingOnOneLine) {
  Findings findings;
  findings.addError("two\nlines\x1b[31m", 1);
  EXPECT_THAT(printed(findings), testing::StartsWith("ERROR    task 1: two lines?[31m\n"));
}

TEST(FindingsTest, ListsThemInTheOrderOfTheirAdditionAsJson) {
  Findings findings;
  findings.addWarning("first");
  findings.addError("second", 7);
  const Json::Value json = findings.toJson();
  EXPECT_EQ(json[0]["severity"].asString(), "warning");
  EXPECT_EQ(json[0]["text"].asString(), "first");
  EXPECT_TRUE(json[0]["tasks"].isArray());
  EXPECT_EQ(json[0]["tasks"].size(), 0U);
  EXPECT_EQ(json[1]["severity"].asString(), "error");
  EXPECT_TRUE(Findings().toJson().isArray());
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
              testing::HasSubstr("… and 2,001 more about single tasks\n3,000 errors, 1 warning"));
  const Json::Value json = findings.toJson();
  ASSERT_EQ(json.size(), 1000U);
  EXPECT_EQ(json[0]["tasks"].size(), 1000U);
  EXPECT_EQ(json[0]["task_count"].asInt(), 3000);
}

TEST(FindingsTest, TakesTimeInProportionToTheFindings) {
  // 40 times as many. Comparing each with all earlier ones would take 1600 times as long.
  EXPECT_LT(timeFor(40000), 400 * timeFor(1000));
}

}  // namespace
