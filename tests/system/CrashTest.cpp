#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libpq-fe.h>

#include "db/pgSafeThread.h"
#include "db/result.h"
#include "tests/support/Daemon.h"
#include "tests/support/Database.h"
#include "tests/support/Process.h"
#include "tests/support/waitUntil.h"

namespace {

using std::chrono::seconds;
using testing::HasSubstr;

namespace fs = std::filesystem;

constexpr seconds kPatience(30);
/// The tasks' interval. The next time of a resumed task shows whether it has kept its slots.
constexpr int kInterval = 2;

class CrashTest : public testing::Test {
 protected:
  /// A task that is due within its interval, with a plugin of this body.
  void insertTask(int id, const std::string& body,
                  const std::string& logFile = "out_$SERVICEID_$DATE.txt") const {
    TaskRow row;
    row.id = id;
    row.path = writePlugin(daemon.directory / ("plugin" + std::to_string(id)), body);
    row.interval = std::to_string(kInterval) + " seconds";
    row.nextExec = "date_trunc('second', now())";
    row.logFile = logFile;
    database.takeAnyRow();  // this test is about tasks that end the daemon
    database.insertTask(row);
  }

  bool waitForStatus(int id, const std::string& status) const {
    return waitUntil([&] { return database.task(id, "cron_status") == status; }, kPatience);
  }

  /// Expects the daemon to end by the terminate handler, which names the exception and its text.
  void expectAbort(const std::string& exception, const std::string& text) {
    EXPECT_EQ(signalOf(daemon.waitForEnd()), SIGABRT);
    EXPECT_THAT(daemon.console(), HasSubstr("terminate called after throwing an instance of '" +
                                            exception + "'\n  what():  " + text));
  }

  /// Starts the daemon again and expects it to run the task with this outcome, at `slot`, its next
  /// time after the crash, or a later slot.
  void expectResumed(int id, long slot, const std::string& status = "OK") {
    ASSERT_TRUE(daemon.startAndWait());
    EXPECT_TRUE(waitUntil(
        [&] { return lastExec(id) >= slot && database.task(id, "cron_status") == status; },
        kPatience));
    EXPECT_EQ((lastExec(id) - slot) % kInterval, 0);
  }

  void expectResumed(int id) { expectResumed(id, database.nextExec(id)); }

  long lastExec(int id) const {
    return std::stol(database.task(id, "COALESCE(EXTRACT(EPOCH FROM cron_last_exec), 0)::bigint"));
  }

  void notifyAdd(int id) const {
    database.notify(R"({"TYPE":"SERVICE","COMMAND":"ADD","ID":)" + std::to_string(id) + "}");
  }

  void endSession() const {
    database.query(
        "SELECT pg_terminate_backend(pid) FROM pg_stat_activity "
        "WHERE usename = 'kodu' AND datname = current_database()");
  }

  Database database;
  Daemon daemon{database};
};

TEST_F(CrashTest, EndsAtTheNextStatementWhenItsSessionIsGone) {
  insertTask(1, "echo fine");
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForStatus(1, "OK"));

  endSession();

  expectAbort("PostgresqlException", "Exec prepareRequest failed:  ");
  expectResumed(1);
}

// The database is not used for two seconds between the first task and the last, while the listener
// reads from the lost connection.
TEST_F(CrashTest, SurvivesALostSessionUntilItsNextStatement) {
  daemon.threadNumber = "0";
  daemon.writeConfig();
  for (const int id : {1, 2, 3}) {
    TaskRow row;
    row.id = id;
    row.interval = "3 seconds";
    row.nextExec = "date_trunc('second', now()) + interval '" + std::to_string(id) + " seconds'";
    database.insertTask(row);
  }
  const auto sent = [&] { return daemon.logged("DEBUG#TH TIME: Send task to execution task"); };
  ASSERT_TRUE(daemon.startAndWait({"-D"}));
  ASSERT_TRUE(
      waitUntil([&] { return sent() >= 1 && daemon.logged("DEBUG#DELETE END") == 1; }, kPatience));

  endSession();

  EXPECT_TRUE(waitUntil([&] { return sent() == 3; }, kPatience));
  daemon.signal(SIGTERM);
  EXPECT_TRUE(waitUntil([&] { return threadCount(daemon.pid()) == 2; }, kPatience));
  EXPECT_TRUE(daemon.isRunning());
}

TEST_F(CrashTest, EndsWhenTheRowIsDeletedDuringItsRun) {
  const std::string released = daemon.directory / "released";
  insertTask(1, "until [ -e " + released + " ]; do /bin/sleep 0.05; done; echo released");
  insertTask(2, "echo fine");
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForStatus(1, "PROCESS"));

  database.query("DELETE FROM kodu_cron_plugin WHERE cron_id = 1");
  writeFile(released, "");

  expectAbort("std::logic_error", "");
  EXPECT_EQ(daemon.output("out_1_last.txt"), "released\n");
  expectResumed(2);
}

/// Changes of a row that the tables refuse; here they are accepted, during a run.
class RefusedChangeTest : public CrashTest, public testing::WithParamInterface<const char*> {};

TEST_P(RefusedChangeTest, EndsTheDaemonAtTheEndOfTheRun) {
  const std::string released = daemon.directory / "released";
  insertTask(1, "until [ -e " + released + " ]; do /bin/sleep 0.05; done; echo released");
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForStatus(1, "PROCESS"));

  database.query(std::string("UPDATE kodu_cron_plugin SET ") + GetParam());
  writeFile(released, "");

  EXPECT_EQ(signalOf(daemon.waitForEnd()), SIGABRT);
}

INSTANTIATE_TEST_SUITE_P(
    Changes, RefusedChangeTest,
    testing::Values("cron_next_exec = '2037-06-01', cron_interval = '366 days'",
                    "cron_next_exec = '1970-02-01', cron_interval = '-120 months 3601 days'",
                    "cron_next_exec = '1970-01-01', cron_interval = '1 day -86399 s'"));

TEST_F(CrashTest, EndsAtAFailedRunWhoseFileNameHoldsAFolder) {
  fs::create_directories(daemon.outputDirectory() + "/sub");
  insertTask(1, "echo bad; exit 2", "sub/o_$DATE.txt");
  ASSERT_TRUE(daemon.startAndWait());
  EXPECT_EQ(signalOf(daemon.waitForEnd()), SIGABRT);
}

TEST_F(CrashTest, EndsAtEachStartWhenThePurgedFileIsAFolder) {
  fs::create_directories(daemon.outputDirectory() + "/archive/61");
  insertTask(1, "echo fine", "./archive");
  database.query("UPDATE kodu_cron_plugin SET cron_delete = TRUE");
  for (int start = 1; start <= 2; ++start) {
    daemon.start();
    EXPECT_EQ(signalOf(daemon.waitForEnd()), SIGABRT);
  }
}

// A first failure late in a second, then immediate failures: after some tries two of them have the
// same name.
TEST_F(CrashTest, EndsAtARetryWithinTheSecondOfTheFailure) {
  const std::string slow = daemon.directory / "slow";
  insertTask(1, "if [ -e " + slow + " ]; then /bin/rm " + slow + "; else /bin/touch " + slow +
                    "; /bin/sleep 0.9; fi; echo bad; exit 2");
  database.query("UPDATE kodu_cron_plugin SET cron_retries = 1000, cron_retries_interval = '0'");
  ASSERT_TRUE(daemon.startAndWait());
  EXPECT_EQ(signalOf(daemon.waitForEnd()), SIGABRT);
  EXPECT_THAT(daemon.console(), HasSubstr("File exists"));
}

TEST_F(CrashTest, ContinuesWhenAnIdleTransactionIsEnded) {
  insertTask(1, "echo fine");
  insertTask(2, "echo fine");
  pgSafeThread forgetful(database.conninfo());
  for (const char* statement : {"SET idle_in_transaction_session_timeout = '10s'", "BEGIN",
                                "UPDATE kodu_cron_plugin SET cron_status = '' WHERE cron_id = 1"}) {
    PQclear(forgetful.executeRequest(statement));
  }

  daemon.start();

  EXPECT_TRUE(waitUntil(
      [&] {
        return database.value(
                   "SELECT count(*) FROM pg_stat_activity WHERE wait_event_type = 'Lock' AND "
                   "datname = current_database() AND usename = 'kodu'") == "1";
      },
      kPatience));
  EXPECT_TRUE(waitForStatus(1, "OK"));
  EXPECT_TRUE(waitForStatus(2, "OK"));
  EXPECT_TRUE(daemon.isRunning());
}

TEST_F(CrashTest, EndsWhenTheArchiveFileExists) {
  insertTask(1, "echo failed; exit 2", "out_$SERVICEID.txt");
  ASSERT_TRUE(daemon.startAndWait());

  const std::string archive = daemon.outputDirectory() + "/archive/1/out_1.txt";
  expectAbort("std::filesystem::__cxx11::filesystem_error",
              "filesystem error: cannot copy: File exists [" + daemon.outputDirectory() +
                  "/out_1.txt] [" + archive + "]\n");
  EXPECT_EQ(database.task(1, "cron_status"), "PROCESS");
  EXPECT_EQ(database.failures(1), 1);
  EXPECT_EQ(readFile(archive), "failed\n");
  fs::remove(archive);
  expectResumed(1, database.nextExec(1), "FAILED");
  EXPECT_GE(database.failures(1), 2);
}

TEST_F(CrashTest, EndsWhenTheArchiveDirectoryCannotBeCreated) {
  insertTask(1, "echo failed; exit 2");
  fs::create_directory(daemon.outputDirectory());
  const std::string archive = daemon.outputDirectory() + "/archive";
  writeFile(archive, "");

  ASSERT_TRUE(daemon.startAndWait());

  expectAbort("std::filesystem::__cxx11::filesystem_error", "filesystem error: cannot create dir");
  EXPECT_EQ(database.failures(1), 0);
  fs::remove(archive);
  expectResumed(1, database.nextExec(1), "FAILED");
}

TEST_F(CrashTest, EndsWhenTheHistoryCannotBeWritten) {
  insertTask(1, "echo failed; exit 2");
  database.query("REVOKE INSERT ON kodu_cron_error FROM kodu");

  ASSERT_TRUE(daemon.startAndWait());

  expectAbort("PostgresqlException",
              "Exec prepareRequest failed:  ERROR:  permission denied for table kodu_cron_error\n");
  EXPECT_EQ(database.task(1, "cron_status"), "PROCESS");
  EXPECT_EQ(filesIn(daemon.outputDirectory() + "/archive/1").size(), 1U);
  database.query("GRANT INSERT ON kodu_cron_error TO kodu");
  expectResumed(1, database.nextExec(1), "FAILED");
}

// The worker's parameters still contain a value of the abandoned pass, before the next task's id.
TEST_F(CrashTest, EndsAtTheTaskAfterAnOutputFileThatCannotBeOpened) {
  daemon.threadNumber = "1";
  daemon.writeConfig();
  insertTask(1, "echo fine", "missing/out.txt");
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitUntil([&] { return daemon.logged("CRITICAL#No such file or directory") == 1; },
                        kPatience));
  EXPECT_EQ(database.task(1, "cron_status"), "PROCESS");

  insertTask(2, "echo fine");
  notifyAdd(2);

  expectAbort("PostgresqlException",
              "Exec prepareRequest failed:  ERROR:  bind message supplies 2 parameters, but "
              "prepared statement \"UpdateCronProcess\" requires 1\n");
  EXPECT_EQ(daemon.logged("CRITICAL#No such file or directory"), 1);
  EXPECT_EQ(database.task(2, "cron_status"), "");
  fs::create_directory(daemon.outputDirectory() + "/missing");
  expectResumed(1);
}

TEST_F(CrashTest, EndsWhenTheTasksThatANotificationNamesCannotBeRead) {
  insertTask(1, "echo fine");
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForStatus(1, "OK"));
  database.query("ALTER TABLE kodu_plugins RENAME TO kodu_plugins_away");

  notifyAdd(1);

  expectAbort("PostgresqlException",
              "execute failed:  ERROR:  relation \"kodu_plugins\" does not exist\n");
  database.query("ALTER TABLE kodu_plugins_away RENAME TO kodu_plugins");
  expectResumed(1);
}

/// A name for the error, and the payload.
using Payload = std::pair<std::string, std::string>;

class BadNotificationTest : public CrashTest, public testing::WithParamInterface<Payload> {};

TEST_P(BadNotificationTest, EndsTheProcess) {
  const std::string& payload = GetParam().second;
  insertTask(1, "echo fine");
  ASSERT_TRUE(daemon.startAndWait({"-D"}));
  // The payload is lost when it is sent before the subscription.
  ASSERT_TRUE(waitUntil([&] { return lastExec(1) > 0; }, kPatience));

  database.notify(payload);

  expectAbort("Json::LogicError", "");
  EXPECT_EQ(daemon.logged("DEBUG#TH LISTENER# Notify string receive :" + payload), 1);
  expectResumed(1);
}

INSTANTIATE_TEST_SUITE_P(
    Payloads, BadNotificationTest,
    testing::Values(Payload{"IdIsText", R"({"TYPE":"SERVICE","COMMAND":"ADD","ID":"7"})"},
                    Payload{"IdIsAList", R"({"TYPE":"SERVICE","COMMAND":"UPDATE","ID":[7]})"},
                    Payload{"IdIsTooLarge",
                            R"({"TYPE":"SERVICE","COMMAND":"ADD","ID":2147483648})"},
                    Payload{"TypeIsAnObject", R"({"TYPE":{},"COMMAND":"ADD","ID":7})"},
                    Payload{"CommandIsAList", R"({"TYPE":"SERVICE","COMMAND":["ADD"],"ID":7})"},
                    Payload{"IsAList", "[7]"}, Payload{"IsANumber", "7"},
                    Payload{"IsText", R"("SERVICE")"}),
    [](const auto& payload) { return payload.param.first; });

/// A separate cluster, which the test can stop as a crash would.
class ServerCrashTest : public testing::Test {
 protected:
  void SetUp() override {
    setenv("KODU_TEST_CLUSTER", cluster.c_str(), 1);
    ASSERT_EQ(run("tests/testCluster", "start"), 0);
  }
  void TearDown() override { EXPECT_EQ(run("tests/testCluster", "stop"), 0); }

  /// Runs scripts/cluster with this command.
  int run(const std::string& script, const std::string& command,
          const std::string& option = "") const {
    const std::string line =
        "'" + projectFile(script) + "' " + command + " " + cluster + " " + option;
    return std::system(line.c_str());
  }

  TempDir directory;
  const std::string cluster = directory / "cluster";
};

/// A value read in a new session: the crash has ended the others.
long valueOf(const Database& database, const std::string& sql) {
  PGconn* session = PQconnectdb(database.conninfo().c_str());
  const ResultPtr result(PQexec(session, sql.c_str()));
  PQfinish(session);
  return PQntuples(result.get()) == 1 ? std::stol(PQgetvalue(result.get(), 0, 0)) : -1;
}

TEST_F(ServerCrashTest, ResumesTheTaskAfterTheServersReturn) {
  const Database database;
  Daemon daemon(database);
  TaskRow row;
  row.path = writePlugin(daemon.directory / "plugin", "echo fine");
  row.interval = "1 second";
  row.nextExec = "now()";
  database.insertTask(row);
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitUntil([&] { return database.task(1, "cron_status") == "OK"; }, kPatience));
  database.query("CHECKPOINT");  // commits do not wait for the disk

  ASSERT_EQ(run("scripts/cluster", "stop", "--immediate"), 0);

  EXPECT_EQ(signalOf(daemon.waitForEnd()), SIGABRT);
  EXPECT_THAT(daemon.console(), HasSubstr("instance of 'PostgresqlException'"));
  daemon.start();
  EXPECT_EQ(exitStatusOf(daemon.waitForEnd()), 1);
  EXPECT_THAT(daemon.console(), HasSubstr("Connection refused"));

  ASSERT_EQ(run("scripts/cluster", "restart"), 0);
  const std::string kEpoch = "SELECT EXTRACT(EPOCH FROM ";
  const long slot = valueOf(database, kEpoch + "cron_next_exec)::bigint FROM kodu_cron_plugin");
  ASSERT_GT(slot, 0);
  ASSERT_TRUE(daemon.startAndWait());
  EXPECT_TRUE(waitUntil(
      [&] {
        return valueOf(database, kEpoch +
                                     "cron_last_exec)::bigint FROM kodu_cron_plugin "
                                     "WHERE cron_status = 'OK'") >= slot;
      },
      kPatience));
}

}  // namespace
