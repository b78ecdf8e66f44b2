#include "ctl/task/task.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/task/selection.h"
#include "task/serviceCron.h"
#include "tests/ctl/CtlTest.h"

namespace {

using testing::ElementsAre;
using testing::Optional;

constexpr long kNoon = 1714564800;  // 2024-05-01 12:00:00

TEST(PauseTextTest, OmitsUnknownParts) {
  const std::optional<long> unknown;
  const std::vector<std::pair<Pause, std::string>> cases = {
      {{unknown, unknown, "", ""}, "paused"},
      {{unknown, unknown, "alice", ""}, "paused by alice"},
      {{unknown, unknown, "", "new disks"}, "paused: new disks"},
      {{kNoon - 300, unknown, "", ""}, "paused since 2024-05-01 11:55:00 UTC (5m ago)"},
      {{kNoon - 300, unknown, "alice", "new disks"},
       "paused since 2024-05-01 11:55:00 UTC (5m ago) by alice: new disks"},
      {{kNoon, unknown, "alice", ""}, "paused since 2024-05-01 12:00:00 UTC (0s ago) by alice"},
  };
  for (const auto& [pause, text] : cases) {
    EXPECT_EQ(pauseText(pause, kNoon), text);
  }
}

TEST(TaskTest, HasTheDaemonsDefaultsForRetries) {
  Task task;
  EXPECT_EQ(task.maxRetries(), 1);
  EXPECT_EQ(task.retryDelay(), 120);
  task.retries = 0;
  task.retryAfter = 0;
  EXPECT_EQ(task.maxRetries(), 0);
  EXPECT_EQ(task.retryDelay(), 0);
}

TEST(TaskTest, HasThePathsOfTheDaemon) {
  Task task;
  task.id = 7;
  task.outputDirectory = "/out";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"$SERVICEID_$DATE.txt", "/out/7_last.txt"},
      {"fixed.txt", "/out/fixed.txt"},
      {"sub/$DATE", "/out/sub/last"},
      {"$DATE.txt", "/out/last.txt"},
  };
  for (const auto& [name, path] : cases) {
    task.fileName = name;
    EXPECT_EQ(task.outputPath(), path) << name;
  }
  EXPECT_EQ(task.archivePath(), "/out/archive/7/");
}

TEST(TaskTest, BecomesARecordOfTheDaemon) {
  Task task;
  task.id = 7;
  task.name = "disk";
  task.path = "/p";
  task.parameter = "-w \"80 %\"";
  const auto record = task.record();
  EXPECT_EQ(record->GetService_id(), 7U);
  EXPECT_EQ(record->Getname(), "disk");
  EXPECT_EQ(record->Getpath(), "/p");
  EXPECT_THAT(record->GetVectorParam(), ElementsAre("-w", "80 %"));
}

TEST(TaskJsonTest, HasNullForUnknownValues) {
  Task task;
  task.outputDirectory = "/out";
  task.fileName = "x";
  const Json::Value json = toJson(task);
  for (const char* key :
       {"status", "due", "last_due", "every_seconds", "failing_since", "retry_due", "pause"}) {
    EXPECT_TRUE(json.isMember(key)) << key;
    EXPECT_TRUE(json[key].isNull()) << key;
  }
  EXPECT_EQ(json["retries"].asInt(), 1);
  EXPECT_EQ(json["retry_after_seconds"].asInt(), 120);
  EXPECT_FALSE(json["paused"].asBool());
}

TEST(TaskJsonTest, DescribesAPause) {
  Task task;
  task.pause = Pause{kNoon, std::nullopt, "alice", "new disks"};
  const Json::Value json = toJson(task);
  EXPECT_TRUE(json["paused"].asBool());
  EXPECT_EQ(json["pause"]["since"].asString(), "2024-05-01T12:00:00Z");
  EXPECT_EQ(json["pause"]["by"].asString(), "alice");
  EXPECT_EQ(json["pause"]["reason"].asString(), "new disks");
}

/// Tasks in the database.
class TaskRowTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    Options options;
    options.configFile = daemon.mainConfig();
    session = std::make_unique<Session>(options);
  }
  std::unique_ptr<Session> session;
};

TEST_F(TaskRowTest, IsReadCompletely) {
  TaskRow row = quietTask(7);
  row.parameter = "-w 80";
  row.interval = "90 seconds";
  row.nextExec = "'2030-01-01 00:00:00'";
  row.retries = "3";
  row.retriesInterval = "interval '5 minutes'";
  database.insertTask(row);
  const Task task = readTask(*session, 7);
  EXPECT_EQ(task.name, "task7");
  EXPECT_EQ(task.path, row.path);
  EXPECT_EQ(task.type, "cron");
  EXPECT_EQ(task.parameter, "-w 80");
  EXPECT_EQ(task.fileName, "out_$SERVICEID_$DATE.txt");
  EXPECT_EQ(task.outputPath(), daemon.outputDirectory() + "/out_7_last.txt");
  EXPECT_EQ(task.status, std::nullopt);
  EXPECT_EQ(task.lastDue, std::nullopt);
  EXPECT_THAT(task.next, Optional(1893456000));
  EXPECT_THAT(task.every, Optional(90));
  EXPECT_EQ(task.maxRetries(), 3);
  EXPECT_EQ(task.retryDelay(), 300);
  EXPECT_FALSE(task.isRunning || task.isLate || task.isFlagged || task.isFailing ||
               task.isIntervalUneven || task.isPaused());
}

TEST_F(TaskRowTest, HasNothingForNullValues) {
  TaskRow row = quietTask(7);
  row.retries = row.retriesInterval = "NULL";
  database.insertTask(row);
  const Task task = readTask(*session, 7);
  EXPECT_EQ(task.retries, std::nullopt);
  EXPECT_EQ(task.retryAfter, std::nullopt);
}

TEST_F(TaskRowTest, IsReportedAsMissing) {
  try {
    readTask(*session, 99);
    ADD_FAILURE() << "was read";
  } catch (const Failure& e) {
    EXPECT_EQ(e.exitCode, kNotFound);
    EXPECT_STREQ(e.what(), "there is no task 99; koductl status lists them");
  }
}

TEST_F(TaskRowTest, IsListedInTheOrderOfTheIds) {
  for (const int id : {30, 4, 17}) {
    database.insertTask(quietTask(id));
  }
  std::vector<int> ids;
  for (const Task& task : readTasks(*session, Selection())) {
    ids.push_back(task.id);
  }
  EXPECT_THAT(ids, ElementsAre(4, 17, 30));
}

TEST_F(TaskRowTest, IsCountedDuringItsRun) {
  for (const int id : {1, 2, 3}) {
    TaskRow row = quietTask(id);
    row.nextExec = "date_trunc('second', now()) - interval '5 s'";
    database.insertTask(row);
  }
  EXPECT_EQ(countRunning(*session).busy, 0);
  setStatus(1, "PROCESS");
  setStatus(2, "PROCESS");
  EXPECT_EQ(countRunning(*session).busy, 2);
  EXPECT_EQ(countRunning(*session).waiting, 0);
}

}  // namespace
