#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Database.h"
#include "tests/support/Files.h"

namespace {

using Rows = std::vector<Database::Row>;

/// sql/demo.sql.
class DemoTest : public testing::Test {
 protected:
  void SetUp() override { database.query(readFile(projectFile("sql/functions.sql"))); }

  /// Loads the file as scripts/demo does.
  void load() const {
    std::string sql = readFile(projectFile("sql/demo.sql"));
    replaceAll(sql, ":'plugins'", "'/plugins'");
    replaceAll(sql, ":'port'", "'5432'");
    database.query(sql);
  }
  /// Changes the rows as a run of the daemon does.
  void pretendRuns() const {
    database.query(
        "UPDATE kodu_cron_plugin SET cron_status = 'OK', cron_last_exec = cron_next_exec, "
        "cron_next_exec = cron_next_exec + cron_interval");
  }
  void add(const std::string& name) const {
    database.query("SELECT kodu_task_add('/mine', '1 hour', name => '" + name + "')");
  }
  /// Id, name and expected status of each task that the demo judges.
  Rows judged() const {
    return database.query(
        "SELECT cron_id, plugin_name, status FROM demo_expected JOIN kodu_cron_plugin "
        "USING (cron_id) JOIN kodu_plugins ON plugin_id = cron_plugin_id ORDER BY cron_id");
  }
  /// The definitions, without the ids.
  Rows definitions() const {
    return database.query(
        "SELECT plugin_name, plugin_path, cron_interval, cron_parameter, cron_retries, "
        "cron_retries_interval, cron_log_file, cron_delete FROM demo_expected "
        "JOIN kodu_cron_plugin USING (cron_id) JOIN kodu_plugins ON plugin_id = cron_plugin_id "
        "ORDER BY plugin_name");
  }
  /// The number of the demo's tasks that have not run yet.
  std::string freshTasks() const {
    return database.value(
        "SELECT count(*) FROM kodu_cron_plugin JOIN demo_expected USING (cron_id) "
        "WHERE cron_status IS NULL AND cron_last_exec IS NULL "
        "AND cron_next_exec BETWEEN now() AND now() + interval '6 s'");
  }

  Database database;

 private:
  static void replaceAll(std::string& text, const std::string& from, const std::string& to) {
    for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
      text.replace(at, from.size(), to);
    }
  }
};

const Rows kFirstTasks = {{"1", "load", "OK"},          {"2", "disk", "OK"},
                          {"3", "processes", "OK"},     {"4", "users", "OK"},
                          {"5", "database port", "OK"}, {"6", "server runs", "OK"},
                          {"7", "quoted", "OK"},        {"8", "critical", "FAILED"},
                          {"9", "unknown", "FAILED"},   {"10", "silent", "FAILED"}};

TEST_F(DemoTest, NumbersItsTasksFromOne) {
  load();

  EXPECT_EQ(judged(), kFirstTasks);
  EXPECT_EQ(freshTasks(), "10");
}

TEST_F(DemoTest, StartsAgainWithTheSameIds) {
  load();
  pretendRuns();

  load();

  EXPECT_EQ(judged(), kFirstTasks);
  EXPECT_EQ(freshTasks(), "10");
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_plugin"), "10");
}

TEST_F(DemoTest, ResetsItsTasks) {
  load();
  const Rows definitionsBefore = definitions();
  database.query("SELECT kodu_task_set(1, '/other', '1 h', 'a', 5, '1 h', '$DATE', name => 'x')");
  database.query("SELECT kodu_task_pause(2), kodu_task_delete(3)");

  load();

  EXPECT_EQ(judged(), kFirstTasks);
  EXPECT_EQ(definitions(), definitionsBefore);
  EXPECT_EQ(freshTasks(), "10");
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_pause"), "0");
}

TEST_F(DemoTest, RestoresADeletedTaskAndLeavesOtherTasksAlone) {
  add("load");
  load();
  add("mine");
  pretendRuns();
  database.query("DELETE FROM kodu_cron_plugin WHERE cron_id = 9");  // "critical"
  const Rows ofOthers =
      database.query("SELECT * FROM kodu_cron_plugin WHERE cron_id IN (1, 12) ORDER BY cron_id");

  load();

  EXPECT_EQ(freshTasks(), "10");
  EXPECT_EQ(database.value("SELECT cron_id FROM demo_expected WHERE name = 'critical'"), "13");
  EXPECT_EQ(database.value("SELECT cron_id FROM demo_expected WHERE name = 'load'"), "2");
  EXPECT_EQ(
      database.query("SELECT * FROM kodu_cron_plugin WHERE cron_id IN (1, 12) ORDER BY cron_id"),
      ofOthers);
}

TEST_F(DemoTest, AdoptsTheTasksOfADemoWithoutNames) {
  database.query("ALTER SEQUENCE kodu_cron_plugin_cron_id_seq RESTART WITH 11");
  load();
  pretendRuns();
  const Rows before = judged();
  database.query("ALTER TABLE demo_expected DROP COLUMN name");

  load();

  EXPECT_EQ(judged(), before);
  EXPECT_EQ(judged().front().front(), "11");
  EXPECT_EQ(freshTasks(), "10");
}

}  // namespace
