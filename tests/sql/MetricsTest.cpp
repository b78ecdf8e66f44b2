#include <atomic>
#include <future>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libpq-fe.h>

#include "db/pgSafeThread.h"
#include "db/statements.h"
#include "tests/support/Database.h"
#include "tests/support/Files.h"
#include "tests/support/Ledger.h"
#include "tests/support/waitUntil.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

/// sql/metrics.sql on a ledger whose rows the tests write.
class SqlMetricsTest : public testing::Test {
 protected:
  void SetUp() override {
    load();
    collect();
  }
  void load() const { database.query(readFile(projectFile("sql/metrics.sql"))); }

  void collect() const {
    while (database.value("SELECT kodu_metric_collect()") != "t") {
    }
  }
  /// Writes a row of a run of two seconds that began 1.5 s late.
  void write(const std::string& outcome, int periods = 1, const std::string& life = "0",
             int attempt = 1) const {
    database.query(
        "INSERT INTO kodu_ledger (xact, due, started, ended, moved_from, moved_to, cron_id, "
        "periods,"
        " every, life, bucket, attempt, outcome) SELECT pg_current_xact_id()::text::bigint,"
        " utc - interval '3.5 s', utc - interval '2 s', utc, utc, utc, 1, " +
        std::to_string(periods) + ", 60, " + life + ", kodu_ledger_bucket(utc), " +
        std::to_string(attempt) + ", '" + outcome +
        "' FROM (SELECT clock_timestamp() AT TIME ZONE 'UTC' AS utc) AS present");
  }
  double counter(const std::string& name, const std::string& label = "") const {
    const std::string value =
        database.value("SELECT sum(value) FROM kodu_metric_counter WHERE name = '" + name +
                       "' AND label = '" + label + "'");
    return value.empty() ? 0 : std::stod(value);
  }
  /// Collects until the counter has the value: transactions of other tests, which share the server,
  /// can delay it.
  bool reaches(double value, const std::string& name, const std::string& label = "") const {
    return waitUntil([&] {
      collect();
      return counter(name, label) >= value;
    });
  }
  /// Waits until no transaction of another test is older than the rows.
  bool settles() const {
    return waitUntil([&] {
      return database.value(
                 "SELECT pg_snapshot_xmin(pg_current_snapshot())::text::bigint > max(xact)"
                 " FROM kodu_ledger") == "t";
    });
  }
  std::string refusalOf(const std::string& sql) const {
    try {
      database.query(sql);
    } catch (const std::runtime_error& e) {
      return e.what();
    }
    return "";
  }
  void insertTask(int id) const {
    TaskRow row;
    row.id = id;
    database.insertTask(row);
  }
  std::string tasks(const std::string& column) const {
    return database.value("SELECT " + column + " FROM kodu_metric_tasks");
  }

  Database database;
  Ledger ledger{database};
};

TEST_F(SqlMetricsTest, CountsEachRowOnce) {
  for (const char* outcome : {"O", "O", "F", "R", "I", "n"}) {
    write(outcome);
  }
  write("v", 5);
  write("p", 0);
  write("w", 2);
  ASSERT_TRUE(reaches(2, "skipped", "maintenance"));
  collect();
  EXPECT_EQ(counter("runs", "ok"), 2);
  EXPECT_EQ(counter("runs", "failed"), 1);
  EXPECT_EQ(counter("runs", "retried"), 1);
  EXPECT_EQ(counter("runs", "interrupted"), 1);
  EXPECT_EQ(counter("skipped", "overrun"), 5);
  EXPECT_EQ(counter("skipped", "paused"), 0);
  EXPECT_EQ(counter("skipped", "maintenance"), 2);
  EXPECT_NEAR(counter("seconds_sum"), 4 * 2.0, 0.01) << "not of an interrupted run";
  EXPECT_NEAR(counter("lateness_sum"), 4 * 1.5, 0.01);
}

TEST_F(SqlMetricsTest, CountsALatenessOfFirstAttemptsAlone) {
  write("F", 1, "0", 2);
  ASSERT_TRUE(reaches(1, "runs", "failed"));
  EXPECT_EQ(counter("seconds", "5.0"), 1);
  EXPECT_EQ(counter("lateness", "1.5") + counter("lateness", "2.0"), 0);
}

TEST_F(SqlMetricsTest, PutsEachTimeIntoOneBucket) {
  const std::vector<std::string> times = {"0 s", "1 s", "1.001 s", "1800 s", "1801 s"};
  for (const std::string& time : times) {
    write("O");
    database.query("UPDATE kodu_ledger SET due = started - interval '" + time +
                   "' WHERE ledger_id = (SELECT max(ledger_id) FROM kodu_ledger)");
  }
  ASSERT_TRUE(reaches(static_cast<double>(times.size()), "runs", "ok"));
  EXPECT_EQ(counter("lateness", "1.0"), 2);
  EXPECT_EQ(counter("lateness", "1.5"), 1);
  EXPECT_EQ(counter("lateness", "1800.0"), 1);
  EXPECT_EQ(counter("lateness", "+Inf"), 1);
}

TEST_F(SqlMetricsTest, AddsUpTheBucketsOfAHistogram) {
  write("O");
  write("O");
  ASSERT_TRUE(reaches(2, "runs", "ok"));
  EXPECT_THAT(
      database.query("SELECT label, value FROM kodu_metric_count WHERE name = 'seconds'"
                     " AND label IN ('1.0', '5.0', '+Inf') ORDER BY place"),
      ElementsAre(ElementsAre("1.0", "0"), ElementsAre("5.0", "2"), ElementsAre("+Inf", "2")));
}

TEST_F(SqlMetricsTest, CountsOnceWhenManyCollectAtOnce) {
  constexpr int kRows = 300;
  std::vector<std::future<void>> collectors;
  std::atomic<bool> isOver = false;
  for (int i = 0; i < 3; ++i) {
    collectors.push_back(std::async(std::launch::async, [&] {
      while (!isOver) {
        PQclear(
            pgSafeThread(database.adminConninfo()).executeRequest("SELECT kodu_metric_collect(5)"));
      }
    }));
  }
  for (int i = 0; i < kRows; ++i) {
    write("O");
  }
  EXPECT_TRUE(reaches(kRows, "runs", "ok"));
  isOver = true;
  for (auto& collector : collectors) {
    collector.get();
  }
  collect();
  EXPECT_EQ(counter("runs", "ok"), kRows);
}

TEST_F(SqlMetricsTest, FindsWhatALongTransactionHasWritten) {
  pgSafeThread writer(database.adminConninfo());
  PQclear(writer.executeRequest("BEGIN; SELECT pg_current_xact_id()"));
  write("O");
  collect();
  EXPECT_EQ(counter("runs", "ok"), 0) << "an older transaction may still write";
  // As if the transaction had been open for three times as long as a bucket is written.
  database.query(
      "UPDATE kodu_metric_state SET written_since = written_since - interval '9 hours', marked_at ="
      " marked_at - interval '9 hours'");
  collect();
  PQclear(writer.executeRequest(
      "INSERT INTO kodu_ledger (xact, due, ended, moved_from, moved_to, cron_id, periods, every, "
      "life,"
      " bucket, attempt, outcome) SELECT pg_current_xact_id()::text::bigint, utc, utc, utc, utc, "
      "1, 4,"
      " 60, 0, kodu_ledger_bucket(utc), 0, 'p' FROM (SELECT clock_timestamp() AT TIME ZONE 'UTC' -"
      " interval '8 hours' AS utc) AS present; COMMIT"));
  EXPECT_TRUE(reaches(4, "skipped", "paused"));
  EXPECT_TRUE(reaches(1, "runs", "ok"));
}

TEST_F(SqlMetricsTest, FindsRowsOnBothSidesOfAChangeOfTheBuckets) {
  write("O");
  database.query("SELECT kodu_ledger_keep(30)");
  write("F");
  EXPECT_TRUE(reaches(1, "runs", "failed"));
  EXPECT_TRUE(reaches(1, "runs", "ok"));
  ASSERT_TRUE(waitUntil([&] {
    collect();
    return database.value("SELECT bucket_seconds FROM kodu_metric_state") == "108000";
  })) << "the other buckets are left out again";
  write("F");
  EXPECT_TRUE(reaches(2, "runs", "failed"));
}

TEST_F(SqlMetricsTest, NeverFalls) {
  write("O");
  ASSERT_TRUE(reaches(1, "runs", "ok"));
  database.query("TRUNCATE kodu_ledger; TRUNCATE kodu_ledger_hour");
  load();
  ledger.load();
  collect();
  EXPECT_EQ(counter("runs", "ok"), 1) << "after a prune, and when the files are loaded again";
  database.query("UPDATE kodu_metric_state SET position = 4000000000000, mark = 4000000000000");
  collect();
  write("O");
  EXPECT_TRUE(reaches(2, "runs", "ok")) << "in a copy on a server that counts from the start";
  EXPECT_EQ(counter("runs", "ok"), 2);
}

TEST_F(SqlMetricsTest, BeginsAfreshAfterARestLongerThanTheLedger) {
  write("O");
  ASSERT_TRUE(settles());
  database.query("UPDATE kodu_metric_state SET read_at = now() - interval '4 days'");
  collect();
  write("F");
  EXPECT_TRUE(reaches(1, "runs", "failed"));
  EXPECT_EQ(counter("runs", "ok"), 0);
}

TEST_F(SqlMetricsTest, TakesALongBacklogInSteps) {
  for (int i = 0; i < 20; ++i) {
    write("O");
  }
  ASSERT_TRUE(settles());
  EXPECT_EQ(database.value("SELECT kodu_metric_collect(3)"), "f");
  EXPECT_LE(counter("runs", "ok"), 3);
  EXPECT_TRUE(reaches(20, "runs", "ok"));
  EXPECT_EQ(counter("runs", "ok"), 20);
}

TEST_F(SqlMetricsTest, CountsByTheHostOfTheDaemon) {
  insertTask(1);
  pgSafeThread daemon(database.conninfo());
  prepareNamedStatements(daemon);
  PQclear(daemon.executePrepareRequest("UpdateCronProcess", {"1"}));
  PQclear(daemon.executePrepareRequest("UpdateCronState", {"1", "OK"}));
  ASSERT_TRUE(reaches(1, "runs", "ok"));
  EXPECT_EQ(database.value("SELECT host FROM kodu_metric_counter WHERE name = 'runs'"),
            "127.0.0.1");
  EXPECT_EQ(counter("lives"), 1);
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_metric_count WHERE name = 'runs'"), "4")
      << "those that are 0 too, so that the first failure can be seen";
}

TEST_F(SqlMetricsTest, CountsEachTaskInOneState) {
  for (int id = 1; id <= 8; ++id) {
    insertTask(id);
  }
  database.query(
      "UPDATE kodu_cron_plugin SET cron_status = CASE cron_id WHEN 1 THEN 'OK' WHEN 2 THEN 'FAILED'"
      " ELSE 'PROCESS' END WHERE cron_id <= 4;"
      "UPDATE kodu_cron_plugin SET cron_next_exec = now() - interval '10 s' WHERE cron_id IN (3, "
      "4, 8);"
      "UPDATE kodu_cron_plugin SET cron_retries = 1, cron_retries_interval = '1 hour' WHERE "
      "cron_id = 4;"
      "INSERT INTO kodu_cron_error (cron_id, cron_logfile) VALUES (4, 'x');"
      "SELECT kodu_task_pause(5); UPDATE kodu_cron_plugin SET cron_delete = TRUE WHERE cron_id = "
      "6");
  EXPECT_THAT(database
                  .query("SELECT ok, failed, running, retrying, paused, deleting, new, overdue,"
                         " failing FROM kodu_metric_tasks")
                  .front(),
              ElementsAre("1", "1", "1", "1", "1", "1", "2", "1", "2"));
  EXPECT_GE(std::stol(tasks("oldest_overdue")), 10);
  EXPECT_GE(std::stol(tasks("longest_run")), 10);
}

TEST_F(SqlMetricsTest, ListsAHundredFailingTasks) {
  for (int id = 1; id <= 102; ++id) {
    insertTask(id);
  }
  database.query(
      "SET session_replication_role = replica;"
      "UPDATE kodu_cron_plugin SET cron_status = 'FAILED', ledger_to = cron_next_exec,"
      " run_failing_since = now() - interval '1 day' + interval '1 s' * cron_id;"
      "SET session_replication_role = origin");
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_metric_failing"), "100");
  EXPECT_EQ(database.value("SELECT max(id) FROM kodu_metric_failing"), "100")
      << "those for longest";
  EXPECT_EQ(tasks("failing"), "102");
}

TEST_F(SqlMetricsTest, ListsMarkedTasks) {
  insertTask(1);
  insertTask(2);
  EXPECT_THAT(refusalOf("SELECT kodu_metric_mark(3)"), HasSubstr("there is no task 3"));
  database.query(
      "SELECT kodu_metric_mark(1); SELECT kodu_metric_mark(1); SELECT kodu_metric_mark(2);"
      "UPDATE kodu_cron_plugin SET cron_status = 'OK' WHERE cron_id = 1");
  EXPECT_THAT(database.query("SELECT id, is_ok FROM kodu_metric_marked"),
              ElementsAre(ElementsAre("1", "t")))
      << "task 2 has not run yet";
  database.query("SELECT kodu_metric_mark(1, FALSE)");
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_metric_marked"), "0");
}

TEST_F(SqlMetricsTest, GivesTheMonitorNothingButTheMetrics) {
  const std::string asMonitor = "SET ROLE kodu_monitor; ";
  for (const char* view : {"count", "daemon", "tasks", "failing", "marked"}) {
    EXPECT_EQ(refusalOf(asMonitor + "SELECT * FROM kodu_metric_" + view), "");
  }
  EXPECT_EQ(refusalOf(asMonitor + "SELECT kodu_metric_collect()"), "");
  EXPECT_EQ(
      database.value("RESET ROLE; SELECT string_agg(relname, ' ' ORDER BY relname) FROM pg_class"
                     " WHERE relnamespace = 'public'::regnamespace AND relkind IN ('r', 'p', 'v')"
                     " AND has_table_privilege('kodu_monitor', oid,"
                     " 'SELECT, INSERT, UPDATE, DELETE, TRUNCATE')"),
      "kodu_metric_count kodu_metric_daemon kodu_metric_failing kodu_metric_marked"
      " kodu_metric_tasks");
  for (const char* call : {"kodu_metric_mark(1)", "kodu_metric_add(1, 2, '{}')",
                           "kodu_ledger_off()", "kodu_task_pause(1)"}) {
    EXPECT_THAT(refusalOf(asMonitor + "SELECT " + call), HasSubstr("permission denied")) << call;
  }
}

}  // namespace
