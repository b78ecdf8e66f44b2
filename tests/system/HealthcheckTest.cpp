// koductl health against a running daemon with each fault that it must detect.

#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libpq-fe.h>

#include "tests/support/Daemon.h"
#include "tests/support/Database.h"
#include "tests/support/Files.h"
#include "tests/support/Ledger.h"
#include "tests/support/builtProgram.h"
#include "tests/support/waitUntil.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

struct Health {
  int status = -1;
  std::string line;
};

class HealthcheckTest : public testing::Test {
 protected:
  Health check(const std::string& options = "") const {
    const std::string command = builtProgram("KODU_TEST_CTL") + " -f " + daemon.mainConfig() +
                                " health " + options + " 2>&1";
    Health health;
    FILE* output = popen(command.c_str(), "r");
    std::array<char, 4096> buffer{};
    while (std::fgets(buffer.data(), buffer.size(), output) != nullptr) {
      health.line += buffer.data();
    }
    const int status = pclose(output);
    health.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return health;
  }

  void insert(int id, const std::string& path, const std::string& parameter,
              const std::string& nextExec) const {
    TaskRow row;
    row.id = id;
    row.path = path;
    row.parameter = parameter;
    row.nextExec = nextExec;
    row.interval = "1 second";  // so that a slow start costs only a second
    database.insertTask(row);
  }

  Database database;
  Daemon daemon{database};
};

TEST_F(HealthcheckTest, ReportsOkForAWorkingDaemon) {
  insert(1, "/bin/echo", "x", "now() + interval '1 hour'");
  ASSERT_TRUE(daemon.startAndWait());

  const Health health = check();

  EXPECT_EQ(health.status, 0) << health.line;
  EXPECT_EQ(health.line,
            "KODUCRON OK - 1 tasks, none overdue | tasks=1 overdue=0 oldest_overdue=0s;10;60;0 "
            "in_process_too_long=0 longest_in_process=0s;600;;0 failures_last_hour=0;;;0 "
            "sessions=1\n");
}

TEST_F(HealthcheckTest, ReadsTheConnectionAsTheDaemonDoes) {
  std::string config = readFile(daemon.databaseConfig());
  const std::size_t host = config.find('\n', config.find("PGSQL_host="));
  config.insert(host, " keepalives_idle=30 tcp_user_timeout=60000");
  const std::size_t password = config.find(database.password());
  config.replace(password, database.password().size(), "'\\" + database.password() + "'");
  writeFile(daemon.databaseConfig(), config);
  ASSERT_TRUE(daemon.startAndWait());

  const Health health = check();

  EXPECT_EQ(health.status, 0) << health.line;
}

TEST_F(HealthcheckTest, DetectsAStoppedDaemon) {
  ASSERT_TRUE(daemon.startAndWait());
  daemon.signal(SIGKILL);
  ASSERT_TRUE(daemon.waitForEnd().has_value());

  Health health;
  EXPECT_TRUE(waitUntil([&] { return (health = check()).status == 2; })) << health.line;
  EXPECT_THAT(health.line, StartsWith("KODUCRON CRITICAL - 0 tasks, no session of the daemon |"));
}

TEST_F(HealthcheckTest, DetectsASecondDaemon) {
  ASSERT_TRUE(daemon.startAndWait());
  Daemon second(database);
  ASSERT_TRUE(second.startAndWait());

  const Health health = check();

  EXPECT_EQ(health.status, 1);
  EXPECT_THAT(
      health.line,
      StartsWith("KODUCRON WARNING - 0 tasks, 2 daemons are connected: only one may run |"));
}

TEST_F(HealthcheckTest, IgnoresSessionsWithAnApplicationName) {
  ASSERT_TRUE(daemon.startAndWait());
  PGconn* client = PQconnectdb((database.conninfo() + " application_name=psql").c_str());
  ASSERT_EQ(PQstatus(client), CONNECTION_OK);

  const Health health = check();
  PQfinish(client);

  EXPECT_EQ(health.status, 0) << health.line;
  EXPECT_THAT(health.line, HasSubstr("sessions=2\n"));
}

TEST_F(HealthcheckTest, DetectsWorkersThatHang) {
  for (const int id : {1, 2, 3}) {
    insert(id, "/bin/sleep", "600", "now()");
  }
  ASSERT_TRUE(daemon.startAndWait());

  Health health;
  EXPECT_TRUE(waitUntil([&] {
    health = check("-w 2 -p 2");
    return health.line.find("2 in PROCESS for more than 2 s") != std::string::npos;
  })) << health.line;
  EXPECT_NE(health.status, 0);
  EXPECT_TRUE(waitUntil([&] { return (health = check("-w 1 -c 2 -p 2")).status == 2; }))
      << health.line;
  EXPECT_THAT(health.line, HasSubstr("1 overdue"));
}

TEST_F(HealthcheckTest, DetectsALockedTable) {
  ASSERT_TRUE(daemon.startAndWait());
  database.query("BEGIN");
  database.query("LOCK TABLE kodu_cron_plugin IN ACCESS EXCLUSIVE MODE");

  const Health health = check("-t 1");

  EXPECT_EQ(health.status, 2);
  EXPECT_THAT(health.line,
              StartsWith("KODUCRON CRITICAL - the database does not answer within 1 s: "));
  EXPECT_THAT(health.line, HasSubstr("the table kodu_cron_plugin was locked for 1 s"));
}

TEST_F(HealthcheckTest, DetectsAServerThatStopsInTheMiddleOfAReply) {
  ASSERT_TRUE(daemon.startAndWait());
  database.query("BEGIN; LOCK TABLE kodu_plugins");
  auto answer = std::async(std::launch::async, [&] { return check("-t 5"); });
  ASSERT_TRUE(waitUntil([&] { return database.waitingSessions() > 0; }));
  const pid_t server = std::stoi(database.value(
      "SELECT pid FROM pg_stat_activity WHERE application_name = 'kodu_healthcheck'"));

  ASSERT_EQ(kill(server, SIGSTOP), 0);
  EXPECT_EQ(answer.wait_for(std::chrono::seconds(40)), std::future_status::ready);
  kill(server, SIGCONT);

  const Health health = answer.get();
  EXPECT_EQ(health.status, 2);
  EXPECT_THAT(health.line, HasSubstr("the database does not answer within 5 s"));
}

TEST_F(HealthcheckTest, IgnoresWarningsOfTheServer) {
  insert(1, "/bin/echo", "x", "now() + interval '1 hour'");
  ASSERT_TRUE(daemon.startAndWait());
  // A message at each connection, in several lines.
  database.query("UPDATE pg_database SET datcollversion = '9 9 9 9 9 9 9 9' WHERE datname = '" +
                 database.name() + "'");

  const Health health = check();

  EXPECT_EQ(health.status, 0) << health.line;
  EXPECT_THAT(health.line, StartsWith("KODUCRON OK - 1 tasks, none overdue | tasks=1 overdue=0 "));
}

TEST_F(HealthcheckTest, PrintsTheErrorOfTheServer) {
  database.query("DROP VIEW kodu_task_state");

  const Health health = check();

  EXPECT_EQ(health.status, 2);
  EXPECT_THAT(health.line, HasSubstr("relation \"kodu_task_state\" does not exist"));
}

TEST_F(HealthcheckTest, RecognisesADaemonOfAnotherRole) {
  const std::string other = "daemon_of_" + database.name();
  database.query("CREATE ROLE " + other + " LOGIN PASSWORD 'p' IN ROLE kodu");
  std::string config = readFile(daemon.databaseConfig());
  config.replace(config.find("username=kodu"), 13, "username=" + other);
  config.replace(config.find(database.password()), database.password().size(), "p");
  writeFile(daemon.databaseConfig(), config);
  ASSERT_TRUE(daemon.startAndWait());

  const Health health = check();
  daemon.signal(SIGKILL);
  ASSERT_TRUE(daemon.waitForEnd().has_value());
  database.query("DROP ROLE " + other);

  EXPECT_EQ(health.status, 0) << health.line;
}

TEST_F(HealthcheckTest, DetectsADatabaseThatRefusesConnections) {
  const std::string config = readFile(daemon.databaseConfig());
  writeFile(daemon.databaseConfig(), config.substr(0, config.find("PGSQL_pwd=")) + "PGSQL_pwd=x\n");

  const Health health = check();

  EXPECT_EQ(health.status, 2);
  EXPECT_THAT(health.line, HasSubstr("password authentication failed"));
}

TEST_F(HealthcheckTest, ShowsNoControlCharacterOfAMessage) {
  std::string config = readFile(daemon.databaseConfig());
  const std::string name = "PGSQL_db=" + database.name();
  config.replace(config.find(name), name.size(),
                 "PGSQL_db='x\\\\033[31m\x1b[31m\u009b31m\u202e\x7f\xff'");
  writeFile(daemon.databaseConfig(), config);

  const Health health = check();

  EXPECT_EQ(health.status, 2);
  EXPECT_THAT(health.line, HasSubstr("\"x\\033[31m?[31m?31m???\" does not exist"));
}

TEST_F(HealthcheckTest, PrintsAMessageOfSeveralLinesInOne) {
  std::string config = readFile(daemon.databaseConfig());
  const std::string port = "PGSQL_port=" + std::to_string(database.port());
  config.replace(config.find(port), port.size(), "PGSQL_port=1");
  writeFile(daemon.databaseConfig(), config);

  const Health health = check();

  EXPECT_EQ(health.status, 2);
  EXPECT_THAT(health.line, HasSubstr("Connection refused Is the server running"));
  EXPECT_THAT(health.line, Not(HasSubstr("\t")));
}

TEST_F(HealthcheckTest, CountsFailures) {
  insert(1, "/bin/echo", "x", "now() + interval '1 hour'");
  database.query(
      "INSERT INTO kodu_cron_error(cron_id, cron_logfile, cron_date) VALUES "
      "(1, 'a', now()), (1, 'b', now()), (1, 'c', now() - interval '2 hours')");
  ASSERT_TRUE(daemon.startAndWait());

  EXPECT_EQ(check("-e 2").status, 0);
  const Health health = check("-e 1");

  EXPECT_EQ(health.status, 1);
  EXPECT_THAT(health.line, HasSubstr("2 failed runs within the last hour"));
}

/// packaging/watchdog with a koductl that prints a given text, and a systemctl that only
/// records its arguments.
class WatchdogTest : public testing::Test {
 protected:
  WatchdogTest() {
    std::filesystem::copy(projectFile("ops/packaging/watchdog"), directory / "watchdog");
    writePlugin(directory / "systemctl",
                "echo \"$*\" >>" + toldPath() + "\ncase $1 in show) echo 0 ;; esac");
  }
  /// The arguments of systemctl when the healthcheck prints this.
  std::string endedAfter(const std::string& line, int status) const {
    writeFile(directory / "says", line);
    writePlugin(directory / "koductl",
                "/bin/cat " + std::string(directory / "says") + "; exit " + std::to_string(status));
    writeFile(toldPath(), "");
    const std::string command = "PATH=" + std::string(directory / "") +
                                ":/usr/bin:/bin RUNTIME_DIRECTORY=" + std::string(directory / "") +
                                " " + std::string(directory / "watchdog") + " >/dev/null";
    EXPECT_NE(std::system(command.c_str()), -1);
    const std::string told = readFile(toldPath());
    return told.substr(std::min(told.find("kill"), told.size()));
  }
  std::string toldPath() const { return directory / "told"; }

  TempDir directory;
};

TEST_F(WatchdogTest, EndsADaemonWhoseTasksAreOverdue) {
  const std::string figures =
      "| tasks=1 overdue=1 oldest_overdue=61s;10;60;0 in_process_too_long=0\n";
  EXPECT_EQ(endedAfter("KODUCRON CRITICAL - 1 tasks, 1 overdue " + figures, 2),
            "kill --kill-whom=main --signal=KILL koducron.service\n");
  EXPECT_EQ(endedAfter("KODUCRON WARNING - 1 tasks, 1 overdue " + figures, 1), "");
}

TEST_F(WatchdogTest, IgnoresTextInsteadOfAFigure) {
  EXPECT_EQ(endedAfter("KODUCRON CRITICAL - the database does not answer within 5 s: WARNING: "
                       " oldest_overdue=99s;10;60;0 \n",
                       2),
            "");
  EXPECT_EQ(endedAfter("KODUCRON CRITICAL - the database does not answer within 5 s\n| tasks=1 "
                       "oldest_overdue=99s;10;60;0 x\n",
                       2),
            "");
}

/// koductl repair with the INI files of a daemon.
class RepairTest : public HealthcheckTest {
 protected:
  int repair(const std::string& options = "") const {
    const std::string command = builtProgram("KODU_TEST_CTL") + " -f " + daemon.mainConfig() +
                                " repair " + options + " >" + outPath();
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  std::string outPath() const { return daemon.directory / "repair.out"; }
  std::string said() const { return readFile(outPath()); }

  void leaveUnfinished(int id) const {
    insert(id, "/bin/true", "", "now() + interval '1 hour'");
    database.query("UPDATE kodu_cron_plugin SET cron_status = 'PROCESS' WHERE cron_id = " +
                   std::to_string(id));
  }
};

TEST_F(RepairTest, TellsUnfinishedRunsAsFailed) {
  leaveUnfinished(1);
  leaveUnfinished(2);
  EXPECT_EQ(repair(), 0);
  EXPECT_EQ(said(), "2 runs left unfinished: they count as FAILED now\n");
  EXPECT_EQ(database.task(2, "cron_status"), "FAILED");
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_repair"), "2");
  EXPECT_EQ(repair(), 0);
  EXPECT_EQ(said(), "no run was left unfinished\n");
}

TEST_F(RepairTest, ChangesNothingBesideADaemon) {
  ASSERT_TRUE(daemon.startAndWait());
  leaveUnfinished(1);
  EXPECT_EQ(repair(), 0);
  EXPECT_EQ(said(), "a daemon is connected to the database: nothing was changed\n");
  EXPECT_EQ(repair("--json"), 0);
  EXPECT_THAT(said(), HasSubstr("\"daemon_connected\" : true"));
  EXPECT_EQ(database.task(1, "cron_status"), "PROCESS");
}

TEST_F(RepairTest, RepairsTablesOfAnyVersion) {
  leaveUnfinished(1);
  database.query("INSERT INTO kodu_schema_version (version, title) VALUES (999, 'newer')");
  EXPECT_EQ(repair(), 0);
  EXPECT_EQ(database.task(1, "cron_status"), "FAILED");
}

TEST_F(RepairTest, ReadsTheDaemonsRoleFromTheConfiguration) {
  const std::string other = "daemon_of_" + database.name();
  database.query("CREATE ROLE " + other + " LOGIN PASSWORD 'p' IN ROLE kodu");
  std::string config = readFile(daemon.databaseConfig());
  config.replace(config.find("username=kodu"), 13, "username=" + other);
  config.replace(config.find(database.password()), database.password().size(), "p");
  writeFile(daemon.databaseConfig(), config);
  insert(1, "/bin/true", "", "now() + interval '1 hour'");
  database.query("UPDATE kodu_cron_plugin SET cron_status = 'PROCESS'");
  PGconn* session =
      PQconnectdb(("host=" + database.host() + " port=" + std::to_string(database.port()) +
                   " dbname=" + database.name() + " password=p user=" + other)
                      .c_str());
  ASSERT_EQ(PQstatus(session), CONNECTION_OK);

  EXPECT_EQ(repair(), 0);
  EXPECT_EQ(database.task(1, "cron_status"), "PROCESS") << "its daemon is connected";
  PQfinish(session);
  EXPECT_TRUE(
      waitUntil([&] { return repair() == 0 && database.task(1, "cron_status") == "FAILED"; }));
  database.query("DROP ROLE " + other);
}

TEST_F(HealthcheckTest, ReportsAsJsonToo) {
  ASSERT_TRUE(daemon.startAndWait());
  const Health health = check("--json");
  EXPECT_EQ(health.status, 0);
  EXPECT_THAT(health.line, HasSubstr("\"state\" : \"OK\""));
  EXPECT_THAT(check("--json -f /nowhere").line, HasSubstr("\"state\" : \"UNKNOWN\""));
}

TEST_F(HealthcheckTest, IsUnknownWithoutItsConfiguration) {
  EXPECT_EQ(check("-x").status, 3);
  EXPECT_THAT(check("-x").line, StartsWith("KODUCRON UNKNOWN - "));
  EXPECT_EQ(check("-w ten").status, 3);
  EXPECT_EQ(check("-w ten").line, "KODUCRON UNKNOWN - -w takes a whole number, not 'ten'\n");
  const Health health = check("-f /nowhere");

  EXPECT_EQ(health.status, 3);
  EXPECT_THAT(health.line, StartsWith("KODUCRON UNKNOWN - cannot read /nowhere"));
}

TEST_F(HealthcheckTest, WarnsOfALedgerThatCannotBeWritten) {
  const Ledger ledger(database);
  insert(1, "/bin/echo", "x", "now()");
  ASSERT_TRUE(daemon.startAndWait());
  EXPECT_THAT(check().line, HasSubstr("sessions=1 ledger_unwritten=0;0;;0\n"));

  database.query("ALTER TABLE kodu_ledger RENAME TO away");
  ASSERT_TRUE(waitUntil([&] { return database.task(1, "COALESCE(ledger_lost, 0) > 1") == "t"; },
                        std::chrono::seconds(30)));

  const Health health = check();
  EXPECT_EQ(health.status, 1) << health.line;
  EXPECT_THAT(health.line, HasSubstr("rows of the ledger could not be written | "));
}

TEST_F(HealthcheckTest, WarnsOfALedgerThatIsNotPruned) {
  const Ledger ledger(database);
  insert(1, "/bin/echo", "x", "now() + interval '1 hour'");
  ASSERT_TRUE(daemon.startAndWait());
  database.query("UPDATE kodu_ledger_state SET switched_on = now() - interval '25 hours'");

  EXPECT_THAT(check().line, HasSubstr("WARNING - 1 tasks, the ledger was last pruned 900"));
  const std::string call = "'" + projectFile("ops/ledger") + "' -f " + daemon.mainConfig();
  EXPECT_EQ(std::system((call + " >" + daemon.directory.path() + "/said").c_str()), 0);

  EXPECT_THAT(check().line, StartsWith("KODUCRON OK - "));
  EXPECT_EQ(readFile(daemon.directory / "said"),
            "rows added to the summaries: 0\nbuckets emptied: 0\nbucket indexed: none\n");
}

TEST_F(HealthcheckTest, MaintainsNothingWithoutALedger) {
  const std::string call = "'" + projectFile("ops/ledger") + "' -f " + daemon.mainConfig();

  EXPECT_EQ(std::system((call + " >" + daemon.directory.path() + "/said 2>&1").c_str()), 0);

  EXPECT_EQ(readFile(daemon.directory / "said"), "");
}

}  // namespace
