#include "admin/loader.h"

#include <malloc.h>

#include <ctime>
#include <filesystem>
#include <mutex>
#include <numeric>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/globals.h"
#include "db/PostgresqlException.h"
#include "task/CronTaskQueue.h"
#include "task/serviceCron.h"
#include "tests/support/Globals.h"
#include "tests/support/waitInShell.h"
#include "tests/support/waitUntil.h"

namespace {

int heapTrims = 0;

}  // namespace

/// Replaces the function of the C library.
extern "C" int malloc_trim(std::size_t /*pad*/) noexcept {
  ++heapTrims;
  return 0;
}

namespace {

using testing::ElementsAre;

class LoaderTest : public DatabaseGlobalsTest {
 protected:
  void insert(int id, const std::string& nextExec = "timestamp '2030-01-01 00:00:00'") {
    TaskRow row;
    row.id = id;
    row.name = "name " + std::to_string(id);
    row.nextExec = nextExec;
    database.insertTask(row);
  }

  /// Loads `ids` in `mode`.
  static void load(const std::string& mode, std::vector<int> ids) { load_cron_task(mode, &ids); }

  static std::shared_ptr<serviceCron> loaded(int id) {
    const std::lock_guard lock(mutexTaskMap);
    const auto entry = cronTaskMap.find(id);
    return entry == cronTaskMap.end() ? nullptr : entry->second;
  }

  static std::vector<int> loadedIds() {
    std::vector<int> ids;
    for (const auto& [id, task] : cronTaskMap) {
      ids.push_back(id);
    }
    return ids;
  }

  static constexpr long kDue = 1893456000;  // 2030-01-01 00:00:00 UTC
};

TEST_F(LoaderTest, LoadsEveryTaskWithoutAList) {
  for (const int id : {1, 2, 3}) {
    insert(id);
  }

  load_cron_task("ADD", nullptr);

  EXPECT_THAT(loadedIds(), ElementsAre(1, 2, 3));
  EXPECT_EQ(serviceQueue->size(), 3U);
  EXPECT_EQ(log().back(), "NOTICE#script reload successful");
}

TEST_F(LoaderTest, TurnsARowIntoATask) {
  TaskRow row;
  row.id = 42;
  row.name = "load";
  row.path = "/usr/bin/plugin";
  row.parameter = "-w 5 -m 'two words'";
  row.interval = "1 day";
  row.nextExec = "timestamp '2030-01-01 00:00:00.9'";
  row.logFile = "out_$DATE.txt";
  row.retries = "4";
  row.retriesInterval = "interval '1 minute'";
  database.insertTask(row);

  load_cron_task("ADD", nullptr);

  const auto task = loaded(42);
  ASSERT_NE(task, nullptr);
  EXPECT_EQ(task->GetService_id(), 42U);
  EXPECT_EQ(task->GetService_idStr(), "42");
  EXPECT_EQ(task->Getname(), "load");
  EXPECT_EQ(task->Getpath(), "/usr/bin/plugin");
  EXPECT_EQ(task->Getparameter(), "-w 5 -m 'two words'");
  EXPECT_THAT(task->GetVectorParam(), ElementsAre("-w", "5", "-m", "two words"));
  EXPECT_EQ(task->Getinterval_exec_time(), 86400U);
  EXPECT_EQ(task->GetFilename(), "out_$DATE.txt");
  EXPECT_EQ(task->GetMaxRetrie(), 4);
  EXPECT_EQ(task->GetRetrieTime(), 60);
  EXPECT_EQ(task->GetRetrie(), 0);
  EXPECT_EQ(task->GetExecState(), 0);
  EXPECT_EQ(task->GetExecTimeSec(), kDue);
}

TEST_F(LoaderTest, LogsEachStepOfARow) {
  insert(1);

  load_cron_task("ADD", nullptr);

  EXPECT_THAT(log(),
              ElementsAre("DEBUG#Load cron task: name 1", "DEBUG#cron task: getNextTimeToExec",
                          "DEBUG#ADD cron task: 1893456000", "NOTICE#script reload successful"));
}

TEST_F(LoaderTest, KeepsTheRecordsDefaultsForNulls) {
  TaskRow row;
  row.retries = "NULL";
  row.retriesInterval = "NULL";
  database.insertTask(row);
  database.query("UPDATE kodu_cron_plugin SET cron_parameter = NULL");

  load_cron_task("ADD", nullptr);

  ASSERT_NE(loaded(1), nullptr);
  EXPECT_EQ(loaded(1)->GetMaxRetrie(), 1);
  EXPECT_EQ(loaded(1)->GetRetrieTime(), 120);
  EXPECT_THAT(loaded(1)->GetVectorParam(), testing::IsEmpty());
}

TEST_F(LoaderTest, LeavesPluginsOfOtherTypesAlone) {
  TaskRow row;
  row.pluginType = "web";
  database.insertTask(row);

  load("ADD", {1});

  EXPECT_THAT(loadedIds(), testing::IsEmpty());
  EXPECT_TRUE(serviceQueue->empty());
}

TEST_F(LoaderTest, LoadsFlaggedTasksToo) {
  insert(1);
  database.query("UPDATE kodu_cron_plugin SET cron_delete = TRUE");

  load_cron_task("ADD", nullptr);

  EXPECT_THAT(loadedIds(), ElementsAre(1));
}

TEST_F(LoaderTest, MovesAnOverdueTaskOutOfThePast) {
  insert(1, "date_trunc('second', now()) - interval '650 seconds'");
  const long before = database.nextExec(1);

  load_cron_task("ADD", nullptr);

  EXPECT_EQ(database.nextExec(1), before + 900);
  EXPECT_EQ(loaded(1)->GetExecTimeSec(), before + 900);
  EXPECT_EQ(logged("DEBUG#ADD cron task: " + std::to_string(before)), 1) << "the unchanged text";
}

TEST_F(LoaderTest, LoadsTheListedTasksOnly) {
  for (const int id : {1, 2, 3}) {
    insert(id);
  }

  load("ADD", {3, 1, 99});

  EXPECT_THAT(loadedIds(), ElementsAre(1, 3));
}

TEST_F(LoaderTest, LoadsEveryTaskAgainWithAnEmptyList) {
  insert(1);
  insert(2);
  load_cron_task("ADD", nullptr);
  const auto first = loaded(1);

  load("ADD", {});

  EXPECT_NE(loaded(1), first);
  EXPECT_EQ(serviceQueue->size(), 4U);
}

TEST_F(LoaderTest, ReplacesAKnownTaskAndLeavesItQueued) {
  insert(1);
  load_cron_task("ADD", nullptr);
  const auto first = loaded(1);

  load("ADD", {1});

  EXPECT_NE(loaded(1), first);
  EXPECT_EQ(first->GetExecState(), 0) << "nothing removes the old one";
  EXPECT_EQ(serviceQueue->size(), 2U);
}

TEST_F(LoaderTest, DropsWhatItReadInAnyOtherMode) {
  insert(1, "now() - interval '650 seconds'");
  const long before = database.nextExec(1);

  load("add", {1});

  EXPECT_THAT(loadedIds(), testing::IsEmpty());
  EXPECT_TRUE(serviceQueue->empty());
  EXPECT_GT(database.nextExec(1), before) << "the catch-up has been made";
  EXPECT_EQ(log().back(), "NOTICE#script reload successful");
}

TEST_F(LoaderTest, AddsNothingInAnUpdate) {
  insert(7, "now() - interval '650 seconds'");
  const long before = database.nextExec(7);

  load("UPDATE", {7});

  EXPECT_THAT(loadedIds(), testing::IsEmpty());
  EXPECT_TRUE(serviceQueue->empty());
  EXPECT_GT(database.nextExec(7), before);
}

TEST_F(LoaderTest, ReplacesATaskWhoseTimingChanged) {
  insert(5);
  load_cron_task("ADD", nullptr);
  const auto old = loaded(5);
  old->SetStdout("last output");
  old->SetReturnCode(2);
  old->SetRetrie(1);
  database.query("UPDATE kodu_cron_plugin SET cron_interval = '60 s', cron_retries = 9");

  load("UPDATE", {5});

  const auto task = loaded(5);
  ASSERT_NE(task, old);
  EXPECT_EQ(old->GetExecState(), 3);
  EXPECT_EQ(task->GetExecState(), 0);
  EXPECT_EQ(task->GetStdout(), "last output");
  EXPECT_EQ(task->GetReturnCode(), 2);
  EXPECT_EQ(task->GetRetrie(), 1);
  EXPECT_EQ(task->GetMaxRetrie(), 9);
  EXPECT_EQ(task->Getinterval_exec_time(), 60U);
  EXPECT_EQ(serviceQueue->size(), 2U) << "the old one leaves the queue when it is found";
}

// The only case of an update in place: the interval, in seconds, equals the next time.
TEST_F(LoaderTest, UpdatesATaskInPlaceWhoseTimingDidNotChange) {
  insert(5);
  load_cron_task("ADD", nullptr);
  const auto old = loaded(5);
  old->Setinterval_exec_time(kDue);
  database.query("UPDATE kodu_cron_plugin SET cron_parameter = '-c 10'");

  load("UPDATE", {5});

  EXPECT_EQ(loaded(5), old);
  EXPECT_EQ(old->GetExecState(), 1);
  EXPECT_EQ(old->Getparameter(), "-c 10");
  EXPECT_THAT(old->GetVectorParam(), ElementsAre("-c", "10"));
  EXPECT_EQ(old->Getinterval_exec_time(), static_cast<unsigned>(kDue));
  EXPECT_EQ(serviceQueue->size(), 1U);
}

TEST_F(LoaderTest, KeepsTheResultButNotTheRetriesOfATaskThatIsUpdatedInPlace) {
  insert(5);
  load_cron_task("ADD", nullptr);
  const auto task = loaded(5);
  task->Setinterval_exec_time(kDue);
  task->SetStdout("last output");
  task->SetReturnCode(2);
  task->SetRetrie(1);

  load("UPDATE", {5});

  ASSERT_EQ(loaded(5), task);
  EXPECT_EQ(task->GetStdout(), "last output");
  EXPECT_EQ(task->GetReturnCode(), 2);
  EXPECT_EQ(task->GetRetrie(), 0);
}

TEST_F(LoaderTest, UpdatesTheListedTasksOnly) {
  insert(5);
  insert(6);
  load_cron_task("ADD", nullptr);
  const auto listed = loaded(5);
  const auto other = loaded(6);

  load("UPDATE", {5});

  EXPECT_NE(loaded(5), listed);
  EXPECT_EQ(loaded(6), other);
  EXPECT_EQ(other->GetExecState(), 0);
}

TEST_F(LoaderTest, LocksTheMapWhileItWaitsForTheRunOfAReplacedTask) {
  insert(5);
  load_cron_task("ADD", nullptr);
  const auto old = loaded(5);
  old->Setpath(writePlugin(directory / "plugin", "echo begun >" + (directory / "begun") + "\n" +
                                                     waitInShell(directory / "released") +
                                                     "\necho fine"));
  std::thread worker([&old] { old->execute(); });
  EXPECT_TRUE(waitUntil([&] { return std::filesystem::exists(directory / "begun"); }));

  std::thread loader([] { load("UPDATE", {5}); });
  EXPECT_TRUE(waitUntil([&] { return logged("DEBUG#ADD cron task: 1893456000") == 2; }));
  EXPECT_TRUE(waitUntil([] {
    const bool isFree = mutexTaskMap.try_lock();
    if (isFree) {
      mutexTaskMap.unlock();
    }
    return !isFree;
  }));
  EXPECT_EQ(serviceQueue->size(), 1U);
  writeFile(directory / "released", "");
  worker.join();
  loader.join();

  EXPECT_EQ(loaded(5)->GetStdout(), "fine\n");
  EXPECT_EQ(serviceQueue->size(), 2U);
}

TEST_F(LoaderTest, ReplacesATaskWhenOnlyItsParametersChanged) {
  insert(5);
  load_cron_task("ADD", nullptr);
  const auto old = loaded(5);
  database.query("UPDATE kodu_cron_plugin SET cron_parameter = '-c 10'");

  load("UPDATE", {5});

  EXPECT_NE(loaded(5), old) << "the interval is compared with the next time, so any update counts";
  EXPECT_EQ(loaded(5)->Getparameter(), "-c 10");
  EXPECT_EQ(old->GetExecState(), 3);
}

TEST_F(LoaderTest, KeepsNoStorageOfTheTasksThatItReplaced) {
  if (mallinfo2().uordblks == 0) {
    GTEST_SKIP() << "the heap is the sanitizer's";
  }
  constexpr int kTasks = 1000;
  constexpr int kRounds = 20;
  database.query(
      "INSERT INTO kodu_plugins (plugin_id, plugin_name, plugin_path, plugin_type) "
      "SELECT n, 'the check of service ' || n, '/usr/lib/plugins/check', 'cron' "
      "FROM generate_series(1, 1000) AS n");
  database.query(
      "INSERT INTO kodu_cron_plugin (cron_id, cron_plugin_id, cron_interval, cron_next_exec, "
      "cron_log_file, cron_parameter) SELECT n, n, '1 day', timestamp '2035-01-01' + n * interval "
      "'1 s', '$SERVICEID_$DATE.txt', repeat('-w 5 ', 20) FROM generate_series(1, 1000) AS n");
  load_cron_task("ADD", nullptr);
  const auto bytesBefore = mallinfo2().uordblks;

  for (int round = 1; round <= kRounds; ++round) {
    // Each time is different, so that no two replaced tasks are equal.
    database.query("UPDATE kodu_cron_plugin SET cron_next_exec = cron_next_exec + interval '1 d'");
    std::vector<int> ids(kTasks);
    std::iota(ids.begin(), ids.end(), 1);
    load_cron_task("UPDATE", &ids);
  }

  EXPECT_EQ(serviceQueue->size(), kTasks * (kRounds + 1U));
  EXPECT_LT(mallinfo2().uordblks, bytesBefore + 3'000'000);
}

TEST_F(LoaderTest, TrimsTheHeapOnlyAfterManyRows) {
  insert(5);
  heapTrims = 0;
  load("UPDATE", {5});
  EXPECT_EQ(heapTrims, 0) << "it takes 5 ms with 200,000 tasks, and all threads wait for the heap";
  database.query(
      "INSERT INTO kodu_cron_plugin (cron_id, cron_plugin_id, cron_interval, cron_next_exec, "
      "cron_log_file) SELECT n, cron_plugin_id, '1 day', timestamp '2035-01-01', "
      "'$SERVICEID_$DATE.txt' FROM kodu_cron_plugin, generate_series(1001, 2000) AS n");

  load_cron_task("ADD", nullptr);

  EXPECT_EQ(heapTrims, 1);
}

TEST_F(LoaderTest, KeepsTheTimesOfReplacedTasksThatAreTheSameOnce) {
  if (mallinfo2().uordblks == 0) {
    GTEST_SKIP() << "the heap is the sanitizer's";
  }
  insert(5);
  load_cron_task("ADD", nullptr);
  load("UPDATE", {5});
  load("UPDATE", {5});
  const auto bytesBefore = mallinfo2().uordblks;

  for (int update = 0; update < 500; ++update) {
    load("UPDATE", {5});
  }

  EXPECT_EQ(serviceQueue->size(), 503U);
  EXPECT_LT(mallinfo2().uordblks, bytesBefore + 500);
}

TEST_F(LoaderTest, NamesTheRetryIntervalOfARowThatFails) {
  database.takeAnyRow();
  for (const int id : {1, 2, 3}) {
    insert(id);
  }
  database.query("UPDATE kodu_cron_plugin SET cron_interval = '0' WHERE cron_id = 2");

  load_cron_task("ADD", nullptr);

  EXPECT_THAT(loadedIds(), ElementsAre(1, 3));
  EXPECT_EQ(logged("ERRORS#Failed to initial load service: 2.000000interval of 0 s refused: set "
                   "cron_interval to 1 second or more"),
            1);
  EXPECT_EQ(log().back(), "NOTICE#script reload successful");
}

TEST_F(LoaderTest, NamesNothingWhenTheRetryIntervalOfARowThatFailsIsNull) {
  database.takeAnyRow();
  insert(1);
  database.query("UPDATE kodu_cron_plugin SET cron_interval = '0', cron_retries_interval = NULL");

  load_cron_task("ADD", nullptr);

  EXPECT_THAT(log(),
              ElementsAre("DEBUG#Load cron task: name 1",
                          "ERRORS#Failed to initial load service: interval of 0 s refused: set "
                          "cron_interval to 1 second or more",
                          "NOTICE#script reload successful"));
}

TEST_F(LoaderTest, StopsARowAtItsFirstFailure) {
  database.takeAnyRow();
  insert(1, "now() - interval '650 seconds'");
  database.query("UPDATE kodu_cron_plugin SET cron_retries_interval = '36525 days'");
  const long before = database.nextExec(1);

  load_cron_task("ADD", nullptr);

  EXPECT_THAT(log(), ElementsAre("DEBUG#Load cron task: name 1",
                                 "ERRORS#Failed to initial load service: 3155760000.000000stoi",
                                 "NOTICE#script reload successful"));
  EXPECT_EQ(database.nextExec(1), before) << "the catch-up comes after the numbers";
  EXPECT_TRUE(serviceQueue->empty());
}

TEST_F(LoaderTest, KeepsAKnownTaskWhoseNewRowFails) {
  database.takeAnyRow();
  insert(1);
  load_cron_task("ADD", nullptr);
  const auto known = loaded(1);
  database.query("UPDATE kodu_cron_plugin SET cron_interval = '36525 days'");

  for (const char* mode : {"ADD", "UPDATE"}) {
    load(mode, {1});

    EXPECT_EQ(loaded(1), known) << mode;
  }
  EXPECT_EQ(known->GetExecState(), 0);
  EXPECT_EQ(logged("ERRORS#Failed to initial load service: 2.000000stoi"), 2);
}

TEST_F(LoaderTest, RefusesAnIntervalBelowASecond) {
  database.takeAnyRow();
  insert(1);
  database.query("UPDATE kodu_cron_plugin SET cron_interval = '0.9 s'");

  load_cron_task("ADD", nullptr);

  EXPECT_THAT(loadedIds(), testing::IsEmpty());
}

TEST_F(LoaderTest, TruncatesAFractionOfTheInterval) {
  database.takeAnyRow();
  insert(1);
  database.query("UPDATE kodu_cron_plugin SET cron_interval = '7.9 s'");

  load_cron_task("ADD", nullptr);

  EXPECT_EQ(loaded(1)->Getinterval_exec_time(), 7U);
}

TEST_F(LoaderTest, LogsARowWithTextsThatAreNotNumbers) {
  database.query("ALTER TABLE kodu_cron_plugin DISABLE TRIGGER USER");
  insert(1);
  database.query("UPDATE kodu_cron_plugin SET cron_next_exec = '-infinity'");

  load_cron_task("ADD", nullptr);

  EXPECT_THAT(loadedIds(), testing::IsEmpty());
  EXPECT_EQ(logged("ERRORS#Failed to initial load service: 2.000000stoll"), 1);
}

TEST_F(LoaderTest, LogsARowWhoseCatchUpFails) {
  insert(1, "now() - interval '650 seconds'");
  insert(2);
  database.query(
      "CREATE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS "
      "'BEGIN RAISE EXCEPTION ''refused''; END'");
  database.query(
      "CREATE TRIGGER refuse BEFORE UPDATE ON kodu_cron_plugin FOR EACH ROW EXECUTE "
      "FUNCTION refuse()");

  load_cron_task("ADD", nullptr);

  EXPECT_THAT(loadedIds(), ElementsAre(2));
  EXPECT_THAT(log(), testing::Contains(testing::StartsWith(
                         "ERRORS#Failed to initial load service: 2.000000Exec prepareRequest "
                         "failed:  ERROR:  refused")));
}

TEST_F(LoaderTest, ChangesNothingWhenTheQueryFails) {
  insert(1);
  load_cron_task("ADD", nullptr);
  const auto before = loaded(1);
  database.query("DROP TABLE kodu_plugins CASCADE");

  EXPECT_THROW(load_cron_task("ADD", nullptr), PostgresqlException);

  EXPECT_EQ(loaded(1), before);
  EXPECT_EQ(serviceQueue->size(), 1U);
  EXPECT_EQ(logged("NOTICE#script reload successful"), 1);
}

}  // namespace
