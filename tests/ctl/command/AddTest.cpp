#include <sys/wait.h>

#include <string>
#include <vector>

#include "db/pgSafeThread.h"
#include "tests/ctl/CtlTest.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

using Words = std::vector<std::string>;

/// koductl add as an administrator; every user can run its plugin.
class AddTest : public CtlTest {
 protected:
  CtlResult add(const Words& arguments) {
    Words all = {"add"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return runAsAdmin(all);
  }
  void expectRefusal(const Words& arguments, int exitCode, const std::string& text) {
    const CtlResult result = add(arguments);
    EXPECT_EQ(result.exitCode, exitCode) << testing::PrintToString(arguments) << result.out;
    EXPECT_THAT(result.err, StartsWith("koductl: ")) << testing::PrintToString(arguments);
    EXPECT_THAT(result.err, HasSubstr(text)) << testing::PrintToString(arguments);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_plugin"), "0")
        << testing::PrintToString(arguments) << " added a task";
  }
  std::string column(const std::string& name) const { return database.task(1, name); }
};

TEST_F(AddTest, HasDefaults) {
  const CtlResult result = add({"/bin/true", "--every", "5m"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, MatchesRegex("task 1 \\(true\\) added; next due at "
                                       "....-..-.. ..:..:.. UTC \\(in [0-3]s\\)\n"));
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(column("cron_interval"), "00:05:00");
  EXPECT_EQ(column("cron_log_file"), "$SERVICEID_$DATE.txt");
  EXPECT_EQ(column("cron_retries") + column("cron_retries_interval"), "") << "the daemon's";
  EXPECT_EQ(column("cron_parameter"), "");
  EXPECT_EQ(column("cron_status"), "");
}

TEST_F(AddTest, StoresEachSetting) {
  const CtlResult result =
      add({"/bin/true", "--every", "1h", "--name", "my task", "--retries", "3", "--retry-after",
           "10s", "--file", "mine_$DATE.log", "--first", "2030-01-01 12:00", "--", "-w", "80"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out,
              StartsWith("task 1 (my task) added; next due at 2030-01-01 12:00:00 UTC (in "));
  EXPECT_EQ(column("cron_interval"), "01:00:00");
  EXPECT_EQ(column("cron_log_file"), "mine_$DATE.log");
  EXPECT_EQ(column("cron_retries"), "3");
  EXPECT_EQ(column("cron_retries_interval"), "00:00:10");
  EXPECT_EQ(column("cron_parameter"), "-w 80");
  EXPECT_EQ(column("cron_next_exec"), "2030-01-01 12:00:00");
}

TEST_F(AddTest, AcceptsIntervalsInEverySyntaxOfTheDatabase) {
  const std::vector<std::pair<std::string, std::string>> cases = {{"90s", "00:01:30"},
                                                                  {"90 seconds", "00:01:30"},
                                                                  {"1:30:00", "01:30:00"},
                                                                  {"1.5h", "01:30:00"},
                                                                  {"1 day 2 h", "1 day 02:00:00"},
                                                                  {"PT5M", "00:05:00"},
                                                                  {"366d", "366 days"},
                                                                  {"1s", "00:00:01"}};
  int id = 0;
  for (const auto& [interval, stored] : cases) {
    EXPECT_EQ(add({"/bin/true", "--every", interval}).exitCode, 0) << interval;
    EXPECT_EQ(database.task(++id, "cron_interval"), stored) << interval;
  }
}

TEST_F(AddTest, RefusesIntervalsThatTheDaemonCannotRun) {
  for (const char* interval :
       {"0s", "-5m", "0.5s", "1.5s", "367d", "1 month", "1 year", "2 days -1 hour", "infinity"}) {
    const CtlResult result = add({"/bin/true", "--every", interval});
    EXPECT_EQ(result.exitCode, 65) << interval;
    EXPECT_THAT(result.err, StartsWith("koductl: ")) << interval;
    EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_plugin"), "0") << interval;
  }
  expectRefusal({"/bin/true", "--every", "soon"}, 65,
                "invalid input syntax for type interval: \"soon\"");
}

TEST_F(AddTest, RefusesOtherSettingsThatTheTablesDoNotTake) {
  const Words begin = {"/bin/true", "--every", "5m"};
  const std::vector<std::pair<Words, std::string>> cases = {
      {{"--retries", "1", "--retry-after", "1s"}, "retry"},
      {{"--retry-after", "-5s"}, "retry"},
      {{"--retry-after", "x"}, "invalid input syntax for type interval"},
      {{"--file", "fixed.txt"}, "the file name 'fixed.txt' lacks $DATE"},
      {{"--file", "../$DATE"}, "file name"},
      {{"--file", "/tmp/$DATE"}, "file name"},
      {{"--file", "sub/$DATE.txt"}, "file name"},
      {{"--file", "a\n$DATE"}, "file name"},
      {{"--file", ""}, "file name"},
      {{"--first", "1960-01-01"}, "the time of a run must be between 1970 and 2035"},
      {{"--first", "2040-01-01"}, "the time of a run must be between 1970 and 2035"},
      {{"--first", "infinity"}, "the time of a run must be between 1970 and 2035"},
      {{"--first", "some day"}, "invalid input syntax for type timestamp"},
      {{"--timeout", "0s"}, "the timeout must be whole seconds, from 1 second to 1 day"},
      {{"--timeout", "1.5s"}, "the timeout must be whole seconds"},
      {{"--timeout", "2 days"}, "the timeout must be whole seconds"},
  };
  for (const auto& [settings, text] : cases) {
    Words arguments = begin;
    arguments.insert(arguments.end(), settings.begin(), settings.end());
    expectRefusal(arguments, 65, text);
  }
}

TEST_F(AddTest, RefusesAnUnknownPlugin) {
  expectRefusal({"nothing", "--every", "5m"}, 65, "there is no plugin 'nothing'");
  expectRefusal({"bin/true", "--every", "5m"}, 65, "there is no plugin 'bin/true'");
  expectRefusal({"", "--every", "5m"}, 65, "there is no plugin ''");
}

TEST_F(AddTest, RefusesAnAmbiguousPluginName) {
  database.query(
      "INSERT INTO kodu_plugins (plugin_name, plugin_path) VALUES ('disk', '/a'), ('disk', '/b')");
  expectRefusal({"disk", "--every", "5m"}, 65, "there are 2 plugins named 'disk'");
}

TEST_F(AddTest, RefusesAPluginOfAnotherType) {
  database.query(
      "INSERT INTO kodu_plugins (plugin_name, plugin_path, plugin_type)"
      " VALUES ('disk', '/a', 'web')");
  expectRefusal({"disk", "--every", "5m"}, 65, "the plugin 'disk' is of type web, not cron");
}

TEST_F(AddTest, RefusesAFileNameOfAnotherTask) {
  ASSERT_EQ(add({"/bin/true", "--every", "5m", "--file", "same_$DATE"}).exitCode, 0);
  const CtlResult second = add({"/bin/true", "--every", "5m", "--file", "same_$DATE"});
  EXPECT_EQ(second.exitCode, 65);
  EXPECT_THAT(second.err, StartsWith("koductl: another task has this output file\nhint: "));
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_plugin"), "1");
}

TEST_F(AddTest, RefusesArgumentsThatNoTaskCanHave) {
  expectRefusal({"/bin/true", "--every", "5m", "--", ""}, 65,
                "a plugin cannot get an empty argument");
  expectRefusal({"/bin/true", "--every", "5m", "--", "say \"x\""}, 65,
                "the argument say \"x\" contains a quote");
}

TEST_F(AddTest, RefusesAWrongCommandLine) {
  const std::vector<std::pair<Words, std::string>> cases = {
      {{}, "is required; see koductl add --help"},
      {{"/bin/true"}, "--every or --at is required; see koductl add --help"},
      {{"--every", "5m"}, "PLUGIN is required; see koductl add --help"},
      {{"/bin/true", "--every"}, "--every"},
      {{"/bin/true", "--every", "5m", "--retries", "-1"}, "--retries"},
      {{"/bin/true", "--every", "5m", "--retries", "many"}, "--retries"},
      {{"/bin/true", "--every", "5m", "--retries", "1000001"}, "--retries"},
      {{"/bin/true", "--at", ""}, "--at needs a calendar, such as"},
      {{"/bin/true", "--every", "5m", "extra"}, "extra"},
      {{"/bin/true", "--every", "5m", "--unknown"}, "--unknown"},
      {{"/bin/true", "--every", "5m", "--next", "tomorrow"}, "--next"},
  };
  for (const auto& [arguments, text] : cases) {
    expectRefusal(arguments, 64, text);
  }
}

TEST_F(AddTest, AddsATaskOnceThatAnotherSessionIsAdding) {
  pgSafeThread other(database.adminConninfo());
  PQclear(other.executeRequest("BEGIN"));
  PQclear(other.executeRequest("SELECT kodu_task_add('/bin/true', '5 minutes', key => 'k')"));
  environment.emplace_back("PGPASSWORD=secret");
  const pid_t pid = start({"-f", daemon.mainConfig(), "--user", admin(), "add", "/bin/true",
                           "--every", "5m", "--key", "k", "--if-missing"});
  EXPECT_TRUE(waitUntil([&] { return database.waitingSessions() > 0; }));
  PQclear(other.executeRequest("COMMIT"));
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_EQ(exitStatusOf(status), 0) << readFile(errPath());
  EXPECT_THAT(readFile(outPath()),
              StartsWith("task 1 (true) has this key already; nothing was changed"));
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_plugin"), "1");
}

TEST_F(AddTest, NeedsTheRight) {
  const CtlResult result = run({"add", "/bin/true", "--every", "5m"});
  EXPECT_EQ(result.exitCode, 77);
  EXPECT_THAT(result.err, StartsWith("koductl: role kodu may not do this"));
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_plugin"), "0");
}

}  // namespace
