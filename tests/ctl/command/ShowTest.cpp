#include <string>
#include <vector>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

using Words = std::vector<std::string>;

/// koductl show for a task in each state.
class ShowTest : public CtlTest {
 protected:
  /// A field of task 7: the text after its name.
  std::string field(const std::string& name) const {
    const CtlResult result = run({"show", "7"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    std::istringstream lines(result.out);
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with(name + " ")) {
        return line.substr(10);
      }
    }
    return "no line " + name;
  }
  /// Task 7, whose run was due this number of seconds ago.
  void insertDue(int secondsAgo) const {
    TaskRow row = quietTask(7);
    row.nextExec = "date_trunc('second', now()) - interval '" + std::to_string(secondsAgo) + " s'";
    database.insertTask(row);
  }
};

TEST_F(ShowTest, HasALineForEachField) {
  database.insertTask(quietTask(7));
  std::vector<std::string> names;
  std::istringstream lines(run({"show", "7"}).out);
  for (std::string line; std::getline(lines, line);) {
    names.push_back(line.substr(0, line.find("  ")));
  }
  names.resize(12);
  EXPECT_THAT(names, ElementsAre("task", "plugin", testing::StartsWith("arguments"), "every",
                                 "status", "last due", "next due", "retries", "failures", "failing",
                                 "output", "archive"));
}

TEST_F(ShowTest, ShowsATaskThatHasNotRun) {
  database.insertTask(quietTask(7));
  EXPECT_EQ(field("task"), "7  task7");
  EXPECT_EQ(field("every"), "5m");
  EXPECT_EQ(field("status"), "not run yet");
  EXPECT_EQ(field("last due"), "never");
  EXPECT_THAT(field("next due"), MatchesRegex("....-..-.. ..:..:.. UTC"));
  EXPECT_EQ(field("retries"), "0 of 0 used, 2s apart");
  EXPECT_EQ(field("failures"), "0 in the last hour, 0 in the last day");
  EXPECT_EQ(field("failing"), "no");
  EXPECT_EQ(field("archive"), daemon.outputDirectory() + "/archive/7/");
}

TEST_F(ShowTest, SeparatesArguments) {
  TaskRow row = quietTask(7);
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", "none"},
      {"   ", "none"},
      {"-w 80", "[-w] [80]"},
      {"-m \"two words\"", "[-m] [two words]"},
      {"a 'b c'd", "[a] [b cd]"}};
  database.insertTask(row);
  for (const auto& [parameter, shown] : cases) {
    std::string quoted = parameter;
    for (std::size_t at = 0; (at = quoted.find('\'', at)) != std::string::npos; at += 2) {
      quoted.insert(at, 1, '\'');
    }
    database.query("UPDATE kodu_cron_plugin SET cron_parameter = '" + quoted + "'");
    EXPECT_EQ(field("arguments"), shown) << parameter;
  }
}

TEST_F(ShowTest, ShowsALateTask) {
  insertDue(100);
  EXPECT_THAT(field("next due"), MatchesRegex("....-..-.. ..:..:.. UTC \\(1m 4[0-9]s late\\)"));
}

TEST_F(ShowTest, ShowsAFailingTask) {
  database.insertTask(quietTask(7));
  addFailure(7, 60, "a", "");
  addFailure(7, 7200, "b", "");
  database.query(
      "UPDATE kodu_cron_plugin SET cron_status = 'FAILED', cron_last_exec ="
      " date_trunc('second', now()) - interval '60 s'");
  EXPECT_EQ(field("status"), "FAILED");
  EXPECT_EQ(field("failures"), "1 in the last hour, 2 in the last day");
  EXPECT_THAT(field("failing"), MatchesRegex("since ....-..-.. ..:..:.. UTC"));
  EXPECT_THAT(field("last due"), MatchesRegex("....-..-.. ..:..:.. UTC"));
}

TEST_F(ShowTest, ShowsAPause) {
  database.insertTask(quietTask(7));
  ASSERT_EQ(runAsAdmin({"pause", "7", "--reason", "new\ndisks"}).exitCode, 0);
  EXPECT_THAT(field("status"), MatchesRegex("not run yet \\(paused since .* UTC \\([0-9]s ago\\) "
                                            "by " +
                                            admin() + ": new disks\\)"))
      << "the reason has one line";
}

TEST_F(ShowTest, ShowsATaskToBeDeleted) {
  database.insertTask(quietTask(7));
  database.query("UPDATE kodu_cron_plugin SET cron_delete = true");
  EXPECT_EQ(field("status"), "not run yet (to be deleted)");
}

TEST_F(ShowTest, ShowsTheTimeAfterTheRunInProgress) {
  insertDue(5);
  setStatus(7, "PROCESS");
  ASSERT_EQ(runAsAdmin({"set", "7", "--next", "2030-01-01"}).exitCode, 0);
  EXPECT_THAT(field("next due"), testing::EndsWith(", and then 2030-01-01 00:00:00 UTC"));
}

TEST_F(ShowTest, ShowsTheDefaultsOfRetries) {
  TaskRow row = quietTask(7);
  row.retries = row.retriesInterval = "NULL";
  database.insertTask(row);
  EXPECT_EQ(field("retries"), "0 of 1 used, 2m apart");
}

TEST_F(ShowTest, PrintsNoControlCharacters) {
  TaskRow row = quietTask(7);
  row.name = "a\x1b[2Jb\nc";
  row.parameter = "x\x07";
  database.insertTask(row);
  EXPECT_EQ(field("task"), "7  a?[2Jb c");
  EXPECT_EQ(field("arguments"), "[x?]");
}

TEST_F(ShowTest, PrintsAListOfArgumentsAsJson) {
  database.insertTask(quietTask(7));
  const Json::Value json = parsed(run({"show", "7", "--json"}).out);
  EXPECT_TRUE(json["arguments"].isArray());
  EXPECT_EQ(json["arguments"].size(), 0U);
  EXPECT_EQ(json["id"].asInt(), 7);
  EXPECT_TRUE(json["status"].isNull());
}

TEST_F(ShowTest, ReportsAnUnknownTaskWithoutOutput) {
  for (const Words& command :
       {Words{"show", "8"}, {"show", "8", "--json"}, {"show", "2147483647"}}) {
    const CtlResult result = run(command);
    EXPECT_EQ(result.exitCode, 66) << testing::PrintToString(command);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "koductl: there is no task " + command[1] + "; koductl status lists them\n");
  }
}

TEST_F(ShowTest, RefusesAWrongId) {
  for (const char* id : {"-1", "2147483648", "1.5", "seven", "", "7x"}) {
    const CtlResult result = run({"show", id});
    EXPECT_EQ(result.exitCode, 64) << id << result.out;
    EXPECT_THAT(result.err, HasSubstr("koductl show --help")) << id;
  }
}

TEST_F(ShowTest, ReportsMissingTables) {
  database.query("SET client_min_messages = warning; DROP TABLE kodu_cron_plugin CASCADE");
  const CtlResult result = run({"show", "7"});
  EXPECT_EQ(result.exitCode, 65);
  EXPECT_THAT(result.err, HasSubstr("does not exist"));
}

}  // namespace
