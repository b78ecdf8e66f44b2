#include "sched/worker.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/globals.h"
#include "core/localTime.h"
#include "core/signals.h"
#include "task/CronTaskQueue.h"
#include "task/ExecuteQueue.h"
#include "task/serviceCron.h"
#include "tests/support/FixedClock.h"
#include "tests/support/Globals.h"
#include "tests/support/waitInShell.h"
#include "tests/support/waitUntil.h"

namespace {

namespace fs = std::filesystem;

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::KilledBySignal;
using TaskPtr = std::shared_ptr<serviceCron>;

const char* const kSilent = "DAEMON: the plugin does not return anything on the stdout";

/// Captures the output to std::cout during its lifetime, and counts the flushes.
class Console : public std::stringbuf {
 public:
  /// Restores the buffer of std::cout.
  void release() const { std::cout.rdbuf(previous); }

  Console() : previous(std::cout.rdbuf(this)) {}
  ~Console() override { std::cout.rdbuf(previous); }
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  int flushes() const { return flushCount; }

 protected:
  int sync() override {
    ++flushCount;
    return 0;
  }

 private:
  std::streambuf* previous;
  int flushCount = 0;
};

/// Redirects the process's standard output to a file during its lifetime.
class StandardOutput {
 public:
  explicit StandardOutput(const std::string& path) { lead(path); }
  ~StandardOutput() {
    dup2(saved, STDOUT_FILENO);
    close(saved);
  }
  StandardOutput(const StandardOutput&) = delete;
  StandardOutput& operator=(const StandardOutput&) = delete;

  /// Redirects it to another file.
  static void lead(const std::string& path) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    dup2(file, STDOUT_FILENO);
    close(file);
  }

 private:
  int saved = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
};

/// The descriptor of the process that refers to `path`, but for `known`; -1 when there is none.
int descriptorOf(const std::string& path, int known) {
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code ignored;
    const int file = std::stoi(entry.path().filename());
    if (file != known && fs::read_symlink(entry.path(), ignored) == path) {
      return file;
    }
  }
  return -1;
}

/// Tasks in the database and in memory, due ten seconds before now, which is kMayDay in UTC.
class WorkerTest : public DatabaseGlobalsTest {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC0", 1);
    readZone();
    DatabaseGlobalsTest::SetUp();
  }
  void TearDown() override {
    stopWorkers();
    DatabaseGlobalsTest::TearDown();
    unsetenv("TZ");
    readZone();
  }

  /// A task with a row of its own whose plugin is a shell script with `body`; in no queue.
  TaskPtr addTask(int id, const std::string& body, long due = kMayDay - 10) const {
    TaskRow row;
    row.id = id;
    row.nextExec = "to_timestamp(" + std::to_string(due) + ")";
    database.insertTask(row);
    return makeTask(id, writePlugin(directory / ("plugin" + std::to_string(id)), body), due);
  }
  void startWorkers(int count) {
    for (int number = 0; number < count; ++number) {
      workers.emplace_back([this, number] {
        th_executeCronTaks(number);
        ++ended;
      });
    }
  }
  void stopWorkers() {
    die_kodu = 1;
    // Repeats the wake-up: a worker between its check of the flag and its wait misses one.
    waitUntil([this] {
      queueExecTask->wakeAll();
      return ended == static_cast<int>(workers.size());
    });
    for (std::thread& worker : workers) {
      worker.join();
    }
    workers.clear();
    ended = 0;
    die_kodu = 0;
  }
  /// Has one worker run the tasks, each until it is on the schedule queue again.
  bool runTasks(const std::vector<TaskPtr>& tasks) {
    startWorkers(1);
    bool isDone = true;
    for (const TaskPtr& task : tasks) {
      queueExecTask->push(task);
      isDone = isDone && waitUntil([] { return !serviceQueue->empty(); });
      serviceQueue->pop();
    }
    stopWorkers();
    return isDone;
  }
  bool runTask(const TaskPtr& task) { return runTasks({task}); }

  static std::string output(const std::string& name) {
    return readFile(log_directory + "/" + name);
  }
  static std::vector<std::string> archive(int id) {
    return filesIn(log_directory + "/archive/" + std::to_string(id));
  }
  std::string status(int id) const { return database.task(id, "cron_status"); }
  /// The archive names in the history, oldest first.
  std::vector<std::string> history(int id) const {
    std::vector<std::string> names;
    for (const auto& row : database.query(
             "SELECT cron_logfile FROM kodu_cron_error WHERE cron_id=" + std::to_string(id) +
             " ORDER BY cron_error_id")) {
      names.push_back(row.front());
    }
    return names;
  }
  /// The log without the lines about waking up and ending.
  std::vector<std::string> passLog() const {
    std::vector<std::string> lines = log();
    std::erase_if(lines, [](const std::string& line) {
      return line.starts_with("DEBUG#TH EXEC wake up ") || line == "DEBUG#TH EXEC END";
    });
    return lines;
  }

  FixedClock clock{kMayDay};
  Console console;

 private:
  std::vector<std::thread> workers;
  std::atomic<int> ended = 0;
};

// A run that succeeds.
TEST_F(WorkerTest, RecordsASuccessfulRun) {
  const TaskPtr task = addTask(1, "echo fine");
  task->SetRetrie(1);

  ASSERT_TRUE(runTask(task));

  EXPECT_EQ(output("out_1_last.txt"), "fine\n");
  EXPECT_EQ(status(1), "OK");
  EXPECT_EQ(task->GetRetrie(), 0);
  EXPECT_EQ(task->GetReturnCode(), 0);
  EXPECT_FALSE(fs::exists(log_directory + "/archive"));
  EXPECT_EQ(database.failures(1), 0);
}

TEST_F(WorkerTest, MovesTheTimesByOneInterval) {
  const TaskPtr task = addTask(1, "echo fine");

  ASSERT_TRUE(runTask(task));

  EXPECT_EQ(database.task(1, "EXTRACT(EPOCH FROM cron_last_exec)::bigint"),
            std::to_string(kMayDay - 10));
  EXPECT_EQ(database.nextExec(1), kMayDay + 290);
  EXPECT_EQ(task->GetExecTimeSec(), kMayDay + 290);
}

TEST_F(WorkerTest, SkipsTheIntervalsThatItIsBehind) {
  const TaskPtr task = addTask(1, "echo fine", kMayDay - 950);

  ASSERT_TRUE(runTask(task));

  EXPECT_EQ(database.nextExec(1), kMayDay + 250);
  EXPECT_EQ(task->GetExecTimeSec(), kMayDay + 250);
  EXPECT_EQ(logged("DEBUG#change time exec: " + std::to_string(kMayDay - 650)), 1);
  EXPECT_EQ(logged("DEBUG#calc time exec: calcule: 650.000000 / 300 = 3"), 1);
  EXPECT_EQ(logged("DEBUG#change time exec: " + std::to_string(kMayDay + 250)), 1);
}

TEST_F(WorkerTest, LogsTheStepsOfASuccessfulRun) {
  ASSERT_TRUE(runTask(addTask(1, "echo fine")));

  EXPECT_THAT(log(), ElementsAre("DEBUG#TH EXEC wake up 0", "DEBUG#TH EXEC: crontask exec task 1",
                                 "DEBUG#TH EXEC: crontask exec SUCCESS task 1",
                                 "DEBUG#TH EXEC: UPDATE TASK STATE: OK task 1",
                                 "DEBUG#change time exec: " + std::to_string(kMayDay + 290),
                                 "DEBUG#cron task: getNextTimeToExec", "DEBUG#TH EXEC wake up 0",
                                 "DEBUG#TH EXEC END"));
}

TEST_F(WorkerTest, PrintsCodeAndOutputOfARun) {
  ASSERT_TRUE(runTasks({addTask(1, "printf fine"), addTask(2, "echo bad; exit 2")}));

  EXPECT_EQ(console.str(), "return0\noutputfine\nreturn2\noutputbad\n\n");
  EXPECT_EQ(console.flushes(), 4);
}

TEST_F(WorkerTest, PrintsALineAfterOneThatFailed) {
  const TaskPtr lost = addTask(1, "echo lost");
  const TaskPtr kept = addTask(2, "echo kept");
  console.release();
  {
    const StandardOutput output("/dev/full");
    EXPECT_TRUE(runTask(lost));
    output.lead(directory / "console");
    EXPECT_TRUE(runTask(kept));
  }

  EXPECT_EQ(readFile(directory / "console"), "return0\noutputkept\n\n");
  std::cout.clear();
}

TEST_F(WorkerTest, SaysProcessWhileThePluginRuns) {
  const std::string go = directory / "go";
  const TaskPtr task = addTask(1, waitInShell(go) + "; echo fine");
  EXPECT_EQ(status(1), "");
  startWorkers(1);

  queueExecTask->push(task);

  EXPECT_TRUE(waitUntil([&] { return status(1) == "PROCESS"; }));
  EXPECT_EQ(database.nextExec(1), kMayDay - 10);
  writeFile(go, "");
  EXPECT_TRUE(waitUntil([&] { return status(1) == "OK"; }));
}

TEST_F(WorkerTest, ReleasesTheTaskAndItsOutput) {
  const TaskPtr task = addTask(1, "echo fine");

  ASSERT_TRUE(runTask(task));

  EXPECT_EQ(task->GetStdout(), "");
  EXPECT_EQ(task.use_count(), 1);
}

TEST_F(WorkerTest, RunsTaskAfterTask) {
  ASSERT_TRUE(
      runTasks({addTask(1, "echo one"), addTask(2, "echo two; exit 1"), addTask(3, "echo 3")}));

  EXPECT_EQ(status(1), "OK");
  EXPECT_EQ(status(2), "FAILED");
  EXPECT_EQ(status(3), "OK");
}

TEST_F(WorkerTest, DropsADeletedTask) {
  const TaskPtr deleted = addTask(1, "echo fine");
  deleted->SetExecState(3);
  const TaskPtr next = addTask(2, "echo fine");
  startWorkers(1);

  queueExecTask->push(deleted);
  queueExecTask->push(next);

  ASSERT_TRUE(waitUntil([] { return !serviceQueue->empty(); }));
  EXPECT_EQ(serviceQueue->pop(), next);
  EXPECT_TRUE(serviceQueue->empty());
  EXPECT_EQ(status(1), "");
  EXPECT_EQ(database.nextExec(1), kMayDay - 10);
  EXPECT_EQ(output("out_1_last.txt"), "");
  EXPECT_EQ(deleted.use_count(), 1);
}

TEST_F(WorkerTest, RunsAnUpdatedTask) {
  const TaskPtr task = addTask(1, "echo fine");
  task->SetExecState(1);

  ASSERT_TRUE(runTask(task));

  EXPECT_EQ(status(1), "OK");
  EXPECT_EQ(task->GetExecState(), 0);
}

TEST_F(WorkerTest, PutsBackATaskThatIsDeletedDuringItsRun) {
  const std::string go = directory / "go";
  const std::string started = directory / "started";
  const TaskPtr task = addTask(1, "> " + started + "; " + waitInShell(go) + "; echo fine");
  startWorkers(1);
  queueExecTask->push(task);
  ASSERT_TRUE(waitUntil([&] { return fs::exists(started); }));

  task->SetExecState(3);
  writeFile(go, "");

  EXPECT_TRUE(waitUntil([] { return serviceQueue->size() == 1; }));
  EXPECT_EQ(status(1), "OK");
  EXPECT_EQ(task->GetExecState(), 3) << "the next pop drops it";
}

// The output file.
TEST_F(WorkerTest, KeepsAMarkThatComesJustBeforeTheRun) {
  const TaskPtr task = addTask(1, "echo fine");
  database.query("CREATE TABLE held AS SELECT 1 AS one");
  // The statement that precedes the run waits: the worker has looked at the state by then.
  database.query(
      "CREATE FUNCTION hold() RETURNS trigger LANGUAGE plpgsql SECURITY DEFINER AS $$BEGIN"
      " WHILE EXISTS (SELECT FROM held) LOOP PERFORM pg_sleep(0.01); END LOOP; RETURN NEW; END$$;"
      "CREATE TRIGGER hold BEFORE UPDATE ON kodu_cron_plugin FOR EACH ROW"
      " WHEN (NEW.cron_status = 'PROCESS') EXECUTE FUNCTION hold()");
  startWorkers(1);
  queueExecTask->push(task);
  ASSERT_TRUE(waitUntil([&] {
    return database.value("SELECT count(*) FROM pg_stat_activity WHERE wait_event = 'PgSleep'") ==
           "1";
  }));

  task->SetExecState(3);
  database.query("DELETE FROM held");

  EXPECT_TRUE(waitUntil([] { return serviceQueue->size() == 1; }));
  EXPECT_EQ(status(1), "OK") << "a run that has begun is completed";
  EXPECT_EQ(task->GetExecState(), 3) << "the next pop drops it";
}

TEST_F(WorkerTest, LeavesTheTailOfALongerOutput) {
  fs::create_directories(log_directory);
  writeFile(log_directory + "/out_1_last.txt", std::string(30, 'x'));

  ASSERT_TRUE(runTask(addTask(1, "printf 0123456789")));

  EXPECT_EQ(output("out_1_last.txt"), "0123456789" + std::string(20, 'x'));
}

TEST_F(WorkerTest, MakesTheOutputFileReadableForAll) {
  const mode_t previous = umask(0);

  const bool isDone = runTask(addTask(1, "echo fine"));

  umask(previous);
  ASSERT_TRUE(isDone);
  struct stat file {};
  ASSERT_EQ(stat((log_directory + "/out_1_last.txt").c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 07777U, 0644U);
}

TEST_F(WorkerTest, WaitsForTheLockOfTheOutputFile) {
  const std::string path = log_directory + "/out_1_last.txt";
  writeFile(path, "old");
  const int reader = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(flock(reader, LOCK_SH), 0);
  struct stat file {};
  fstat(reader, &file);
  const auto workerWaits = [inode = ":" + std::to_string(file.st_ino) + " "] {
    for (const std::string& line : readLines("/proc/locks")) {
      if (line.find("-> FLOCK") != std::string::npos && line.find(inode) != std::string::npos) {
        return true;
      }
    }
    return false;
  };
  startWorkers(1);

  queueExecTask->push(addTask(1, "echo new"));

  EXPECT_TRUE(waitUntil(workerWaits)) << "it asks for no exclusive lock";
  EXPECT_EQ(readFile(path), "old");
  EXPECT_EQ(status(1), "PROCESS");
  flock(reader, LOCK_UN);
  EXPECT_TRUE(waitUntil([&] { return status(1) == "OK"; }));
  EXPECT_EQ(readFile(path), "new\n");
  EXPECT_EQ(flock(reader, LOCK_EX | LOCK_NB), 0) << "the worker has kept its lock";
  close(reader);
}

TEST_F(WorkerTest, OpensTheOutputFileCloseOnExec) {
  const std::string path = log_directory + "/out_1_last.txt";
  writeFile(path, "old");
  const int reader = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(flock(reader, LOCK_SH), 0);
  startWorkers(1);

  queueExecTask->push(addTask(1, "echo new"));

  int file = -1;
  EXPECT_TRUE(waitUntil([&] { return (file = descriptorOf(path, reader)) >= 0; }));
  EXPECT_EQ(fcntl(file, F_GETFD), FD_CLOEXEC) << "plugins of other workers would get it";
  close(reader);
}

TEST_F(WorkerTest, IgnoresAnOutputFileThatCannotBeWritten) {
  fs::create_symlink("/dev/full", log_directory + "/out_1_last.txt");

  ASSERT_TRUE(runTask(addTask(1, "echo fine")));

  EXPECT_EQ(status(1), "OK");
}

TEST_F(WorkerTest, AbandonsAPassWhoseOutputFileCannotBeOpened) {
  const TaskPtr task = addTask(1, "echo bad; exit 2");
  task->SetMaxRetrie(5);
  fs::remove_all(log_directory);
  startWorkers(1);

  queueExecTask->push(task);

  EXPECT_TRUE(waitUntil([&] { return logged("CRITICAL#No such file or directory") == 1; }));
  stopWorkers();
  EXPECT_TRUE(serviceQueue->empty());
  EXPECT_EQ(task.use_count(), 1) << "the task is still referenced";
  EXPECT_EQ(status(1), "PROCESS");
  EXPECT_EQ(database.failures(1), 0);
  EXPECT_EQ(task->GetRetrie(), 0);
  EXPECT_EQ(task->GetStdout(), "bad\n");
  EXPECT_EQ(console.str(), "return2\noutputbad\n\n");
  EXPECT_EQ(passLog().back(), "CRITICAL#No such file or directory");
}

TEST_F(WorkerTest, NamesTheSystemsReasonWhenItAbandonsAPass) {
  fs::create_directory(log_directory + "/out_1_last.txt");
  startWorkers(1);

  queueExecTask->push(addTask(1, "echo fine"));

  EXPECT_TRUE(waitUntil([&] { return logged("CRITICAL#Is a directory") == 1; }));
}

TEST_F(WorkerTest, ContinuesWithADeletedTaskAfterAnAbandonedPass) {
  const TaskPtr task = addTask(1, "echo fine");
  const TaskPtr deleted = addTask(2, "echo fine");
  deleted->SetExecState(3);
  fs::remove_all(log_directory);
  startWorkers(1);

  queueExecTask->push(task);
  queueExecTask->push(deleted);

  EXPECT_TRUE(waitUntil([&] { return logged("CRITICAL#No such file or directory") == 1; }));
  EXPECT_TRUE(waitUntil([&] { return deleted.use_count() == 1; }));
}

// A run that fails.
TEST_F(WorkerTest, ArchivesTheOutputOfAFailedRun) {
  const TaskPtr task = addTask(17, "echo bad; exit 2");
  task->SetFilename("out_$DATE.txt");

  ASSERT_TRUE(runTask(task));

  EXPECT_EQ(output("out_last.txt"), "bad\n");
  EXPECT_EQ(output("archive/17/out_2024-05-01_13-02-09.txt"), "bad\n");
  EXPECT_THAT(history(17), ElementsAre("out_2024-05-01_13-02-09.txt"));
}

TEST_F(WorkerTest, WritesTheTimeOfTheFailureIntoTheHistory) {
  ASSERT_TRUE(runTask(addTask(1, "echo bad; exit 1")));

  EXPECT_EQ(database.value("SELECT now() - cron_date BETWEEN interval '0' AND interval '1 minute' "
                           "FROM kodu_cron_error WHERE cron_id = 1"),
            "t");
}

TEST_F(WorkerTest, FillsInTheIdOfAnArchiveName) {
  ASSERT_TRUE(runTask(addTask(1, "echo bad; exit 1")));

  EXPECT_THAT(archive(1), ElementsAre("out_1_2024-05-01_13-02-09.txt"));
  EXPECT_THAT(history(1), ElementsAre("out_1_2024-05-01_13-02-09.txt"));
}

TEST_F(WorkerTest, CopiesTheTailOfALongerOutputToo) {
  writeFile(log_directory + "/out_1_last.txt", std::string(10, 'x'));

  ASSERT_TRUE(runTask(addTask(1, "printf bad; exit 1")));

  EXPECT_EQ(output("archive/1/out_1_2024-05-01_13-02-09.txt"), "badxxxxxxx");
}

TEST_F(WorkerTest, UsesAnExistingArchiveDirectory) {
  fs::create_directories(log_directory + "/archive/1");
  writeFile(log_directory + "/archive/1/kept", "");

  ASSERT_TRUE(runTask(addTask(1, "echo bad; exit 1")));

  EXPECT_THAT(archive(1), ElementsAre("kept", "out_1_2024-05-01_13-02-09.txt"));
}

TEST_F(WorkerTest, GoesStraightToFailedWithoutRetries) {
  const TaskPtr task = addTask(1, "echo bad; exit 1");

  ASSERT_TRUE(runTask(task));

  EXPECT_EQ(status(1), "FAILED");
  EXPECT_EQ(task->GetRetrie(), 0);
  EXPECT_EQ(database.nextExec(1), kMayDay + 290);
  EXPECT_EQ(task->GetExecTimeSec(), kMayDay + 290);
  EXPECT_EQ(archive(1).size(), 1U);
  EXPECT_EQ(database.failures(1), 1);
}

TEST_F(WorkerTest, LogsTheStepsOfAFailedRun) {
  ASSERT_TRUE(runTask(addTask(1, "echo bad; exit 1")));

  EXPECT_THAT(passLog(), ElementsAre("DEBUG#TH EXEC: crontask exec task 1",
                                     "DEBUG#TH EXEC: crontask exec SUCCESS task 1",
                                     "DEBUG#TH EXEC: FAILED EXEC STATE: task 1",
                                     "DEBUG#TH EXEC: UPDATE TASK STATE: FAILED task 1",
                                     "DEBUG#change time exec: " + std::to_string(kMayDay + 290),
                                     "DEBUG#cron task: getNextTimeToExec"));
}

TEST_F(WorkerTest, SchedulesARetryInMemoryOnly) {
  const TaskPtr task = addTask(1, "echo bad; exit 2");
  task->SetMaxRetrie(1);
  task->SetRetrieTime(120);

  ASSERT_TRUE(runTask(task));

  EXPECT_EQ(task->GetRetrie(), 1);
  EXPECT_EQ(task->GetExecTimeSec(), kMayDay - 10 + 120) << "counted from the due time";
  EXPECT_EQ(status(1), "PROCESS");
  EXPECT_EQ(database.nextExec(1), kMayDay - 10);
  EXPECT_EQ(database.task(1, "cron_last_exec"), "");
  EXPECT_EQ(archive(1).size(), 1U);
  EXPECT_EQ(database.failures(1), 1);
}

TEST_F(WorkerTest, LogsTheStepsOfARetry) {
  const TaskPtr task = addTask(1, "echo bad; exit 2");
  task->SetMaxRetrie(2);
  task->SetRetrie(1);
  task->SetRetrieTime(120);

  ASSERT_TRUE(runTask(task));

  EXPECT_THAT(
      passLog(),
      ElementsAre(
          "DEBUG#TH EXEC: crontask exec task 1", "DEBUG#TH EXEC: crontask exec SUCCESS task 1",
          "DEBUG#TH EXEC: FAILED EXEC STATE: task 1", "DEBUG#TH EXEC: TASK FAILED RETRIES: 2",
          "DEBUG#TH EXEC: TASK FAILED RETRIES NEXT EXEC: " + std::to_string(kMayDay + 110)));
}

TEST_F(WorkerTest, FailsWhenNoRetriesAreLeft) {
  const TaskPtr task = addTask(1, "echo bad; exit 2");
  task->SetMaxRetrie(1);
  task->SetRetrieTime(120);
  ASSERT_TRUE(runTask(task));
  clock.set(kMayDay + 111);

  ASSERT_TRUE(runTask(task));

  EXPECT_EQ(task->GetRetrie(), 0);
  EXPECT_EQ(status(1), "FAILED");
  EXPECT_EQ(database.nextExec(1), kMayDay + 290);
  EXPECT_EQ(task->GetExecTimeSec(), kMayDay + 290);
  EXPECT_THAT(archive(1),
              ElementsAre("out_1_2024-05-01_13-02-09.txt", "out_1_2024-05-01_13-04-00.txt"));
  EXPECT_EQ(history(1), archive(1));
}

TEST_F(WorkerTest, ForgetsItsRetriesAfterASuccess) {
  const std::string go = directory / "go";
  const TaskPtr task = addTask(1, "echo text; [ -e " + go + " ]");
  task->SetMaxRetrie(3);
  ASSERT_TRUE(runTask(task));
  EXPECT_EQ(task->GetRetrie(), 1);
  writeFile(go, "");

  ASSERT_TRUE(runTask(task));

  EXPECT_EQ(task->GetRetrie(), 0);
  EXPECT_EQ(status(1), "OK");
  EXPECT_EQ(database.nextExec(1), kMayDay + 290);
}

TEST_F(WorkerTest, ComputesARetryTimeBeyond32Bits) {
  const TaskPtr task = addTask(1, "echo bad; exit 2");
  task->SetMaxRetrie(1);
  task->SetRetrieTime(2147483647);

  ASSERT_TRUE(runTask(task));

  EXPECT_EQ(task->GetExecTimeSec(), kMayDay - 10 + 2147483647L);
}

// A plugin that cannot be run to its end.
TEST_F(WorkerTest, TriesThreeTimesToRunAPlugin) {
  const TaskPtr task = addTask(1, "echo again >>" + directory / "runs");
  const auto begin = std::chrono::steady_clock::now();

  ASSERT_TRUE(runTask(task));

  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3));
  EXPECT_EQ(readFile(directory / "runs"), "again\nagain\nagain\n");
  EXPECT_EQ(logged("ERRORS#TH EXEC: Excute failed retrytask 1 1 " + std::string(kSilent)), 3);
  EXPECT_EQ(logged("DEBUG#TH EXEC: crontask exec SUCCESS task 1"), 0);
  EXPECT_EQ(console.str(), "return2\noutput\n");
  EXPECT_EQ(status(1), "FAILED");
  EXPECT_EQ(archive(1).size(), 1U);
  EXPECT_EQ(database.failures(1), 1);
}

TEST_F(WorkerTest, AcceptsASuccessfulSecondAttempt) {
  const std::string tried = directory / "tried";
  const TaskPtr task = addTask(1, "if [ -e " + tried + " ]; then echo fine; fi; > " + tried);

  ASSERT_TRUE(runTask(task));

  EXPECT_THAT(passLog(), testing::IsSupersetOf(
                             {"ERRORS#TH EXEC: Excute failed retrytask 1 1 " + std::string(kSilent),
                              std::string("DEBUG#TH EXEC: crontask exec SUCCESS task 1")}));
  EXPECT_EQ(console.str(), "return0\noutputfine\n\n");
  EXPECT_EQ(status(1), "OK");
  EXPECT_EQ(database.failures(1), 0);
}

TEST_F(WorkerTest, WritesTheTextOfAPluginThatCouldNotConnect) {
  ASSERT_TRUE(runTask(addTask(1, "exit 255")));

  const std::string text = "UNKNOWN: KoduDaemon could not connect to host";
  EXPECT_EQ(output("out_1_last.txt"), text);
  EXPECT_EQ(output("archive/1/out_1_2024-05-01_13-02-09.txt"), text);
  EXPECT_EQ(console.str(), "return2\noutput" + text + "\n");
}

TEST_F(WorkerTest, WritesTheTextOfAKilledPlugin) {
  const TaskPtr task = addTask(1, "echo partial; kill -KILL $$");

  ASSERT_TRUE(runTask(task));

  const std::string text = "Error: kodu can't execute " + task->Getpath();
  EXPECT_EQ(output("out_1_last.txt"), text);
  EXPECT_EQ(status(1), "FAILED");
}

TEST_F(WorkerTest, WritesWhyAPluginIsNotExecutable) {
  const TaskPtr task = addTask(1, "echo unreachable");
  task->Setpath(directory / "missing");

  ASSERT_TRUE(runTask(task));

  EXPECT_EQ(output("out_1_last.txt"),
            "DAEMON: plugin is not executable No such file or directory\n");
  EXPECT_EQ(logged("DEBUG#TH EXEC: crontask exec SUCCESS task 1"), 1) << "it counts as a run";
  EXPECT_EQ(status(1), "FAILED");
}

TEST_F(WorkerTest, FreesTheStorageOfTheOutput) {
  constexpr std::size_t kLength = 100'000;
  if (mallinfo2().uordblks == 0) {
    GTEST_SKIP() << "the heap is the sanitizer's";
  }
  const TaskPtr task = addTask(1, "printf '%100000s' end");
  ASSERT_TRUE(
      runTask(addTask(2, "echo fine")));  // objects that the first run allocates permanently
  const auto bytesBefore = mallinfo2().uordblks;

  ASSERT_TRUE(runTask(task));

  EXPECT_EQ(output("out_1_last.txt").size(), kLength);
  EXPECT_LT(mallinfo2().uordblks, bytesBefore + kLength / 2);
}

// The thread itself.
TEST_F(WorkerTest, EndsAfterAWakeUpOnceTheStopFlagIsSet) {
  startWorkers(3);

  stopWorkers();

  EXPECT_EQ(logged("DEBUG#TH EXEC END"), 3);
  EXPECT_TRUE(passLog().empty());
}

TEST_F(WorkerTest, LogsItsNumberAsItWakesUp) {
  std::thread worker([] { th_executeCronTaks(47); });
  const TaskPtr deleted = makeTask(1, "/bin/true");
  deleted->SetExecState(3);
  queueExecTask->push(deleted);
  ASSERT_TRUE(waitUntil([&] { return deleted.use_count() == 1; }));
  die_kodu = 1;

  ASSERT_TRUE(waitUntil([this] {
    queueExecTask->wakeAll();
    return logged("DEBUG#TH EXEC END") == 1;
  }));

  worker.join();
  EXPECT_EQ(log().front(), "DEBUG#TH EXEC wake up 47");
}

TEST_F(WorkerTest, EndsAtOnceWithTheStopFlagSet) {
  die_kodu = 1;

  th_executeCronTaks(0);

  EXPECT_THAT(log(), ElementsAre("DEBUG#TH EXEC END"));
}

TEST_F(WorkerTest, LeavesTheQueueAloneOnceTheStopFlagIsSet) {
  const std::string go = directory / "go";
  startWorkers(1);
  queueExecTask->push(addTask(1, waitInShell(go) + "; echo fine"));
  ASSERT_TRUE(waitUntil([&] { return status(1) == "PROCESS"; }));
  const TaskPtr next = addTask(2, "echo fine");
  queueExecTask->push(next);
  die_kodu = 1;

  writeFile(go, "");

  EXPECT_TRUE(waitUntil([&] { return logged("DEBUG#TH EXEC END") == 1; }));
  EXPECT_EQ(status(1), "OK") << "a run that has begun is completed";
  EXPECT_EQ(queueExecTask->pop(), next);
}

TEST_F(WorkerTest, ToleratesAFasterWorker) {
  startWorkers(4);
  long pushed = 0;
  const auto wakeUps = [this] {
    const auto lines = log();
    return std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
      return line.starts_with("DEBUG#TH EXEC wake up ");
    });
  };

  // More wake-ups than tasks: at least one worker has found the queue empty.
  EXPECT_TRUE(waitUntil(
      [&] {
        for (int i = 0; i < 100; ++i, ++pushed) {
          const TaskPtr deleted = makeTask(1, "/bin/true");
          deleted->SetExecState(3);
          queueExecTask->push(deleted);
        }
        return wakeUps() > pushed;
      },
      std::chrono::seconds(60)));

  queueExecTask->push(addTask(1, "echo fine"));
  EXPECT_TRUE(waitUntil([&] { return status(1) == "OK"; })) << "a worker has ended";
}

TEST_F(WorkerTest, UnblocksEverySignal) {
  die_kodu = 1;
  sigset_t mask;
  std::thread thread([&mask] {
    const SignalBlock all = SignalBlock::all();
    th_executeCronTaks(0);
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  });
  thread.join();

  EXPECT_TRUE(sigisemptyset(&mask));
}

/// Each statement under EXPECT_EXIT runs in a copy of the test's process, with its connection.
class WorkerCrashTest : public WorkerTest {
 protected:
  /// Has a worker run the tasks until one ends the process.
  static void work(const std::vector<TaskPtr>& tasks) {
    for (const TaskPtr& task : tasks) {
      queueExecTask->push(task);
    }
    // On a thread, as in the daemon: an exception that leaves the thread ends the process.
    std::thread(th_executeCronTaks, 0).join();
  }
};

TEST_F(WorkerCrashTest, EndsTheProcessAtTheTaskAfterAnAbandonedPass) {
  const TaskPtr first = addTask(1, "echo fine");
  const TaskPtr second = addTask(2, "echo fine");
  first->SetFilename("missing/out.txt");

  EXPECT_EXIT(work({first, second}), KilledBySignal(SIGABRT),
              AllOf(HasSubstr("'PostgresqlException'"),
                    HasSubstr("bind message supplies 2 parameters, but prepared statement "
                              "\"UpdateCronProcess\" requires 1")));

  EXPECT_EQ(logged("CRITICAL#No such file or directory"), 1);
  EXPECT_EQ(status(1), "PROCESS");
  EXPECT_EQ(status(2), "");
}

TEST_F(WorkerCrashTest, EndsTheProcessWhenTheArchiveFileExists) {
  const TaskPtr task = addTask(1, "echo bad; exit 1");
  task->SetFilename("out.txt");
  fs::create_directories(log_directory + "/archive/1");
  writeFile(log_directory + "/archive/1/out.txt", "of an earlier failure");

  EXPECT_EXIT(work({task}), KilledBySignal(SIGABRT),
              AllOf(HasSubstr("filesystem_error"), HasSubstr("File exists")));

  EXPECT_EQ(output("archive/1/out.txt"), "of an earlier failure");
  EXPECT_EQ(output("out.txt"), "bad\n");
  EXPECT_EQ(database.failures(1), 0);
  EXPECT_EQ(status(1), "PROCESS");
}

TEST_F(WorkerCrashTest, EndsTheProcessWhenTheRepeatedHourRepeatsAName) {
  setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  tzset();
  const TaskPtr task = addTask(1, "echo bad; exit 1");
  task->SetFilename("$DATE");
  fs::create_directories(log_directory + "/archive/1");
  writeFile(log_directory + "/archive/1/2024-10-27_02-30-15", "an hour ago");
  clock.set(1729992615);  // 27 October 2024, 01:30:15 UTC

  EXPECT_EXIT(work({task}), KilledBySignal(SIGABRT), HasSubstr("File exists"));

  EXPECT_EQ(output("archive/1/2024-10-27_02-30-15"), "an hour ago");
  unsetenv("TZ");
  tzset();
}

TEST_F(WorkerCrashTest, EndsTheProcessAtTheSecondFailureOfANameWithoutADate) {
  const TaskPtr task = addTask(1, "echo bad; exit 1");
  task->SetFilename("out.txt");
  task->SetMaxRetrie(3);

  EXPECT_EXIT(work({task, task}), KilledBySignal(SIGABRT), HasSubstr("File exists"));

  EXPECT_THAT(archive(1), ElementsAre("out.txt"));
  EXPECT_EQ(database.failures(1), 1);
}

TEST_F(WorkerCrashTest, EndsTheProcessAtTwoFailuresWithinASecond) {
  const TaskPtr task = addTask(1, "echo bad; exit 1");
  task->SetMaxRetrie(3);

  EXPECT_EXIT(work({task, task}), KilledBySignal(SIGABRT), HasSubstr("File exists"));

  EXPECT_THAT(archive(1), ElementsAre("out_1_2024-05-01_13-02-09.txt"));
}

TEST_F(WorkerCrashTest, EndsTheProcessWhenTheArchiveDirectoryCannotBeCreated) {
  const TaskPtr task = addTask(1, "echo bad; exit 1");
  writeFile(log_directory + "/archive", "no directory");

  EXPECT_EXIT(work({task}), KilledBySignal(SIGABRT),
              AllOf(HasSubstr("filesystem_error"), HasSubstr("Not a directory")));

  EXPECT_EQ(database.failures(1), 0);
}

TEST_F(WorkerCrashTest, EndsTheProcessWhenTheTasksRowIsDeleted) {
  const TaskPtr task = addTask(1, "echo fine");
  database.query("DELETE FROM kodu_cron_plugin");

  EXPECT_EXIT(work({task}), KilledBySignal(SIGABRT), HasSubstr("logic_error"));

  EXPECT_EQ(output("out_1_last.txt"), "fine\n") << "the first update is independent of it";
  EXPECT_EQ(log().back(), "DEBUG#TH EXEC: UPDATE TASK STATE: OK task 1");
}

TEST_F(WorkerCrashTest, EndsTheProcessWhenTheFirstStatementFails) {
  const TaskPtr task = addTask(1, "echo fine");
  database.query("REVOKE UPDATE (cron_status) ON kodu_cron_plugin FROM kodu");

  EXPECT_EXIT(work({task}), KilledBySignal(SIGABRT), HasSubstr("'PostgresqlException'"));

  EXPECT_EQ(output("out_1_last.txt"), "");
}

TEST_F(WorkerCrashTest, EndsTheProcessWhenTheHistoryCannotBeWritten) {
  const TaskPtr task = addTask(1, "echo bad; exit 1");
  database.query("REVOKE INSERT ON kodu_cron_error FROM kodu");

  EXPECT_EXIT(work({task}), KilledBySignal(SIGABRT), HasSubstr("'PostgresqlException'"));

  EXPECT_EQ(archive(1).size(), 1U) << "the copy comes first";
  EXPECT_EQ(status(1), "PROCESS");
}

TEST_F(WorkerCrashTest, EndsTheProcessWhenTheLastStatementFails) {
  const TaskPtr task = addTask(1, "echo fine");
  database.query("REVOKE UPDATE (cron_last_exec) ON kodu_cron_plugin FROM kodu");

  EXPECT_EXIT(work({task}), KilledBySignal(SIGABRT), HasSubstr("'PostgresqlException'"));

  EXPECT_EQ(output("out_1_last.txt"), "fine\n");
  EXPECT_EQ(status(1), "PROCESS");
}

TEST_F(WorkerCrashTest, EndsTheProcessWhenTheDatabaseHasGone) {
  const TaskPtr task = addTask(1, "echo fine");
  database.query(
      "SELECT pg_terminate_backend(pid) FROM pg_stat_activity "
      "WHERE datname = current_database() AND usename = 'kodu'");

  EXPECT_EXIT(work({task}), KilledBySignal(SIGABRT), HasSubstr("'PostgresqlException'"));

  EXPECT_EQ(status(1), "");
}

}  // namespace
