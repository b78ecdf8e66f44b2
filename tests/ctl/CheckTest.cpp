#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "db/pgSafeThread.h"
#include "tests/ctl/CtlTest.h"

namespace {

using testing::HasSubstr;

/// koductl check.
class CheckTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    std::filesystem::create_directories(daemon.outputDirectory());
    // A database copied from the template does not have the template's time zone.
    database.query("ALTER DATABASE " + database.name() + " SET timezone = 'UTC'");
    chmod(daemon.databaseConfig().c_str(), 0600);
  }

  /// A task with a time limit.
  TaskRow guardedTask(int id) const {
    TaskRow row = quietTask(id);
    row.parameter = "-t 5 -- " + row.path;
    row.path = guard();
    return row;
  }
  std::chrono::nanoseconds medianOfQuickChecks() const {
    std::vector<std::chrono::nanoseconds> times;
    for (int i = 0; i < 5; ++i) {
      const auto begin = std::chrono::steady_clock::now();
      EXPECT_EQ(run({"check", "--quick"}).exitCode, 1);
      times.emplace_back(std::chrono::steady_clock::now() - begin);
    }
    std::sort(times.begin(), times.end());
    return times[2];
  }
  std::string check(int exitCode) const {
    const CtlResult result = run({"check"});
    EXPECT_EQ(result.exitCode, exitCode) << result.out << result.err;
    return result.out;
  }
};

TEST_F(CheckTest, FindsNothingInAHealthyInstallation) {
  database.insertTask(guardedTask(1));
  ASSERT_TRUE(daemon.startAndWait());
  const std::string text = check(0);
  EXPECT_THAT(text, HasSubstr("OK       nothing found\n"));
  EXPECT_THAT(text, HasSubstr("DUE NEXT (UTC)"));
  EXPECT_THAT(text, HasSubstr("task1"));
}

TEST_F(CheckTest, WarnsOfTasksWithoutATimeLimitAndOfAMissingDaemon) {
  database.insertTask(quietTask(1));
  database.insertTask(quietTask(2));
  const std::string text = check(1);
  EXPECT_THAT(text, HasSubstr("WARNING  tasks 1, 2: no time limit"));
  EXPECT_THAT(text, HasSubstr("WARNING  the daemon has no session in this database"));
  EXPECT_THAT(text, HasSubstr("0 errors, 2 warnings\n"));
}

TEST_F(CheckTest, WarnsOfASecondDaemonButNotOfOtherSessionsOfItsRole) {
  database.insertTask(guardedTask(1));
  const pgSafeThread daemonsSession(database.conninfo());
  const pgSafeThread operatorsSession(database.conninfo() + " application_name=psql");
  EXPECT_THAT(check(0), HasSubstr("OK       nothing found\n"));
  const pgSafeThread secondDaemonsSession(database.conninfo());
  EXPECT_THAT(check(1),
              HasSubstr("WARNING  2 daemons are connected to this database: each of them runs "
                        "every task, and they can end each other; stop all but one\n"));
}

TEST_F(CheckTest, FindsPluginsThatCannotBeRun) {
  TaskRow missing = quietTask(1);
  std::filesystem::remove(missing.path);
  database.insertTask(missing);
  TaskRow locked = quietTask(2);
  chmod(locked.path.c_str(), 0644);
  database.insertTask(locked);
  TaskRow text = quietTask(3);
  writeFile(text.path, "no program\n");
  database.insertTask(text);
  TaskRow script = quietTask(4);
  writeFile(script.path, "#!/nowhere/sh\n");
  database.insertTask(script);
  const std::string found = check(2);
  EXPECT_THAT(found, HasSubstr("ERROR    task 1: plugin " + missing.path +
                               " cannot be run: No such file or directory\n"));
  EXPECT_THAT(found, HasSubstr("task 2: plugin " + locked.path + " cannot be run: Permission"));
  EXPECT_THAT(found, HasSubstr("task 3: plugin " + text.path + " cannot be run: it is neither"));
  EXPECT_THAT(found, HasSubstr("task 4: plugin " + script.path +
                               " cannot be run: its interpreter '/nowhere/sh': No such file"));
}

TEST_F(CheckTest, FindsFileNamesThatEndTheDaemon) {
  database.takeAnyRow();
  TaskRow noDate = guardedTask(1);
  noDate.logFile = "fixed.txt";
  database.insertTask(noDate);
  TaskRow noFolder = guardedTask(2);
  noFolder.logFile = "nowhere/$DATE.txt";
  database.insertTask(noFolder);
  TaskRow same = guardedTask(3);
  same.logFile = "fixed.txt";
  database.insertTask(same);
  const std::string found = check(2);
  EXPECT_THAT(found, HasSubstr("tasks 1, 3: the file name lacks $DATE"));
  EXPECT_THAT(found, HasSubstr("task 2: output file cannot be written: directory " +
                               daemon.outputDirectory() + "/nowhere: No such file"));
  EXPECT_THAT(found, HasSubstr("task 3: writes the same output file as task 1"));
  EXPECT_THAT(found, HasSubstr("task 2: the file name contains a /, but the archive has no such"));
}

TEST_F(CheckTest, FindsOldRowsThatTheTablesNowRefuse) {
  database.takeAnyRow();
  TaskRow folder = guardedTask(1);
  folder.logFile = "./archive";
  database.insertTask(folder);
  TaskRow months = guardedTask(2);
  months.interval = "-12 months 365 days";
  database.insertTask(months);
  TaskRow hasty = guardedTask(3);
  hasty.retries = "1";
  hasty.retriesInterval = "interval '1 second'";
  database.insertTask(hasty);
  TaskRow late = guardedTask(4);
  late.nextExec = "'2037-06-01'";
  database.insertTask(late);
  TaskRow fine = guardedTask(5);
  fine.retriesInterval = "interval '0'";
  database.insertTask(fine);
  const std::string found = check(2);
  EXPECT_THAT(found, HasSubstr("task 1: the file name contains a /, but the archive has no such"));
  EXPECT_THAT(found, HasSubstr("task 2: the interval contains months, years or a negative part"));
  EXPECT_THAT(found, HasSubstr("task 3: a retry can fail within a second of the failure"));
  EXPECT_THAT(found, HasSubstr("task 4: the next run is due after 2036"));
  EXPECT_THAT(found, testing::Not(HasSubstr("task 5:")));
}

TEST_F(CheckTest, FindsRowsThatTheDaemonWouldRefuse) {
  database.takeAnyRow();
  database.query("ALTER TABLE kodu_cron_plugin ALTER cron_next_exec DROP NOT NULL");
  for (const int id : {1, 2, 3, 4}) {
    database.insertTask(guardedTask(id));
  }
  database.query("UPDATE kodu_cron_plugin SET cron_interval = '0' WHERE cron_id = 1");
  database.query("UPDATE kodu_cron_plugin SET cron_next_exec = NULL WHERE cron_id = 2");
  database.query("UPDATE kodu_cron_plugin SET cron_log_file = '' WHERE cron_id = 3");
  database.query("UPDATE kodu_plugins SET plugin_type = 'other' WHERE plugin_id = 4");
  const std::string found = check(2);
  EXPECT_THAT(found, HasSubstr("task 1: refused by the daemon: cron_interval"));
  EXPECT_THAT(found, HasSubstr("task 2: refused by the daemon: cron_next_exec"));
  EXPECT_THAT(found, HasSubstr("task 3: cron_log_file is empty"));
  EXPECT_THAT(found, HasSubstr("task 4: plugin_type is 'other'"));
}

TEST_F(CheckTest, WarnsOfAQuoteThatIsNotClosed) {
  TaskRow row = guardedTask(1);
  row.parameter += " \"a b";
  database.insertTask(row);
  EXPECT_THAT(check(1), HasSubstr("task 1: a quote in the parameters is not closed"));
}

TEST_F(CheckTest, FindsErrorsInTheIniFiles) {
  writeFile(daemon.mainConfig(),
            "[LOG]\nlog_file=/nowhere/x.log\nlog_path_task=" + daemon.outputDirectory() +
                " \n[CRON]\nthread_number=many\nold_kodu_conf_file=x\n"
                "kodu_conf_file=" +
                daemon.databaseConfig() + "\n");
  std::string found = check(2);
  EXPECT_THAT(found, HasSubstr("cannot read x: No such file"));

  writeFile(daemon.mainConfig(),
            "[LOG]\nlog_file=/nowhere/x.log\nlog_path_task=" + daemon.outputDirectory() +
                " \n[CRON]\nthread_number=many\n"
                "kodu_conf_file=" +
                daemon.databaseConfig() + "\n");
  chmod(daemon.databaseConfig().c_str(), 0644);
  found = check(2);
  EXPECT_THAT(found, HasSubstr("thread_number is not a number"));
  EXPECT_THAT(found, HasSubstr("log_path_task in [LOG] has leading or trailing white space"));
  EXPECT_THAT(found, HasSubstr("cannot write the log /nowhere/x.log: directory /nowhere: No such"));
  EXPECT_THAT(found, HasSubstr("cannot write task output: directory"));
  EXPECT_THAT(found, HasSubstr("is readable by all users: chmod o-r"));
}

TEST_F(CheckTest, WarnsOfAKeyThatIsReadFromAnotherLine) {
  writeFile(daemon.mainConfig(),
            "[LOG]\nmy_log_file=/tmp/no\nlog_file=" + daemon.logPath() +
                "\nlog_path_task=" + daemon.outputDirectory() +
                "\n[CRON]\nthread_number=2\nkodu_conf_file=" + daemon.databaseConfig() + "\n");
  EXPECT_THAT(check(1), HasSubstr("log_file in [LOG] is taken from an earlier line"));
}

TEST_F(CheckTest, ReadsNoTaskWithQuick) {
  TaskRow missing = quietTask(1);
  std::filesystem::remove(missing.path);
  database.insertTask(missing);
  database.query("REVOKE DELETE ON kodu_cron_error FROM kodu");
  const CtlResult result = run({"check", "--quick"});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_THAT(result.out, HasSubstr("role kodu lacks DELETE on kodu_cron_error"));
  EXPECT_THAT(result.out, testing::EndsWith("1 error, 1 warning\n"));
}

TEST_F(CheckTest, TakesNoLongerWith100000TasksWithQuick) {
  database.insertTask(quietTask(1));
  const auto withOne = medianOfQuickChecks();
  database.query(
      "INSERT INTO kodu_cron_plugin (cron_id, cron_plugin_id, cron_interval,"
      " cron_next_exec, cron_log_file) SELECT n, 1, '1 hour', now() + interval '1 hour',"
      " '$SERVICEID_$DATE.txt' FROM generate_series(2, 100000) AS n");
  EXPECT_LT(medianOfQuickChecks() - withOne, std::chrono::seconds(1));
}

TEST_F(CheckTest, FindsRightsThatAreMissing) {
  database.query("REVOKE DELETE ON kodu_cron_error FROM kodu");
  database.query("REVOKE UPDATE (cron_status) ON kodu_cron_plugin FROM kodu");
  database.query("REVOKE USAGE ON SEQUENCE kodu_cron_error_cron_error_id_seq FROM kodu");
  const std::string found = check(2);
  EXPECT_THAT(found, HasSubstr("role kodu lacks DELETE on kodu_cron_error"));
  EXPECT_THAT(found, HasSubstr("role kodu lacks UPDATE (cron_status) on kodu_cron_plugin"));
  EXPECT_THAT(found, HasSubstr("role kodu lacks USAGE on sequence"));
}

TEST_F(CheckTest, FindsAnotherTimeZone) {
  database.query("ALTER DATABASE " + database.name() + " SET timezone = 'Asia/Tokyo'");
  EXPECT_THAT(check(2), HasSubstr("sessions have the time zone Asia/Tokyo"));
}

TEST_F(CheckTest, ExitsWith2WhenTheDatabaseDoesNotAnswer) {
  writeFile(daemon.databaseConfig(),
            "[POSTGRESQL]\nPGSQL_host=127.0.0.1\nPGSQL_port=1\nPGSQL_db=x\nPGSQL_username=kodu\n");
  chmod(daemon.databaseConfig().c_str(), 0600);
  EXPECT_THAT(check(2), HasSubstr("Connection refused"));
}

TEST_F(CheckTest, PrintsItsFindingsAsJson) {
  database.insertTask(quietTask(1));
  const CtlResult result = run({"check", "--json"});
  const Json::Value json = parsed(result.out);
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(json["exit_code"].asInt(), 1);
  EXPECT_EQ(json["findings"].size(), 2U);
  EXPECT_EQ(json["findings"][0]["severity"].asString(), "warning");
  EXPECT_EQ(json["due_next"][0]["id"].asInt(), 1);
}

}  // namespace
