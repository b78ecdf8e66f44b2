// Random rows through everything that the daemon does with a row: no row that the tables accept may
// end it. KODU_ROWS sets their number, KODU_ROWS_SEED the seed; lab/rows/run draws 20,000.

#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <map>
#include <regex>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/Daemon.h"
#include "tests/support/Database.h"
#include "tests/support/Process.h"
#include "tests/support/RowGenerator.h"
#include "tests/support/waitUntil.h"

namespace {

using testing::HasSubstr;

unsigned numberFrom(const char* variable, unsigned otherwise) {
  const char* text = std::getenv(variable);
  return text == nullptr ? otherwise : static_cast<unsigned>(std::stoul(text));
}

class RandomRowsTest : public testing::Test {
 protected:
  static constexpr std::size_t kBatch = 1000;
  static constexpr std::chrono::seconds kPatience{600};  // a thousand runs on a busy machine
  static constexpr const char* kStarted = "NOTICE#Start Thread";
  static constexpr const char* kReloaded = "NOTICE#script reload successful";

  void SetUp() override {
    database.query(readFile(projectFile("sql/functions.sql")));
    database.query(readFile(projectFile("sql/ledger.sql")));
    database.query("SET client_min_messages = warning");
    daemon.programVariable = std::string("KODU_TEST_SHORT_PURGE_DAEMON");
    daemon.threadNumber = std::string("8");
    daemon.writeConfig();
    ASSERT_TRUE(startAndListen());
  }

  /// Starts the daemon and returns when it receives notifications: earlier ones are lost.
  bool startAndListen() {
    // A thousand rows on a busy machine may take longer than the limit of startAndWait.
    const long starts = daemon.logged(kStarted);
    daemon.start();
    const bool isStarted = waitAlive([&] { return daemon.logged(kStarted) > starts; });
    const long before = daemon.logged(kReloaded);
    int looks = 0;
    return isStarted && waitAlive([&] {
             if (looks++ % 100 == 0) {
               database.notify(R"({"TYPE":"SERVICE","COMMAND":"UPDATE","ID":-1})");
             }
             return daemon.logged(kReloaded) > before;
           });
  }

  std::vector<std::string> makePlugins() const {
    const auto plugin = [&](const std::string& name, const std::string& body) {
      return writePlugin(daemon.directory / name, body);
    };
    const std::string fails = plugin("fails", "echo bad; exit 2");
    return {fails,
            fails,
            fails,
            plugin("fine", "echo fine"),
            plugin("five", R"(echo "$@"; echo five; exit 5)"),
            plugin("odd", R"(printf 'a\377\000b\033[1m'; exit 200)"),
            plugin("long", R"(/usr/bin/head -c 100000 /dev/zero | /usr/bin/tr '\0' x; exit 1)")};
  }

  /// Executes an INSERT or UPDATE; false when the tables refuse it. Counts the refusals by their
  /// text.
  bool isTaken(const std::string& sql) {
    try {
      database.query(sql);
      return true;
    } catch (const std::runtime_error& e) {
      std::string words = e.what();
      words.erase(0, words.rfind("ERROR:  ") + 8);
      words = words.substr(0, words.find('\n'));
      ++refusals[std::regex_replace(words, std::regex("name .* (contains|lacks)"), "name $1")];
      return false;
    }
  }

  /// Inserts rows until the tables have accepted so many.
  void insert(std::size_t count) {
    while (count > 0) {
      if (!isTaken("INSERT INTO kodu_plugins (plugin_name, plugin_path) VALUES (" +
                   rows.pluginValues() + ")")) {
        continue;
      }
      const bool taken = isTaken(
          "INSERT INTO kodu_cron_plugin (cron_plugin_id, cron_interval, cron_next_exec,"
          " cron_log_file, cron_retries, cron_retries_interval, cron_parameter)"
          " SELECT max(plugin_id), " +
          rows.taskValues() + " FROM kodu_plugins");
      count -= taken ? 1 : 0;
    }
  }

  void expectAlive(const std::string& step) {
    const std::string console = daemon.console();
    ASSERT_TRUE(daemon.isRunning())
        << step << ", seed " << seed << ": "
        << console.substr(console.size() - std::min<std::size_t>(console.size(), 600)) << "\n"
        << database.value(
               "SELECT string_agg(left(task::text, 300), E'\\n') FROM kodu_cron_plugin AS task"
               " WHERE cron_status = 'PROCESS'");
  }
  template <typename Condition>
  bool waitAlive(const Condition& condition) {
    return waitUntil([&] { return !daemon.isRunning() || condition(); }, kPatience) &&
           daemon.isRunning();
  }

  /// Makes the daemon load all rows, and waits until it has.
  void reload() {
    const long before = daemon.logged(kReloaded);
    int looks = 0;
    EXPECT_TRUE(waitAlive([&] {
      if (looks++ % 500 == 0) {  // notifications before the daemon's subscription are lost
        database.query(
            "SELECT count(pg_notify('koducronchannel', format("
            "'{\"TYPE\":\"SERVICE\",\"COMMAND\":\"UPDATE\",\"ID\":%s}', cron_id)))"
            " FROM kodu_cron_plugin");
      }
      return daemon.logged(kReloaded) > before;
    }));
  }

  /// Makes every row due within seconds and waits until each has run.
  void runAll() {
    database.query(
        "DROP TABLE IF EXISTS before; CREATE TABLE before AS SELECT cron_id AS id, cron_last_exec"
        " AS last, (SELECT count(*) FROM kodu_cron_error AS e WHERE e.cron_id = task.cron_id)"
        " AS failures FROM kodu_cron_plugin AS task;"
        "UPDATE kodu_cron_plugin SET cron_next_exec ="
        " date_trunc('second', now()) + interval '1 second' * (2 + cron_id % 6)");
    reload();
    const std::string waiting =
        "SELECT COALESCE(string_agg(left(task::text, 300), E'\\n'), '') FROM kodu_cron_plugin AS "
        "task JOIN before ON id = cron_id"
        " WHERE last IS NOT DISTINCT FROM cron_last_exec AND failures ="
        " (SELECT count(*) FROM kodu_cron_error AS e WHERE e.cron_id = task.cron_id)";
    EXPECT_TRUE(waitAlive([&] { return database.value(waiting).empty(); }))
        << "these do not run:\n"
        << database.value(waiting);
  }

  /// Moves all rows into the next hour, and waits until the daemon is at rest.
  void rest() {
    database.query(
        "UPDATE kodu_cron_plugin SET cron_next_exec ="
        " date_trunc('second', now()) + interval '1 hour'");
    reload();
    int looks = 0;
    waitAlive([&] {
      const bool isAtRest = allThreadsWait(daemon.pid()) &&
                            readFile("/proc/" + std::to_string(daemon.pid()) + "/task/" +
                                     std::to_string(daemon.pid()) + "/children")
                                .empty() &&
                            !hasPlugins();
      looks = isAtRest ? looks + 1 : 0;
      return looks > 300;  // more than a second of the timer
    });
  }
  bool hasPlugins() {
    std::error_code ignored;
    const std::string tasks = "/proc/" + std::to_string(daemon.pid()) + "/task";
    for (const auto& thread : std::filesystem::directory_iterator(tasks, ignored)) {
      if (!readFile(thread.path() / "children").empty()) {
        return true;
      }
    }
    return false;
  }

  void change() {
    for (const Database::Row& row : database.query("SELECT cron_id FROM kodu_cron_plugin")) {
      isTaken("UPDATE kodu_cron_plugin SET " + rows.assignment() + " WHERE cron_id = " + row[0]);
    }
  }

  void purge() {
    database.query("UPDATE kodu_cron_plugin SET cron_delete = TRUE");
    EXPECT_TRUE(
        waitAlive([&] { return database.value("SELECT count(*) FROM kodu_cron_plugin") == "0"; }));
  }

  /// Takes the rows through a start of the daemon, runs, changes, further runs and a purge.
  void take(std::size_t count) {
    insert(count / 2);
    daemon.signal(SIGKILL);
    daemon.waitForEnd();
    insert(count - count / 2);
    const bool isStarted = startAndListen();
    ASSERT_NO_FATAL_FAILURE(expectAlive("start"));
    ASSERT_TRUE(isStarted) << "the daemon does not start its threads";
    runAll();
    ASSERT_NO_FATAL_FAILURE(expectAlive("run"));
    rest();
    change();
    ASSERT_NO_FATAL_FAILURE(expectAlive("change"));
    runAll();
    ASSERT_NO_FATAL_FAILURE(expectAlive("second run"));
    rest();
    purge();
    ASSERT_NO_FATAL_FAILURE(expectAlive("purge"));
    database.query("DELETE FROM kodu_plugins");
  }

  const unsigned seed = numberFrom("KODU_ROWS_SEED", 1);
  Database database;
  Daemon daemon{database};
  RowGenerator rows{seed, makePlugins()};
  std::map<std::string, int> refusals;
};

TEST_F(RandomRowsTest, NeverEndTheDaemon) {
  const std::size_t count = numberFrom("KODU_ROWS", 150);
  for (std::size_t done = 0; done < count; done += kBatch) {
    ASSERT_NO_FATAL_FAILURE(take(std::min(kBatch, count - done)));
    if (HasFailure()) {
      return;
    }
    if (count > kBatch) {
      std::cout << "taken " << std::min(done + kBatch, count) << " of " << count << std::endl;
    }
  }
  EXPECT_THAT(daemon.log(), testing::Not(testing::Contains(HasSubstr("Failed to initial load"))));
  for (const auto& [words, times] : refusals) {
    std::cout << "refused " << times << ": " << words << "\n";
  }
}

}  // namespace
