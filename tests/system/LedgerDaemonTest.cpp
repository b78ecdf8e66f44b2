#include <csignal>
#include <cstdlib>
#include <numeric>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libpq-fe.h>

#include "tests/support/DaemonTest.h"
#include "tests/support/Ledger.h"
#include "tests/support/Process.h"

namespace {

using testing::Contains;

/// The running daemon with the ledger. At the end of each test, each period of each task is a run
/// or was skipped for a reason, and each attempt that a plugin has noted is in the ledger.
class LedgerDaemonTest : public DaemonTest {
 protected:
  void TearDown() override {
    if (daemon.isRunning()) {
      kill();
    }
    ledger.expectComplete();
    const long missed = attempts() - notes();
    EXPECT_GE(missed, 0) << "attempts that plugins have noted, and the ledger has not";
    EXPECT_LE(missed, killedWorkers + lostRows()) << "attempts that no plugin has noted";
  }

  /// Ends the daemon in the midst of its runs: an orderly end takes up to two minutes.
  void kill() {
    daemon.signal(SIGKILL);
    EXPECT_EQ(signalOf(daemon.waitForEnd()), SIGKILL);
    killedWorkers += std::stol(daemon.threadNumber);
  }

  /// A task with an interval of a second.
  void insertQuickTask(int id, const std::string& body, const std::string& retries = "0") {
    TaskRow row = makeTask(id, body);
    row.interval = "1 second";
    row.retries = retries;
    row.retriesInterval = "interval '2 seconds'";
    database.insertTask(row);
    ids.push_back(id);
  }

  /// Periods of the task that were skipped for the reason.
  long skipped(int id, const std::string& reason) const {
    return number("SELECT COALESCE(sum(periods), 0) FROM kodu_run WHERE reason = '" + reason +
                  "' AND id = " + std::to_string(id));
  }
  bool waitForSkipped(int id, const std::string& reason) const {
    return waitUntil([&] { return skipped(id, reason) > 0; }, kPatience);
  }
  bool waitForOk(int id, long count) const {
    const std::string sql =
        "SELECT count(*) FROM kodu_run WHERE outcome = 'ok' AND id = " + std::to_string(id);
    const long before = number(sql);
    return waitUntil([&] { return number(sql) >= before + count; }, kPatience);
  }
  long number(const std::string& sql) const { return std::stol(database.value(sql)); }

  /// Attempts in the ledger, those in progress, and those that could not be written.
  long attempts() const {
    return lostRows() + number("SELECT count(*) FROM kodu_run WHERE reason IS NULL") +
           number(
               "SELECT count(*) FROM kodu_cron_plugin WHERE cron_status = 'PROCESS' AND "
               "run_ended IS NULL");
  }
  long lostRows() const {
    return number("SELECT unwritten + unrecorded FROM kodu_ledger_status()");
  }
  long notes() const {
    return std::accumulate(ids.begin(), ids.end(), 0L,
                           [&](long sum, int id) { return sum + static_cast<long>(runs(id)); });
  }

  Ledger ledger{database};
  std::vector<int> ids;
  /// Workers that were killed, each perhaps between the start of an attempt and its plugin's note.
  long killedWorkers = 0;
};

TEST_F(LedgerDaemonTest, HasEachAttemptOfEachTask) {
  const std::string mark = daemon.directory / "mark";
  insertQuickTask(1, "echo fine");
  insertQuickTask(2, "echo failed; exit 2", "2");
  insertQuickTask(3,
                  "if [ -e " + mark + " ]; then /bin/rm " + mark + "; echo fine; else : >" + mark +
                      "; echo failed; exit 2; fi",
                  "1");
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForOk(1, 5));
  ASSERT_TRUE(waitForOk(3, 2));
  ASSERT_TRUE(waitUntil([&] { return !database.task(2, "run_failing_since").empty(); }, kPatience));

  EXPECT_THAT(ledger.rows(1), Contains("ok #1"));
  EXPECT_THAT(ledger.rows(2), Contains("retried #1"));
  EXPECT_THAT(ledger.rows(2), Contains("retried #2"));
  EXPECT_THAT(ledger.rows(2), Contains("failed #3"));
  EXPECT_THAT(ledger.rows(3), Contains("retried #1"));
  EXPECT_THAT(ledger.rows(3), Contains("ok #2"));
  EXPECT_GT(skipped(2, "overrun"), 0) << "its retries take longer than its interval";
}

TEST_F(LedgerDaemonTest, TellsRunsThatAreTooLongFromThoseThatBeginLate) {
  daemon.threadNumber = "1";
  daemon.writeConfig();
  for (const int id : {1, 2, 3}) {
    insertQuickTask(id, "/bin/sleep 2; echo fine");
  }
  ASSERT_TRUE(daemon.startAndWait());

  for (const int id : {1, 2, 3}) {
    EXPECT_TRUE(waitForSkipped(id, "late"));
    EXPECT_TRUE(waitForSkipped(id, "overrun"));
  }
}

TEST_F(LedgerDaemonTest, ExplainsWhatALostLifeHasLeft) {
  insertQuickTask(1, "echo fine");
  insertQuickTask(2, waitForRelease() + "echo fine");
  insertQuickTask(3, "echo failed; exit 2", "60");
  for (const bool isRepaired : {false, true}) {
    ASSERT_TRUE(daemon.startAndWait());
    ASSERT_TRUE(waitForOk(1, 2));
    ASSERT_TRUE(waitForStatus(2, "PROCESS"));
    kill();
    ASSERT_TRUE(waitForTime(std::time(nullptr) + 3));
    if (isRepaired) {
      database.query(readFile(projectFile("sql/repair.sql")));
    }
  }
  release();
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForOk(2, 1));

  EXPECT_GE(skipped(1, "daemon"), 4);
  EXPECT_EQ(skipped(2, "interrupted"), 2);
  EXPECT_THAT(ledger.rows(2), Contains("interrupted #1"));
  EXPECT_THAT(ledger.rows(3), Contains("retried #1"));
  EXPECT_EQ(number("SELECT count(DISTINCT life) FROM kodu_run WHERE life > 0"), 3);
}

TEST_F(LedgerDaemonTest, ExplainsWhatAPersonDoes) {
  insertQuickTask(1, "echo fine");
  insertQuickTask(2, "/bin/sleep 2; echo fine");
  ASSERT_TRUE(startAndListen());
  ASSERT_TRUE(waitForOk(1, 2));

  database.query("SELECT kodu_task_pause(1), kodu_task_pause(2)");
  ASSERT_TRUE(waitForTime(std::time(nullptr) + 4));
  database.query("SELECT kodu_task_resume(1), kodu_task_resume(2)");
  ASSERT_TRUE(waitForOk(1, 2));
  database.query("SELECT kodu_task_run_now(1)");
  ASSERT_TRUE(waitForOk(1, 2));
  database.query("SELECT kodu_task_set(1, every => '2 seconds')");
  ASSERT_TRUE(waitForOk(1, 2));
  database.query("SELECT kodu_task_delete(2)");
  ASSERT_TRUE(waitForOk(1, 1));

  EXPECT_GE(skipped(1, "paused"), 4);
  EXPECT_GE(skipped(2, "paused"), 3);
  EXPECT_TRUE(waitForSkipped(2, "changed")) << "at the end of its run";
}

TEST_F(LedgerDaemonTest, ExplainsWhatALoadInARunSkips) {
  insertQuickTask(1, waitForRelease() + "echo fine");
  ASSERT_TRUE(startAndListen());
  ASSERT_TRUE(waitForStatus(1, "PROCESS"));
  ASSERT_TRUE(waitForTime(std::time(nullptr) + 3));

  // The functions would wait for the end of the run.
  database.query(
      "SELECT pg_notify('koducronchannel', "
      "'{\"TYPE\":\"SERVICE\",\"COMMAND\":\"UPDATE\",\"ID\":1}')");

  ASSERT_TRUE(waitForSkipped(1, "reload"));
  release();
  EXPECT_TRUE(waitForOk(1, 2));
}

TEST_F(LedgerDaemonTest, CanBeLoadedAndKeptInOrderBesideTheDaemon) {
  insertQuickTask(1, "echo fine");
  insertQuickTask(2, "echo fine");
  ASSERT_TRUE(daemon.startAndWait());
  PGconn* reader = PQconnectdb(database.conninfo().c_str());
  PQclear(
      PQexec(reader, "BEGIN ISOLATION LEVEL REPEATABLE READ; SELECT count(*) FROM kodu_ledger"));

  for (int turn = 0; turn < 5; ++turn) {
    ledger.load();
    database.query("SELECT kodu_ledger_off(); SELECT kodu_ledger_on()");
    database.query("SELECT kodu_ledger_keep(" + std::to_string(turn + 1) + ")");
    database.query("SELECT kodu_ledger_summarise(TRUE)");
    database.query("SELECT kodu_ledger_prune()");
    database.query("SELECT kodu_ledger_index()");
    ASSERT_TRUE(waitForOk(1, 1));
  }
  PQfinish(reader);

  EXPECT_TRUE(daemon.isRunning());
  EXPECT_EQ(database.value("SELECT kodu_ledger_unwritten()"), "0");
  EXPECT_EQ(number("SELECT count(*) FROM kodu_run WHERE reason = 'unrecorded'"), 0);
}

/// Faults in which rows are lost and counted.
class LedgerDaemonFaultTest : public LedgerDaemonTest {
 protected:
  /// Returns once the task has run some more times.
  bool waitForMoreRuns(int id, std::size_t count) const {
    return waitForRuns(id, runs(id) + count);
  }
  std::string bucket() const {
    return database.value(
        "SELECT 'kodu_ledger_' || to_char(kodu_ledger_bucket(now() AT TIME ZONE "
        "'UTC'), 'FM00')");
  }
};

TEST_F(LedgerDaemonFaultTest, HoldsNoRunWhileABucketIsLocked) {
  insertQuickTask(1, "echo fine");
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForOk(1, 2));

  database.query("BEGIN; LOCK TABLE " + bucket() + " IN ACCESS EXCLUSIVE MODE");
  EXPECT_TRUE(waitForMoreRuns(1, 5));
  database.query("COMMIT");
  ASSERT_TRUE(waitForOk(1, 2));

  EXPECT_TRUE(daemon.isRunning());
  EXPECT_GT(number("SELECT unrecorded FROM kodu_ledger_status()"), 0);
  EXPECT_EQ(skipped(1, "overrun") + skipped(1, "late"), 0) << "no run was held";
}

TEST_F(LedgerDaemonFaultTest, HoldsNoRunWhileTheLedgerIsIndexed) {
  insertQuickTask(1, "echo fine");
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForOk(1, 2));

  database.query("BEGIN; CREATE INDEX of_task ON kodu_ledger (cron_id)");
  EXPECT_TRUE(waitForMoreRuns(1, 5));
  database.query("COMMIT");
  ASSERT_TRUE(waitForOk(1, 2));

  EXPECT_TRUE(daemon.isRunning());
}

TEST_F(LedgerDaemonFaultTest, OutlivesTheLossOfABucket) {
  insertQuickTask(1, "echo fine");
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForMoreRuns(1, 1));

  database.query("ALTER TABLE kodu_ledger DETACH PARTITION " + bucket());
  EXPECT_TRUE(waitForMoreRuns(1, 3));
  EXPECT_TRUE(waitUntil([&] { return number("SELECT kodu_ledger_unwritten()") > 0; }, kPatience));
  database.query(
      "INSERT INTO kodu_ledger OVERRIDING SYSTEM VALUE SELECT l.ledger_id, xact, due, started, "
      "ended, moved_from, moved_to, cron_id, periods, every, life, (bucket + 1) % 32, attempt, "
      "outcome FROM " +
      bucket() + " AS l; DROP TABLE " + bucket());
  database.query("SELECT kodu_ledger_on()");  // makes it again
  ASSERT_TRUE(waitForOk(1, 2));

  EXPECT_TRUE(daemon.isRunning());
}

/// A cluster of the test's own, which it can stop as a crash does.
class LedgerCrashTest : public testing::Test {
 protected:
  void SetUp() override {
    setenv("KODU_TEST_CLUSTER", cluster.c_str(), 1);
    ASSERT_EQ(run("tests/testCluster", "start"), 0);
  }
  void TearDown() override { EXPECT_EQ(run("tests/testCluster", "stop"), 0); }

  int run(const std::string& script, const std::string& command,
          const std::string& option = "") const {
    const std::string line =
        "'" + projectFile(script) + "' " + command + " " + cluster + " " + option;
    return std::system(line.c_str());
  }
  /// The first value of a query in a new session: those of before the crash are gone.
  std::string valueOf(const std::string& database, const std::string& sql) const {
    const std::string conninfo = readLines(cluster + "/conninfo").at(0) + " dbname=" + database;
    PGconn* session = PQconnectdb(conninfo.c_str());
    PGresult* result = PQexec(session, sql.c_str());
    std::string value = PQntuples(result) == 1 ? PQgetvalue(result, 0, 0) : "";
    PQclear(result);
    PQfinish(session);
    return value;
  }

  TempDir directory;
  const std::string cluster = directory / "cluster";
};

TEST_F(LedgerCrashTest, BlamesTheDatabaseForWhatItsCrashHasSkipped) {
  const Database database;
  const Ledger ledger(database);
  const std::string& name = database.name();
  Daemon daemon(database);
  TaskRow row;
  row.path = writePlugin(daemon.directory / "plugin", "echo fine");
  row.interval = "1 second";
  row.nextExec = "now()";
  database.insertTask(row);
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitUntil([&] { return ledger.rows(1).size() > 3; }, std::chrono::seconds(60)));

  ASSERT_EQ(run("scripts/cluster", "stop", "--immediate"), 0);
  EXPECT_EQ(signalOf(daemon.waitForEnd()), SIGABRT);
  const std::time_t end = std::time(nullptr) + 4;
  ASSERT_TRUE(waitUntil([=] { return std::time(nullptr) >= end; }));
  ASSERT_EQ(run("scripts/cluster", "restart"), 0);
  ASSERT_TRUE(daemon.startAndWait());

  const auto count = [&](const std::string& condition) {
    const std::string number =
        valueOf(name, "SELECT COALESCE(sum(periods), 0) FROM kodu_run WHERE " + condition);
    return number.empty() ? -1 : std::stol(number);
  };
  EXPECT_TRUE(waitUntil([&] { return count("outcome = 'ok' AND life > 1") > 1; },
                        std::chrono::seconds(60)));
  EXPECT_GE(count("reason = 'database'"), 3);
  EXPECT_EQ(valueOf(name, "SELECT count(*) FROM kodu_ledger_gap"), "0");
  EXPECT_EQ(valueOf(name, "SELECT difference FROM kodu_account()"), "0");
}

}  // namespace
