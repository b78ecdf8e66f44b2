// koductl host watch as the service runs it, with real daemons.

#include <sys/wait.h>

#include <array>
#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "tests/ctl/CtlTest.h"
#include "tests/support/Ledger.h"
#include "tests/support/waitUntil.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::chrono::seconds kLimit{60};

/// Three hosts, of which a test starts some, and watches of which each connects as one of them.
class HostWatchTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    database.query(
        "ALTER TABLE kodu_plugins ALTER plugin_id RESTART 1000;"
        "ALTER TABLE kodu_cron_plugin ALTER cron_id RESTART 1000");
    database.query(readFile(projectFile("sql/hosts.sql")));
    for (std::size_t i = 0; i < hosts.size(); ++i) {
      if (i > 0) {
        database.query("SELECT kodu_host_add('" + hosts[i] + "'); ALTER ROLE " + hosts[i] +
                       " PASSWORD '" + database.password() + "'");
      }
      daemons.push_back(std::make_unique<Daemon>(database));
      daemons[i]->role = hosts[i];
      daemons[i]->threadNumber = "4";
      daemons[i]->writeConfig();
    }
  }
  void TearDown() override {
    for (const pid_t pid : watches) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
    for (const auto& each : daemons) {
      if (each->isRunning()) {
        each->signal(SIGKILL);
        each->waitForEnd();
      }
    }
    expectNothingTwice();
    ledger.expectComplete();
    database.query("DROP ROLE IF EXISTS " + hosts[1] + ", " + hosts[2]);
    CtlTest::TearDown();
  }

  void expectNothingTwice() const {
    EXPECT_THAT(database.query("SELECT id, due FROM kodu_run WHERE outcome IN ('ok', 'failed')"
                               " GROUP BY id, due HAVING count(*) > 1"),
                IsEmpty())
        << "runs of one time";
  }

  /// Tasks of a host, each with this body.
  void insertTasks(int from, int to, const std::string& host, const std::string& interval,
                   const std::string& body = "") const {
    database.query("SET kodu.host = '" + host + "'");
    for (int id = from; id <= to; ++id) {
      TaskRow row = quietTask(id);
      row.path = writePlugin(daemon.directory / row.name, "echo fine\n" + body);
      row.interval = interval;
      row.nextExec = "date_trunc('second', now()) + interval '4 seconds'";
      database.insertTask(row);
    }
    database.query("RESET kodu.host");
  }
  /// Starts the first daemons, and returns once each is known to listen.
  void startDaemons(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      ASSERT_TRUE(daemons[i]->startAndWait());
    }
    ASSERT_TRUE(waitUntil([&] { return listening() == static_cast<long>(count); }, kLimit));
  }
  long listening() const {
    return number("SELECT count(*) FROM kodu_host WHERE kodu_host_hear(host)");
  }
  /// Starts a watch with the configuration of a host, and returns once it watches.
  void startWatch(std::size_t host, std::vector<std::string> options = {}) {
    options.insert(options.begin(), {"-f", daemons[host]->mainConfig(), "host", "watch"});
    const std::string name = "watch" + std::to_string(watches.size());
    watches.push_back(start(options, name));
    ASSERT_TRUE(waitUntil([&] { return says(name, "watching the hosts"); }, kLimit)) << errors();
  }
  /// Ends the time that all hosts have after a pause of the watch.
  void endGrace() const { database.query("UPDATE kodu_host SET seen = kodu_host_utc()"); }

  bool says(const std::string& name, const std::string& text) const {
    return readFile(errPath(name)).find(text) != std::string::npos;
  }
  std::string errors() const {
    std::string all;
    for (std::size_t i = 0; i < watches.size(); ++i) {
      all += readFile(errPath("watch" + std::to_string(i)));
    }
    return all;
  }
  /// The lines of all watches about takeovers.
  std::vector<std::string> takeovers() const {
    std::vector<std::string> lines;
    std::istringstream text(errors());
    for (std::string line; std::getline(text, line);) {
      if (line.find("taken over") != std::string::npos) {
        lines.push_back(line);
      }
    }
    return lines;
  }
  bool waitForTakeover() const {
    return waitUntil([&] { return !takeovers().empty(); }, kLimit);
  }

  long number(const std::string& sql) const { return std::stol(database.value(sql)); }
  long tasksOf(const std::string& host) const {
    return number("SELECT tasks FROM kodu_host_status WHERE host = '" + host + "'");
  }
  bool waitForRuns(long more, const std::string& condition = "TRUE") const {
    const std::string sql = "SELECT count(*) FROM kodu_run WHERE outcome = 'ok' AND " + condition;
    const long before = number(sql);
    return waitUntil([&] { return number(sql) >= before + more; }, kLimit);
  }
  /// Sends a signal to the first daemon and returns the seconds to the first run elsewhere.
  double secondsToFirstRunAfter(int signal) {
    const auto begin = std::chrono::steady_clock::now();
    daemons[0]->signal(signal);
    EXPECT_TRUE(waitForTakeover()) << errors();
    EXPECT_TRUE(waitUntil(
        [&] {
          return number(
                     "SELECT count(*) FROM kodu_cron_plugin WHERE cron_host <> 'kodu' AND"
                     " cron_status IN ('PROCESS', 'OK') AND cron_id < 1000 AND"
                     " (cron_status = 'PROCESS' OR cron_last_exec > (SELECT max(watched) FROM "
                     "kodu_host) - interval '3 seconds')") > 0;
        },
        kLimit));
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
    RecordProperty("seconds", std::to_string(taken.count()));
    std::cout << "first run elsewhere after " << taken.count() << " s\n";
    return taken.count();
  }

  Ledger ledger{database};
  const std::array<std::string, 3> hosts = {"kodu", database.name() + "_b", database.name() + "_c"};
  std::vector<std::unique_ptr<Daemon>> daemons;
  std::vector<pid_t> watches;
};

TEST_F(HostWatchTest, TakesOverFromADaemonThatWasKilled) {
  insertTasks(1, 10, "kodu", "1 second");
  startDaemons(2);
  startWatch(1);
  endGrace();
  ASSERT_TRUE(waitForRuns(10));
  EXPECT_LT(secondsToFirstRunAfter(SIGKILL), 20);
  EXPECT_THAT(takeovers(),
              ElementsAre("koductl: the host kodu is silent: 10 tasks taken over by " + hosts[1]));
  EXPECT_EQ(tasksOf(hosts[1]), 10);
  EXPECT_TRUE(waitForRuns(20));
}

TEST_F(HostWatchTest, TakesOverOnceWhateverTheNumberOfWatches) {
  insertTasks(1, 10, "kodu", "1 second");
  startDaemons(3);
  for (const std::size_t host : {0U, 1U, 2U}) {
    startWatch(host);
  }
  endGrace();
  ASSERT_TRUE(waitForRuns(10));
  EXPECT_LT(secondsToFirstRunAfter(SIGSTOP), 20);
  ASSERT_TRUE(waitForRuns(20));
  daemons[0]->signal(SIGCONT);
  ASSERT_TRUE(daemons[0]->waitForEnd()) << "it must end by itself";
  ASSERT_TRUE(waitForRuns(20));
  EXPECT_EQ(takeovers().size(), 1U) << errors();
  EXPECT_EQ(tasksOf("kodu"), 0);
  EXPECT_EQ(tasksOf(hosts[1]) + tasksOf(hosts[2]), 10);
}

TEST_F(HostWatchTest, SpreadsTasksOverAllHosts) {
  insertTasks(1, 11, "kodu", "1 second");
  startDaemons(3);
  startWatch(1, {"--spread"});
  endGrace();
  ASSERT_TRUE(waitForRuns(10));
  daemons[0]->signal(SIGKILL);
  ASSERT_TRUE(waitForTakeover()) << errors();
  EXPECT_THAT(takeovers(), ElementsAre(HasSubstr(": 11 tasks taken over by " + hosts[1] + " (")));
  EXPECT_THAT((std::array{tasksOf(hosts[1]), tasksOf(hosts[2])}),
              testing::UnorderedElementsAre(5, 6));
  EXPECT_TRUE(waitForRuns(20));
}

TEST_F(HostWatchTest, DoesNotCascadeToBusyHosts) {
  insertTasks(1, 10, "kodu", "1 second");
  insertTasks(11, 20, hosts[1], "60 seconds", "/bin/sleep 30");
  insertTasks(21, 30, hosts[2], "60 seconds", "/bin/sleep 30");
  startDaemons(3);
  startWatch(1);
  startWatch(2);
  ASSERT_TRUE(waitUntil(
      [&] {
        return number(
                   "SELECT count(*) FROM kodu_host_status WHERE running = 4 AND host <> 'kodu'") ==
               2;
      },
      kLimit));
  endGrace();
  daemons[0]->signal(SIGKILL);
  ASSERT_TRUE(waitForTakeover()) << errors();
  // All workers are still busy for longer than a silent host has.
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(9);
  waitUntil([&] { return std::chrono::steady_clock::now() > end; }, kLimit);
  EXPECT_EQ(takeovers().size(), 1U) << errors();
  EXPECT_GE(tasksOf(hosts[1]), 10);
  EXPECT_GE(tasksOf(hosts[2]), 10);
}

TEST_F(HostWatchTest, GivesTasksBackOnceTheirHostWorksAgain) {
  insertTasks(1, 6, "kodu", "1 second");
  startDaemons(2);
  startWatch(0, {"--return"});
  startWatch(1);
  endGrace();
  ASSERT_TRUE(waitForRuns(6));
  daemons[0]->signal(SIGKILL);
  ASSERT_TRUE(waitForTakeover()) << errors();
  EXPECT_EQ(number("SELECT lent FROM kodu_host_status WHERE host = 'kodu'"), 6);
  daemons[0]->waitForEnd();
  ASSERT_TRUE(daemons[0]->startAndWait());
  EXPECT_TRUE(waitUntil([&] { return tasksOf("kodu") == 6; }, std::chrono::seconds(110)))
      << errors();
  ASSERT_TRUE(waitForRuns(12));
  EXPECT_EQ(takeovers().size(), 1U);
  EXPECT_TRUE(daemons[1]->isRunning()) << daemons[1]->console();
}

TEST_F(HostWatchTest, EndsWithTheCallAtSigterm) {
  startWatch(0);
  kill(watches[0], SIGTERM);
  int status = 0;
  waitpid(watches[0], &status, 0);
  watches.clear();
  EXPECT_EQ(exitStatusOf(status), 0);
}

TEST_F(HostWatchTest, RefusesADatabaseWithoutHosts) {
  const Database plain;
  Daemon other(plain);
  const CtlResult result = runWith({"-f", other.mainConfig(), "host", "watch"});
  EXPECT_EQ(result.exitCode, 65);
  EXPECT_THAT(result.err, HasSubstr("load sql/hosts.sql"));
  EXPECT_EQ(run({"host", "watch", "kodu"}).exitCode, 64);
  EXPECT_EQ(run({"host", "watch", "--dead-after", "2"}).exitCode, 64);
  EXPECT_EQ(run({"host", "list", "--spread"}).exitCode, 64);
}

TEST_F(HostWatchTest, WaitsForADatabaseThatIsAway) {
  startWatch(0);
  database.query("UPDATE kodu_host SET seen = seen - interval '1 minute'");
  database.query(
      "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE application_name = 'kodu_watch'"
      " AND datname = current_database()");
  ASSERT_TRUE(waitUntil([&] { return says("watch0", "the hosts are not watched: "); }, kLimit));
  const auto watching = [&] {
    const std::string text = errors();
    return text.rfind("watching the hosts") > text.find("the hosts are not watched");
  };
  EXPECT_TRUE(waitUntil(watching, kLimit)) << errors();
  EXPECT_EQ(database.value("SELECT count(*) FROM pg_stat_activity WHERE application_name ="
                           " 'kodu_watch' AND datname = current_database()"),
            "1");
}

TEST_F(HostWatchTest, LeavesTheTasksOfAllHostsAfterTheSessionsWereLost) {
  insertTasks(1, 4, "kodu", "1 second");
  insertTasks(5, 8, hosts[1], "1 second");
  startDaemons(2);
  startWatch(0);
  endGrace();
  ASSERT_TRUE(waitForRuns(8));
  // As a server that restarts: all sessions end, and the daemons with them.
  database.query(
      "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE pid <> pg_backend_pid() AND"
      " datname = current_database() AND backend_type = 'client backend'");
  for (const std::size_t host : {0U, 1U}) {
    ASSERT_TRUE(daemons[host]->waitForEnd());
  }
  ASSERT_TRUE(daemons[1]->startAndWait());
  // The other one needs longer than a silent host has.
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(9);
  waitUntil([&] { return std::chrono::steady_clock::now() > end; }, kLimit);
  ASSERT_TRUE(daemons[0]->startAndWait());
  ASSERT_TRUE(waitForRuns(4, "id <= 4"));
  EXPECT_THAT(takeovers(), IsEmpty());
  EXPECT_EQ(tasksOf("kodu"), 4);
  EXPECT_EQ(tasksOf(hosts[1]), 4);
}

}  // namespace
