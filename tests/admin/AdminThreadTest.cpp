#include "admin/adminThread.h"

#include <atomic>
#include <chrono>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/globals.h"
#include "task/serviceCron.h"
#include "tests/support/Globals.h"
#include "tests/support/waitUntil.h"

namespace {

using std::chrono::seconds;
using testing::ElementsAre;

class AdminThreadTest : public DatabaseGlobalsTest {
 protected:
  void flag(int id) {
    TaskRow row;
    row.id = id;
    database.insertTask(row);
    database.query("UPDATE kodu_cron_plugin SET cron_delete = TRUE");
  }
};

TEST_F(AdminThreadTest, LeavesWithoutAPurgeWhenTheFlagIsSetAlready) {
  flag(1);
  die_kodu = 1;

  th_admin();

  EXPECT_THAT(log(), ElementsAre("DEBUG#TH ADMIN#START "));
  EXPECT_EQ(database.task(1, "cron_id"), "1");
}

TEST(PurgePeriodTest, IsTwoMinutes) {
  EXPECT_EQ(kPurgePeriod, seconds(120));
}

using SlowAdminThreadTest = AdminThreadTest;

TEST_F(SlowAdminThreadTest, PurgesAtOnceAndLeavesAtTheEndOfItsSleepWithoutAnotherPurge) {
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
  EXPECT_TRUE(waitUntil([&] { return hasEnded.load(); }, seconds(150)));
  EXPECT_GE(std::chrono::steady_clock::now() - start, kPurgePeriod);
  EXPECT_EQ(logged("DEBUG#DELETE END"), 1);
  EXPECT_EQ(database.task(2, "cron_id"), "2");
  admin.join();
}

}  // namespace
