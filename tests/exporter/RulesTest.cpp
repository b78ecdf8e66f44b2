#include <cstdlib>
#include <set>
#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include "tests/support/Files.h"
#include "tests/support/Process.h"

namespace {

using testing::HasSubstr;

const std::string kRules = "ops/metrics/koducron.rules.yaml";

/// What promtool prints with "OK" or "FAILED" in front.
std::string promtool(const std::string& arguments) {
  const TempDir directory;
  const std::string said = directory / "said";
  const std::string command = "promtool " + arguments + " >" + said + " 2>&1";
  const int status = std::system(command.c_str());  // NOLINT(cert-env33-c,concurrency-mt-unsafe)
  return (exitStatusOf(status) == 0 ? "OK\n" : "FAILED\n") + readFile(said);
}

/// The words that follow `key` in a file, one of each line with it.
std::set<std::string> wordsAfter(const std::string& file, const std::string& key) {
  std::set<std::string> words;
  for (const std::string& line : readLines(projectFile(file))) {
    if (const auto found = line.find(key); found != std::string::npos) {
      std::istringstream rest(line.substr(found + key.size()));
      std::string word;
      rest >> word;
      words.insert(word.substr(0, word.find_first_of(",}")));
    }
  }
  return words;
}

TEST(AlertRulesTest, AreValid) {
  EXPECT_THAT(promtool("check rules " + projectFile(kRules)), HasSubstr("SUCCESS: 14 rules found"));
}

TEST(AlertRulesTest, FireForTheirFaultAndForNoOther) {
  const std::string said = promtool("test rules " + projectFile("tests/exporter/rules.test.yaml"));
  EXPECT_THAT(said, testing::StartsWith("OK\n"));
}

TEST(AlertRulesTest, EachHaveATestAndARunbook) {
  const std::set<std::string> alerts = wordsAfter(kRules, "- alert: ");
  EXPECT_EQ(alerts.size(), 14U);
  EXPECT_EQ(wordsAfter("tests/exporter/rules.test.yaml", "alertname: "), alerts);
  std::set<std::string> runbooks;
  for (const std::string& heading : wordsAfter("docs/alerts.md", "### ")) {
    runbooks.insert(heading);
  }
  EXPECT_EQ(runbooks, alerts);
}

}  // namespace
