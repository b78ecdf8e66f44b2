#include <string>
#include <vector>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

using Words = std::vector<std::string>;

/// koductl forecast on tasks that begin in a later hour.
class ForecastCommandTest : public CtlTest {
 protected:
  CtlResult forecast(const Words& arguments) {
    Words all = {"forecast"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return runAsAdmin(all);
  }
  void insertHourly(int id) const {
    TaskRow row = quietTask(id);
    row.interval = "1 hour";
    row.nextExec = "date_trunc('hour', now() AT TIME ZONE 'UTC') + interval '1 hour'";
    database.insertTask(row);
  }
  /// The lines of the table of the busiest minutes, without its head.
  static std::vector<std::string> minutesOf(const std::string& output) {
    std::vector<std::string> lines;
    std::istringstream stream(output.substr(output.find("BUSIEST MINUTES")));
    for (std::string line; std::getline(stream, line);) {
      lines.push_back(line);
    }
    lines.erase(lines.begin());
    return lines;
  }
};

TEST_F(ForecastCommandTest, ShowsAnEmptySchedule) {
  const CtlResult result = forecast({});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, StartsWith("0 runs in 1 h.\nRuns of 1 s need 0 workers; "
                                     "thread_number is 2.\n\n"));
}

TEST_F(ForecastCommandTest, CountsASingleRunAndWorker) {
  insertHourly(1);
  EXPECT_THAT(forecast({"1"}).out, StartsWith("1 run in 1 h; the busiest second is "));
  EXPECT_THAT(forecast({"1"}).out, HasSubstr("\nRuns of 1 s need 1 worker; "));
}

TEST_F(ForecastCommandTest, ShowsTheTenBusiestMinutes) {
  insertHourly(1);
  insertHourly(2);
  const std::vector<std::string> minutes = minutesOf(forecast({"24"}).out);
  ASSERT_EQ(minutes.size(), 10U);
  for (const std::string& minute : minutes) {
    EXPECT_THAT(minute, testing::MatchesRegex("....-..-.. ..:00:00 +2 +....-..-.. ..:00:00 +2 +2"));
  }
}

TEST_F(ForecastCommandTest, AcceptsHoursWithAFraction) {
  for (const char* hours : {"0.5", "1e0", "168"}) {
    const CtlResult result = forecast({hours});
    EXPECT_EQ(result.exitCode, 0) << hours << result.err;
    EXPECT_THAT(result.out, StartsWith(std::string("0 runs in ") + hours + " h"));
  }
}

TEST_F(ForecastCommandTest, RefusesHoursAndDurationsOutOfRange) {
  const std::string text =
      "hours must be more than 0 and at most 168, and run_seconds must not be negative";
  const std::vector<Words> cases = {{"0"},   {"168.1"}, {"--run-seconds", "-1"},
                                    {"1e9"}, {"NaN"},   {"1", "--run-seconds", "NaN"}};
  for (const Words& arguments : cases) {
    const CtlResult result = forecast(arguments);
    EXPECT_EQ(result.exitCode, 65) << testing::PrintToString(arguments) << result.out;
    EXPECT_THAT(result.err, HasSubstr(text)) << testing::PrintToString(arguments);
  }
}

TEST_F(ForecastCommandTest, RefusesTextsThatAreNotNumbers) {
  for (const Words& arguments : {Words{"soon"}, {"1h"}, {"1", "--run-seconds", "2s"}}) {
    const CtlResult result = forecast(arguments);
    EXPECT_EQ(result.exitCode, 65) << testing::PrintToString(arguments);
    EXPECT_THAT(result.err, HasSubstr("invalid input syntax for type numeric"));
  }
}

TEST_F(ForecastCommandTest, RefusesAWrongCommandLine) {
  for (const Words& arguments : {Words{"1", "2"},
                                 {"--took"},
                                 {"1", "--took", "1=1", "2"},
                                 {"--unknown"},
                                 {"1", "--", "x"}}) {
    const CtlResult result = forecast(arguments);
    EXPECT_EQ(result.exitCode, 64) << testing::PrintToString(arguments) << result.out;
    EXPECT_THAT(result.err, HasSubstr("see koductl forecast --help"));
  }
}

TEST_F(ForecastCommandTest, AcceptsADurationForEachTask) {
  for (const int id : {1, 2, 3}) {
    insertHourly(id);
  }
  const CtlResult result =
      forecast({"1", "--run-seconds", "0", "--took", "1=10", "--took", "2=0.5"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("Runs of 0 s need "));
}

TEST_F(ForecastCommandTest, PrintsEveryMinuteAsJson) {
  insertHourly(1);
  const Json::Value minutes = parsed(forecast({"2", "--json"}).out);
  EXPECT_GE(minutes.size(), 120U);
  EXPECT_LE(minutes.size(), 121U);
  int runs = 0;
  for (const Json::Value& minute : minutes) {
    runs += minute["runs"].asInt();
    EXPECT_EQ(minute["busiest_second"].isNull(), minute["runs"].asInt() == 0);
  }
  EXPECT_EQ(runs, 2);
}

TEST_F(ForecastCommandTest, ChangesNothing) {
  insertHourly(1);
  const std::string before = database.value("SELECT t::text FROM kodu_cron_plugin t");
  forecast({"24"});
  EXPECT_EQ(database.value("SELECT t::text FROM kodu_cron_plugin t"), before);
}

}  // namespace
