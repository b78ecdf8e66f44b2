#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libpq-fe.h>

#include "db/PostgresqlException.h"
#include "db/pgSafeThread.h"
#include "db/result.h"
#include "db/statements.h"
#include "tests/support/Database.h"
#include "tests/support/Files.h"
#include "tests/support/Ledger.h"
#include "tests/support/waitUntil.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Rows = std::vector<Database::Row>;

/// A database with sql/functions.sql, and a session that listens on the daemon's channel.
class FunctionsTest : public testing::Test {
 protected:
  void SetUp() override {
    loadFunctions();
    PQclear(listener.executeRequest(kListen));
  }

  void loadFunctions() const { database.query(readFile(projectFile("sql/functions.sql"))); }

  /// The payloads sent since the last call.
  std::vector<std::string> heard() {
    database.notify("last");
    std::vector<std::string> payloads;
    waitUntil([&] {
      PQconsumeInput(listener.connection);
      while (PGnotify* notification = PQnotifies(listener.connection)) {
        payloads.emplace_back(notification->extra);
        PQfreemem(notification);
      }
      return !payloads.empty() && payloads.back() == "last";
    });
    payloads.pop_back();
    return payloads;
  }
  static std::string payload(const std::string& command, int id) {
    return R"({"TYPE":"SERVICE","COMMAND":")" + command + R"(","ID":)" + std::to_string(id) + "}";
  }

  /// A task that is not due during a test, without a notification.
  void insertTask(int id) {
    TaskRow row;
    row.id = id;
    row.name = "task" + std::to_string(id);
    row.path = "/bin/task" + std::to_string(id);
    database.insertTask(row);
    heard();
  }

  /// The server's error for `sql`; "" when it succeeds.
  std::string refusalOf(const std::string& sql) const {
    try {
      database.query(sql);
    } catch (const std::runtime_error& e) {
      return e.what();
    }
    return "";
  }
  void expectRefused(const std::string& call, const std::string& message,
                     const std::string& hint) const {
    const std::string refusal = refusalOf("SELECT " + call);
    EXPECT_THAT(refusal,
                testing::AllOf(HasSubstr(": ERROR:  " + message), HasSubstr("\nHINT:  " + hint)))
        << call;
  }

  void call(const std::string& function) const { database.query("SELECT " + function); }
  std::string status(int id, const std::string& column) const {
    return database.value("SELECT " + column +
                          " FROM kodu_task_status WHERE id = " + std::to_string(id));
  }
  /// Seconds from now to the next run.
  long nextIn(int id) const {
    return std::stol(
        database.task(id, "round(EXTRACT(EPOCH FROM cron_next_exec - clock_timestamp()))"));
  }
  void set(int id, const std::string& assignment) const {
    database.query("UPDATE kodu_cron_plugin SET " + assignment +
                   " WHERE cron_id = " + std::to_string(id));
  }

  Database database;
  pgSafeThread listener{database.conninfo()};
};

TEST_F(FunctionsTest, NotifiesOfEachInsertedTask) {
  database.insertTask(TaskRow());
  database.query(
      "INSERT INTO kodu_cron_plugin(cron_id, cron_plugin_id, cron_interval, cron_log_file) "
      "SELECT id, 1, '60 s', id || '$DATE' FROM generate_series(5, 6) id");

  EXPECT_THAT(heard(), ElementsAre(payload("ADD", 1), payload("ADD", 5), payload("ADD", 6)));
}

TEST_F(FunctionsTest, NotifiesOfEachChangedColumnOfTheDefinition) {
  insertTask(2);
  insertTask(7);

  for (const std::string assignment :
       {"cron_plugin_id = 2", "cron_interval = '7 s'", "cron_log_file = '$DATE'",
        "cron_retries = NULL", "cron_retries_interval = NULL", "cron_parameter = 'p'"}) {
    set(7, assignment);
    EXPECT_THAT(heard(), ElementsAre(payload("UPDATE", 7))) << assignment;
    set(7, assignment);
    EXPECT_THAT(heard(), IsEmpty()) << assignment << " once more";
  }
}

TEST_F(FunctionsTest, NotifiesOfAPluginsNewNameAndPath) {
  insertTask(2);
  insertTask(7);
  set(7, "cron_plugin_id = 2");
  heard();

  database.query("UPDATE kodu_plugins SET plugin_path = '/bin/new' WHERE plugin_id = 2");
  EXPECT_THAT(heard(), ElementsAre(payload("UPDATE", 2), payload("UPDATE", 7)));
  database.query("UPDATE kodu_plugins SET plugin_name = 'new' WHERE plugin_id = 2");
  EXPECT_THAT(heard(), ElementsAre(payload("UPDATE", 2), payload("UPDATE", 7)));
  database.query("UPDATE kodu_plugins SET plugin_name = plugin_name, plugin_type = plugin_type");
  EXPECT_THAT(heard(), IsEmpty());
}

TEST_F(FunctionsTest, LeavesTheDaemonsOwnStatementsSilentAndAsTheyWere) {
  insertTask(1);
  pgSafeThread daemon(database.conninfo());
  prepareNamedStatements(daemon);
  PQclear(daemon.executeRequest("BEGIN"));
  for (const auto& [statement, second] : {std::pair("UpdateCronProcess", ""),
                                          {"UpdateCronState", "OK"},
                                          {"updateCronExecTask", "3"}}) {
    std::vector<std::string> parameters{"1"};
    if (*second != '\0') {
      parameters.emplace_back(second);
    }
    PQclear(daemon.executePrepareRequest(statement, parameters));
  }
  const ResultPtr hot(
      daemon.executeRequest("SELECT n_tup_upd, n_tup_hot_upd FROM pg_stat_xact_user_tables "
                            "WHERE relname = 'kodu_cron_plugin'"));
  EXPECT_EQ(cellText(hot, 0, 0, "statistics"), "3");
  EXPECT_EQ(cellText(hot, 0, 1, "statistics"), "3");
  PQclear(daemon.executeRequest("COMMIT"));
  PQclear(daemon.executePrepareRequest("insertCronError", {"1", "a.txt"}));
  set(1, "cron_delete = TRUE");
  PQclear(daemon.executePrepareRequest("DeleteCronHistory", {"1"}));
  PQclear(daemon.executePrepareRequest("DeleteCron", {"1"}));

  EXPECT_THAT(heard(), IsEmpty());
  EXPECT_EQ(database.task(1, "cron_id"), "") << "they did their work";
}

TEST_F(FunctionsTest, DeletesAPausedTaskByTheDaemonsStatement) {
  insertTask(1);
  call("kodu_task_pause(1)");
  pgSafeThread daemon(database.conninfo());
  prepareNamedStatements(daemon);

  PQclear(daemon.executePrepareRequest("DeleteCron", {"1"}));

  EXPECT_THAT(database.query("SELECT FROM kodu_cron_pause"), IsEmpty());
}

TEST_F(FunctionsTest, AddsATaskByThePluginsName) {
  database.query("INSERT INTO kodu_plugins(plugin_name, plugin_path) VALUES ('load', '/bin/load')");

  EXPECT_EQ(database.value("SELECT kodu_task_add('load', '5 minutes')"), "1");

  EXPECT_EQ(
      database.query("SELECT cron_plugin_id, cron_interval, cron_status IS NULL, cron_log_file, "
                     "cron_retries IS NULL, cron_retries_interval IS NULL, cron_parameter IS NULL "
                     "FROM kodu_cron_plugin"),
      (Rows{{"1", "00:05:00", "t", "$SERVICEID_$DATE.txt", "t", "t", "t"}}));
  EXPECT_THAT(nextIn(1), testing::AllOf(testing::Ge(0), testing::Le(3)));
  EXPECT_THAT(heard(), ElementsAre(payload("ADD", 1)));
}

TEST_F(FunctionsTest, AddsATaskWithAllParameters) {
  database.query("SET timezone = 'Asia/Tokyo'");

  call(
      "kodu_task_add(plugin => '/opt/check it', every => '1 day', parameters => '-w \"a b\"', "
      "retries => 0, retry_after => '9 s', file_name => 'it_$DATE.txt', "
      "first_run => '2035-11-21 09:00:00', name => 'it')");

  EXPECT_EQ(database.query("SELECT plugin_name, plugin_path, plugin_type FROM kodu_plugins"),
            (Rows{{"it", "/opt/check it", "cron"}}));
  EXPECT_EQ(
      database.query("SELECT cron_interval, cron_parameter, cron_retries, "
                     "cron_retries_interval, cron_log_file, cron_next_exec "
                     "FROM kodu_cron_plugin"),
      (Rows{{"1 day", "-w \"a b\"", "0", "00:00:09", "it_$DATE.txt", "2035-11-21 00:00:00"}}));
}

TEST_F(FunctionsTest, MovesAPastFirstRunByWholeIntervals) {
  call(
      "kodu_task_add('/bin/a', '1 hour', first_run => date_trunc('second', now()) - '59 min'::"
      "interval)");

  EXPECT_NEAR(static_cast<double>(nextIn(1)), 60, 2);
}

TEST_F(FunctionsTest, AddsAPathToTheCatalogueOnceForEachName) {
  call("kodu_task_add('/opt/check_a', '60 s')");
  call("kodu_task_add('/opt/check_a', '60 s')");
  call("kodu_task_add('check_a', '60 s', name => 'other')");
  call("kodu_task_add('other', '60 s')");

  EXPECT_EQ(database.query("SELECT plugin_name, plugin_path FROM kodu_plugins ORDER BY plugin_id"),
            (Rows{{"check_a", "/opt/check_a"}, {"other", "/opt/check_a"}}));
  EXPECT_EQ(database.query("SELECT cron_plugin_id FROM kodu_cron_plugin ORDER BY cron_id"),
            (Rows{{"1"}, {"1"}, {"2"}, {"2"}}));
}

TEST_F(FunctionsTest, RunsATaskWithATimeoutThroughTheGuard) {
  call("kodu_task_add('/opt/a', '60 s', parameters => '-w 5', timeout => '30 s')");
  call("kodu_task_add('/opt/b c', '60 s', timeout => '2 minutes')");
  call("kodu_task_add('a', '60 s')");

  EXPECT_EQ(database.query("SELECT plugin_name, plugin_path, cron_parameter FROM kodu_cron_plugin "
                           "JOIN kodu_plugins ON plugin_id = cron_plugin_id ORDER BY cron_id"),
            (Rows{{"a", "/usr/bin/koduguard", "-t 30 -- /opt/a -w 5"},
                  {"b c", "/usr/bin/koduguard", "-t 120 -- \"/opt/b c\""},
                  {"a", "/opt/a", ""}}));
}

TEST_F(FunctionsTest, ReadsTheGuardsPathFromTheCatalogue) {
  call("kodu_plugin_at('/opt/bin/koduguard', NULL)");

  call("kodu_task_add('/opt/a', '60 s', timeout => '30 s')");

  EXPECT_EQ(database.value("SELECT plugin_path FROM kodu_cron_plugin "
                           "JOIN kodu_plugins ON plugin_id = cron_plugin_id"),
            "/opt/bin/koduguard");
}

TEST_F(FunctionsTest, NamesATaskAfterItsFileByDefault) {
  call("kodu_task_add('/opt/check_a', '60 s', name => 'web shop')");

  call("kodu_task_add('/opt/check_a', '60 s')");

  EXPECT_EQ(status(2, "name"), "check_a");
  EXPECT_EQ(status(1, "name"), "web shop");
}

TEST_F(FunctionsTest, FindsPluginsWithoutReadingTheWholeCatalogue) {
  database.query(
      "INSERT INTO kodu_plugins(plugin_name, plugin_path) SELECT 'p' || i, '/p' || i % 9 "
      "FROM generate_series(1, 5000) i; INSERT INTO kodu_plugins(plugin_name, plugin_path) "
      "SELECT 'same', '/q' || i FROM generate_series(1, 5000) i");
  database.query("ANALYZE kodu_plugins");

  database.query("BEGIN");
  call("count(kodu_task_add('/p1', '60 s', name => 'n' || i)) FROM generate_series(1, 20) i");
  call("count(kodu_task_add('p' || i, '60 s', timeout => '5 s')) FROM generate_series(1, 20) i");
  call("kodu_task_add('/r', '60 s', name => 'same')");

  // A path that occurs in many rows is found quickly even without an index.
  EXPECT_LT(std::stol(database.value("SELECT seq_tup_read FROM pg_stat_xact_user_tables "
                                     "WHERE relname = 'kodu_plugins'")),
            1000);
}

TEST_F(FunctionsTest, ChangesThePluginBehindItsGuard) {
  const auto definition = [&] {
    return status(1,
                  "name || ': ' || (SELECT plugin_path || ' ' || cron_parameter FROM "
                  "kodu_cron_plugin JOIN kodu_plugins ON plugin_id = cron_plugin_id)");
  };
  call("kodu_task_add('/opt/a', '60 s', '-w 5', timeout => '30 s', name => 'mine')");

  call("kodu_task_set(1, parameters => '-w \"7 8\" -- x')");
  EXPECT_EQ(definition(), "mine: /usr/bin/koduguard -t 30 -- /opt/a -w \"7 8\" -- x");
  call("kodu_task_set(1, plugin => '/opt/b c')");
  EXPECT_EQ(definition(), "b c: /usr/bin/koduguard -t 30 -- \"/opt/b c\" -w \"7 8\" -- x");
  call("kodu_task_set(1, parameters => '', name => 'other')");
  EXPECT_EQ(definition(), "other: /usr/bin/koduguard -t 30 -- \"/opt/b c\"");
  call("kodu_task_set(1, plugin => '/usr/bin/koduguard', parameters => '-t 9 -k 1 -- /opt/d')");
  EXPECT_EQ(definition(), "koduguard: /usr/bin/koduguard -t 9 -k 1 -- /opt/d");
  call("kodu_task_set(1, plugin => 'mine', parameters => '-e')");
  EXPECT_EQ(definition(), "mine: /usr/bin/koduguard -t 9 -k 1 -- /opt/a -e");

  set(1, "cron_parameter = '-t 9'");
  expectRefused("kodu_task_set(1, parameters => 'x')",
                "the parameters of task 1 name no plugin after --", "koduguard runs it.");
}

TEST_F(FunctionsTest, ReportsErrorsInANewTask) {
  database.query(
      "INSERT INTO kodu_plugins(plugin_name, plugin_path, plugin_type) VALUES ('web', '/w', "
      "'service'), ('twin', '/a', 'cron'), ('twin', '/b', 'cron')");
  const auto expectAddRefused = [&](const std::string& arguments, const std::string& message,
                                    const std::string& hint) {
    expectRefused("kodu_task_add(" + arguments + ")", message, hint);
  };

  expectAddRefused("'lod', '60 s'", "there is no plugin 'lod'", "Name one of SELECT plugin_name");
  expectAddRefused("NULL, '60 s'", "there is no plugin NULL", "Name one of");
  expectAddRefused("'', '60 s'", "there is no plugin ''", "Name one of");
  expectAddRefused("'web', '60 s'", "the plugin 'web' is of type service, not cron",
                   "The daemon runs only plugins");
  expectAddRefused("'twin', '60 s'", "there are 2 plugins named 'twin'", "Give the plugin's path.");
  for (const std::string every : {"'0'", "'0.5 s'", "'-1 s'", "'367 days'", "NULL"}) {
    expectAddRefused("'/a', " + every, "the interval must be between 1 second and 366 days",
                     "Use every => '5 minutes'");
  }
  for (const std::string every : {"'1 month'", "'1 year'", "'1 month -1 day'"}) {
    expectAddRefused("'/a', " + every, "the interval contains months, years or a negative part",
                     "Months have no fixed length. Use days");
  }
  expectAddRefused("'/a', '1.5 s'", "the interval must be whole seconds", "The daemon counts no");
  expectAddRefused("'/a', '0', first_run => '2020-01-01'", "the interval must be", "Use every");
  expectAddRefused("'/a', '60 s', retries => -1", "the number of retries must not be negative",
                   "Use retries => 0");
  expectAddRefused("'/a', '60 s', retry_after => '-1 s'",
                   "the time to a retry must be between 0 and 366 days", "Use retry_after");
  for (const std::string time : {"'infinity'", "'-infinity'", "'2036-01-01'", "'1969-01-01'"}) {
    expectAddRefused("'/a', '60 s', first_run => " + time,
                     "the time of a run must be between 1970 and 2035", "Use now() + interval");
  }
  for (const std::string timeout : {"'0'", "'1.5 s'", "'1 day 1 s'"}) {
    expectAddRefused("'/a', '60 s', timeout => " + timeout,
                     "the timeout must be whole seconds, from 1 second to 1 day", "Use timeout =>");
  }
  expectAddRefused("'/a\"', '60 s', timeout => '1 s'", "the path '/a\"' cannot be an argument",
                   "The parameters of a task cannot contain a quote.");
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_plugin"), "0");
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_plugins"), "3");
  EXPECT_THAT(heard(), IsEmpty());
}

TEST_F(FunctionsTest, ReportsErrorsInAFileName) {
  const auto expectNameRefused = [&](const std::string& name, const std::string& message,
                                     const std::string& hint) {
    expectRefused("kodu_task_add('/a', '60 s', file_name => " + name + ")", message, hint);
  };

  expectNameRefused("'a.txt'", "the file name 'a.txt' lacks $DATE", "Without it the copies");
  expectNameRefused("'/a_$DATE'", "the file name must stay below the daemon's output directory",
                    "It must not begin");
  expectNameRefused("'../a_$DATE'", "the file name must stay below", "It must not begin");
  expectNameRefused("'$DATE/'", "the file name must name a file, in 240 bytes at most",
                    "It must not be empty");
  expectNameRefused("E'\\n$DATE'", "the file name must not contain control characters",
                    "Line feeds");
}

TEST_F(FunctionsTest, SetsOnlyTheNamedColumns) {
  insertTask(7);
  const Database::Row before = database.query("SELECT * FROM kodu_cron_plugin").front();

  call("kodu_task_set(7, retries => 4)");
  Database::Row expected = before;
  expected.at(7) = "4";
  EXPECT_EQ(database.query("SELECT * FROM kodu_cron_plugin").front(), expected);
  EXPECT_THAT(heard(), ElementsAre(payload("UPDATE", 7)));

  call(
      "kodu_task_set(7, plugin => '/opt/new', every => '7 s', parameters => '', retry_after => "
      "'8 s', file_name => 'n_$DATE', name => 'called')");
  EXPECT_EQ(database.query("SELECT cron_interval, cron_parameter, cron_retries, "
                           "cron_retries_interval, cron_log_file FROM kodu_cron_plugin"),
            (Rows{{"00:00:07", "", "4", "00:00:08", "n_$DATE"}}));
  EXPECT_EQ(status(7, "name"), "called");
  EXPECT_THAT(heard(), ElementsAre(payload("UPDATE", 7)));

  call("kodu_task_set(7, retries => 4)");
  EXPECT_THAT(heard(), IsEmpty()) << "nothing has changed";
}

TEST_F(FunctionsTest, SetsTheNextRun) {
  insertTask(7);

  call("kodu_task_set(7, next_run => now() + interval '10 minutes')");

  EXPECT_NEAR(static_cast<double>(nextIn(7)), 600, 2);
  EXPECT_THAT(heard(), ElementsAre(payload("UPDATE", 7)));
}

TEST_F(FunctionsTest, RenamesOneOfSeveralTasksOfAPlugin) {
  insertTask(7);
  call("kodu_task_add('task7', '60 s')");

  call("kodu_task_set(7, name => 'mine')");

  EXPECT_EQ(status(7, "name"), "mine");
  EXPECT_EQ(status(1, "name"), "task7");
}

TEST_F(FunctionsTest, ReportsErrorsInAChange) {
  insertTask(7);
  insertTask(8);
  call("kodu_task_delete(8)");
  heard();

  expectRefused("kodu_task_set(7)", "there is nothing to set for task 7", "Use kodu_task_set(7, ");
  expectRefused("kodu_task_set(7, plugin => 'x')", "there is no plugin 'x'", "Name one of");
  expectRefused("kodu_task_set(7, every => '0')", "the interval must be", "Use every");
  expectRefused("kodu_task_set(7, file_name => 'a')", "the file name 'a' lacks $DATE", "Without");
  expectRefused("kodu_task_set(7, file_name => '/$DATE')", "the file name must stay",
                "It must not begin");
  expectRefused("kodu_task_set(7, next_run => '2037-01-01')", "the time of a run must",
                "Use now()");
  for (const std::string function : {"set", "pause", "resume", "run_now"}) {
    expectRefused("kodu_task_" + function + "(8)", "task 8 is being deleted", "Add it again");
  }
  for (const std::string function : {"set", "pause", "resume", "run_now", "delete"}) {
    expectRefused("kodu_task_" + function + "(99)", "there is no task 99", "SELECT id, name");
    expectRefused("kodu_task_" + function + "(NULL)", "there is no task NULL", "SELECT id, name");
  }
  EXPECT_THAT(heard(), IsEmpty());
}

TEST_F(FunctionsTest, SetsAndRemovesTheTimeLimit) {
  const auto definition = [&] {
    return status(1,
                  "name || ': ' || (SELECT plugin_path || ' ' || COALESCE(cron_parameter, 'none')"
                  " FROM kodu_cron_plugin JOIN kodu_plugins ON plugin_id = cron_plugin_id)");
  };
  call("kodu_task_add('/opt/b c', '60 s', '-w \"7 8\"', name => 'mine')");

  call("kodu_task_set(1, timeout => '30 s')");
  EXPECT_EQ(definition(), "mine: /usr/bin/koduguard -t 30 -- \"/opt/b c\" -w \"7 8\"");
  call("kodu_task_set(1, timeout => '2 min')");
  EXPECT_EQ(definition(), "mine: /usr/bin/koduguard -t 120 -- \"/opt/b c\" -w \"7 8\"");
  call("kodu_task_set(1, timeout => '0', name => 'other')");
  EXPECT_EQ(definition(), "other: /opt/b c -w \"7 8\"");
  call("kodu_task_set(1, timeout => '0')");
  EXPECT_EQ(definition(), "other: /opt/b c -w \"7 8\"");
  call("kodu_task_set(1, plugin => '/opt/d', parameters => 'x', timeout => '5 s')");
  EXPECT_EQ(definition(), "d: /usr/bin/koduguard -t 5 -- /opt/d x");
  call("kodu_task_set(1, plugin => '/opt/e', timeout => '0')");
  EXPECT_EQ(definition(), "e: /opt/e x");
}

TEST_F(FunctionsTest, KeepsTheOtherOptionsOfTheGuard) {
  call("kodu_task_add('/opt/a', '60 s', timeout => '30 s')");
  for (const auto& [before, after] :
       {std::pair("-k 1 -t 30 -e -- /opt/a x", "-t 9 -k 1 -e -- /opt/a x"),
        std::pair("-e -- /opt/a", "-t 9 -e -- /opt/a"), std::pair("-- /opt/a", "-t 9 -- /opt/a")}) {
    set(1, "cron_parameter = '" + std::string(before) + "'");
    call("kodu_task_set(1, timeout => '9 s')");
    EXPECT_EQ(database.task(1, "cron_parameter"), after);
  }
}

TEST_F(FunctionsTest, SaysWhatIsWrongWithATimeLimit) {
  insertTask(7);
  for (const char* limit : {"0.5 s", "-5 s", "2 days"}) {
    expectRefused("kodu_task_set(7, timeout => '" + std::string(limit) + "')",
                  "the timeout must be whole seconds, from 1 second to 1 day",
                  "Use timeout => '30 seconds', for example.");
  }
}

TEST_F(FunctionsTest, ResumesByItselfAtTheFirstRegularTimeAfterTheEndOfAPause) {
  insertTask(7);  // every 300 seconds, due in an hour
  const long before = database.nextExec(7);

  call("kodu_task_pause(7, 'new disks', to_timestamp(" + std::to_string(before + 301) + "))");
  EXPECT_EQ(database.nextExec(7), before + 600);
  EXPECT_EQ(status(7, "paused || ' ' || pause_reason || ' ' || late"), "true new disks false");
  EXPECT_EQ(status(7, "EXTRACT(EPOCH FROM paused_until)::bigint"), std::to_string(before + 301));
  EXPECT_EQ(status(7, "EXTRACT(EPOCH FROM next_run)::bigint"), std::to_string(before + 600));
  EXPECT_THAT(heard(), ElementsAre(payload("UPDATE", 7)));
  expectRefused("kodu_task_run_now(7)", "task 7 is paused", "Call kodu_task_resume(7) first.");

  database.query("UPDATE kodu_cron_pause SET resumes_at = now() - interval '1 s'");
  EXPECT_EQ(status(7, "paused || ' ' || (paused_at IS NULL) || ' ' || (pause_reason IS NULL)"),
            "false true true");
  EXPECT_EQ(database.nextExec(7), before + 600);
}

TEST_F(FunctionsTest, EndsATimedPauseEarlier) {
  insertTask(7);
  const long before = database.nextExec(7);
  call("kodu_task_pause(7, until => now() + interval '1 day')");
  call("kodu_task_resume(7)");
  EXPECT_EQ(database.nextExec(7), before);
  EXPECT_EQ(status(7, "paused"), "f");
}

TEST_F(FunctionsTest, GivesAPauseAnotherEnd) {
  insertTask(7);
  const long before = database.nextExec(7);
  call("kodu_task_pause(7, 'new disks')");
  for (const long later : {901L, 301L}) {
    call("kodu_task_pause(7, until => to_timestamp(" + std::to_string(before + later) + "))");
    EXPECT_EQ(database.nextExec(7), before + later + 299);
  }
  EXPECT_EQ(status(7, "pause_reason"), "new disks");
  call("kodu_task_resume(7)");
  EXPECT_EQ(database.nextExec(7), before);
}

TEST_F(FunctionsTest, PausesAgainAfterATimedPause) {
  insertTask(7);
  call("kodu_task_pause(7, 'old', now() + interval '1 day')");
  database.query("UPDATE kodu_cron_pause SET resumes_at = now() - interval '1 s'");
  call("kodu_task_pause(7)");
  EXPECT_EQ(database.task(7, "cron_next_exec"), "2036-01-01 00:00:00");
  EXPECT_EQ(status(7, "paused || ' ' || (paused_until IS NULL) || ' ' || (pause_reason IS NULL)"),
            "true true true");
}

TEST_F(FunctionsTest, SaysWhatIsWrongWithTheEndOfAPause) {
  insertTask(7);
  for (const char* end : {"now()", "'2035-01-01'", "'infinity'", "'-infinity'"}) {
    expectRefused("kodu_task_pause(7, until => " + std::string(end) + ")",
                  "the end of a pause must lie ahead, and before 2035",
                  "Use until => now() + interval '2 hours', for example.");
  }
}

TEST_F(FunctionsTest, ResumesAPausedTaskAtItsOldTimes) {
  insertTask(7);
  const long before = database.nextExec(7);

  call("kodu_task_pause(7, 'new disks')");
  EXPECT_EQ(database.task(7, "cron_next_exec"), "2036-01-01 00:00:00");
  EXPECT_EQ(database.query("SELECT EXTRACT(EPOCH FROM next_exec)::bigint, paused_by, reason "
                           "FROM kodu_cron_pause"),
            (Rows{{std::to_string(before), database.value("SELECT session_user"), "new disks"}}));
  EXPECT_EQ(status(7, "paused || ' ' || (next_run IS NULL) || ' ' || due || ' ' || lateness"),
            "true true false 0");
  EXPECT_THAT(heard(), ElementsAre(payload("UPDATE", 7)));

  call("kodu_task_resume(7)");
  EXPECT_EQ(database.nextExec(7), before);
  EXPECT_EQ(status(7, "paused"), "f");
  EXPECT_THAT(database.query("SELECT FROM kodu_cron_pause"), IsEmpty());
  EXPECT_THAT(heard(), ElementsAre(payload("UPDATE", 7)));
}

TEST_F(FunctionsTest, ResumesAtTheNextOfTheTimesThatAreNotPast) {
  insertTask(7);
  set(7, "cron_interval = '1 hour'");
  call("kodu_task_pause(7)");
  database.query(
      "UPDATE kodu_cron_pause SET next_exec = date_trunc('second', now()) - interval '119 min'");

  call("kodu_task_resume(7)");

  EXPECT_NEAR(static_cast<double>(nextIn(7)), 60, 2);
}

/// A task in the middle of a run that was due two seconds ago, and the daemon's statements.
class RunTest : public FunctionsTest {
 protected:
  void SetUp() override {
    FunctionsTest::SetUp();
    insertTask(7);
    set(7,
        "cron_status = 'PROCESS', cron_next_exec = date_trunc('second', now()) - '2 s'::interval");
    due = database.nextExec(7);
    prepareNamedStatements(daemon);
  }

  /// Executes a statement of the daemon; returns the first value of the result, if there is one.
  std::string run(const std::string& statement, const std::vector<std::string>& parameters) {
    const ResultPtr result(daemon.executePrepareRequest(statement, parameters));
    return PQntuples(result.get()) > 0 ? PQgetvalue(result.get(), 0, 0) : "";
  }
  /// Ends the run, and returns the next time that the daemon receives.
  long endRun(const std::string& status = "OK") {
    return std::stol(run("UpdateCronState", {"7", status}));
  }
  std::string lastExec() const {
    return database.task(7, "EXTRACT(EPOCH FROM cron_last_exec)::bigint");
  }

  void TearDown() override { ledger.expectComplete(); }

  Ledger ledger{database};
  pgSafeThread daemon{database.conninfo()};
  long due = 0;
};

TEST_F(RunTest, EndsNormallyWithoutAPendingRequest) {
  EXPECT_EQ(endRun(), due + 300);
  EXPECT_EQ(lastExec(), std::to_string(due));
  EXPECT_THAT(heard(), IsEmpty());
}

TEST_F(RunTest, EndsInThePauseRequestedMeanwhile) {
  call("kodu_task_pause(7, 'new disks')");
  EXPECT_EQ(database.nextExec(7), due);
  EXPECT_EQ(status(7, "paused || ' ' || running || ' ' || pause_reason"), "true true new disks");
  expectRefused("kodu_task_run_now(7)", "task 7 is paused", "Call kodu_task_resume(7) first.");

  endRun();
  EXPECT_EQ(database.task(7, "cron_next_exec"), "2036-01-01 00:00:00");
  EXPECT_EQ(status(7, "paused || ' ' || running"), "true false");
  EXPECT_EQ(status(7, "EXTRACT(EPOCH FROM last_run)::bigint"), std::to_string(due));
  EXPECT_THAT(heard(), IsEmpty()) << "the end of the run takes the time from the row";
  call("kodu_task_resume(7)");
  EXPECT_EQ(database.nextExec(7), due + 300);
}

TEST_F(RunTest, EndsWithTheTimedPauseThatWasAskedForMeanwhile) {
  call("kodu_task_pause(7, until => to_timestamp(" + std::to_string(due + 3000) + "))");
  EXPECT_EQ(database.nextExec(7), due);
  EXPECT_EQ(status(7, "paused || ' ' || running"), "true true");
  EXPECT_EQ(endRun(), due + 3000);
  EXPECT_EQ(status(7, "paused || ' ' || running"), "true false");
  call("kodu_task_resume(7)");
  EXPECT_EQ(database.nextExec(7), due + 300);
}

TEST_F(RunTest, EndsNormallyWhenItsPauseWasResumedMeanwhile) {
  call("kodu_task_pause(7)");
  call("kodu_task_resume(7)");
  EXPECT_EQ(status(7, "paused"), "f");

  EXPECT_EQ(endRun(), due + 300);
  EXPECT_EQ(lastExec(), std::to_string(due));
  EXPECT_THAT(heard(), IsEmpty());
}

TEST_F(RunTest, EndsWithTheNextRunSetMeanwhile) {
  set(7, "cron_interval = '1 day'");
  heard();
  call("kodu_task_set(7, next_run => now() + interval '10 minutes')");
  EXPECT_EQ(database.nextExec(7), due) << "the run's own";
  EXPECT_THAT(heard(), IsEmpty());

  EXPECT_NEAR(static_cast<double>(endRun()), static_cast<double>(due + 602), 5);
  EXPECT_EQ(lastExec(), std::to_string(due));
  EXPECT_NEAR(static_cast<double>(nextIn(7)), 600, 5);
}

TEST_F(RunTest, ResumesWithTheNextRunSetBeforeThePause) {
  set(7, "cron_interval = '1 day'");
  call("kodu_task_set(7, next_run => now() + interval '10 minutes')");
  call("kodu_task_pause(7)");
  call("kodu_task_resume(7)");

  EXPECT_NEAR(static_cast<double>(endRun()), static_cast<double>(due + 602), 5);
}

TEST_F(RunTest, IsFollowedAtOnceByTheRunRequestedMeanwhile) {
  set(7, "cron_interval = '1 day'");
  call("kodu_task_run_now(7)");
  set(7, "cron_wanted = now() - interval '1 s'");  // as if the run had taken a minute

  run("UpdateCronProcess", {"7"});  // a retry
  EXPECT_THAT(endRun(), testing::AllOf(testing::Ge(due + 3), testing::Le(due + 30)));
  EXPECT_EQ(lastExec(), std::to_string(due));
}

TEST_F(RunTest, NotifiesOfAChangedTaskAtItsEnd) {
  set(7, "cron_parameter = 'plain'");
  call("kodu_task_set(7, retries => 4)");
  EXPECT_THAT(heard(), IsEmpty());

  EXPECT_EQ(endRun(), due + 300);
  EXPECT_THAT(heard(), ElementsAre(payload("UPDATE", 7)));
  EXPECT_EQ(database.task(7, "cron_changed"), "f");
}

TEST_F(RunTest, FlagsItsDeletedTaskAtItsEnd) {
  call("kodu_task_delete(7)");
  call("kodu_task_delete(7)");
  EXPECT_EQ(database.task(7, "cron_delete"), "f");
  EXPECT_EQ(status(7, "deleting"), "t");
  expectRefused("kodu_task_resume(7)", "task 7 is being deleted", "Add it again");

  run("UpdateCronProcess", {"7"});  // a retry
  EXPECT_EQ(run("SelectDeleteCron", {}), "");
  const long next = endRun("FAILED");
  EXPECT_EQ(run("SelectDeleteCron", {}), "7");
  EXPECT_GE(next, due + 300) << "not run before the purge";
  EXPECT_THAT(heard(), IsEmpty());
}

TEST_F(RunTest, LeavesItsTaskWhenTheDeletionIsTakenBack) {
  call("kodu_task_delete(7)");
  call("kodu_task_undelete(7)");
  EXPECT_EQ(status(7, "running || ' ' || deleting"), "true false");
  endRun();
  EXPECT_EQ(run("SelectDeleteCron", {}), "");
  EXPECT_EQ(status(7, "paused"), "f");
}

TEST_F(RunTest, KeepsItsPauseWhenTheDeletionIsTakenBack) {
  call("kodu_task_pause(7)");
  call("kodu_task_delete(7)");
  call("kodu_task_undelete(7)");
  endRun();
  EXPECT_EQ(status(7, "paused || ' ' || deleting"), "true false");
}

TEST_F(FunctionsTest, TakesADeletionBackInTheTasksOwnRhythm) {
  insertTask(7);
  const long due = database.nextExec(7);
  call("kodu_task_delete(7)");
  heard();
  call("kodu_task_undelete(7)");
  EXPECT_EQ(database.task(7, "cron_delete"), "f");
  EXPECT_THAT(heard(), ElementsAre(payload("UPDATE", 7)));
  EXPECT_EQ((database.nextExec(7) - due) % 300, 0);
  EXPECT_GT(nextIn(7), 0);
  EXPECT_LE(nextIn(7), 304);
  call("kodu_task_undelete(7)");
  EXPECT_THAT(heard(), IsEmpty());
  expectRefused("kodu_task_undelete(8)", "there is no task 8", "SELECT id, name");
}

TEST_F(FunctionsTest, KeepsTheRowOfADeletedTaskFromAPurgeInTheSameSeconds) {
  insertTask(7);
  call("kodu_task_delete(7)");
  pgSafeThread daemon(database.conninfo());
  const char* purge = "DELETE FROM kodu_cron_plugin WHERE cron_id = 7";
  PQclear(daemon.executeRequest(purge));
  EXPECT_EQ(database.task(7, "cron_delete"), "t") << "a run may just be beginning";
  expectRefused("kodu_task_undelete(7)", "the purge of task 7 has begun",
                "Its files and its history");
  PQclear(daemon.executeRequest(purge));
  EXPECT_EQ(database.task(7, "cron_id"), "") << "the next purge deletes it";
}

TEST_F(FunctionsTest, TakesADeletionBackWithTheTasksPause) {
  insertTask(7);
  call("kodu_task_pause(7, 'new disks')");
  call("kodu_task_delete(7)");
  call("kodu_task_undelete(7)");
  EXPECT_EQ(status(7, "paused || ' ' || deleting || ' ' || pause_reason"), "true false new disks");
}

TEST_F(RunTest, SurvivesAPurgeThatLookedBeforeTheDeletionWasTakenBack) {
  set(7, "cron_status = 'OK'");
  call("kodu_task_delete(7)");
  EXPECT_EQ(run("SelectDeleteCron", {}), "7");
  call("kodu_task_undelete(7)");
  heard();
  run("DeleteCron", {"7"});
  EXPECT_EQ(database.task(7, "cron_id"), "7");
  EXPECT_THAT(heard(), ElementsAre(payload("ADD", 7))) << "the purge has dropped the task";
  run("UpdateCronProcess", {"7"});  // a run, which no purge of before can meet
  endRun();
  run("DeleteCron", {"7"});
  EXPECT_EQ(database.task(7, "cron_id"), "");
}

TEST_F(RunTest, DelaysThePurgeOfATaskFlaggedInTheQueue) {
  set(7, "cron_status = 'OK'");
  call("kodu_task_delete(7)");
  EXPECT_EQ(run("SelectDeleteCron", {}), "7");

  run("UpdateCronProcess", {"7"});  // the daemon does not know the new time
  EXPECT_EQ(status(7, "running || ' ' || deleting"), "true true");
  call("kodu_task_delete(7)");
  EXPECT_EQ(run("SelectDeleteCron", {}), "");
  run("DeleteCron", {"7"});  // of a purge that has just read the rows
  endRun();
  EXPECT_EQ(run("SelectDeleteCron", {}), "7");
  run("DeleteCron", {"7"});
  EXPECT_EQ(database.task(7, "cron_id"), "");
}

TEST_F(RunTest, IsDetectedWhenItsTimeWasMovedAtItsStart) {
  set(7, "cron_status = 'OK', cron_interval = '1 day'");
  call("kodu_task_pause(7)");
  run("UpdateCronProcess", {"7"});  // by a worker that already has the task
  EXPECT_EQ(status(7, "running || ' ' || paused"), "true true");
  run("UpdateCronProcess", {"7"});  // a retry
  endRun();
  EXPECT_EQ(database.task(7, "cron_next_exec"), "2036-01-01 00:00:00");
  EXPECT_EQ(status(7, "running || ' ' || paused || ' ' || (last_run > now())"), "false true false");

  call("kodu_task_resume(7)");
  call("kodu_task_set(7, next_run => now() + interval '10 minutes')");
  run("UpdateCronProcess", {"7"});
  EXPECT_EQ(status(7, "running"), "t");
  call("kodu_task_set(7, next_run => now() + interval '20 minutes')");
  EXPECT_EQ(status(7, "running"), "t");
  heard();
  call("kodu_task_set(7, retries => 4)");
  EXPECT_THAT(heard(), IsEmpty());
  endRun();
  EXPECT_NEAR(static_cast<double>(nextIn(7)), 1200, 5);
}

TEST_F(RunTest, KeepsATimeThatIsSetTwice) {
  set(7,
      "cron_next_exec = date_trunc('second', now()) + interval '30 s',"
      "cron_wanted = date_trunc('second', now()) + interval '30 s'");
  call(
      "kodu_task_set(7, next_run => (SELECT cron_wanted AT TIME ZONE 'UTC' FROM "
      "kodu_cron_plugin))");
  EXPECT_EQ(database.task(7, "cron_wanted = cron_next_exec"), "t") << "this is no retry";
}

TEST_F(RunTest, DelaysThePurgeWhenItsTimeWasMovedAtItsStart) {
  set(7, "cron_status = 'OK', cron_interval = '1 day'");
  call("kodu_task_pause(7)");
  run("UpdateCronProcess", {"7"});
  call("kodu_task_delete(7)");
  EXPECT_EQ(run("SelectDeleteCron", {}), "");
  endRun();
  EXPECT_EQ(run("SelectDeleteCron", {}), "7");
}

TEST_F(RunTest, DelaysThePurgeWhenItWasRequestedAtItsStart) {
  set(7, "cron_status = 'OK', cron_interval = '1 day'");
  call("kodu_task_run_now(7)");
  run("UpdateCronProcess", {"7"});
  call("kodu_task_delete(7)");
  EXPECT_EQ(run("SelectDeleteCron", {}), "");
  endRun();
  EXPECT_EQ(run("SelectDeleteCron", {}), "7");
}

TEST_F(RunTest, IsResumedWhenItWasPausedAtItsStart) {
  set(7, "cron_status = 'OK', cron_interval = '1 day'");
  call("kodu_task_pause(7)");
  run("UpdateCronProcess", {"7"});
  call("kodu_task_resume(7)");
  EXPECT_EQ(status(7, "running || ' ' || paused"), "true false");
  EXPECT_EQ(endRun(), due + 86400);
}

TEST_F(RunTest, EndsWithoutErrorWhateverIsRequested) {
  set(7, "cron_wanted = '2037-12-31'");
  endRun();
  EXPECT_EQ(database.task(7, "cron_next_exec"), "2036-01-01 00:00:00");
}

TEST_F(RunTest, NotifiesOfAChangedPluginAtItsEnd) {
  heard();
  database.query("UPDATE kodu_plugins SET plugin_path = '/bin/echo'");
  EXPECT_THAT(heard(), IsEmpty());
  EXPECT_EQ(endRun(), due + 300);
  EXPECT_THAT(heard(), ElementsAre(payload("UPDATE", 7)));
}

TEST_F(RunTest, NotifiesLaterWhenTheServersQueueIsFull) {
  database.query(
      "CREATE OR REPLACE FUNCTION pg_catalog.pg_notification_queue_usage() RETURNS double precision"
      " LANGUAGE sql AS $$SELECT current_setting('test.usage')::float8$$");
  const auto claimUsage = [&](const std::string& share) {
    PQclear(daemon.executeRequest("SET test.usage = " + share));
  };
  set(7, "cron_parameter = 'plain'");
  claimUsage("1");
  endRun();
  EXPECT_THAT(heard(), IsEmpty()) << "its commit would have failed";

  claimUsage("0");
  set(7, "cron_next_exec = now() - interval '2 s'");
  run("UpdateCronProcess", {"7"});
  endRun();
  EXPECT_THAT(heard(), ElementsAre(payload("UPDATE", 7)));
}

TEST_F(RunTest, LeavesPendingRequestsToTheRepairWhenTheDaemonDies) {
  insertTask(8);
  set(8, "cron_status = 'PROCESS', cron_next_exec = now() - interval '1 minute'");
  call("kodu_task_set(7, next_run => now() + interval '10 minutes')");
  call("kodu_task_delete(8)");
  database.query("SET kodu.daemon_role = 'another'");  // else `daemon` is one

  database.query(readFile(projectFile("sql/repair.sql")));

  EXPECT_NEAR(static_cast<double>(nextIn(7)), 600, 5);
  EXPECT_EQ(database.task(8, "cron_status || ' ' || cron_delete"), "FAILED true");
  EXPECT_EQ(database.value("SELECT EXTRACT(EPOCH FROM was_due)::bigint FROM kodu_cron_repair "
                           "WHERE cron_id = 7"),
            std::to_string(due));
}

TEST_F(RunTest, BeginsAtOnceWhenItIsOverdueAtItsLoad) {
  set(7, "cron_status = 'OK', cron_interval = '1 day'");
  call("kodu_task_run_now(7)");
  const auto moveOn = [&](const std::string& ago) {
    set(7, "cron_next_exec = now() - '" + ago + "'::interval, cron_wanted = now() - '" + ago +
               "'::interval");
    run("updateCronExecTask", {"7", "1"});
    return nextIn(7);
  };

  EXPECT_THAT(moveOn("890 s"), testing::AllOf(testing::Ge(0), testing::Le(2)));
  EXPECT_GT(moveOn("901 s"), 80000) << "as for any missed run";
  run("UpdateCronProcess", {"7"});
  EXPECT_EQ(database.task(7, "cron_wanted"), "") << "the requested run has begun";
}

TEST_F(FunctionsTest, KeepsAPauseOfTheLongestIntervalWithinTheTable) {
  insertTask(7);
  set(7, "cron_interval = '366 days'");
  call("kodu_task_pause(7)");
  pgSafeThread daemon(database.conninfo());
  prepareNamedStatements(daemon);

  PQclear(daemon.executePrepareRequest("UpdateCronState", {"7", "OK"}));
  EXPECT_NO_THROW(PQclear(daemon.executePrepareRequest("UpdateCronState", {"7", "OK"})));
}

TEST_F(FunctionsTest, ChangesNothingTheSecondTime) {
  insertTask(7);
  call("kodu_task_resume(7)");
  EXPECT_THAT(heard(), IsEmpty());
  call("kodu_task_pause(7, 'first')");
  heard();

  call("kodu_task_pause(7, 'second')");

  EXPECT_THAT(heard(), IsEmpty());
  EXPECT_EQ(database.value("SELECT reason FROM kodu_cron_pause"), "first");
}

TEST_F(FunctionsTest, ChangesAPausedTaskWithoutResumingIt) {
  insertTask(7);
  call("kodu_task_pause(7)");
  heard();

  call("kodu_task_set(7, every => '10 minutes')");

  EXPECT_EQ(status(7, "paused"), "t");
  EXPECT_THAT(heard(), ElementsAre(payload("UPDATE", 7)));
  expectRefused("kodu_task_set(7, next_run => now())", "task 7 is paused",
                "Call kodu_task_resume(7) first.");
  expectRefused("kodu_task_run_now(7)", "task 7 is paused", "Call kodu_task_resume(7) first.");
}

TEST_F(FunctionsTest, RunsATaskAMomentAhead) {
  insertTask(7);

  const std::string due = database.value("SELECT kodu_task_run_now(7)");

  EXPECT_EQ(database.task(7, "cron_next_exec"), due);
  EXPECT_THAT(nextIn(7), testing::AllOf(testing::Ge(1), testing::Le(3)));
  EXPECT_THAT(heard(), ElementsAre(payload("UPDATE", 7)));
}

TEST_F(FunctionsTest, FlagsATaskAndPostponesItsRunUntilThePurge) {
  insertTask(7);
  set(7, "cron_next_exec = date_trunc('second', now()) + interval '10 seconds'");
  const long before = database.nextExec(7);

  call("kodu_task_delete(7)");
  EXPECT_EQ(database.task(7, "cron_delete"), "t");
  EXPECT_EQ(database.nextExec(7), before + 300);
  EXPECT_EQ(status(7, "deleting"), "t");
  EXPECT_THAT(heard(), ElementsAre(payload("UPDATE", 7)));

  call("kodu_task_delete(7)");
  EXPECT_THAT(heard(), IsEmpty());
}

TEST_F(FunctionsTest, ShowsWhatATaskDoes) {
  insertTask(7);
  set(7, "cron_status = 'OK', cron_last_exec = '2026-01-01', cron_retries = NULL");
  EXPECT_EQ(database.query("SELECT id, name, status, due, lateness, last_run, next_run = "
                           "cron_next_exec, s.interval, retries, failures_hour, failures_day, "
                           "failing_since IS NULL, paused, deleting "
                           "FROM kodu_task_status s, kodu_cron_plugin"),
            (Rows{{"7", "task7", "OK", "f", "0", "2026-01-01 00:00:00", "t", "00:05:00", "1", "0",
                   "0", "t", "f", "f"}}));

  set(7, "cron_next_exec = now() - interval '90.5 seconds'");
  EXPECT_EQ(status(7, "due"), "t");
  EXPECT_EQ(status(7, "lateness"), "90");
}

TEST_F(FunctionsTest, ShowsNoTaskThatTheDaemonDoesNotRun) {
  insertTask(7);
  database.query("UPDATE kodu_plugins SET plugin_type = 'service'");

  EXPECT_EQ(status(7, "id"), "");
}

/// A task that fails every five minutes.
class FailingTest : public FunctionsTest {
 protected:
  void SetUp() override {
    FunctionsTest::SetUp();
    insertTask(7);
    set(7, "cron_status = 'FAILED'");
  }
  void failAgo(const std::vector<int>& minutes) const {
    for (const int ago : minutes) {
      database.query(
          "INSERT INTO kodu_cron_error(cron_id, cron_date, cron_logfile) VALUES (7, "
          "now() - interval '1 minute' * " +
          std::to_string(ago) + ", 'a')");
    }
  }
  /// Minutes, or "" when it does not fail.
  std::string failingFor() const {
    return status(7, "round(EXTRACT(EPOCH FROM now() - failing_since) / 60)");
  }
};

TEST_F(FailingTest, CountsTheFailuresOfTheLastHourAndDay) {
  failAgo({1, 59, 61, 60 * 23, 60 * 25});

  EXPECT_EQ(status(7, "failures_hour"), "2");
  EXPECT_EQ(status(7, "failures_day"), "4");
}

TEST_F(FailingTest, FailsSinceTheFirstFailureAfterAGap) {
  failAgo({30, 25, 14, 12, 9, 7, 4, 2});

  EXPECT_EQ(failingFor(), "14");
}

TEST_F(FailingTest, AllowsTheGapsOfItsRetries) {
  set(7, "cron_retries_interval = '20 minutes'");
  failAgo({90, 45, 25, 5});

  EXPECT_EQ(failingFor(), "45");
}

TEST_F(FailingTest, StopsFailingAfterASuccess) {
  failAgo({14, 9, 4});
  set(7, "cron_status = 'OK'");

  EXPECT_EQ(failingFor(), "");
}

TEST_F(FailingTest, FailsWhileItWaitsForARetry) {
  failAgo({4});
  set(7, "cron_status = 'PROCESS', cron_next_exec = now() - interval '5 minutes'");
  EXPECT_EQ(failingFor(), "4");

  set(7, "cron_next_exec = now() - interval '1 minute'");
  EXPECT_EQ(failingFor(), "") << "a run that has not ended yet";
}

TEST_F(FunctionsTest, PrunesOldHistory) {
  database.query(
      "INSERT INTO kodu_cron_error(cron_id, cron_date, cron_logfile) VALUES "
      "(1, now() - interval '31 days', 'a'), (2, now() - interval '40 days', 'b'), "
      "(1, now() - interval '29 days', 'c')");

  EXPECT_EQ(database.value("SELECT kodu_history_prune('30 days')"), "2");

  EXPECT_EQ(database.query("SELECT cron_logfile FROM kodu_cron_error"), (Rows{{"c"}}));
  for (const std::string age : {"'0'", "'-1 day'", "NULL"}) {
    expectRefused("kodu_history_prune(" + age + ")", "the age must be longer than 0",
                  "Use kodu_history_prune('30 days')");
  }
}

/// Ten tasks of five minutes that are all due in the same second.
class StaggerTest : public FunctionsTest {
 protected:
  void SetUp() override {
    FunctionsTest::SetUp();
    database.query("INSERT INTO kodu_plugins(plugin_name, plugin_path) VALUES ('a', '/a')");
    insertTasks("1, 10", "5 minutes");
    heard();
  }
  void insertTasks(const std::string& ids, const std::string& interval) const {
    database.query(
        "INSERT INTO kodu_cron_plugin(cron_id, cron_plugin_id, cron_interval, cron_next_exec, "
        "cron_log_file) SELECT id, 1, '" +
        interval +
        "', date_trunc('second', now()) + interval '1 minute', id || '$DATE' FROM "
        "generate_series(" +
        ids + ") id");
  }
  /// The distances between consecutive next times.
  std::string distances() const {
    return database.value(
        "SELECT string_agg(DISTINCT distance::text, ' ') FROM (SELECT cron_next_exec - "
        "lag(cron_next_exec) OVER (ORDER BY cron_next_exec) AS distance FROM kodu_cron_plugin) d");
  }
};

TEST_F(StaggerTest, ProposesWithoutChangingAnything) {
  const Rows before = database.query("SELECT cron_next_exec FROM kodu_cron_plugin");

  EXPECT_EQ(database.query("SELECT count(*), count(DISTINCT proposed), min(busiest_before), "
                           "max(busiest_after), min(name), min(\"interval\") FROM kodu_stagger()"),
            (Rows{{"10", "10", "10", "1", "a", "00:05:00"}}));

  EXPECT_EQ(database.query("SELECT cron_next_exec FROM kodu_cron_plugin"), before);
  EXPECT_THAT(heard(), IsEmpty());
}

TEST_F(StaggerTest, SpreadsTheTasksEvenly) {
  const std::string moved = database.value(
      "SELECT count(*) FROM kodu_stagger(dry_run => FALSE) WHERE proposed <> next_run");

  EXPECT_EQ(distances(), "00:00:30");
  EXPECT_EQ(std::to_string(heard().size()), moved);
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_plugin WHERE cron_next_exec BETWEEN "
                           "clock_timestamp() AND clock_timestamp() + interval '303 seconds'"),
            "10");
}

TEST_F(StaggerTest, MovesNothingTheSecondTime) {
  call("kodu_stagger(FALSE)");
  const Rows once =
      database.query("SELECT cron_id, cron_next_exec FROM kodu_cron_plugin ORDER BY 1");
  heard();

  call("kodu_stagger(FALSE)");

  EXPECT_EQ(database.query("SELECT cron_id, cron_next_exec FROM kodu_cron_plugin ORDER BY 1"),
            once);
  EXPECT_THAT(heard(), IsEmpty());
}

TEST_F(StaggerTest, KeepsTasksOfDifferentIntervalsApart) {
  insertTasks("11, 20", "10 minutes");

  EXPECT_EQ(database.query("SELECT DISTINCT busiest_before, busiest_after FROM kodu_stagger()"),
            (Rows{{"20", "1"}}));
}

TEST_F(StaggerTest, LeavesLongIntervalsWhereTheyAre) {
  insertTasks("11, 12", "1 day");

  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_stagger() WHERE id > 10"), "0");
  EXPECT_EQ(database.query("SELECT count(*), count(DISTINCT proposed) "
                           "FROM kodu_stagger(longest => '1 day') WHERE id > 10"),
            (Rows{{"2", "2"}}));
}

TEST_F(StaggerTest, LeavesATaskThatBeginsAfterMoreThanOneInterval) {
  set(3, "cron_next_exec = date_trunc('second', now()) + interval '1 day 1 second'");
  const long chosen = database.nextExec(3);
  set(4, "cron_next_exec = date_trunc('second', now()) + cron_interval");

  call("kodu_stagger(FALSE)");

  EXPECT_EQ(database.nextExec(3), chosen);
  EXPECT_EQ(database.value("SELECT count(DISTINCT cron_next_exec) FROM kodu_cron_plugin "
                           "WHERE cron_id <> 3 AND EXTRACT(EPOCH FROM cron_next_exec) % 30 = 0"),
            "9");
  EXPECT_EQ(database.value("SELECT proposed = next_run FROM kodu_stagger() WHERE id = 3"), "t");
}

TEST_F(StaggerTest, SkipsPausedAndDeletedTasks) {
  call("kodu_task_pause(3)");
  call("kodu_task_delete(4)");

  EXPECT_EQ(database.query("SELECT count(*), min(busiest_before) FROM kodu_stagger(FALSE)"),
            (Rows{{"8", "8"}}));
  EXPECT_EQ(status(3, "paused"), "t");
}

TEST_F(StaggerTest, MovesARunningTaskAtTheEndOfItsRun) {
  set(5, "cron_status = 'PROCESS', cron_next_exec = date_trunc('second', now()) - '2 s'::interval");
  heard();

  const std::string proposed = database.value(
      "SELECT EXTRACT(EPOCH FROM proposed)::bigint FROM kodu_stagger(FALSE) WHERE id = 5");

  EXPECT_THAT(heard(), testing::Not(testing::Contains(payload("UPDATE", 5))));
  EXPECT_EQ(database.task(5, "EXTRACT(EPOCH FROM cron_wanted)::bigint"), proposed);
}

TEST_F(StaggerTest, DoesNotMakeTheBusiestSecondBusier) {
  // Intervals of 6 s in even seconds and of 4 s in odd ones. Spread evenly, the two tasks of 6 s
  // use both.
  database.query("DELETE FROM kodu_cron_plugin WHERE cron_id > 3");
  set(1, "cron_interval = '6 s', cron_next_exec = '2030-01-01 00:00:00'");
  set(2, "cron_interval = '6 s', cron_next_exec = '2030-01-01 00:00:02'");
  set(3, "cron_interval = '4 s', cron_next_exec = '2030-01-01 00:00:01'");
  database.query(
      "UPDATE kodu_cron_plugin SET cron_next_exec = cron_next_exec - cron_interval * "
      "floor(EXTRACT(EPOCH FROM cron_next_exec - now() - interval '1 s') / "
      "EXTRACT(EPOCH FROM cron_interval))");

  EXPECT_EQ(database.query("SELECT DISTINCT busiest_before, busiest_after, proposed = next_run "
                           "FROM kodu_stagger()"),
            (Rows{{"1", "1", "t"}}));
}

TEST_F(StaggerTest, ReportsErrors) {
  expectRefused("kodu_stagger(NULL)", "dry_run must be TRUE or FALSE", "Use kodu_stagger(");
  expectRefused("kodu_stagger(longest => '0')",
                "dry_run must be TRUE or FALSE, and longest must be one second",
                "Use kodu_stagger(");
}

TEST_F(FunctionsTest, ForecastsTheRunsOfEachMinute) {
  database.query("INSERT INTO kodu_plugins(plugin_name, plugin_path) VALUES ('a', '/a')");
  database.query(
      "INSERT INTO kodu_cron_plugin(cron_id, cron_plugin_id, cron_interval, cron_next_exec, "
      "cron_log_file) SELECT id, 1, '20 s', date_trunc('minute', now()) + interval '1 minute' + "
      "interval '10 s' * (id / 4), id || '$DATE' FROM generate_series(1, 4) id");
  database.query(
      "INSERT INTO kodu_cron_plugin(cron_id, cron_plugin_id, cron_interval, cron_log_file) "
      "SELECT id, 1, '1 s', id || '$DATE' FROM generate_series(5, 6) id");
  call("kodu_task_pause(5)");
  call("kodu_task_delete(6)");
  // Three at 0, 20 and 40 seconds, one at 10, 30 and 50.
  const auto secondMinute = [&](const std::string& arguments) {
    return database.query(
        "SELECT minute = date_trunc('minute', now()) + interval '2 minutes', runs, "
        "busiest_second - minute, busiest_runs, workers FROM kodu_forecast(" +
        arguments + ") OFFSET 2 LIMIT 1");
  };

  EXPECT_EQ(secondMinute("1"), (Rows{{"t", "12", "00:00:00", "3", "3"}}));
  EXPECT_EQ(secondMinute("1, 10"), (Rows{{"t", "12", "00:00:00", "3", "3"}}));
  EXPECT_EQ(secondMinute("1, 10.5"), (Rows{{"t", "12", "00:00:00", "3", "4"}}));
  EXPECT_EQ(secondMinute("1, 1000"), (Rows{{"t", "12", "00:00:00", "3", "4"}}));
  EXPECT_EQ(secondMinute("1, 1, '{\"4\": 11, \"99\": 5}'"),
            (Rows{{"t", "12", "00:00:00", "3", "4"}}));
  EXPECT_THAT(database.value("SELECT count(*) FROM kodu_forecast(1)"), testing::AnyOf("60", "61"));
}

TEST_F(FunctionsTest, ForecastsMinutesWithoutRuns) {
  EXPECT_EQ(database.query("SELECT DISTINCT runs, busiest_second IS NULL, busiest_runs, workers "
                           "FROM kodu_forecast(0.5)"),
            (Rows{{"0", "t", "0", "0"}}));
}

TEST_F(FunctionsTest, ReportsErrorsInAForecast) {
  for (const std::string arguments : {"0", "-1", "169", "NULL", "1, -1", "1, NULL", "1, 'NaN'"}) {
    expectRefused("kodu_forecast(" + arguments + ")", "hours must be more than 0 and at most 168",
                  "Use kodu_forecast(");
  }
  for (const std::string durations : {"NULL", "'[1]'", R"('{"7": "a"}')", R"('{"7": -1}')"}) {
    expectRefused("kodu_forecast(1, 1, " + durations + ")",
                  "durations must be an object of task ids and seconds", "Use durations =>");
  }
}

TEST_F(FunctionsTest, CanBeLoadedAgain) {
  insertTask(7);
  call("kodu_task_pause(7)");
  const auto everything = [&] {
    return database.query(
        "SELECT concat(oid::regprocedure, prosrc, proacl) FROM pg_proc "
        " WHERE pronamespace = 'public'::regnamespace "
        "UNION ALL SELECT pg_get_triggerdef(oid) FROM pg_trigger WHERE NOT tgisinternal "
        "UNION ALL SELECT concat(relname, relacl) FROM pg_class "
        " WHERE relnamespace = 'public'::regnamespace "
        "UNION ALL SELECT concat(attrelid::regclass, attname, attacl) FROM pg_attribute "
        " WHERE attrelid IN ('kodu_plugins'::regclass, 'kodu_cron_plugin'::regclass) "
        "UNION ALL SELECT concat(t.*) FROM kodu_cron_plugin t "
        "UNION ALL SELECT concat(p.*) FROM kodu_cron_pause p ORDER BY 1");
  };
  const Rows once = everything();

  loadFunctions();
  EXPECT_EQ(everything(), once);
  database.query(readFile(projectFile("sql/schema.sql")));
  EXPECT_EQ(everything(), once);
}

TEST_F(FunctionsTest, CanBeLoadedByTheDatabasesOwner) {
  const std::string owner = "owner_of_" + database.name();
  database.query("DROP SCHEMA public CASCADE; CREATE SCHEMA public; CREATE ROLE " + owner +
                 " CREATEROLE; ALTER SCHEMA public OWNER TO pg_database_owner; ALTER DATABASE " +
                 database.name() + " OWNER TO " + owner + "; SET ROLE " + owner);
  database.query(readFile(projectFile("sql/schema.sql")));

  EXPECT_NO_THROW(loadFunctions());
  EXPECT_NO_THROW(loadFunctions());

  database.query("RESET ROLE; SET ROLE kodu_admin");
  EXPECT_NO_THROW(call("kodu_task_add('/bin/true', '60 s')"));
  database.query("RESET ROLE; REASSIGN OWNED BY " + owner + " TO CURRENT_USER; DROP OWNED BY " +
                 owner + "; DROP ROLE " + owner);
}

TEST_F(FunctionsTest, AllowsAnAdministratorToCallEveryFunction) {
  database.query("SET ROLE kodu_admin");

  for (const std::string function :
       {"kodu_task_add('/bin/true', '60 s', timeout => '5 s')",
        "kodu_task_set(1, plugin => '/bin/false', name => 'n', next_run => now())",
        "kodu_task_pause(1)", "kodu_task_resume(1)", "kodu_task_run_now(1)", "kodu_stagger(FALSE)",
        "kodu_forecast(1)", "kodu_task_delete(1)", "kodu_history_prune('1 day')",
        "* FROM kodu_task_status", "* FROM kodu_cron_pause", "* FROM kodu_cron_error",
        "* FROM kodu_cron_plugin", "* FROM kodu_plugins"}) {
    EXPECT_EQ(refusalOf("SELECT " + function), "");
  }
  EXPECT_EQ(refusalOf("INSERT INTO kodu_cron_plugin(cron_plugin_id, cron_interval, cron_log_file) "
                      "SELECT min(plugin_id), '60 s', '$DATE' FROM kodu_plugins"),
            "");
  EXPECT_EQ(refusalOf("UPDATE kodu_cron_plugin SET cron_parameter = 'x'"), "");
}

TEST_F(FunctionsTest, AddsATaskOfAKeyOnce) {
  const std::string add = "SELECT kodu_task_add('/bin/true', '5 minutes', key => 'web/load'";
  EXPECT_EQ(database.value(add + ")"), "1");
  heard();
  EXPECT_THAT(refusalOf(add + ")"), HasSubstr("task 1 has the key 'web/load'"));
  EXPECT_EQ(database.value(add + ", if_missing => TRUE)"), "1");
  EXPECT_THAT(heard(), IsEmpty());
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_plugin"), "1");
  EXPECT_EQ(database.value("SELECT kodu_task_with_key('web/load')"), "1");
  EXPECT_EQ(database.value("SELECT kodu_task_with_key('web/other') IS NULL"), "t");
  EXPECT_THAT(refusalOf("SELECT kodu_task_add('/bin/true', '1 m', key => 'two words')"),
              HasSubstr("a key must be one word"));
}

TEST_F(FunctionsTest, AddsATaskOfAKeyOnceInTwoSessions) {
  const std::string add = "SELECT kodu_task_add('/bin/true', '5 minutes', key => 'k'";
  for (const bool ifMissing : {false, true}) {
    database.query("DELETE FROM kodu_cron_plugin");
    pgSafeThread other(database.adminConninfo());
    PQclear(other.executeRequest("BEGIN"));
    PQclear(other.executeRequest(add + ")"));
    std::string answer;
    pgSafeThread late(database.adminConninfo());
    std::thread second([&] {
      try {
        PGresult* result = late.executeRequest(add + (ifMissing ? ", if_missing => TRUE)" : ")"));
        answer = PQgetvalue(result, 0, 0);
        PQclear(result);
      } catch (const PostgresqlException& e) {
        answer = e.what();
      }
    });
    EXPECT_TRUE(waitUntil([&] { return database.waitingSessions() > 0; }));
    PQclear(other.executeRequest("COMMIT"));
    second.join();
    EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_plugin"), "1");
    if (ifMissing) {
      EXPECT_EQ(answer, database.value("SELECT cron_id FROM kodu_cron_plugin"));
    } else {
      EXPECT_THAT(answer, HasSubstr("another task has this key"));
    }
  }
}

TEST_F(FunctionsTest, KnowsATaskWithoutAKeyByItsId) {
  insertTask(7);
  EXPECT_EQ(database.value("SELECT kodu_key_of(7)"), "task-7");
  EXPECT_EQ(database.value("SELECT kodu_task_with_key('task-7')"), "7");
  EXPECT_EQ(database.value("SELECT kodu_task_with_key('task-8') IS NULL"), "t");
  insertTask(8);
  database.query("SELECT kodu_task_set(8, key => 'task-7')");
  EXPECT_EQ(database.value("SELECT kodu_task_with_key('task-7')"), "8");
  EXPECT_EQ(database.value("SELECT kodu_key_of(7)"), "task-7x");
  EXPECT_EQ(database.value("SELECT kodu_task_with_key('task-7x')"), "7");
  EXPECT_EQ(database.value("SELECT kodu_task_with_key('task-8') IS NULL"), "t");
  EXPECT_EQ(database.value("SELECT kodu_task_with_key('task-99999999999x') IS NULL"), "t");
}

TEST_F(FunctionsTest, TellsNobodyOfAKey) {
  insertTask(7);
  database.query("SELECT kodu_task_set(7, key => 'a')");
  database.query("SELECT kodu_task_set(7, key => 'b')");
  EXPECT_THAT(heard(), IsEmpty());
  EXPECT_EQ(database.value("SELECT kodu_key_of(7)"), "b");
}

TEST_F(FunctionsTest, GivesTheKeyOfATaskThatIsBeingDeletedToAnother) {
  insertTask(7);
  insertTask(8);
  database.query("SELECT kodu_task_set(7, key => 'k')");
  EXPECT_THAT(refusalOf("SELECT kodu_task_set(8, key => 'k')"),
              HasSubstr("another task has this key"));
  database.query("SELECT kodu_task_delete(7)");
  EXPECT_EQ(database.value("SELECT kodu_task_with_key('k') IS NULL"), "t");
  database.query("SELECT kodu_task_set(8, key => 'k')");
  EXPECT_EQ(database.value("SELECT kodu_task_with_key('k')"), "8");
}

TEST_F(FunctionsTest, LetsTheDaemonPurgeATaskWithAKey) {
  insertTask(7);
  database.query("SELECT kodu_task_set(7, key => 'k')");
  pgSafeThread daemon(database.conninfo());
  PQclear(daemon.executeRequest("DELETE FROM kodu_cron_plugin WHERE cron_id = 7"));
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_key"), "0");
}

TEST_F(FunctionsTest, DefinesATaskAsAddWould) {
  database.query(
      "SELECT kodu_task_add('/bin/true', '5 minutes', 'a', 3, '1 m', 'x_$DATE', name => 'n',"
      " timeout => '9 s', key => 'k')");
  const std::string before = database.task(1, "cron_next_exec");
  heard();
  database.query("SELECT kodu_task_define(1, '/bin/false', '1 hour')");
  EXPECT_EQ(heard(), std::vector<std::string>{payload("UPDATE", 1)});
  EXPECT_EQ(
      database.value("SELECT concat_ws('|', plugin_path, plugin_name, cron_interval,"
                     " cron_parameter IS NULL, cron_retries IS NULL,"
                     " cron_retries_interval IS NULL, cron_log_file)"
                     " FROM kodu_cron_plugin JOIN kodu_plugins ON plugin_id = cron_plugin_id"),
      "/bin/false|false|01:00:00|t|t|t|$SERVICEID_$DATE.txt");
  EXPECT_EQ(database.task(1, "cron_next_exec"), before);
  database.query("SELECT kodu_task_define(1, '/bin/false', '1 hour')");
  EXPECT_THAT(heard(), IsEmpty());
  database.query(
      "SELECT kodu_task_define(1, '/bin/false', '1 hour', parameters => 'b c', timeout => '5 s',"
      " next_run => '2030-01-01 00:00:00Z')");
  EXPECT_EQ(database.task(1, "cron_parameter"), "-t 5 -- /bin/false b c");
  EXPECT_EQ(database.task(1, "cron_next_exec"), "2030-01-01 00:00:00");
  EXPECT_EQ(database.value("SELECT kodu_key_of(1)"), "k");
  EXPECT_THAT(refusalOf("SELECT kodu_task_define(1, '/bin/true', NULL)"),
              HasSubstr("the interval must be"));
  EXPECT_THAT(refusalOf("SELECT kodu_task_define(1, '/bin/true', '1 m', file_name => 'x')"),
              HasSubstr("lacks $DATE"));
  EXPECT_THAT(refusalOf("SELECT kodu_task_define(9, '/bin/true', '1 m')"),
              HasSubstr("there is no task 9"));
}

TEST_F(FunctionsTest, DefinesATaskDuringItsRunForTheTimeAfterIt) {
  insertTask(7);
  database.query(
      "UPDATE kodu_cron_plugin SET cron_status = 'PROCESS', cron_next_exec = "
      "date_trunc('second', now() - interval '1 second')");
  const std::string due = database.task(7, "cron_next_exec");
  database.query(
      "SELECT kodu_task_define(7, '/bin/true', '1 hour',"
      " next_run => now() + interval '30 minutes')");
  EXPECT_THAT(heard(), IsEmpty());
  EXPECT_EQ(database.task(7, "cron_next_exec"), due);
  EXPECT_EQ(database.task(7, "cron_changed"), "t");
  EXPECT_NE(database.task(7, "cron_wanted"), "");
}

TEST_F(FunctionsTest, DeniesAnAdministratorEverythingElse) {
  insertTask(7);
  database.query("SET ROLE kodu_admin");

  for (const std::string sql :
       {"UPDATE kodu_cron_plugin SET cron_status = 'OK'", "UPDATE kodu_cron_plugin SET cron_id = 8",
        "DELETE FROM kodu_cron_plugin", "TRUNCATE kodu_cron_plugin",
        "UPDATE kodu_plugins SET plugin_path = '/x'", "DELETE FROM kodu_plugins",
        "INSERT INTO kodu_cron_error(cron_id, cron_logfile) VALUES (7, 'a')",
        "UPDATE kodu_cron_error SET cron_logfile = 'a'", "DELETE FROM kodu_cron_repair",
        "CREATE TABLE public.mine()", "CREATE SCHEMA mine", "CREATE ROLE mine",
        "SELECT pg_read_file('PG_VERSION')"}) {
    EXPECT_THAT(refusalOf(sql), HasSubstr("permission denied")) << sql;
  }
  EXPECT_THAT(refusalOf("DROP VIEW kodu_task_status"), HasSubstr("must be owner"));
  EXPECT_THAT(refusalOf("ALTER TABLE kodu_cron_plugin DISABLE TRIGGER ALL"),
              HasSubstr("must be owner"));
  EXPECT_EQ(
      database.query("SELECT rolcanlogin, rolsuper, rolcreaterole, rolcreatedb, rolreplication, "
                     "rolbypassrls, (SELECT count(*) FROM pg_auth_members WHERE member = r.oid) "
                     "FROM pg_roles r WHERE rolname = 'kodu_admin'"),
      (Rows{{"f", "f", "f", "f", "f", "f", "0"}}));
}

// Each more, and each condition of one, would cost every run.
TEST_F(FunctionsTest, HasOneTriggerForTheDaemonsUpdates) {
  EXPECT_EQ(database.query(
                "SELECT tgname, tgqual IS NOT NULL FROM pg_trigger"
                " WHERE tgrelid = 'kodu_cron_plugin'::regclass AND NOT tgisinternal"
                " AND tgtype & 16 <> 0 AND (tgattr = '' OR EXISTS (SELECT FROM pg_attribute WHERE"
                " attrelid = tgrelid AND attnum = ANY (tgattr) AND attname IN ('cron_status',"
                " 'cron_last_exec', 'cron_next_exec')))"),
            (Rows{{"kodu_task_updated", "f"}}));
}

TEST_F(FunctionsTest, GrantsTheDaemonNoFunctionAndNoTable) {
  EXPECT_EQ(database.query("SELECT proname FROM pg_proc WHERE proname LIKE 'kodu\\_%' "
                           "AND has_function_privilege('kodu', oid, 'EXECUTE') ORDER BY 1"),
            (Rows{{"kodu_calendar_problem"}, {"kodu_check_next_run"},
                  {"kodu_coming_runs"},      {"kodu_end_sharing"},
                  {"kodu_follow_calendar"},  {"kodu_follow_daemon"},
                  {"kodu_follow_request"},   {"kodu_held"},
                  {"kodu_implied_key"},      {"kodu_is_paused"},
                  {"kodu_is_running"},       {"kodu_notify_of_plugin"},
                  {"kodu_notify_of_task"},   {"kodu_pause_time"},
                  {"kodu_read_calendar"},    {"kodu_refuse_next_run"},
                  {"kodu_refuse_plugin"},    {"kodu_refuse_task"},
                  {"kodu_remember_change"},  {"kodu_slot_after"},
                  {"kodu_spare_run"}}))
      << "triggers, and what they, the views and the tools' reading commands call";
  EXPECT_EQ(
      database.query("SELECT proname FROM pg_proc WHERE proname LIKE 'kodu\\_%' AND prosecdef "
                     "ORDER BY 1"),
      (Rows{{"kodu_follow_calendar"}, {"kodu_spare_run"}}))
      << "the first computes from its arguments, the second is a trigger that no role can call";
  EXPECT_EQ(database.value("SELECT has_table_privilege('kodu', 'kodu_cron_pause', 'SELECT, INSERT, "
                           "UPDATE, DELETE') OR has_table_privilege('kodu', 'kodu_task_status', "
                           "'SELECT')"),
            "f");
}

TEST_F(FunctionsTest, IgnoresTheSchemasOfItsCallers) {
  insertTask(7);
  database.query(
      "CREATE SCHEMA trap; CREATE FUNCTION trap.kodu_soon() RETURNS timestamp LANGUAGE sql AS "
      "'SELECT NULL::timestamp'; SET search_path = trap, public");

  EXPECT_EQ(refusalOf("SELECT kodu_task_run_now(7)"), "");
}

}  // namespace
