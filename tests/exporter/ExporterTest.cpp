#include <fmt/format.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/DaemonTest.h"
#include "tests/support/Files.h"
#include "tests/support/HttpClient.h"
#include "tests/support/Ledger.h"
#include "tests/support/Process.h"
#include "tests/support/SilentServer.h"
#include "tests/support/builtProgram.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// koduexporter as a child process, beside the daemon and its database. It connects as
/// kodu_monitor, whose right to the database file it does not need.
class ExporterTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    ledger.load();
    database.query(readFile(projectFile("sql/metrics.sql")));
  }
  void TearDown() override { end(SIGKILL); }

  void start(const std::vector<std::string>& options = {}) {
    std::vector<std::string> all = {builtProgram("KODU_TEST_EXPORTER"),
                                    "-f",
                                    daemon.mainConfig(),
                                    "--listen",
                                    "127.0.0.1:0",
                                    "--count-every",
                                    countEvery};
    all.insert(all.end(), options.begin(), options.end());
    std::vector<char*> pointers;
    for (std::string& text : all) {
      pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    const std::string path = saidPath();
    writeFile(path, "");
    process = fork();
    if (process == 0) {
      if (std::freopen(path.c_str(), "a", stderr) == nullptr) {
        _exit(126);
      }
      execv(pointers[0], pointers.data());
      _exit(127);
    }
    ASSERT_TRUE(waitUntil([&] { return said().find(" port ") != std::string::npos; })) << said();
    const std::string text = said();
    port = std::atoi(text.c_str() + text.find(" port ") + 6);
  }
  /// waitpid's status; nothing when it was not running.
  int end(int signal) {
    int status = -1;
    if (process > 1) {
      ::kill(process, signal);
      waitpid(process, &status, 0);
      process = -1;
    }
    return status;
  }
  std::string scrape(const std::string& headers = "") const {
    return HttpClient::get(port, "/metrics", headers);
  }
  /// The value of a sample; -1 when there is none.
  double sample(const std::string& name) const {
    const std::string text = scrape();
    const auto found = text.find("\n" + name + " ");
    return found == std::string::npos ? -1 : std::atof(text.c_str() + found + name.size() + 2);
  }
  bool waitForSample(const std::string& name, double least) const {
    return waitUntil([&] { return sample(name) >= least; }, kPatience);
  }
  std::string said() const { return readFile(saidPath()); }
  std::string saidPath() const { return daemon.directory / "exporter.err"; }
  /// "" when the command succeeds, else what it prints.
  std::string call(const std::string& command) const {
    const std::string path = daemon.directory / "called";
    // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe)
    const int status = std::system((command + " >" + path + " 2>&1").c_str());
    return exitStatusOf(status) == 0 ? "" : "failed: " + readFile(path);
  }
  static std::string runs(const std::string& outcome) {
    return R"(koducron_runs_total{host="127.0.0.1",outcome=")" + outcome + R"("})";
  }

  /// When the counters were collected.
  std::string collectedAt() const {
    return database.value("SELECT read_at FROM kodu_metric_state");
  }

  std::string countEvery = "1";
  Ledger ledger{database};
  pid_t process = -1;
  int port = 0;
};

TEST_F(ExporterTest, CountsTheRunsOfTheDaemonAcrossRestarts) {
  start();
  EXPECT_EQ(sample("koducron_daemon_up"), 0);
  for (const int id : {1, 2}) {
    TaskRow row = makeTask(id, id == 1 ? "echo fine" : "echo bad; exit 2");
    row.interval = "1 second";
    database.insertTask(row);
  }
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForSample(runs("ok"), 2));
  ASSERT_TRUE(waitForSample(runs("failed"), 2));
  EXPECT_EQ(sample("koducron_daemon_up"), 1);
  EXPECT_EQ(sample("koducron_daemon_sessions"), 1);
  EXPECT_TRUE(waitForSample("koducron_tasks_failing", 1));
  EXPECT_THAT(scrape(), HasSubstr("koducron_task_failing_since_timestamp_seconds{task_id=\"2\","));

  const double ok = sample(runs("ok"));
  end(SIGTERM);
  daemon.signal(SIGKILL);
  daemon.waitForEnd();
  start();
  EXPECT_GE(sample(runs("ok")), ok) << "counters do not fall";
  EXPECT_EQ(sample("koducron_daemon_up"), 0);
  ASSERT_TRUE(daemon.startAndWait());
  EXPECT_TRUE(waitForSample(runs("ok"), ok + 2));
  EXPECT_GE(sample("koducron_daemon_lives_total{host=\"127.0.0.1\"}"), 2);
  const double counted = sample(runs("ok"));
  EXPECT_GE(std::stod(database.value("SELECT count(*) FROM kodu_run WHERE outcome = 'ok'")),
            counted)
      << "each run is counted once";
}

TEST_F(ExporterTest, ShowsNothingStaleWhileTheDatabaseIsAway) {
  start();
  ASSERT_TRUE(waitForSample("koducron_tasks_read_timestamp_seconds", 1));
  const std::string limit = "ALTER DATABASE " + database.name() + " CONNECTION LIMIT ";
  database.query(limit + "0");
  database.query(
      "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname ="
      " current_database() AND application_name = 'kodu_exporter'");
  const std::string away = scrape();
  database.query(limit + "-1");
  EXPECT_THAT(away, StartsWith("HTTP/1.1 200 OK\r\n"));
  EXPECT_THAT(away, HasSubstr("\nkoducron_database_up 0\n"));
  EXPECT_THAT(away, Not(HasSubstr("koducron_daemon_up")));
  EXPECT_THAT(away, Not(HasSubstr("koducron_tasks")));
  EXPECT_EQ(sample("koducron_database_up"), 1);
  EXPECT_TRUE(waitForSample("koducron_tasks_read_timestamp_seconds", 1));
  EXPECT_THAT(said(), HasSubstr("koduexporter: no answer from the database: "));
  EXPECT_THAT(said(), HasSubstr("koduexporter: the database answers\n"));
}

TEST_F(ExporterTest, CollectsTheCountersBesideTheScrapes) {
  countEvery = "60";
  start();
  ASSERT_EQ(sample("koducron_database_up"), 1);
  const std::string first = collectedAt();
  EXPECT_TRUE(waitUntil([&] { return collectedAt() != first; }, kPatience)) << "without a scrape";
  std::set<std::string> times;
  const auto begin = std::chrono::steady_clock::now();
  for (int number = 0; number < 20; ++number) {
    EXPECT_EQ(sample("koducron_skipped_periods_total{reason=\"overrun\"}"), 0);
    times.insert(collectedAt());
  }
  const auto periods = (std::chrono::steady_clock::now() - begin) / std::chrono::seconds(5);
  EXPECT_LE(times.size(), static_cast<std::size_t>(periods) + 2) << "not at each scrape";
}

TEST_F(ExporterTest, ShowsNoCountersThatItCannotCollect) {
  start();
  ASSERT_EQ(sample("koducron_database_up"), 1);
  database.query("BEGIN; SELECT FROM kodu_metric_state FOR UPDATE");
  EXPECT_TRUE(waitUntil([&] { return sample("koducron_database_up") == 0; }, kPatience));
  EXPECT_THAT(scrape(), Not(HasSubstr("koducron_skipped_periods_total")));
  database.query("ROLLBACK");
  EXPECT_EQ(sample("koducron_skipped_periods_total{reason=\"overrun\"}"), 0);
}

TEST_F(ExporterTest, DoesNotMissAScrapeWhenItsSessionWasEnded) {
  start();
  EXPECT_EQ(sample("koducron_database_up"), 1);
  database.query(
      "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname ="
      " current_database() AND application_name = 'kodu_exporter'");
  EXPECT_EQ(sample("koducron_database_up"), 1);
}

TEST_F(ExporterTest, AnswersInTimeWhenTheDatabaseDoesNot) {
  SilentServer silent;
  daemon.writeDatabaseConfig("127.0.0.1", silent.port());
  start({"--timeout", "1"});
  const auto begin = std::chrono::steady_clock::now();
  const std::string text = scrape();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3));
  EXPECT_THAT(text, HasSubstr("\nkoducron_database_up 0\n"));
  EXPECT_THAT(HttpClient::get(port, "/-/healthy"), StartsWith("HTTP/1.1 200 OK\r\n"));
}

TEST_F(ExporterTest, AnswersInTimeWhenATableIsLocked) {
  start();
  ASSERT_TRUE(waitForSample("koducron_tasks_read_timestamp_seconds", 1));
  database.query("BEGIN; LOCK TABLE kodu_cron_plugin IN ACCESS EXCLUSIVE MODE");
  const std::string text = scrape();
  database.query("ROLLBACK");
  EXPECT_THAT(text, HasSubstr("\nkoducron_database_up 1\n"));
  EXPECT_THAT(text, HasSubstr("\nkoducron_tasks_read_timestamp_seconds "))
      << "the figures of tasks are shown with the time they were read at";
}

TEST_F(ExporterTest, ServesBothFormats) {
  start();
  EXPECT_THAT(scrape(),
              HasSubstr("\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\n"));
  const std::string open = scrape("Accept: application/openmetrics-text;version=1.0.0\r\n");
  EXPECT_THAT(open, HasSubstr("\r\nContent-Type: application/openmetrics-text; version=1.0.0; "
                              "charset=utf-8\r\n"));
  EXPECT_THAT(open, EndsWith("\n# EOF\n"));
}

TEST_F(ExporterTest, WritesWhatParsersAccept) {
  database.insertTask(makeTask(1, "echo bad; exit 2"));
  database.query("SELECT kodu_metric_mark(1)");
  ASSERT_TRUE(daemon.startAndWait());
  start();
  ASSERT_TRUE(waitForSample(runs("failed"), 0));
  ASSERT_TRUE(waitForSample("koducron_tasks_failing", 1));
  for (const std::string format : {"classic", "openmetrics"}) {
    const std::string text =
        scrape(format == "classic" ? "" : "Accept: application/openmetrics-text\r\n");
    const std::string file = daemon.directory / format;
    writeFile(file, text.substr(text.find("\r\n\r\n") + 4));
    EXPECT_EQ(call(fmt::format("/usr/bin/python3 {} {} {}",
                               projectFile("tests/support/validateMetrics.py"), format, file)),
              "");
  }
  EXPECT_EQ(call("promtool check metrics <" + (daemon.directory / "classic")), "");
}

TEST_F(ExporterTest, ConnectsAsTheMonitorWithoutTheDatabaseFile) {
  database.query(
      "DO $$BEGIN EXECUTE format('ALTER ROLE kodu_monitor PASSWORD %L', 'secret'); END$$");
  setenv("PGPASSWORD", "secret", 1);  // NOLINT(concurrency-mt-unsafe): there is one thread
  start({"--user", "kodu_monitor"});
  EXPECT_EQ(sample("koducron_database_up"), 1) << said();
  EXPECT_TRUE(waitForSample("koducron_tasks_read_timestamp_seconds", 1)) << said();
}

TEST_F(ExporterTest, EndsAtSigterm) {
  start();
  EXPECT_EQ(exitStatusOf(end(SIGTERM)), 0);
  EXPECT_EQ(said(), "koduexporter: listening on 127.0.0.1 port " + std::to_string(port) + "\n");
}

TEST_F(ExporterTest, SaysWhatIsWrongAtItsStart) {
  const std::string program = builtProgram("KODU_TEST_EXPORTER");
  // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe)
  int status = std::system((program + " -f /nowhere.conf 2>" + saidPath()).c_str());
  EXPECT_EQ(exitStatusOf(status), 78);
  EXPECT_THAT(said(), StartsWith("koduexporter: cannot read /nowhere.conf: No such file"));
  start();
  const std::string address = "127.0.0.1:" + std::to_string(port);
  const std::string other = daemon.directory / "other.err";
  // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe)
  status = std::system(
      (program + " -f " + daemon.mainConfig() + " --listen " + address + " 2>" + other).c_str());
  EXPECT_EQ(exitStatusOf(status), 69);
  EXPECT_THAT(readFile(other), HasSubstr("cannot listen on 127.0.0.1 port "));
}

}  // namespace
