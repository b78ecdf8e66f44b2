// SIGTERM at random moments, with a purge period of two seconds. KODU_STORM_ROUNDS sets the number
// of stops of each test, KODU_STORM_TASKS the number of tasks of a long load. lab/storm/run makes
// 34 stops of each kind, with 200,000 tasks.

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <random>

#include <gtest/gtest.h>

#include "tests/support/Daemon.h"
#include "tests/support/Database.h"
#include "tests/support/Process.h"
#include "tests/support/SilentServer.h"
#include "tests/support/waitUntil.h"

namespace {

int numberFrom(const char* variable, int otherwise) {
  const char* text = std::getenv(variable);
  return text == nullptr ? otherwise : std::stoi(text);
}

int rounds() {
  return numberFrom("KODU_STORM_ROUNDS", 2);
}

int manyTasks() {
  return numberFrom("KODU_STORM_TASKS", 20'000);
}

constexpr const char* kStop = "NOTICE#stop koduCron... SIGTERM: 15";
constexpr const char* kStarting = "NOTICE#Start Thread";

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

  /// Sends SIGTERM up to `spreadMs` after `line` has appeared in the log, and expects the usual end
  /// of a daemon with workers.
  void stopAfter(const std::string& line, int spreadMs) {
    signalAfter(line, spreadMs);
    const auto status = daemon.waitForEnd(std::chrono::seconds(60));
    ASSERT_TRUE(status.has_value()) << "hangs after SIGTERM; seed " << seed;
    ASSERT_EQ(signalOf(status), SIGABRT) << "status " << *status << "; seed " << seed;
    ASSERT_NE(daemon.console().find("terminate called without an active exception"),
              std::string::npos);
    expectNoPurgeAfterAnEarlyStop();
    forget();
  }

  void signalAfter(const std::string& line, int spreadMs) {
    ASSERT_TRUE(waitUntil([&] { return daemon.logged(line) > 0; }, std::chrono::seconds(60)))
        << daemon.console();
    const auto moment =
        std::chrono::steady_clock::now() +
        std::chrono::microseconds(std::uniform_int_distribution(0, spreadMs * 1000)(random));
    waitUntil([&] { return std::chrono::steady_clock::now() >= moment; });
    daemon.signal(SIGTERM);
  }

  /// After a stop before their start, the threads have nothing to do.
  void expectNoPurgeAfterAnEarlyStop() {
    const auto log = daemon.log();
    ASSERT_EQ(std::count(log.begin(), log.end(), kStop), 1);
    const auto stop = std::find(log.begin(), log.end(), kStop);
    if (std::find(stop, log.end(), kStarting) != log.end()) {
      ++earlyStops;
      ASSERT_EQ(std::count(log.begin(), log.end(), "DEBUG#DELETE END"), 0) << "seed " << seed;
    }
  }

  /// Removes the log of the previous process.
  void forget() {
    std::filesystem::remove(daemon.logPath());
    std::filesystem::remove(daemon.consolePath());
  }

  Database database;
  Daemon daemon{database};
  const unsigned seed = std::random_device()();
  std::mt19937 random{seed};
  int earlyStops = 0;  // the number of stops before the threads started
};

TEST_F(StopStormTest, EndsWhileItConnectsToASilentServer) {
  for (int round = 0; round < rounds(); ++round) {
    SilentServer server;
    daemon.writeDatabaseConfig("127.0.0.1", server.port());
    daemon.start();
    signalAfter("NOTICE#KODUCRON Database connection ....", 20);
    ASSERT_TRUE(waitUntil([&] { return daemon.logged(kStop) == 1; })) << "round " << round;
    ASSERT_TRUE(server.accept());
    server.hangUp();
    ASSERT_EQ(exitStatusOf(daemon.waitForEnd(std::chrono::seconds(60))), 1) << "round " << round;
    forget();
  }
}

TEST_F(StopStormTest, EndsWhileItPrepares) {
  for (int round = 0; round < rounds(); ++round) {
    daemon.start({"-D"});
    stopAfter("NOTICE#Connection database sucessful. Encoding: UTF8", 4);
    ASSERT_FALSE(HasFatalFailure()) << "round " << round;
  }
}

TEST_F(StopStormTest, EndsDuringALongLoad) {
  insertTasks(manyTasks(), "/bin/true", "", "now() + interval '1 day'");
  for (int round = 0; round < rounds(); ++round) {
    daemon.start();
    stopAfter("NOTICE#Load cron task", manyTasks() / 100);
    ASSERT_FALSE(HasFatalFailure()) << "round " << round;
  }
  std::cout << earlyStops << " of " << rounds() << " before the threads started\n";
}

TEST_F(StopStormTest, EndsDuringALongLoadWithDebugLines) {
  insertTasks(manyTasks(), "/bin/true", "", "now() + interval '1 day'");
  for (int round = 0; round < rounds(); ++round) {
    daemon.start({"-D"});
    stopAfter("NOTICE#Load cron task", manyTasks() / 50);
    ASSERT_FALSE(HasFatalFailure()) << "round " << round;
  }
  std::cout << earlyStops << " of " << rounds() << " before the threads started\n";
}

TEST_F(StopStormTest, EndsWhileItsThreadsStart) {
  for (int round = 0; round < rounds(); ++round) {
    daemon.start({"-D"});
    stopAfter("NOTICE#script reload successful", 2);
    ASSERT_FALSE(HasFatalFailure()) << "round " << round;
  }
}

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
