#include <algorithm>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/DaemonTest.h"

namespace {

using testing::ElementsAre;
using testing::SizeIs;

constexpr const char* kReloaded = "NOTICE#script reload successful";

/// The running daemon and the notifications that the platform sends.
class NotificationTest : public DaemonTest {
 protected:
  void notify(const std::string& command, int id) const { database.notify(payload(command, id)); }

  /// Sends two notifications in one transaction.
  void notifyBoth(const std::string& first, const std::string& second) const {
    database.query("SELECT pg_notify('koducronchannel', '" + first +
                   "'), pg_notify('koducronchannel', '" + second + "')");
  }

  /// The log's lines since the previous call.
  std::vector<std::string> newLog() {
    auto log = daemon.log();
    log.erase(log.begin(), log.begin() + static_cast<std::ptrdiff_t>(linesSeen));
    linesSeen += log.size();
    return log;
  }

  /// Sends the payload and then an ADD, whose load shows that the listener has processed the
  /// payload. Expects no other load, and returns the log lines about the payload.
  std::vector<std::string> sendIgnored(const std::string& message) {
    database.insertTask(makeTask(99, "echo fine"));
    newLog();
    notifyBoth(message, payload("ADD", 99));
    EXPECT_TRUE(waitForRuns(99, 1));
    auto log = newLog();
    EXPECT_EQ(std::count(log.begin(), log.end(), kReloaded), 1);
    EXPECT_EQ(std::count_if(log.begin(), log.end(),
                            [](const std::string& line) {
                              return line.starts_with("DEBUG#Load cron task: ");
                            }),
              1);
    std::erase_if(log, [&](const std::string& line) { return !line.ends_with(":" + message); });
    return log;
  }

  /// A task that is not due while a test lasts, in either queue or none.
  TaskRow makeWaitingTask(int id) const {
    TaskRow row = makeTask(id, "echo fine");
    row.nextExec = TaskRow().nextExec;
    return row;
  }

 private:
  std::size_t linesSeen = 0;
};

TEST_F(NotificationTest, RunsATaskAfterAnAddNotification) {
  ASSERT_TRUE(startAndListen());
  newLog();
  database.insertTask(makeTask(7, "echo fine"));

  notify("ADD", 7);

  ASSERT_TRUE(waitForStatus(7, "OK"));
  EXPECT_EQ(daemon.output("out_7_last.txt"), "fine\n");
  auto log = newLog();
  std::erase_if(log, [](const std::string& line) { return line.ends_with(":{}"); });
  log.resize(5);
  EXPECT_THAT(log, ElementsAre("DEBUG#TH LISTENER# Notify string receive :" + payload("ADD", 7),
                               "DEBUG#TH LISTENER# Notify Json receive :" + payload("ADD", 7),
                               "DEBUG#Load cron task: task7", "DEBUG#cron task: getNextTimeToExec",
                               testing::StartsWith("DEBUG#ADD cron task: ")));
}

TEST_F(NotificationTest, LoadsATaskWithinAboutASecond) {
  ASSERT_TRUE(startAndListen());
  database.insertTask(makeWaitingTask(7));
  const auto sent = std::chrono::steady_clock::now();

  notify("ADD", 7);

  ASSERT_TRUE(waitForLog(kReloaded, 2));
  // The daemon checks once a second; the rest is for a busy machine.
  EXPECT_LT(std::chrono::steady_clock::now() - sent, std::chrono::seconds(5));
}

TEST_F(NotificationTest, RunsTheNewDefinitionAfterAnUpdate) {
  TaskRow row = makeTask(5, R"(echo "$1")");
  row.interval = "1 second";
  row.parameter = "old";
  database.insertTask(row);
  ASSERT_TRUE(startAndListen());
  ASSERT_TRUE(waitForStatus(5, "OK"));
  ASSERT_EQ(daemon.output("out_5_last.txt"), "old\n");

  database.query("UPDATE kodu_cron_plugin SET cron_parameter = 'new'");
  notify("UPDATE", 5);

  EXPECT_TRUE(waitUntil([&] { return daemon.output("out_5_last.txt") == "new\n"; }, kPatience));
}

TEST_F(NotificationTest, RunsAnUpdatedTaskOncePerInterval) {
  TaskRow row = makeTask(5, "echo fine");
  row.nextExec = "date_trunc('second', now()) + interval '6 seconds'";
  database.insertTask(row);
  ASSERT_TRUE(startAndListen());
  notify("UPDATE", 5);
  ASSERT_TRUE(waitForLog(kReloaded, 2));

  // The queue yields both objects: the replaced one and its replacement.
  ASSERT_TRUE(waitForLog("DEBUG#TH TIME: Send task to execution task5", 2));
  database.insertTask(makeTask(6, "echo fine"));
  notify("ADD", 6);
  ASSERT_TRUE(waitForStatus(6, "OK"));

  EXPECT_EQ(runs(5), 1U);
  EXPECT_EQ(daemon.logged("DEBUG#TH EXEC: crontask exec task5"), 1);
}

TEST_F(NotificationTest, RunsATaskThatIsAddedAgainTwice) {
  TaskRow row = makeTask(5, "echo fine");
  row.nextExec = "date_trunc('second', now()) + interval '6 seconds'";
  database.insertTask(row);
  ASSERT_TRUE(startAndListen());

  notify("ADD", 5);

  ASSERT_TRUE(waitForLog(kReloaded, 2));
  ASSERT_TRUE(waitUntil([&] { return changes(5).size() >= 4; }, kPatience));
  EXPECT_THAT(ledger(5), SizeIs(2));
  EXPECT_LT(ledger(5).back(), changes(5).front().nextExec + kLongSeconds) << "not in one slot";
  EXPECT_EQ(database.nextExec(5), changes(5).front().nextExec + 2 * kLongSeconds);
}

TEST_F(NotificationTest, MovesTheTaskByItsNewInterval) {
  TaskRow row = makeTask(5, "echo fine");
  row.interval = "8 seconds";  // the update is loaded before the second run
  database.insertTask(row);
  ASSERT_TRUE(startAndListen());
  ASSERT_TRUE(waitForStatus(5, "OK"));
  const long due = changes(5).front().nextExec + 8;

  database.query("UPDATE kodu_cron_plugin SET cron_interval = '20 minutes'");
  notify("UPDATE", 5);

  ASSERT_TRUE(waitUntil([&] { return changes(5).size() >= 4; }, kPatience));
  EXPECT_EQ(changes(5).at(3), (Change{"OK", due, due + 1200}));
  EXPECT_EQ(daemon.logged(kReloaded), 2);
}

TEST_F(NotificationTest, KeepsTheRetryCountOfAnUpdatedTask) {
  TaskRow row = makeTask(5, "echo bad; exit 2");
  row.interval = "3 seconds";
  row.retries = "2";
  row.retriesInterval = "interval '1 hour'";
  database.insertTask(row);
  ASSERT_TRUE(startAndListen());
  ASSERT_TRUE(waitForLog("DEBUG#TH EXEC: TASK FAILED RETRIES: 1"));

  database.query("UPDATE kodu_cron_plugin SET cron_retries_interval = '2 seconds'");
  notify("UPDATE", 5);

  EXPECT_TRUE(waitForStatus(5, "FAILED"));
  const auto log = daemon.log();
  const auto end =
      std::find(log.begin(), log.end(), "DEBUG#TH EXEC: UPDATE TASK STATE: FAILED task5");
  EXPECT_EQ(std::count(log.begin(), end, "DEBUG#TH EXEC: TASK FAILED RETRIES: 1"), 1);
  EXPECT_EQ(std::count(log.begin(), end, "DEBUG#TH EXEC: TASK FAILED RETRIES: 2"), 1);
}

TEST_F(NotificationTest, ReplacesADefinitionDuringItsRun) {
  TaskRow old = makeTask(5, waitForRelease() + "echo old");
  old.interval = "2 seconds";
  database.insertTask(old);
  ASSERT_TRUE(startAndListen());
  ASSERT_TRUE(waitForRuns(5, 1));
  const TaskRow next = makeTask(6, "echo new");

  database.query("UPDATE kodu_plugins SET plugin_path = '" + next.path + "'");
  notify("UPDATE", 5);
  // The loader waits for the run, because it copies the record.
  ASSERT_TRUE(waitForLog("DEBUG#Load cron task: task5", 2));
  ASSERT_TRUE(waitUntil([&] { return daemon.log().back().starts_with("DEBUG#ADD cron task: "); },
                        kPatience));
  EXPECT_EQ(daemon.logged(kReloaded), 1);
  release();

  ASSERT_TRUE(waitForRuns(6, 2));
  EXPECT_EQ(daemon.logged(kReloaded), 2);
  EXPECT_EQ(runs(5), 1U);
  EXPECT_EQ(changes(5).at(1).status, "OK");
}

TEST_F(NotificationTest, LoadsTheAdditionsOfASecondBeforeItsUpdates) {
  database.insertTask(makeWaitingTask(5));
  ASSERT_TRUE(startAndListen());
  database.insertTask(makeWaitingTask(9));
  newLog();

  notifyBoth(payload("UPDATE", 5), payload("ADD", 9));

  ASSERT_TRUE(waitForLog(kReloaded, 3));
  auto log = newLog();
  std::erase_if(log, [](const std::string& line) {
    return line != kReloaded && !line.starts_with("DEBUG#Load cron task");
  });
  EXPECT_THAT(log, ElementsAre("DEBUG#Load cron task: task9", kReloaded,
                               "DEBUG#Load cron task: task5", kReloaded));
}

TEST_F(NotificationTest, IgnoresAnUnknownType) {
  const std::string message = R"({"TYPE":"DEVICE","COMMAND":"ADD","ID":8})";
  ASSERT_TRUE(startAndListen());
  database.insertTask(makeWaitingTask(8));

  EXPECT_THAT(sendIgnored(message),
              ElementsAre("DEBUG#TH LISTENER# Notify string receive :" + message,
                          "DEBUG#TH LISTENER# Notify Json receive :" + message));
}

/// A "COMMAND" that is ignored.
class IgnoredCommandTest : public NotificationTest,
                           public testing::WithParamInterface<const char*> {};

TEST_P(IgnoredCommandTest, IsOnlyLogged) {
  const std::string message = payload(GetParam(), 8);
  ASSERT_TRUE(startAndListen());
  database.insertTask(makeWaitingTask(8));

  EXPECT_THAT(sendIgnored(message),
              ElementsAre("DEBUG#TH LISTENER# Notify string receive :" + message,
                          "DEBUG#TH LISTENER# Notify Json receive :" + message));
}

INSTANTIATE_TEST_SUITE_P(Commands, IgnoredCommandTest,
                         testing::Values("add", "update", "DELETE", "", "ADD "));

TEST_F(NotificationTest, ContinuesAfterAPayloadThatIsNotJson) {
  ASSERT_TRUE(startAndListen());

  EXPECT_THAT(sendIgnored("not json"),
              ElementsAre("DEBUG#TH LISTENER# Notify string receive :not json",
                          "WARNING#TH ADMIN# Bad notify Json receive :not json"));
}

TEST_F(NotificationTest, ContinuesAfterAnEmptyPayload) {
  ASSERT_TRUE(startAndListen());

  EXPECT_THAT(sendIgnored(""), ElementsAre("DEBUG#TH LISTENER# Notify string receive :",
                                           "WARNING#TH ADMIN# Bad notify Json receive :"));
}

TEST_F(NotificationTest, WarnsOfABadPayloadWithoutDebugLines) {
  ASSERT_TRUE(daemon.startAndWait());

  // Before the subscription a notification is lost.
  EXPECT_TRUE(waitUntil(
      [&] {
        database.notify("{");
        return daemon.logged("WARNING#TH ADMIN# Bad notify Json receive :{") > 0;
      },
      kPatience));
}

TEST_F(NotificationTest, LoadsNothingForAnUnknownId) {
  ASSERT_TRUE(startAndListen());
  newLog();

  notify("ADD", 4711);

  ASSERT_TRUE(waitForLog(kReloaded, 2));
  auto log = newLog();
  std::erase_if(log, [](const std::string& line) { return line.ends_with(":{}"); });
  EXPECT_THAT(log, ElementsAre("DEBUG#TH LISTENER# Notify string receive :" + payload("ADD", 4711),
                               "DEBUG#TH LISTENER# Notify Json receive :" + payload("ADD", 4711),
                               kReloaded));
  database.insertTask(makeTask(7, "echo fine"));
  notify("ADD", 7);
  EXPECT_TRUE(waitForStatus(7, "OK"));
}

TEST_F(NotificationTest, ReadsAMissingIdAsZero) {
  ASSERT_TRUE(startAndListen());
  database.insertTask(makeTask(0, "echo fine"));

  database.notify(R"({"TYPE":"SERVICE","COMMAND":"ADD"})");

  EXPECT_TRUE(waitForStatus(0, "OK"));
}

TEST_F(NotificationTest, AddsNothingOnAnUpdate) {
  ASSERT_TRUE(startAndListen());
  TaskRow row = makeTask(7, "echo fine");
  row.interval = "300 seconds";
  row.nextExec = "date_trunc('second', now()) - interval '650 seconds'";
  database.insertTask(row);
  const long before = database.nextExec(7);

  notify("UPDATE", 7);

  ASSERT_TRUE(waitForLog(kReloaded, 2));
  // The row is read anyway, and its next time is moved.
  EXPECT_EQ(database.nextExec(7), before + 900);
  database.query(
      "UPDATE kodu_cron_plugin SET cron_next_exec = date_trunc('second', now()) + interval "
      "'1 second' WHERE cron_id = 7");
  notify("UPDATE", 7);
  database.insertTask(makeTask(8, "echo fine"));
  notify("ADD", 8);
  ASSERT_TRUE(waitForStatus(8, "OK"));
  EXPECT_EQ(runs(7), 0U);
}

TEST_F(NotificationTest, LoadsNoPluginOfAnotherType) {
  ASSERT_TRUE(startAndListen());
  TaskRow row = makeTask(7, "echo fine");
  row.pluginType = "service";
  database.insertTask(row);
  database.insertTask(makeTask(8, "echo fine"));

  notifyBoth(payload("ADD", 7), payload("ADD", 8));

  ASSERT_TRUE(waitForStatus(8, "OK"));
  EXPECT_EQ(daemon.logged("DEBUG#Load cron task: task7"), 0);
  EXPECT_EQ(runs(7), 0U);
}

TEST_F(NotificationTest, ContinuesAfterARowThatCannotBeLoaded) {
  ASSERT_TRUE(startAndListen());
  database.takeAnyRow();
  TaskRow row = makeTask(7, "echo fine");
  row.interval = "0";
  row.retriesInterval = "interval '77 seconds'";
  database.insertTask(row);
  database.insertTask(makeTask(8, "echo fine"));

  notifyBoth(payload("ADD", 7), payload("ADD", 8));

  ASSERT_TRUE(waitForStatus(8, "OK"));
  auto log = daemon.log();
  std::erase_if(log, [](const std::string& line) { return !line.starts_with("ERRORS#"); });
  EXPECT_THAT(log, ElementsAre(testing::StartsWith(
                       "ERRORS#Failed to initial load service: 77.000000interval of 0 s refused")));
}

TEST_F(NotificationTest, IgnoresOtherChannels) {
  ASSERT_TRUE(startAndListen());
  newLog();
  database.query("SELECT pg_notify('koducronchannel2', 'lost')");
  database.insertTask(makeTask(7, "echo fine"));
  notify("ADD", 7);
  ASSERT_TRUE(waitForStatus(7, "OK"));
  EXPECT_EQ(daemon.logged("DEBUG#TH LISTENER# Notify string receive :lost"), 0);
}

}  // namespace
