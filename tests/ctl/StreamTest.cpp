#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/task/pages.h"
#include "ctl/task/selection.h"
#include "ctl/task/task.h"
#include "tests/ctl/CtlTest.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

/// Rows that are read as they arrive.
class StreamTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    options.configFile = daemon.mainConfig();
    session.emplace(options);
  }

  /// The exit code of the failure that reading the rows of `sql` ends in; 0 without one.
  int failureOf(const std::string& sql, const std::function<void(Fields&)>& use) {
    try {
      session->forEachRow(sql, {}, use);
    } catch (const Failure& e) {
      reason = e.what();
      return e.exitCode;
    }
    return 0;
  }

  Options options;
  std::optional<Session> session;
  std::string reason;
};

TEST_F(StreamTest, GivesEachFieldInTurn) {
  std::vector<std::string> found;
  session->forEachRow("SELECT n, $1::text, NULL, NULL::int, n = 2, '' FROM generate_series(1, 2) n",
                      {"word"}, [&](Fields& fields) {
                        found.push_back(std::to_string(fields.number()));
                        found.push_back(fields.text());
                        EXPECT_EQ(fields.text(), "");
                        EXPECT_FALSE(fields.optionalNumber());
                        found.emplace_back(fields.isTrue() ? "second" : "first");
                        EXPECT_EQ(fields.optionalText(), "");
                      });
  EXPECT_THAT(found, ElementsAre("1", "word", "first", "2", "word", "second"));
}

TEST_F(StreamTest, IsFollowedByOtherStatements) {
  long rows = 0;
  session->forEachRow("SELECT FROM generate_series(1, 5000)", {}, [&](Fields&) { ++rows; });
  EXPECT_EQ(rows, 5000);
  EXPECT_EQ(session->query("SELECT 7 AS n").number(0, "n"), 7);
  session->forEachRow("SELECT 1 WHERE FALSE", {}, [&](Fields&) { ++rows; });
  EXPECT_EQ(rows, 5000);
}

TEST_F(StreamTest, SaysWhatEndsItInTheMiddle) {
  long rows = 0;
  EXPECT_EQ(failureOf("SELECT 1 / (50000 - n) FROM generate_series(1, 90000) AS n",
                      [&](Fields&) { ++rows; }),
            65);
  EXPECT_THAT(reason, HasSubstr("division by zero"));
  EXPECT_GT(rows, 0);
  EXPECT_EQ(session->query("SELECT 7 AS n").number(0, "n"), 7) << "the session goes on";
}

TEST_F(StreamTest, SaysThatTheSessionIsLost) {
  EXPECT_EQ(failureOf("SELECT n FROM generate_series(1, 10000000) AS n",
                      [&](Fields& fields) {
                        if (fields.number() == 10) {
                          database.query(
                              "SELECT pg_terminate_backend(pid) FROM pg_stat_activity"
                              " WHERE application_name = 'kodu_ctl'"
                              " AND datname = current_database()");
                        }
                      }),
            69);
  EXPECT_EQ(failureOf("SELECT 1", [](Fields&) {}), 69);
}

TEST_F(StreamTest, RefusesAnAnswerOfAnotherForm) {
  EXPECT_EQ(failureOf("SELECT 1",
                      [](Fields& fields) {
                        fields.number();
                        fields.text();
                      }),
            69);
  session.emplace(options);
  EXPECT_EQ(failureOf("SELECT '7x'", [](Fields& fields) { fields.number(); }), 69);
  session.emplace(options);
  EXPECT_EQ(failureOf("SELECT ''", [](Fields& fields) { fields.optionalNumber(); }), 69);
}

TEST_F(StreamTest, ReadsTheTasksOfASelectionOneByOne) {
  for (const int id : {3, 1, 2}) {
    database.insertTask(quietTask(id));
  }
  Selection selection;
  selection.sort = "name,desc";
  std::vector<int> ids;
  forEachTask(*session, selection, [&](const Task& task) { ids.push_back(task.id); });
  EXPECT_THAT(ids, ElementsAre(3, 2, 1));
  EXPECT_EQ(session->query("SHOW statement_timeout").text(0, "statement_timeout"), "1min");
  ids.clear();
  forEachDefinition(*session, [&](const Task& task) {
    ids.push_back(task.id);
    EXPECT_EQ(task.every, 300);
    EXPECT_EQ(task.outputDirectory, daemon.outputDirectory());
  });
  EXPECT_THAT(ids, ElementsAre(1, 2, 3));
}

TEST_F(StreamTest, CountsTheWordsThatTheTableShows) {
  for (int id = 1; id <= 6; ++id) {
    database.insertTask(quietTask(id));
    setStatus(id, "OK");
  }
  database.query("SELECT kodu_task_pause(1), kodu_task_pause(2), kodu_task_delete(2)");
  setStatus(3, "FAILED");
  database.query(
      "UPDATE kodu_cron_plugin SET cron_status = 'PROCESS',"
      " cron_next_exec = now() - interval '1 minute' WHERE cron_id = 4");
  database.query(
      "UPDATE kodu_cron_plugin SET cron_next_exec = now() - interval '1 minute'"
      " WHERE cron_id = 5");
  const Totals totals = readTotals(*session, {});
  EXPECT_EQ(totals.tasks, 6);
  EXPECT_EQ(totals.late, 1);
  EXPECT_EQ(totals.words,
            (std::map<std::string, long>{
                {"OK", 2}, {"paused", 1}, {"deleted", 1}, {"FAILED", 1}, {"PROCESS", 1}}));
  Selection late;
  late.isLate = true;
  EXPECT_EQ(readTotals(*session, late).tasks, 1);
}

TEST_F(StreamTest, QuotesTheKeyOfAPageForAShell) {
  TaskRow row = quietTask(1);
  row.name = "it's a $(name)";
  database.insertTask(row);
  database.insertTask(quietTask(2));
  Selection selection;
  selection.sort = "name";
  selection.limit = 1;
  Totals totals;
  totals.tasks = 1002;
  EXPECT_EQ(restText(*session, selection, {1, 1}, totals),
            "… and 1,001 more: --all, or --after 'it'\\''s a $(name),1'");
  EXPECT_EQ(restText(*session, selection, {0, 0}, totals), "");
  database.query(R"(UPDATE kodu_plugins SET plugin_name = E'a\x1b[2J\n''\\' WHERE plugin_id = 1)");
  EXPECT_EQ(restText(*session, selection, {1, 1}, totals),
            "… and 1,001 more: --all, or --after $'a\\x1b[2J\\x0a\\'\\\\,1'");
  totals.tasks = 1;
  EXPECT_EQ(restText(*session, selection, {1, 1}, totals), "");
}

TEST_F(StreamTest, SetsTheWidthsOfALongTableByItsFirstLines) {
  database.query(
      "INSERT INTO kodu_plugins (plugin_id, plugin_name, plugin_path) VALUES (1, 'a', '/opt/x');"
      "INSERT INTO kodu_cron_plugin (cron_plugin_id, cron_interval, cron_next_exec, cron_log_file)"
      " SELECT 1, '1 hour', timestamp '2030-01-01', '$SERVICEID_$DATE'"
      " FROM generate_series(1, 2500)");
  const std::string table = run({"status"}).out;
  EXPECT_THAT(table, HasSubstr("\n   1  a     -"));
  EXPECT_THAT(table, HasSubstr("\n2500  a     -"));
  EXPECT_EQ(table.find("ID  NAME"), table.rfind("ID  NAME"));
  EXPECT_THAT(table, HasSubstr("\n2,500 tasks: 2,500 not run yet; 0 late. Times are UTC.\n"));
}

}  // namespace
