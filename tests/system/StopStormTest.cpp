// SIGTERM at random moments, on a daemon whose purge period is two seconds. KODU_STORM_ROUNDS says
// how many stops each test makes; lab/storm/run makes 75 of each of the four.

#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <random>

#include <gtest/gtest.h>

#include "tests/support/Daemon.h"
#include "tests/support/Database.h"
#include "tests/support/waitUntil.h"

namespace {

int rounds() {
  const char* text = std::getenv("KODU_STORM_ROUNDS");
  return text == nullptr ? 2 : std::stoi(text);
}

class StopStormTest : public testing::Test {
 protected:
  void SetUp() override {
    daemon.programVariable = std::string("KODU_TEST_SHORT_PURGE_DAEMON");
    daemon.threadNumber = std::string("8");  // a plain literal makes g++ 12 warn, wrongly
    daemon.writeConfig();
  }

  /// `count` tasks, due at the SQL expression `nextExec`.
  void insertTasks(int count, const std::string& path, const std::string& parameter,
                   const std::string& nextExec) {
    TaskRow row;
    row.path = path;
    row.parameter = parameter;
    row.nextExec = nextExec;
    database.insertTask(row);
    database.query(
        "INSERT INTO kodu_cron_plugin(cron_id, cron_plugin_id, cron_interval, cron_next_exec, "
        "cron_log_file, cron_retries, cron_parameter) SELECT id, 1, cron_interval, cron_next_exec, "
        "cron_log_file, cron_retries, cron_parameter FROM kodu_cron_plugin, generate_series(2, " +
        std::to_string(count) + ") AS id");
  }

  void makeAllDue() {
    database.query("UPDATE kodu_cron_plugin SET cron_next_exec = date_trunc('second', now())");
  }

  /// Sends SIGTERM once `line` is in the log and up to `spreadMs` have passed, and expects the end
  /// that a daemon with workers has.
  void stopAfter(const std::string& line, int spreadMs) {
    ASSERT_TRUE(waitUntil([&] { return daemon.logged(line) > 0; }, std::chrono::seconds(60)))
        << daemon.console();
    const auto moment =
        std::chrono::steady_clock::now() +
        std::chrono::milliseconds(std::uniform_int_distribution(0, spreadMs)(random));
    waitUntil([&] { return std::chrono::steady_clock::now() >= moment; });
    daemon.signal(SIGTERM);
    const auto status = daemon.waitForEnd(std::chrono::seconds(60));
    ASSERT_TRUE(status.has_value()) << "hangs since SIGTERM; seed " << seed;
    ASSERT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGABRT)
        << "status " << *status << "; seed " << seed;
    ASSERT_EQ(daemon.logged("NOTICE#stop koduCron... SIGTERM: 15"), 1);
    ASSERT_NE(daemon.console().find("terminate called without an active exception"),
              std::string::npos);
    std::filesystem::remove(daemon.logPath());
    std::filesystem::remove(daemon.consolePath());
  }

  Database database;
  Daemon daemon{database};
  const unsigned seed = std::random_device()();
  std::mt19937 random{seed};
};

TEST_F(StopStormTest, EndsDuringAStartUpWithTwentyThousandTasks) {
  insertTasks(20'000, "/bin/true", "", "now() + interval '1 hour'");
  for (int round = 0; round < rounds(); ++round) {
    daemon.start({"-D"});
    stopAfter("NOTICE#KODUCRON Database connection ....", 1500);
    ASSERT_FALSE(HasFatalFailure()) << "round " << round;
  }
}

TEST_F(StopStormTest, EndsInTheMiddleOfABurst) {
  insertTasks(2'000, "/bin/echo", "burst", "date_trunc('second', now())");
  for (int round = 0; round < rounds(); ++round) {
    makeAllDue();
    daemon.start();
    stopAfter("NOTICE#Start Thread", 2500);
    ASSERT_FALSE(HasFatalFailure()) << "round " << round;
  }
}

TEST_F(StopStormTest, EndsWithIdleWorkers) {
  for (int round = 0; round < rounds(); ++round) {
    daemon.start({"-D"});
    stopAfter("NOTICE#Start Thread", 500);
    ASSERT_FALSE(HasFatalFailure()) << "round " << round;
  }
}

TEST_F(StopStormTest, EndsWithAllWorkersInPlugins) {
  insertTasks(16, "/bin/sleep", "600", "date_trunc('second', now())");
  for (int round = 0; round < rounds(); ++round) {
    makeAllDue();
    daemon.start();
    stopAfter("NOTICE#Start Thread", 3000);
    ASSERT_FALSE(HasFatalFailure()) << "round " << round;
  }
}

}  // namespace
