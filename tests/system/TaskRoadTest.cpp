#include <gtest/gtest.h>

#include "tests/support/Daemon.h"
#include "tests/support/Database.h"
#include "tests/support/waitUntil.h"

namespace {

TEST(TaskRoadTest, RunsADueTaskAndWritesItsOutcome) {
  const Database database;
  Daemon daemon(database);
  TaskRow row;
  row.path = writePlugin(daemon.directory / "plugin", "echo fine");
  row.interval = "1 second";
  row.nextExec = "now()";
  database.insertTask(row);

  ASSERT_TRUE(daemon.startAndWait());

  EXPECT_TRUE(waitUntil([&] { return database.task(1, "cron_status") == "OK"; }));
  EXPECT_EQ(daemon.output("out_1_last.txt"), "fine\n");
  EXPECT_EQ(database.failures(1), 0);
}

}  // namespace
