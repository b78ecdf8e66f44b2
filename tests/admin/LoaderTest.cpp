#include "admin/loader.h"

#include <gtest/gtest.h>

#include "core/globals.h"
#include "task/CronTaskQueue.h"
#include "task/serviceCron.h"
#include "tests/support/Globals.h"

namespace {

using LoaderTest = DatabaseGlobalsTest;

TEST_F(LoaderTest, LoadsEveryTaskWithoutAList) {
  for (const int id : {1, 2, 3}) {
    TaskRow row;
    row.id = id;
    database.insertTask(row);
  }

  load_cron_task("ADD", nullptr);

  EXPECT_EQ(cronTaskMap.size(), 3U);
  EXPECT_TRUE(cronTaskMap.contains(1) && cronTaskMap.contains(2) && cronTaskMap.contains(3));
  EXPECT_EQ(serviceQueue->size(), 3U);
  EXPECT_EQ(log().back(), "NOTICE#script reload successful");
}

}  // namespace
