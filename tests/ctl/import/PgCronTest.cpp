#include "ctl/import/pgCron.h"

#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/declared/sources.h"
#include "ctl/import/import.h"
#include "task/serviceSafe.h"

namespace {

using testing::HasSubstr;

constexpr const char* kHeader =
    "jobid,schedule,command,nodename,nodeport,database,username,active,jobname\n";

/// The import of rows of cron.job, and its report.
class PgCronTest : public testing::Test {
 protected:
  const std::vector<ImportedTask>& import(const std::string& content) {
    testing::internal::CaptureStderr();
    result = Import();
    importPgCron({"jobs", content}, "UTC", "pg_cron", result);
    result.printReport();
    report = testing::internal::GetCapturedStderr();
    return result.tasks();
  }
  /// The task of one job with this schedule and statement.
  Definition taskOf(const std::string& schedule, const std::string& statement = "SELECT 1") {
    const auto& tasks =
        import(kHeader + ("1," + schedule + "," + statement) + ",localhost,5432,app,bob,t,\n");
    return tasks.size() == 1 ? tasks[0].definition : Definition{};
  }

  Import result;
  std::string report;
};

TEST_F(PgCronTest, MakesATaskOfARow) {
  const auto& tasks =
      import(std::string(kHeader) + "7,0 3 * * *,VACUUM events,localhost,5432,app,bob,t,nightly\n");
  ASSERT_EQ(tasks.size(), 1U);
  EXPECT_EQ(tasks[0].key, "pg_cron/nightly");
  EXPECT_EQ(tasks[0].definition,
            (Definition{{"plugin", "/usr/bin/psql"},
                        {"name", "nightly"},
                        {"at", "0 3 * * *"},
                        {"zone", "UTC"},
                        {"retries", "0"},
                        {"arguments",
                         "-X -v ON_ERROR_STOP=1 -h localhost -p 5432 -U bob -d app -c \"VACUUM "
                         "events\""}}));
  EXPECT_THAT(report, HasSubstr("jobs: /usr/bin/psql executes each statement"));
  EXPECT_THAT(report, HasSubstr("\n1 task, 0 lines left out\n"));
}

TEST_F(PgCronTest, UnderstandsIntervalsAndTheLastDayOfTheMonth) {
  EXPECT_EQ(taskOf("30 seconds")["every"], "30s");
  EXPECT_EQ(taskOf("1 second")["every"], "1s");
  EXPECT_EQ(taskOf("30 seconds").count("at"), 0U);
  EXPECT_EQ(taskOf("0 12 $ * *")["at"], "0 12 L * *");
  EXPECT_EQ(taskOf("@hourly")["at"], "@hourly");
  EXPECT_EQ(taskOf("@reboot").size(), 0U);
  EXPECT_THAT(report, HasSubstr("jobs:2: left out: @reboot is not a time"));
  EXPECT_EQ(taskOf("0 seconds").size(), 0U);
  EXPECT_EQ(taskOf("90 minutes").size(), 0U);
}

TEST_F(PgCronTest, CarriesStatementsWithQuotesAndNewlines) {
  const Definition task = taskOf("@daily", "\"DELETE FROM \"\"T\"\"\nWHERE a = 'x,y'\"");
  EXPECT_EQ(task.at("plugin"), "/bin/sh");
  serviceSafe echo;
  echo.Setpath(task.at("plugin"));
  std::string parameters = task.at("arguments");
  parameters.replace(parameters.find("exec /usr/bin/psql"), 18, "exec printf [%s]");
  echo.Setparameter(parameters);
  echo.execute();
  EXPECT_THAT(echo.GetStdout(), HasSubstr("[-c][DELETE FROM \"T\"\nWHERE a = 'x,y']"));
}

TEST_F(PgCronTest, ReadsTheTextOfCopy) {
  const auto& tasks = import(
      "1\t@daily\tSELECT 1\\n, E'\\\\t'\tlocalhost\t5432\tapp\tbob\tf\tmy job\n"
      "2\t@daily\tSELECT 2\tlocalhost\t5432\tapp\tbob\tt\t\\N\r\n");
  ASSERT_EQ(tasks.size(), 2U);
  EXPECT_THAT(tasks[0].key, testing::StartsWith("pg_cron/my-job-"));
  EXPECT_EQ(tasks[0].definition.at("paused"), "true");
  EXPECT_EQ(tasks[0].definition.at("reason"), "not active in cron.job");
  EXPECT_THAT(tasks[0].definition.at("arguments"),
              HasSubstr("SELECT 1\n, E\\0047\\\\\\0047\\0047\\\\t"));
  EXPECT_EQ(tasks[1].key, "pg_cron/job-2");
  EXPECT_EQ(tasks[1].definition.at("name"), "SELECT 2");
  EXPECT_EQ(tasks[1].definition.count("paused"), 0U);
  EXPECT_EQ(import("command\tschedule\tjobname\nSELECT 1\t@daily\tx\n").size(), 1U);
}

TEST_F(PgCronTest, ReportsRowsThatItCannotRead) {
  import(std::string(kHeader) +
         "1,@daily\n2,@daily,\"a\"b,,,,,t,\n3,@daily,,,,,,t,\n\n4,@daily,\"x\ny\",,,,,t,\n"
         "5,never,a,,,,,t,\n6,@daily,\"open,,,,,t,\n");
  for (const char* line :
       {"jobs:2: left out: the row has 2 values, and not 9",
        "jobs:3: left out: a comma is missing after a quoted value",
        "jobs:4: left out: the statement is empty", "jobs:8: left out: a schedule has five fields",
        "jobs:9: left out: a quote is not closed", "1 task, 5 lines left out\n"}) {
    EXPECT_THAT(report, HasSubstr(line));
  }
  EXPECT_EQ(result.tasks().at(0).key, "pg_cron/job-4");
}

TEST_F(PgCronTest, LeavesOutWhatNoTaskCanHold) {
  import(std::string(kHeader) + "1,@daily," + std::string(1 << 20, 'x') + ",,,,,t,\n2,@daily,a" +
         std::string(1, '\0') + "b,,,,,t,\n3,@daily,a," + std::string(200000, 'h') + ",,,,t,\n");
  EXPECT_THAT(report, HasSubstr("0 tasks, 3 lines left out\n"));
}

TEST_F(PgCronTest, SurvivesAnyBytes) {
  std::mt19937 engine{1};
  const std::string parts = std::string(",\t\"\\\r\n\0'$@daily5*N", 18) + "\xff\x1b";
  std::uniform_int_distribution<std::size_t> part(0, parts.size() - 1);
  for (int i = 0; i < 300; ++i) {
    std::string content = i % 2 == 0 ? kHeader : "";
    for (int length = 0; length < 400; ++length) {
      content += parts[part(engine)];
    }
    import(content);
    EXPECT_THAT(report, HasSubstr("left out\n"));
    EXPECT_EQ(report.find('\x1b'), std::string::npos);
  }
}

}  // namespace
