#include "ctl/task/taskTable.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/task/selection.h"
#include "ctl/task/task.h"
#include "tests/support/outputOf.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr long kNoon = 1714564800;  // 2024-05-01 12:00:00

Task taskOf(int id, const std::string& name) {
  Task task;
  task.id = id;
  task.name = name;
  task.now = kNoon;
  task.next = kNoon + 60;
  task.every = 300;
  return task;
}

/// The line of a task in a table of its own.
std::string lineOf(const Task& task, bool withPause = false) {
  TaskTable table(Options(), withPause);
  table.add(task);
  return table.render(0).back();
}

TEST(StatusWordTest, SaysWhatTakesEffectFirst) {
  Task task = taskOf(1, "a");
  EXPECT_EQ(statusWord(task), "-");
  task.status = "OK";
  EXPECT_EQ(statusWord(task), "OK");
  task.pause.emplace();
  EXPECT_EQ(statusWord(task), "paused");
  task.isFlagged = true;
  EXPECT_EQ(statusWord(task), "deleted");
  task.status = "PROCESS";
  task.isRunning = true;
  EXPECT_EQ(statusWord(task), "PROCESS") << "the run is completed before";
}

TEST(TotalsTextTest, ListsTheStatesInOneOrder) {
  Totals totals;
  EXPECT_EQ(totalsText(totals), "0 tasks; 0 late");
  totals.tasks = 1;
  totals.words = {{"-", 1}};
  EXPECT_EQ(totalsText(totals), "1 task: 1 not run yet; 0 late");
  totals.tasks = 1234567;
  totals.late = 1000;
  totals.words = {{"deleted", 1}, {"OK", 1230000}, {"paused", 2}, {"PROCESS", 3}, {"FAILED", 4561}};
  EXPECT_EQ(totalsText(totals),
            "1,234,567 tasks: 1,230,000 OK, 4,561 FAILED, 3 PROCESS, 2 paused, 1 deleted; 1,000 "
            "late");
}

TEST(TaskTableTest, ShowsTheStateAndTheHistory) {
  Task task = taskOf(7, "disk");
  task.status = "FAILED";
  task.lastDue = kNoon - 240;
  task.failuresHour = 1;
  task.failuresDay = 23;
  task.failingSince = kNoon - 86400;
  task.retries = 3;
  task.failedAttempts = 2;
  TaskTable table(Options(), false);
  table.add(task);
  const std::vector<std::string> lines = table.render(0);
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0],
            "ID  NAME  STATUS  LATE  LAST DUE  NEXT DUE  EVERY  RETRIES  FAILED 1H  24H  FAILING "
            "SINCE");
  EXPECT_EQ(
      lines[1],
      " 7  disk  FAILED     -  11:56:00  12:01:00     5m      2/3          1   23  2024-04-30 "
      "12:00:00");
}

TEST(TaskTableTest, ShowsHowLateATaskIs) {
  Task task = taskOf(7, "disk");
  EXPECT_THAT(lineOf(task), HasSubstr(" -  "));
  task.isLate = true;
  task.lateSeconds = 3723;
  EXPECT_THAT(lineOf(task), HasSubstr(" 1h 2m  "));
}

TEST(TaskTableTest, HasADashForWhatIsUnknown) {
  Task task = taskOf(7, "disk");
  task.next.reset();
  task.every.reset();
  EXPECT_EQ(lineOf(task),
            " 7  disk  -          -  -         -             -      0/1          0    "
            "0  -");
}

TEST(TaskTableTest, CutsALongNameAndShowsNoControlCharacter) {
  EXPECT_THAT(lineOf(taskOf(7, std::string(31, 'x'))),
              HasSubstr("  " + std::string(30, 'x') + "  "));
  EXPECT_THAT(lineOf(taskOf(7, "a\x1b[31m\nb")), HasSubstr("  a?[31m b  "));
}

TEST(TaskTableTest, ShowsWhyATaskIsPaused) {
  Task task = taskOf(7, "disk");
  EXPECT_THAT(lineOf(task, true), testing::EndsWith("-")) << "an empty cell at the end";
  task.pause = Pause{kNoon - 60, kNoon + 60, "alice", "new disks"};
  EXPECT_THAT(lineOf(task, true),
              testing::EndsWith("  since 11:59:00 by alice until 12:01:00: new disks"));
  task.pause = Pause{};
  EXPECT_THAT(lineOf(task, true), testing::EndsWith("  since -"));
  EXPECT_THAT(lineOf(task, false), Not(HasSubstr("since")));
}

TEST(TaskTableTest, PrintsItsHeadOnce) {
  const std::string printed = outputOf([] {
    TaskTable table(Options(), false);
    table.add(taskOf(1, "first"));
    table.print();
    table.add(taskOf(2, "second"));
    table.print();
  });
  EXPECT_EQ(printed.find("NAME"), printed.rfind("NAME"));
  EXPECT_LT(printed.find("first"), printed.find("second"));
}

TEST(TaskTableTest, NeedsTheConfigurationToShowOutputs) {
  Options options;
  options.withOutput = true;
  options.configFile = "/nowhere/cron.conf";
  EXPECT_THROW(TaskTable(options, false), Failure);
}

}  // namespace
