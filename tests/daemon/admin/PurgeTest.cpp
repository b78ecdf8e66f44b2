#include "admin/purge.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/globals.h"
#include "db/PostgresqlException.h"
#include "db/pgSafeThread.h"
#include "sched/outputPath.h"
#include "task/CronTaskQueue.h"
#include "task/serviceCron.h"
#include "tests/support/Globals.h"
#include "tests/support/waitInShell.h"
#include "tests/support/waitUntil.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
namespace fs = std::filesystem;

class DeleteTaskTest : public DatabaseGlobalsTest {
 protected:
  void SetUp() override {
    DatabaseGlobalsTest::SetUp();
    database.takeAnyRow();
  }

  /// A task that is loaded, with an output file, two archive copies and two history rows.
  std::shared_ptr<serviceCron> makeTaskWithFiles(int id, const std::string& filename) {
    TaskRow row;
    row.id = id;
    row.logFile = filename;
    database.insertTask(row);
    for (const char* copy : {"one.txt", "two.txt"}) {
      fs::create_directories(archiveDirectory(log_directory, std::to_string(id)));
      writeFile(archiveDirectory(log_directory, std::to_string(id)) + copy, "old");
      database.query("INSERT INTO kodu_cron_error(cron_id, cron_logfile) VALUES (" +
                     std::to_string(id) + ", '" + copy + "')");
    }
    auto task = makeTask(id, "/bin/true");
    task->SetFilename(filename);
    writeFile(currentOutputPath(log_directory, task), "output");
    cronTaskMap[id] = task;
    return task;
  }

  /// The plugin writes the file "begun" and ends when the file "released" exists.
  void usePluginThatWaits(const std::shared_ptr<serviceCron>& task) const {
    task->Setpath(writePlugin(directory / "plugin", "echo begun >" + (directory / "begun") + "\n" +
                                                        waitInShell(directory / "released") +
                                                        "\necho fine"));
  }

  void flag(int id) {
    database.query("UPDATE kodu_cron_plugin SET cron_delete = TRUE WHERE cron_id = " +
                   std::to_string(id));
  }
};

TEST_F(DeleteTaskTest, DoesNothingWithoutAFlaggedTask) {
  makeTaskWithFiles(1, "report_$DATE.txt");

  DeleteTask();

  EXPECT_THAT(log(), ElementsAre("DEBUG#DELETE END"));
  EXPECT_EQ(cronTaskMap.size(), 1U);
  EXPECT_THAT(filesIn(log_directory), ElementsAre("archive", "report_last.txt"));
  EXPECT_EQ(database.failures(1), 2);
}

TEST_F(DeleteTaskTest, RemovesTheTaskItsFilesAndItsRows) {
  const auto task = makeTaskWithFiles(1, "report_$DATE.txt");
  flag(1);

  DeleteTask();

  EXPECT_EQ(task->GetExecState(), 3);
  EXPECT_TRUE(cronTaskMap.empty());
  EXPECT_THAT(filesIn(log_directory), ElementsAre("archive"));
  EXPECT_THAT(filesIn(log_directory + "/archive"), IsEmpty());
  EXPECT_EQ(database.failures(1), 0);
  EXPECT_EQ(database.task(1, "cron_id"), "");
  EXPECT_THAT(log(), ElementsAre("DEBUG#DELETE TASK: 1", "DEBUG#DELETE END"));
}

TEST_F(DeleteTaskTest, LeavesOtherTasksAlone) {
  makeTaskWithFiles(1, "$SERVICEID.txt");
  const auto other = makeTaskWithFiles(12, "$SERVICEID.txt");
  flag(1);

  DeleteTask();

  EXPECT_EQ(other->GetExecState(), 0);
  EXPECT_TRUE(cronTaskMap.contains(12));
  EXPECT_THAT(filesIn(log_directory), ElementsAre("12.txt", "archive"));
  EXPECT_THAT(filesIn(log_directory + "/archive"), ElementsAre("12"));
  EXPECT_EQ(database.failures(12), 2);
}

TEST_F(DeleteTaskTest, HandlesTheTasksInTheOrderOfTheRows) {
  makeTaskWithFiles(9, "a_$SERVICEID.txt");
  makeTaskWithFiles(4, "a_$SERVICEID.txt");
  flag(9);
  flag(4);
  const auto rows = database.query("SELECT cron_id FROM kodu_cron_plugin WHERE cron_delete=TRUE;");
  ASSERT_EQ(rows.size(), 2U);

  DeleteTask();

  EXPECT_THAT(log(), ElementsAre("DEBUG#DELETE TASK: " + rows[0][0],
                                 "DEBUG#DELETE TASK: " + rows[1][0], "DEBUG#DELETE END"));
}

TEST_F(DeleteTaskTest, LeavesTheQueuesAsTheyAre) {
  const auto task = makeTaskWithFiles(1, "a.txt");
  serviceQueue->push(task);
  flag(1);

  DeleteTask();

  EXPECT_EQ(serviceQueue->front(), task);
}

TEST_F(DeleteTaskTest, FreesATaskThatWaitsInTheQueue) {
  auto task = makeTaskWithFiles(1, "a.txt");
  serviceQueue->push(task);
  const std::weak_ptr<serviceCron> purged = task;
  task.reset();
  flag(1);

  DeleteTask();

  EXPECT_TRUE(purged.expired());
  EXPECT_EQ(serviceQueue->front()->GetExecState(), 3);
  EXPECT_EQ(serviceQueue->front()->Getname(), "task 1") << "for the timer's line";
}

TEST_F(DeleteTaskTest, DeletesTheArchiveAndTheRowsOfATaskThatIsNotLoaded) {
  makeTaskWithFiles(1, "a.txt");
  cronTaskMap.clear();
  flag(1);

  DeleteTask();

  EXPECT_THAT(filesIn(log_directory), ElementsAre("a.txt", "archive"));
  EXPECT_THAT(filesIn(log_directory + "/archive"), IsEmpty());
  EXPECT_EQ(database.failures(1), 0);
  EXPECT_EQ(database.task(1, "cron_id"), "");
}

TEST_F(DeleteTaskTest, ToleratesFilesThatAreAlreadyAbsent) {
  makeTaskWithFiles(1, "a.txt");
  fs::remove_all(log_directory);
  flag(1);

  DeleteTask();

  EXPECT_EQ(database.task(1, "cron_id"), "");
}

TEST_F(DeleteTaskTest, LeavesAFileThatIsNamedLikeThePlaceholder) {
  const auto task = makeTask(1, "/bin/true");
  TaskRow row;
  row.logFile = "$DATE.txt";
  database.insertTask(row);
  task->SetFilename("$DATE.txt");
  cronTaskMap[1] = task;
  writeFile(log_directory + "/last.txt", "current");
  writeFile(log_directory + "/$DATE.txt", "another's");
  flag(1);

  DeleteTask();

  EXPECT_THAT(filesIn(log_directory), ElementsAre("$DATE.txt"));
}

TEST_F(DeleteTaskTest, KeepsTheRowsWhenAFileCannotBeRemoved) {
  const auto task = makeTaskWithFiles(1, "a.txt");
  fs::remove(log_directory + "/a.txt");
  fs::create_directories(log_directory + "/a.txt/not empty");
  flag(1);

  EXPECT_THROW(DeleteTask(), fs::filesystem_error);

  EXPECT_TRUE(cronTaskMap.empty()) << "memory comes first";
  EXPECT_EQ(task->GetExecState(), 3);
  EXPECT_THAT(filesIn(archiveDirectory(log_directory, "1")), ElementsAre("one.txt", "two.txt"));
  EXPECT_EQ(database.failures(1), 2);
  EXPECT_EQ(database.task(1, "cron_delete"), "t");
  EXPECT_THAT(log(), ElementsAre("DEBUG#DELETE TASK: 1"));
}

TEST_F(DeleteTaskTest, RepeatsTheStepsOfAnInterruptedPurge) {
  makeTaskWithFiles(1, "a.txt");
  fs::remove(log_directory + "/a.txt");
  fs::create_directories(log_directory + "/a.txt/not empty");
  flag(1);
  EXPECT_THROW(DeleteTask(), fs::filesystem_error);

  fs::remove_all(log_directory + "/a.txt");
  DeleteTask();

  EXPECT_EQ(database.failures(1), 0);
  EXPECT_EQ(database.task(1, "cron_id"), "");
  EXPECT_THAT(filesIn(log_directory + "/archive"), IsEmpty());
}

TEST_F(DeleteTaskTest, DeletesTheHistoryBeforeTheRow) {
  makeTaskWithFiles(1, "a.txt");
  database.query(
      "CREATE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS "
      "'BEGIN RAISE EXCEPTION ''refused''; END'");
  database.query(
      "CREATE TRIGGER refuse BEFORE DELETE ON kodu_cron_plugin FOR EACH ROW EXECUTE "
      "FUNCTION refuse()");
  flag(1);

  EXPECT_THROW(DeleteTask(), PostgresqlException);

  EXPECT_EQ(database.failures(1), 0);
  EXPECT_EQ(database.task(1, "cron_delete"), "t");
  EXPECT_EQ(logged("DEBUG#DELETE END"), 0);
}

TEST_F(DeleteTaskTest, RemovesTheFilesBeforeTheRows) {
  makeTaskWithFiles(1, "a.txt");
  database.query("REVOKE DELETE ON kodu_cron_error FROM kodu");
  flag(1);

  EXPECT_THROW(DeleteTask(), PostgresqlException);

  EXPECT_THAT(filesIn(log_directory), ElementsAre("archive"));
  EXPECT_THAT(filesIn(log_directory + "/archive"), IsEmpty());
  EXPECT_EQ(database.failures(1), 2);
  EXPECT_EQ(database.task(1, "cron_delete"), "t");
}

TEST_F(DeleteTaskTest, LeavesTheTasksBehindAFailureFlagged) {
  for (const int id : {1, 2, 3}) {
    makeTaskWithFiles(id, "$SERVICEID.txt");
    flag(id);
  }
  fs::remove(log_directory + "/2.txt");
  fs::create_directories(log_directory + "/2.txt/not empty");
  const auto rows = database.query("SELECT cron_id FROM kodu_cron_plugin WHERE cron_delete=TRUE;");
  ASSERT_THAT(rows, ElementsAre(ElementsAre("1"), ElementsAre("2"), ElementsAre("3")));

  EXPECT_THROW(DeleteTask(), fs::filesystem_error);

  EXPECT_EQ(database.task(1, "cron_id"), "");
  EXPECT_EQ(database.task(2, "cron_delete"), "t");
  EXPECT_EQ(database.task(3, "cron_delete"), "t");
  EXPECT_TRUE(cronTaskMap.contains(3));
  EXPECT_EQ(readFile(log_directory + "/3.txt"), "output");
}

/// A view in place of the table provides ids that the table cannot hold.
class DeleteTaskIdTest : public DatabaseGlobalsTest {
 protected:
  void flagText(const std::string& id) {
    database.query("DROP TABLE kodu_cron_plugin CASCADE");
    database.query("CREATE VIEW kodu_cron_plugin AS SELECT '" + id +
                   "'::text AS cron_id, TRUE AS cron_delete");
    database.query("GRANT SELECT ON kodu_cron_plugin TO kodu");
    PQclear(pgSQL->executeRequest("DEALLOCATE \"SelectDeleteCron\""));
    pgSQL->prepareRequest("SelectDeleteCron",
                          "SELECT cron_id FROM kodu_cron_plugin WHERE cron_delete=TRUE;");
  }
};

TEST_F(DeleteTaskIdTest, ThrowsForAnIdThatIsNotANumber) {
  flagText("x");

  EXPECT_THROW(DeleteTask(), std::invalid_argument);

  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(DeleteTaskIdTest, ThrowsForAnIdAboveTheIntegers) {
  flagText("2147483648");

  EXPECT_THROW(DeleteTask(), std::out_of_range);

  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(DeleteTaskTest, RemovesTheTaskUnderTheLockOfTheMap) {
  const auto task = makeTaskWithFiles(1, "a.txt");
  flag(1);
  mutexTaskMap.lock();
  std::thread admin(DeleteTask);

  EXPECT_TRUE(waitUntil([&] { return logged("DEBUG#DELETE TASK: 1") == 1; }));
  EXPECT_TRUE(cronTaskMap.contains(1));
  EXPECT_EQ(task->GetExecState(), 0);
  mutexTaskMap.unlock();
  admin.join();

  EXPECT_TRUE(cronTaskMap.empty());
  EXPECT_EQ(task->GetExecState(), 3);
}

TEST_F(DeleteTaskTest, LeavesTheMapUnlockedDuringItsStatements) {
  const auto task = makeTaskWithFiles(1, "a.txt");
  makeTaskWithFiles(2, "b.txt");
  flag(1);
  database.query("BEGIN");
  database.query("LOCK TABLE kodu_cron_error IN ACCESS EXCLUSIVE MODE");
  std::thread admin(DeleteTask);

  EXPECT_TRUE(waitUntil([&] { return !fs::exists(archiveDirectory(log_directory, "1")); }));
  {
    const std::lock_guard lock(mutexTaskMap);
    EXPECT_THAT(cronTaskMap, ElementsAre(testing::Key(2)));
    EXPECT_EQ(logged("DEBUG#DELETE END"), 0);
  }
  flag(2);
  database.query("COMMIT");
  admin.join();

  EXPECT_EQ(database.task(1, "cron_id"), "");
  EXPECT_EQ(database.task(2, "cron_delete"), "t") << "left to the next purge";
  DeleteTask();
  EXPECT_EQ(database.task(2, "cron_id"), "");
}

TEST_F(DeleteTaskTest, ChangesNothingWhenTheQueryFails) {
  const auto task = makeTaskWithFiles(1, "a.txt");
  flag(1);
  PQclear(pgSQL->executeRequest("DEALLOCATE \"SelectDeleteCron\""));

  EXPECT_THROW(DeleteTask(), PostgresqlException);

  EXPECT_TRUE(cronTaskMap.contains(1));
  EXPECT_EQ(task->GetExecState(), 0);
  EXPECT_EQ(readFile(log_directory + "/a.txt"), "output");
  EXPECT_EQ(database.task(1, "cron_delete"), "t");
  EXPECT_TRUE(log().empty());
}

TEST_F(DeleteTaskTest, KeepsTheRowsWhenTheArchiveCannotBeRemoved) {
  const auto task = makeTaskWithFiles(1, "a.txt");
  fs::remove_all(log_directory + "/archive");
  writeFile(log_directory + "/archive", "no directory");
  flag(1);

  EXPECT_THROW(DeleteTask(), fs::filesystem_error);

  EXPECT_FALSE(fs::exists(log_directory + "/a.txt")) << "the output comes first";
  EXPECT_EQ(task->GetExecState(), 3);
  EXPECT_EQ(database.failures(1), 2);
  EXPECT_EQ(database.task(1, "cron_delete"), "t");
}

TEST_F(DeleteTaskTest, KeepsTheRowsHandledDeletedWhenAStatementFails) {
  makeTaskWithFiles(1, "a.txt");
  makeTaskWithFiles(2, "b.txt");
  database.query(
      "CREATE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS "
      "'BEGIN RAISE EXCEPTION ''refused''; END'");
  database.query(
      "CREATE TRIGGER refuse BEFORE DELETE ON kodu_cron_plugin FOR EACH ROW "
      "WHEN (OLD.cron_id = 2) EXECUTE FUNCTION refuse()");
  flag(1);
  flag(2);

  EXPECT_THROW(DeleteTask(), PostgresqlException);

  EXPECT_EQ(database.task(1, "cron_id"), "");
  EXPECT_EQ(database.task(2, "cron_delete"), "t");
  EXPECT_EQ(logged("DEBUG#DELETE END"), 0);
}

TEST_F(DeleteTaskTest, WaitsForTheRunOfATaskWithItsIdInTheFileName) {
  const auto task = makeTaskWithFiles(1, "$SERVICEID.txt");
  usePluginThatWaits(task);
  std::thread worker([&] { task->execute(); });
  EXPECT_TRUE(waitUntil([&] { return fs::exists(directory / "begun"); }));
  flag(1);
  std::thread admin(DeleteTask);

  EXPECT_TRUE(waitUntil([&] { return task->GetExecState() == 3; }));
  {
    const std::lock_guard lock(mutexTaskMap);
    EXPECT_TRUE(cronTaskMap.empty());
  }
  EXPECT_EQ(readFile(log_directory + "/1.txt"), "output");
  EXPECT_EQ(database.task(1, "cron_delete"), "t");
  writeFile(directory / "released", "");
  worker.join();
  admin.join();

  EXPECT_FALSE(fs::exists(log_directory + "/1.txt"));
  EXPECT_EQ(database.task(1, "cron_id"), "");
}

TEST_F(DeleteTaskTest, DoesNotWaitForTheRunOfATaskWithoutItsIdInTheFileName) {
  const auto task = makeTaskWithFiles(1, "a.txt");
  usePluginThatWaits(task);
  std::atomic<bool> hasRun = false;
  std::thread worker([&] {
    task->execute();
    hasRun = true;
  });
  EXPECT_TRUE(waitUntil([&] { return fs::exists(directory / "begun"); }));
  flag(1);

  DeleteTask();

  EXPECT_FALSE(hasRun);
  EXPECT_EQ(database.task(1, "cron_id"), "");
  EXPECT_EQ(task->GetExecState(), 3);
  writeFile(directory / "released", "");
  worker.join();
  EXPECT_EQ(task->GetExecState(), 3) << "the worker drops the task after its run";
}

}  // namespace
