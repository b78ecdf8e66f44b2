#include "ctl/check/taskRules.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/check/findings.h"
#include "ctl/daemon/daemonProcess.h"
#include "ctl/task/task.h"
#include "tests/support/Files.h"

namespace {

namespace fs = std::filesystem;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

/// checkTasks on tasks that no database holds.
class TaskRulesTest : public testing::Test {
 protected:
  TaskRulesTest() {
    fs::create_directories(output());
    writePlugin(guard(), "");
    writePlugin(plugin(), "");
  }
  std::string output() const { return directory / "output"; }
  std::string guard() const { return directory / "koduguard"; }
  std::string plugin() const { return directory / "plugin"; }

  /// A task without a fault.
  Task validTask(int id) const {
    Task task;
    task.id = id;
    task.name = "task" + std::to_string(id);
    task.type = "cron";
    task.path = guard();
    task.parameter = "-t 5 -- " + plugin();
    task.fileName = "$SERVICEID_$DATE.txt";
    task.outputDirectory = output();
    task.every = 300;
    task.next = 1000;
    task.now = 900;
    return task;
  }
  /// Each finding as "error 7: TEXT" or "warning 7: TEXT", with the ids of its tasks.
  static std::vector<std::string> check(const std::vector<Task>& tasks) {
    DaemonIdentity identity;
    identity.uid = geteuid();
    Findings findings;
    SharedFiles files;
    for (const Task& task : tasks) {
      files.emplace(task.outputPath(), std::nullopt);
    }
    TaskRules rules(identity, files, findings);
    for (const Task& task : tasks) {
      rules.look(task);
    }
    std::vector<std::string> texts;
    for (const Json::Value& finding : findings.toJson()) {
      std::string ids;
      for (const Json::Value& id : finding["tasks"]) {
        ids += " " + id.asString();
      }
      texts.push_back(finding["severity"].asString() + ids + ": " + finding["text"].asString());
    }
    return texts;
  }
  std::vector<std::string> checkWith(const std::function<void(Task&)>& change) const {
    Task task = validTask(7);
    change(task);
    return check({task});
  }

  TempDir directory;
};

TEST_F(TaskRulesTest, FindsNothingInAValidTask) {
  EXPECT_THAT(check({validTask(7), validTask(8)}), IsEmpty());
  EXPECT_THAT(check({}), IsEmpty());
}

TEST_F(TaskRulesTest, FindsRowsThatTheDaemonRefuses) {
  EXPECT_THAT(checkWith([](Task& task) { task.id = -1; }),
              Contains("error -1: refused by the daemon: the id is negative"));
  for (const std::optional<long> every : {std::optional<long>(), {0}, {-5}}) {
    EXPECT_THAT(checkWith([&](Task& task) { task.every = every; }),
                ElementsAre("error 7: refused by the daemon: cron_interval is missing or shorter "
                            "than a second"));
  }
  EXPECT_THAT(checkWith([](Task& task) { task.next = std::nullopt; }),
              ElementsAre("error 7: refused by the daemon: cron_next_exec is missing"));
  EXPECT_THAT(checkWith([](Task& task) {
                task.next = std::nullopt;
                task.pause = Pause();
              }),
              IsEmpty())
      << "a paused task has no next run";
}

TEST_F(TaskRulesTest, FindsValuesThatTheTablesNowRefuse) {
  EXPECT_THAT(checkWith([](Task& task) { task.isIntervalUneven = true; }),
              ElementsAre(HasSubstr("error 7: the interval contains months, years or a negative")));
  EXPECT_THAT(checkWith([](Task& task) { task.isNextBeyondLimit = true; }),
              ElementsAre(HasSubstr("error 7: the next run is due after 2036")));
}

/// The columns of a task's retries.
struct Retry {
  std::optional<long> count, delay;
  bool isFound;
};

TEST_F(TaskRulesTest, FindsRetriesWithinTheSecondOfTheFailure) {
  const std::optional<long> none;
  const std::vector<Retry> cases = {{1, 1, true},     {5, 0, true},        {1, -3, true},
                                    {none, 1, true},  {1, 2, false},       {0, 0, false},
                                    {0, none, false}, {none, none, false}, {1, none, false}};
  for (const Retry& retry : cases) {
    const auto found = checkWith([&](Task& task) {
      task.retries = retry.count;
      task.retryAfter = retry.delay;
    });
    EXPECT_EQ(found.size(), retry.isFound ? 1U : 0U)
        << retry.count.value_or(-1) << " retries after " << retry.delay.value_or(-1);
  }
}

TEST_F(TaskRulesTest, WarnsOfAQuoteThatIsNotClosed) {
  const std::string begin = validTask(7).parameter;
  const std::vector<std::pair<std::string, bool>> cases = {
      {"", false},           {" \"a b\"", false}, {" \"a b", true}, {" it's", true},
      {" 'a' \"b\"", false}, {" \"a'", false},    {" '\"'", true},
  };
  for (const auto& [rest, isFound] : cases) {
    const auto found =
        checkWith([&text = rest, &begin](Task& task) { task.parameter = begin + text; });
    EXPECT_EQ(found.size(), isFound ? 1U : 0U) << rest << testing::PrintToString(found);
  }
}

TEST_F(TaskRulesTest, FindsPluginsThatCannotBeRun) {
  fs::remove(plugin());
  EXPECT_THAT(check({validTask(7)}), ElementsAre("error 7: plugin " + plugin() +
                                                 " cannot be run: No such file or directory"));
  chmod(guard().c_str(), 0644);
  EXPECT_THAT(check({validTask(7)}),
              ElementsAre("error 7: plugin " + guard() + " cannot be run: Permission denied"))
      << "the guarded plugin is not checked then";
}

TEST_F(TaskRulesTest, WarnsOfATaskWithoutATimeLimit) {
  EXPECT_THAT(checkWith([&](Task& task) { task.path = plugin(); }),
              ElementsAre("warning 7: no time limit: a run that hangs occupies its worker (see "
                          "koduguard)"));
}

TEST_F(TaskRulesTest, FindsAGuardWithoutAPlugin) {
  for (const char* parameter : {"", "-t 5", "-t 5 --"}) {
    EXPECT_THAT(checkWith([&](Task& task) { task.parameter = parameter; }),
                ElementsAre(HasSubstr("error 7: plugin  cannot be run: ")))
        << parameter;
  }
}

TEST_F(TaskRulesTest, ReportsAPluginOfManyTasksOnce) {
  fs::remove(plugin());
  EXPECT_THAT(
      check({validTask(1), validTask(2), validTask(3)}),
      ElementsAre("error 1 2 3: plugin " + plugin() + " cannot be run: No such file or directory"));
}

TEST_F(TaskRulesTest, FindsFileNamesThatEndTheDaemon) {
  EXPECT_THAT(checkWith([](Task& task) { task.fileName = ""; }),
              ElementsAre("error 7: cron_log_file is empty: the output has no file, which ends the "
                          "daemon"));
  EXPECT_THAT(checkWith([](Task& task) { task.fileName = "fixed.txt"; }),
              ElementsAre("error 7: the file name lacks $DATE: the second failed run ends the "
                          "daemon"));
  EXPECT_THAT(checkWith([](Task& task) { task.fileName = "$date.txt"; }),
              ElementsAre(HasSubstr("lacks $DATE")));
  fs::create_directory(output() + "/sub");
  EXPECT_THAT(
      checkWith([](Task& task) { task.fileName = "sub/$DATE.txt"; }),
      ElementsAre(HasSubstr("error 7: the file name contains a /, but the archive has no")));
}

TEST_F(TaskRulesTest, FindsOutputFilesThatCannotBeWritten) {
  fs::create_directory(validTask(7).outputPath());
  EXPECT_THAT(check({validTask(7)}),
              ElementsAre("error 7: output file cannot be written: it is a directory"));
  fs::remove(validTask(7).outputPath());
  ASSERT_EQ(mkfifo(validTask(7).outputPath().c_str(), 0644), 0);
  EXPECT_THAT(check({validTask(7)}), ElementsAre(HasSubstr("it is a FIFO, and its writer waits")));
}

TEST_F(TaskRulesTest, WarnsOfTasksThatShareAnOutputFile) {
  std::vector<Task> tasks = {validTask(1), validTask(2), validTask(3)};
  tasks[0].fileName = tasks[2].fileName = "same_$DATE.txt";
  EXPECT_THAT(check(tasks), ElementsAre("warning 3: writes the same output file as task 1: " +
                                        output() + "/same_last.txt"));
}

TEST_F(TaskRulesTest, WarnsOfOverdueTasks) {
  EXPECT_THAT(checkWith([](Task& task) { task.isLate = true; }),
              ElementsAre("warning 7: is overdue"));
}

TEST_F(TaskRulesTest, ChecksOnlyThePluginTypeOfOtherTasks) {
  EXPECT_THAT(checkWith([](Task& task) {
                task.type = "other";
                task.path = "/nowhere";
                task.fileName = "";
                task.isLate = true;
              }),
              ElementsAre("warning 7: plugin_type is 'other': the daemon runs only plugins of type "
                          "'cron'"));
}

TEST_F(TaskRulesTest, AddsEveryFindingOfATask) {
  const auto found = checkWith([](Task& task) {
    task.every = 0;
    task.path = "/nowhere/plugin";
    task.fileName = "fixed.txt";
    task.isLate = true;
  });
  EXPECT_EQ(found.size(), 4U) << testing::PrintToString(found);
  EXPECT_THAT(found, Contains("warning 7: is overdue"));
  EXPECT_THAT(found, Not(Contains(HasSubstr("time limit"))));
}

}  // namespace
