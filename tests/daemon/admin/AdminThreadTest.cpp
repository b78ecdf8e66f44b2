#include "admin/adminThread.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/globals.h"
#include "task/serviceCron.h"
#include "tests/support/Globals.h"
#include "tests/support/waitUntil.h"

namespace {

using std::chrono::seconds;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::KilledBySignal;

class AdminThreadTest : public DatabaseGlobalsTest {
 protected:
  void flag(int id) {
    TaskRow row;
    row.id = id;
    database.insertTask(row);
    database.query("UPDATE kodu_cron_plugin SET cron_delete = TRUE");
  }
};

TEST_F(AdminThreadTest, EndsWithoutAPurgeWhenTheFlagIsAlreadySet) {
  flag(1);
  die_kodu = 1;

  th_admin();

  EXPECT_THAT(log(), ElementsAre("DEBUG#TH ADMIN#START "));
  EXPECT_EQ(database.task(1, "cron_id"), "1");
}

TEST_F(AdminThreadTest, UnblocksAllSignals) {
  sigset_t mask;
  die_kodu = 1;
  std::thread([&mask] {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
    th_admin();
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  }).join();

  EXPECT_TRUE(sigisemptyset(&mask));
}

/// Tests that end the process: exceptions of a purge are not caught.
class AdminThreadCrashTest : public AdminThreadTest {
 protected:
  static void runAdminThread() { std::thread(th_admin).join(); }
};

TEST_F(AdminThreadCrashTest, EndsTheProcessWhenAStatementFails) {
  flag(1);
  database.query("REVOKE DELETE ON kodu_cron_error FROM kodu");

  EXPECT_EXIT(runAdminThread(), KilledBySignal(SIGABRT),
              AllOf(HasSubstr("instance of 'PostgresqlException'"),
                    HasSubstr("Exec prepareRequest failed:  ERROR:  permission denied for table "
                              "kodu_cron_error")));

  EXPECT_THAT(log(), ElementsAre("DEBUG#TH ADMIN#START ", "DEBUG#DELETE TASK: 1"));
  EXPECT_EQ(database.task(1, "cron_delete"), "t");
}

TEST_F(AdminThreadCrashTest, EndsTheProcessWhenAFileCannotBeRemoved) {
  flag(1);
  cronTaskMap[1] = makeTask(1, "/bin/true");
  std::filesystem::create_directories(log_directory + "/out_1_last.txt/not empty");

  EXPECT_EXIT(runAdminThread(), KilledBySignal(SIGABRT),
              AllOf(HasSubstr("filesystem_error"), HasSubstr("cannot remove")));

  EXPECT_THAT(log(), ElementsAre("DEBUG#TH ADMIN#START ", "DEBUG#DELETE TASK: 1"));
  EXPECT_EQ(database.task(1, "cron_delete"), "t");
}

TEST(PurgePeriodTest, IsTwoMinutes) {
  EXPECT_EQ(kPurgePeriod, seconds(120));
}

using SlowAdminThreadTest = AdminThreadTest;

TEST_F(SlowAdminThreadTest, PurgesAtOnceAndEndsAfterItsSleepWithoutAnotherPurge) {
  flag(1);
  const auto start = std::chrono::steady_clock::now();
  std::atomic<bool> hasEnded = false;
  std::thread admin([&] {
    th_admin();
    hasEnded = true;
  });
  EXPECT_TRUE(waitUntil([&] { return logged("DEBUG#DELETE END") == 1; }));
  EXPECT_EQ(database.task(1, "cron_id"), "");

  flag(2);
  die_kodu = 1;
  // A signal does not shorten the sleep.
  static std::atomic<bool> isInterrupted = false;
  const auto previous = std::signal(SIGUSR1, [](int) { isInterrupted = true; });
  pthread_kill(admin.native_handle(), SIGUSR1);
  EXPECT_TRUE(waitUntil([] { return isInterrupted.load(); }));
  EXPECT_TRUE(waitUntil([&] { return hasEnded.load(); }, seconds(150)));
  EXPECT_GE(std::chrono::steady_clock::now() - start, kPurgePeriod);
  EXPECT_EQ(logged("DEBUG#DELETE END"), 1);
  EXPECT_EQ(database.task(2, "cron_id"), "2");
  admin.join();
  std::signal(SIGUSR1, previous);
}

}  // namespace
