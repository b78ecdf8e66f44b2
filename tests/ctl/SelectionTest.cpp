#include "ctl/task/selection.h"

#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "ctl/failure.h"
#include "tests/ctl/CtlTest.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

/// Which tasks the commands are about, shown by `koductl ids` and `koductl status`.
class SelectionTest : public CtlTest {
 protected:
  /// The output of `koductl ids` in one line; what it says on standard error when it fails.
  std::string ids(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), "ids");
    const CtlResult result = run(arguments);
    if (result.exitCode != 0) {
      return result.err;
    }
    std::string line = result.out;
    std::replace(line.begin(), line.end(), '\n', ' ');
    return line;
  }

  /// Tasks 1 to `count`, due in the reverse of their order.
  void insertTasks(int count) const {
    for (int id = 1; id <= count; ++id) {
      TaskRow row = quietTask(id);
      row.nextExec = "now() + interval '" + std::to_string(1000 - id) + " minutes'";
      database.insertTask(row);
    }
  }
  void update(int id, const std::string& assignment) const {
    database.query("UPDATE kodu_cron_plugin SET " + assignment +
                   " WHERE cron_id = " + std::to_string(id));
  }
  /// The word after --after below a table, as a shell would read it.
  static std::string keyBelow(const std::string& table) {
    const auto place = table.rfind("--after ");
    if (place == std::string::npos) {
      return "";
    }
    std::string word;
    for (std::size_t i = place + 8; i < table.size() && table[i] != '\n'; ++i) {
      if (table[i] == '\\') {
        word += table[++i];
      } else if (table[i] != '\'') {
        word += table[i];
      }
    }
    return word;
  }
  void rename(int id, const std::string& name) const {
    database.query("UPDATE kodu_plugins SET plugin_name = '" + name +
                   "' FROM kodu_cron_plugin WHERE plugin_id = cron_plugin_id AND cron_id = " +
                   std::to_string(id));
  }
};

TEST_F(SelectionTest, TakesIdsAndRefusesUnknownOnes) {
  insertTasks(3);
  EXPECT_EQ(ids({}), "1 2 3 ");
  EXPECT_EQ(ids({"3", "1"}), "1 3 ");
  const CtlResult result = run({"ids", "1", "99"});
  EXPECT_EQ(result.exitCode, 66);
  EXPECT_THAT(result.err, HasSubstr("there is no task 99; koductl status lists them"));
  EXPECT_EQ(run({"ids", "x"}).exitCode, 64);
  EXPECT_EQ(run({"ids", "-1"}).exitCode, 64);
}

TEST_F(SelectionTest, SelectsEachState) {
  insertTasks(8);
  setStatus(1, "OK");
  setStatus(2, "FAILED");
  setStatus(3, "PROCESS");
  update(3, "cron_next_exec = now() - interval '90 s'");
  setStatus(4, "OK");
  update(4, "cron_next_exec = now() - interval '90 s'");
  database.query("SELECT kodu_task_pause(5)");
  database.query("SELECT kodu_task_delete(6)");
  for (const int id : {5, 6, 7}) {
    setStatus(id, "OK");
  }
  EXPECT_EQ(ids({"--failed"}), "2 ");
  EXPECT_EQ(ids({"--running"}), "3 ");
  EXPECT_EQ(ids({"--late"}), "4 ");
  EXPECT_EQ(ids({"--paused"}), "5 ");
  EXPECT_EQ(ids({"--deleting"}), "6 ");
  EXPECT_EQ(ids({"--never-ran"}), "8 ");
  EXPECT_EQ(ids({"--failed", "--late"}), "");
  EXPECT_EQ(ids({"4", "5", "--late"}), "4 ");
}

TEST_F(SelectionTest, MatchesNamesByPatternsAndNothingElse) {
  insertTasks(4);
  rename(1, "load_a");
  rename(2, "loadXa");
  rename(3, "100%");
  rename(4, "a''; DROP TABLE kodu_cron_error; --");
  EXPECT_EQ(ids({"--name", "load*"}), "1 2 ");
  EXPECT_EQ(ids({"--name", "load_a"}), "1 ");
  EXPECT_EQ(ids({"--name", "load?a"}), "1 2 ");
  EXPECT_EQ(ids({"--name", "load\\?a"}), "");
  EXPECT_EQ(ids({"--name", "100%"}), "3 ");
  EXPECT_EQ(ids({"--name", "10%"}), "");
  EXPECT_EQ(ids({"--name", "\\1*"}), "3 ");
  EXPECT_EQ(ids({"--name", "load"}), "");
  EXPECT_EQ(ids({"--name", "a'; DROP TABLE kodu_cron_error; --"}), "4 ");
  EXPECT_EQ(ids({"--name", "*\\"}), "");
  EXPECT_EQ(run({"ids", "--name", "\xff"}).exitCode, 65);
}

TEST_F(SelectionTest, FindsAProgramBehindItsGuard) {
  const std::vector<std::pair<std::string, std::string>> plugins = {
      {"/opt/check", "-H a"},
      {"/usr/bin/koduguard", "-t 30 -- /opt/check -H b"},
      {"/usr/bin/koduguard", "-t 30 -- \"/opt/my check\" x"},
      {"/usr/bin/koduguard", "-t 30 -- '/opt/check'"},
      {"/opt/other", "-- /opt/check"}};
  int id = 0;
  for (const auto& [path, parameter] : plugins) {
    TaskRow row = quietTask(++id);
    row.path = path;
    row.parameter = parameter;
    database.insertTask(row);
  }
  EXPECT_EQ(ids({"--plugin", "/opt/check"}), "1 2 4 ");
  EXPECT_EQ(ids({"--plugin", "/opt/my*"}), "3 ");
  EXPECT_EQ(ids({"--plugin", "*koduguard"}), "");
  EXPECT_EQ(ids({"--plugin", "/opt/other"}), "5 ");
}

TEST_F(SelectionTest, SortsByEachKeyInBothDirections) {
  insertTasks(3);
  rename(1, "b");
  rename(2, "c");
  rename(3, "a");
  update(1, "cron_last_exec = now() - interval '1 day', cron_interval = '3 min'");
  update(2, "cron_interval = '2 min', cron_next_exec = now() - interval '1 h'");
  update(3, "cron_interval = '1 min', cron_next_exec = now() - interval '2 h'");
  setStatus(1, "FAILED");
  addFailure(1, 10, "a", "");
  addFailure(1, 20, "b", "");
  addFailure(2, 30, "c", "");
  EXPECT_EQ(ids({"--sort", "id,desc"}), "3 2 1 ");
  EXPECT_EQ(ids({"--sort", "name"}), "3 1 2 ");
  EXPECT_EQ(ids({"--sort", "name,desc"}), "2 1 3 ");
  EXPECT_EQ(ids({"--sort", "plugin,desc"}), "3 2 1 ");
  EXPECT_EQ(ids({"--sort", "status"}), "2 3 1 ");
  EXPECT_EQ(ids({"--sort", "late"}), "1 2 3 ");
  EXPECT_EQ(ids({"--sort", "late,desc"}), "3 2 1 ");
  EXPECT_EQ(ids({"--sort", "next"}), "3 2 1 ");
  EXPECT_EQ(ids({"--sort", "last,desc"}), "1 3 2 ");
  EXPECT_EQ(ids({"--sort", "every"}), "3 2 1 ");
  EXPECT_EQ(ids({"--sort", "failures,desc"}), "1 2 3 ");
  EXPECT_EQ(ids({"--sort", "failing,asc"}), "1 2 3 ");
  EXPECT_THAT(ids({"--sort", "nothing"}),
              HasSubstr("cannot sort by nothing: use one of id, name, plugin, status, late, last, "
                        "next, every, failures, failing"));
  EXPECT_EQ(run({"ids", "--sort", "id,down"}).exitCode, 64);
}

/// Pages of two tasks, each begun with the key below the one before, give every task once.
TEST_F(SelectionTest, GoesThroughThePagesOfEveryOrder) {
  insertTasks(5);
  rename(2, "a, b");
  rename(3, "it''s");
  rename(4, "task1");
  database.query("SELECT kodu_task_pause(5)");
  for (const std::string& key : sortKeys()) {
    for (const std::string direction : {"", ",desc"}) {
      const std::string all = ids({"--sort", key + direction});
      std::string pages;
      std::string after;
      for (int page = 0; page < 3; ++page) {
        std::vector<std::string> arguments = {"--sort", key + direction, "--limit", "2"};
        if (!after.empty()) {
          arguments.insert(arguments.end(), {"--after", after});
        }
        pages += ids(arguments);
        arguments.insert(arguments.begin(), "status");
        const std::string table = run(arguments).out;
        after = keyBelow(table);
      }
      EXPECT_EQ(pages, all) << key << direction;
    }
  }
}

TEST_F(SelectionTest, RefusesAKeyOfAnotherOrder) {
  insertTasks(2);
  EXPECT_EQ(run({"status", "--after", "name,1"}).exitCode, 64);
  EXPECT_EQ(run({"status", "--sort", "name", "--after", "1"}).exitCode, 64);
  EXPECT_EQ(run({"status", "--sort", "name", "--after", "a,1x"}).exitCode, 64);
  EXPECT_EQ(run({"status", "--sort", "next", "--after", "yes,1"}).exitCode, 65);
}

TEST_F(SelectionTest, FindsIdsThatBeginWithDigits) {
  for (const int id : {0, 1, 7, 12, 123, 1234, 13, 2147483647}) {
    database.insertTask(quietTask(id));
  }
  EXPECT_EQ(ids({"--prefix", "12"}), "12 123 1234 ");
  EXPECT_EQ(ids({"--prefix", "0"}), "0 ");
  EXPECT_EQ(ids({"--prefix", "21"}), "2147483647 ");
  EXPECT_EQ(ids({"--prefix", "2147483647"}), "2147483647 ");
  EXPECT_EQ(ids({"--prefix", "2147483648"}), "");
  EXPECT_EQ(ids({"--prefix", "01"}), "");
  EXPECT_EQ(ids({"--prefix", "x"}), "");
  EXPECT_EQ(ids({"--prefix", "", "--limit", "2"}), "0 1 ");
}

TEST_F(SelectionTest, PrintsIdsWithTheirNamesOrAsJson) {
  insertTasks(2);
  rename(1, "two\twords\x1b[31m");
  EXPECT_EQ(run({"ids", "--names"}).out, "1\ttwo words?[31m\n2\ttask2\n");
  EXPECT_EQ(run({"ids", "--json"}).out, "[\n  1,\n  2\n]\n");
  EXPECT_EQ(run({"ids", "--json", "--failed"}).out, "[]\n");
}

TEST_F(SelectionTest, ShowsAPageAndHowToSeeTheRest) {
  insertTasks(5);
  const std::string page = run({"status", "--limit", "2"}).out;
  EXPECT_THAT(page, HasSubstr("5 tasks: 5 not run yet; 0 late. Times are UTC.\n"
                              "… and 3 more: --all, or --after 2\n"));
  EXPECT_THAT(page, Not(HasSubstr("task3")));
  const std::string next = run({"status", "--limit", "2", "--after", "2"}).out;
  EXPECT_THAT(next, HasSubstr("task4"));
  EXPECT_THAT(next, HasSubstr("… and more: --after 4\n"));
  EXPECT_THAT(run({"status", "--limit", "5"}).out, Not(HasSubstr("more")));
  EXPECT_THAT(run({"status"}).out, Not(HasSubstr("more")));
}

TEST_F(SelectionTest, FillsTheTerminalUnlessAllAreWanted) {
  insertTasks(30);
  const std::string page = runOnTerminal({"status"});  // of 24 lines
  EXPECT_THAT(page, HasSubstr("… and 10 more: --all, or --after 20\r\n"));
  EXPECT_THAT(page, Not(HasSubstr("task21")));
  EXPECT_THAT(runOnTerminal({"status", "--all"}), HasSubstr("task30"));
  EXPECT_EQ(parsed(runOnTerminal({"status", "--json"})).size(), 30U);
}

TEST_F(SelectionTest, KeepsNothingOfALongList) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizer needs more address space than the limit";
#endif
  // Each with a megabyte of parameters: together more than the limit of memory.
  for (int id = 1; id <= 100; ++id) {
    database.insertTask(quietTask(id));
  }
  database.query("UPDATE kodu_cron_plugin SET cron_parameter = repeat('x', 1000000)");
  const std::string command = "ulimit -v 150000; exec \"" + program() + "\" -f " +
                              daemon.mainConfig() + " status --all --json | tail -c 2";
  FILE* pipe = popen(("bash -c 'set -o pipefail; " + command + "'").c_str(), "r");
  std::string end;
  for (int c = 0; (c = std::fgetc(pipe)) != EOF;) {
    end += static_cast<char>(c);
  }
  EXPECT_EQ(pclose(pipe), 0);
  EXPECT_EQ(end, "]\n");
}

TEST_F(SelectionTest, EndsQuietlyWhenNobodyReadsOn) {
  for (int id = 1; id <= 100; ++id) {
    database.insertTask(quietTask(id));
  }
  database.query("UPDATE kodu_cron_plugin SET cron_parameter = repeat('x', 1000000)");
  const std::string command = "\"" + program() + "\" -f " + daemon.mainConfig() +
                              " status --all --json 2>" + errPath() + " | head -c 10 >/dev/null";
  EXPECT_EQ(std::system(command.c_str()), 0);
  EXPECT_EQ(readFile(errPath()), "");
  EXPECT_TRUE(waitUntil([&] {
    return database.value(
               "SELECT count(*) FROM pg_stat_activity WHERE datname = current_database()"
               " AND application_name = 'kodu_ctl'") == "0";
  }));
}

TEST_F(SelectionTest, ListsHostileTextsAsJsonThatCanBeRead) {
  insertTasks(3);
  rename(1, "a\x1b[31m\u009b\"\\\u00e4");
  update(2, "cron_parameter = E'\\n\\t'");
  const CtlResult result = run({"status", "--json"});
  const Json::Value tasks = parsed(result.out);
  EXPECT_EQ(tasks[0]["name"].asString(), "a\x1b[31m\u009b\"\\\u00e4");
  EXPECT_EQ(tasks[1]["parameters"].asString(), "\n\t");
  EXPECT_THAT(result.out, Not(HasSubstr("\x1b")));
  EXPECT_EQ(parsed(run({"show", "1", "--json"}).out)["name"], tasks[0]["name"]);
}

TEST_F(SelectionTest, AcceptsAPageOfNoTask) {
  EXPECT_EQ(run({"status", "--json"}).out, "[]\n");
  EXPECT_THAT(run({"status"}).out, HasSubstr("0 tasks; 0 late."));
}

TEST(SelectionUnitTest, PutsNoTextOfTheUserIntoAStatement) {
  Selection selection;
  selection.name = "evil'";
  selection.plugin = "/evil*";
  selection.sort = "name,desc";
  selection.after = "evil,7";
  selection.limit = 10;
  const Statement statement = idsOf(selection);
  EXPECT_THAT(statement.sql, Not(HasSubstr("evil")));
  EXPECT_THAT(statement.sql, HasSubstr("LIMIT 10"));
  EXPECT_THAT(statement.values, ElementsAre("evil", "7", "evil'", "/evil%"));
}

TEST(SelectionUnitTest, KnowsWhetherItIsLimited) {
  Selection selection;
  selection.sort = "name";
  selection.limit = 5;
  EXPECT_FALSE(selection.isLimitedToSome());
  selection.isLate = true;
  EXPECT_TRUE(selection.isLimitedToSome());
  selection.sort = "size";
  EXPECT_THROW(requireValid(selection), Failure);
}

}  // namespace
