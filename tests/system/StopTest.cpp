#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/Daemon.h"
#include "tests/support/Database.h"
#include "tests/support/Process.h"
#include "tests/support/SilentServer.h"
#include "tests/support/waitUntil.h"

namespace {

using std::chrono::seconds;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::UnorderedElementsAre;

constexpr const char* kStop = "NOTICE#stop koduCron... SIGTERM: 15";
constexpr const char* kWorkerEnd = "DEBUG#TH EXEC END";
constexpr const char* kStarting = "NOTICE#Start Thread";
constexpr seconds kPatience(30);

class StopTest : public testing::Test {
 protected:
  /// Starts the daemon with a log of all levels and waits until each of its threads waits.
  bool startAndSettle(const std::string& threadNumber) {
    startWith(threadNumber);
    return waitUntil(
        [&] {
          return daemon.logged("DEBUG#Join Thread") == 1 &&
                 daemon.logged("DEBUG#DELETE END") == 1 && allThreadsWait(daemon.pid());
        },
        kPatience);
  }

  void startWith(const std::string& threadNumber) {
    daemon.threadNumber = threadNumber;
    daemon.writeConfig();
    daemon.start({"-D"});
  }

  /// Sends SIGTERM and waits until its handler has written its line.
  bool stop() {
    const long before = daemon.logged(kStop);
    daemon.signal(SIGTERM);
    return waitUntil([&] { return daemon.logged(kStop) > before; }, kPatience);
  }

  /// The log's lines from the first `line` on.
  std::vector<std::string> logFrom(const std::string& line) const {
    const auto log = daemon.log();
    return {std::find(log.begin(), log.end(), line), log.end()};
  }

  void insertTask(int id, const std::string& name, const std::string& body) const {
    TaskRow row;
    row.id = id;
    row.name = name;
    row.path = writePlugin(daemon.directory / name, body);
    row.interval = "1 second";
    row.nextExec = "now()";
    database.insertTask(row);
  }

  /// Inserts tasks that wait for their time, by one statement.
  void insertManyTasks(int count) const {
    database.query("INSERT INTO kodu_plugins VALUES (1, 'task', '/bin/true', 'cron')");
    database.query(
        "INSERT INTO kodu_cron_plugin(cron_id, cron_plugin_id, cron_interval, cron_next_exec, "
        "cron_log_file) SELECT i, 1, interval '5 minutes', date_trunc('second', now()) + interval "
        "'1 hour', 'out_$SERVICEID_$DATE.txt' FROM generate_series(1, " +
        std::to_string(count) + ") i");
  }

  /// A task whose plugin runs until `releasePlugin`.
  void insertWaitingTask(int id, const std::string& name) const {
    insertTask(id, name,
               "until [ -e " + released() + " ]; do /bin/sleep 0.05; done; echo released");
  }
  void releasePlugin() const { writeFile(released(), ""); }
  std::string released() const { return daemon.directory / "released"; }

  Database database;
  Daemon daemon{database};
};

TEST_F(StopTest, EndsTheTimerAndTheListenerWithinSeconds) {
  ASSERT_TRUE(startAndSettle("0"));
  ASSERT_EQ(threadCount(daemon.pid()), 4);

  ASSERT_TRUE(stop());

  // The main and the admin thread remain. The limit is far below the 120 s of the latter.
  EXPECT_TRUE(waitUntil([&] { return threadCount(daemon.pid()) == 2; }));
  EXPECT_TRUE(daemon.isRunning());
  EXPECT_THAT(logFrom(kStop), ElementsAre(kStop));
}

TEST_F(StopTest, WakesEveryIdleWorker) {
  ASSERT_TRUE(startAndSettle("3"));

  ASSERT_TRUE(stop());

  ASSERT_TRUE(waitUntil([&] { return threadCount(daemon.pid()) == 2; }));
  const auto log = logFrom(kStop);
  EXPECT_EQ(log.front(), kStop);
  EXPECT_THAT(std::vector<std::string>(log.begin() + 1, log.end()),
              UnorderedElementsAre("DEBUG#TH EXEC wake up 0", "DEBUG#TH EXEC wake up 1",
                                   "DEBUG#TH EXEC wake up 2", kWorkerEnd, kWorkerEnd, kWorkerEnd));
}

TEST_F(StopTest, LogsNothingButTheStopWithoutDebugLines) {
  ASSERT_TRUE(daemon.startAndWait());

  ASSERT_TRUE(stop());

  ASSERT_TRUE(waitUntil([&] { return threadCount(daemon.pid()) <= 2; }));
  EXPECT_THAT(logFrom(kStarting), ElementsAre(kStarting, kStop));
}

TEST_F(StopTest, AcceptsASecondSignal) {
  ASSERT_TRUE(startAndSettle("0"));

  ASSERT_TRUE(stop());
  ASSERT_TRUE(stop());

  EXPECT_TRUE(waitUntil([&] { return threadCount(daemon.pid()) == 2; }));
  EXPECT_TRUE(daemon.isRunning());
  EXPECT_THAT(logFrom(kStop), ElementsAre(kStop, kStop));
}

TEST_F(StopTest, LetsARunningPluginFinish) {
  insertWaitingTask(1, "waiting");
  startWith("1");
  ASSERT_TRUE(waitUntil([&] { return database.task(1, "cron_status") == "PROCESS"; }, kPatience));

  ASSERT_TRUE(stop());
  releasePlugin();

  ASSERT_TRUE(waitUntil([&] { return daemon.logged(kWorkerEnd) == 1; }, kPatience));
  EXPECT_EQ(database.task(1, "cron_status"), "OK");
  EXPECT_EQ(daemon.output("out_1_last.txt"), "released\n");
}

TEST_F(StopTest, DoesNotRunTasksThatWaitForAWorker) {
  insertWaitingTask(1, "waiting");
  startWith("1");
  ASSERT_TRUE(waitUntil([&] { return database.task(1, "cron_status") == "PROCESS"; }, kPatience));
  insertTask(2, "queued", "echo never");
  database.notify(R"({"TYPE":"SERVICE","COMMAND":"ADD","ID":2})");
  ASSERT_TRUE(
      waitUntil([&] { return daemon.logged("DEBUG#TH TIME: Send task to execution queued") == 1; },
                kPatience));

  ASSERT_TRUE(stop());
  releasePlugin();

  ASSERT_TRUE(waitUntil([&] { return daemon.logged(kWorkerEnd) == 1; }, kPatience));
  EXPECT_EQ(database.task(1, "cron_status"), "OK");
  EXPECT_EQ(database.task(2, "cron_status"), "");
}

TEST_F(StopTest, IsKilledByTheSignalWhileItReadsItsConfiguration) {
  std::filesystem::remove(daemon.mainConfig());
  ASSERT_EQ(mkfifo(daemon.mainConfig().c_str(), 0600), 0);
  daemon.start();
  int writer = -1;  // can be opened once the daemon reads
  ASSERT_TRUE(waitUntil([&] {
    writer = open(daemon.mainConfig().c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    return writer >= 0;
  }));

  daemon.signal(SIGTERM);

  EXPECT_EQ(signalOf(daemon.waitForEnd()), SIGTERM);
  close(writer);
}

// The execution queue, which the handler would notify, does not exist yet.
TEST_F(StopTest, HandlesASignalAtOnceWhileItConnects) {
  SilentServer server;
  daemon.writeDatabaseConfig("127.0.0.1", server.port());
  daemon.start();
  ASSERT_TRUE(server.accept());

  EXPECT_TRUE(stop()) << "the server is still silent";

  server.hangUp();
  EXPECT_EQ(exitStatusOf(daemon.waitForEnd()), 1);
  EXPECT_THAT(daemon.log(),
              ElementsAre("NOTICE#KODUCRON start....  KODUCRON configuration open succesful",
                          "NOTICE#KODUCRON log directory does not exist",
                          "NOTICE#KODUCRON Database connection ....", kStop));
  EXPECT_THAT(daemon.console(), HasSubstr("server closed the connection unexpectedly"));
}

TEST_F(StopTest, EndsAConnectionAttemptAfterItsTimeout) {
  SilentServer server;
  daemon.writeDatabaseConfig("127.0.0.1 connect_timeout=2", server.port());
  daemon.start();
  ASSERT_TRUE(server.accept());

  EXPECT_TRUE(stop());

  EXPECT_EQ(exitStatusOf(daemon.waitForEnd()), 1);
  EXPECT_THAT(daemon.console(), HasSubstr("timeout expired"));
}

/// Stops the daemon while its start-up waits for a table that the test has locked. Releases the
/// lock when the stop is logged.
class StopInStartUpTest : public StopTest {
 protected:
  void stopWhileLocked(const std::string& table) {
    database.query("BEGIN");
    database.query("LOCK TABLE " + table);
    startWith("2");
    ASSERT_TRUE(waitUntil([&] { return database.waitingSessions() == 1; }, kPatience));
    EXPECT_TRUE(stop()) << "the table is still locked";
    database.query("COMMIT");
  }

  /// Long before the end of the admin thread's sleep of 120 s.
  void expectTheEndWithoutAPurge() {
    EXPECT_EQ(signalOf(daemon.waitForEnd()), SIGABRT);
    EXPECT_EQ(daemon.logged(kStop), 1);
    EXPECT_EQ(daemon.logged(kStarting), 1);
    EXPECT_EQ(daemon.logged("DEBUG#DELETE END"), 0);
    EXPECT_THAT(database.serverLog(), Not(Contains(HasSubstr("SelectDeleteCron:"))));
  }
};

TEST_F(StopInStartUpTest, HandlesASignalAtOnceWhileItPrepares) {
  stopWhileLocked("kodu_cron_error");

  expectTheEndWithoutAPurge();
}

TEST_F(StopInStartUpTest, HandlesASignalAtOnceDuringTheLoad) {
  insertManyTasks(2000);

  stopWhileLocked("kodu_plugins");  // this lock does not affect the preparation of the statements

  expectTheEndWithoutAPurge();
  EXPECT_EQ(daemon.logged("DEBUG#Load cron task: task"), 2000);
}

TEST_F(StopTest, DoesNotRunDueTasksWhenAllWorkersAreBusy) {
  database.query("INSERT INTO kodu_plugins VALUES (1, 'task', '" +
                 writePlugin(daemon.directory / "plugin", "echo fine") + "', 'cron')");
  database.query(
      "INSERT INTO kodu_cron_plugin(cron_id, cron_plugin_id, cron_interval, cron_next_exec, "
      "cron_log_file) SELECT i, 1, interval '3 seconds', now(), 'out_$SERVICEID_$DATE.txt' "
      "FROM generate_series(1, 1000) i");
  startWith("4");
  ASSERT_TRUE(waitUntil([&] { return daemon.logged("DEBUG#TH EXEC: crontask exec task") >= 20; },
                        kPatience));

  ASSERT_TRUE(stop());

  EXPECT_TRUE(waitUntil(
      [&] { return daemon.logged(kWorkerEnd) == 4 && threadCount(daemon.pid()) <= 2; }, kPatience));
  // No pass is interrupted.
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_plugin WHERE cron_status = 'PROCESS'"),
            "0");
  EXPECT_NE(database.value("SELECT count(*) FROM kodu_cron_plugin WHERE cron_status IS NULL"), "0");
}

/// The complete shutdown, which the admin thread's sleep delays by up to 120 s.
class SlowStopTest : public StopTest {
 protected:
  static constexpr seconds kLongestStop{125};
};

TEST_F(SlowStopTest, EndsByTheTerminateHandlerWhenWorkersWereStarted) {
  ASSERT_TRUE(startAndSettle("2"));

  ASSERT_TRUE(stop());

  EXPECT_EQ(signalOf(daemon.waitForEnd(kLongestStop)), SIGABRT);
  EXPECT_EQ(daemon.console(), "terminate called without an active exception\n");
  const auto log = logFrom(kStop);
  EXPECT_EQ(log.front(), kStop);
  EXPECT_THAT(std::vector<std::string>(log.begin() + 1, log.end()),
              UnorderedElementsAre("DEBUG#TH EXEC wake up 0", "DEBUG#TH EXEC wake up 1", kWorkerEnd,
                                   kWorkerEnd));
}

// After the stop the daemon ignores a task that becomes due, a notification and a flagged row.
TEST_F(SlowStopTest, EndsWithStatus0WithoutWorkers) {
  insertTask(1, "queued", "echo never");
  ASSERT_TRUE(startAndSettle("0"));
  ASSERT_TRUE(
      waitUntil([&] { return daemon.logged("DEBUG#TH TIME: Send task to execution queued") == 1; },
                kPatience));

  ASSERT_TRUE(stop());
  ASSERT_TRUE(waitUntil([&] { return threadCount(daemon.pid()) == 2; }));
  insertTask(2, "late", "echo never");
  database.notify(R"({"TYPE":"SERVICE","COMMAND":"ADD","ID":2})");
  database.query("UPDATE kodu_cron_plugin SET cron_delete = TRUE");

  EXPECT_EQ(exitStatusOf(daemon.waitForEnd(kLongestStop)), 0);
  EXPECT_EQ(daemon.console(), "");
  EXPECT_THAT(logFrom(kStop), ElementsAre(kStop));
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_plugin"), "2");
}

TEST_F(SlowStopTest, EndsWhileAWorkerIsInItsPlugin) {
  insertWaitingTask(1, "waiting");
  startWith("2");
  ASSERT_TRUE(waitUntil([&] { return database.task(1, "cron_status") == "PROCESS"; }, kPatience));
  const long due = database.nextExec(1);

  ASSERT_TRUE(stop());

  EXPECT_EQ(signalOf(daemon.waitForEnd(kLongestStop)), SIGABRT);
  EXPECT_EQ(daemon.console(), "terminate called without an active exception\n");
  EXPECT_EQ(database.task(1, "cron_status"), "PROCESS");
  EXPECT_EQ(database.nextExec(1), due);
  releasePlugin();
  ASSERT_TRUE(daemon.startAndWait());
  EXPECT_TRUE(waitUntil([&] { return database.task(1, "cron_status") == "OK"; }, kPatience));
}

// The statement waits for a row that another session has changed.
TEST_F(SlowStopTest, EndsWhileAWorkersStatementHangs) {
  insertTask(1, "held", "echo never");
  startWith("1");
  ASSERT_TRUE(waitUntil([&] { return daemon.logged("DEBUG#DELETE END") == 1; }, kPatience));
  database.query("BEGIN");
  database.query("UPDATE kodu_cron_plugin SET cron_interval = interval '1 hour'");
  ASSERT_TRUE(waitUntil([&] { return database.waitingSessions() == 1; }, kPatience));
  // The main thread waits for the others, and the listener for the connection.
  ASSERT_TRUE(waitUntil([&] { return threadsIn(daemon.pid(), SYS_futex) == 2; }, kPatience));

  ASSERT_TRUE(stop());

  // The main, the admin and the worker's thread remain.
  EXPECT_TRUE(waitUntil([&] { return threadCount(daemon.pid()) == 3; }));
  EXPECT_EQ(signalOf(daemon.waitForEnd(kLongestStop)), SIGABRT);
  EXPECT_EQ(database.waitingSessions(), 1) << "the statement still hangs";
}

// Enough tasks that emptying the queues takes some time.
TEST_F(SlowStopTest, ToleratesSignalsDuringTheOrderlyShutdown) {
  insertManyTasks(50000);
  daemon.threadNumber = "0";
  daemon.writeConfig();
  ASSERT_TRUE(daemon.startAndWait());

  waitUntil(
      [&] {
        daemon.signal(SIGTERM);
        return !daemon.isRunning();
      },
      kLongestStop);

  EXPECT_EQ(exitStatusOf(daemon.waitForEnd()), 0);
  EXPECT_EQ(daemon.console(), "");
}

}  // namespace
