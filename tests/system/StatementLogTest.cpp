#include <algorithm>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/DaemonTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// The exact texts again: the server's statistics and log identify the statements by them.

const std::string kUpdateCronProcess =
    "UpdateCronProcess: UPDATE kodu_cron_plugin SET cron_status='PROCESS' WHERE cron_id=$1::int;";
const std::string kSelectDeleteCron =
    "SelectDeleteCron: SELECT cron_id FROM kodu_cron_plugin WHERE cron_delete=TRUE;";
const std::string kDeleteCron = "DeleteCron: DELETE FROM kodu_cron_plugin WHERE cron_id=$1::int;";
const std::string kDeleteCronHistory =
    "DeleteCronHistory: DELETE FROM kodu_cron_error WHERE cron_id=$1::int;";
const std::string kSelectCronHistory =
    "SelectCronHistory: SELECT cron_date,cron_logfile FROM kodu_cron_error WHERE cron_id=$1::int;";
const std::string kUpdateCronState =
    "UpdateCronState: UPDATE kodu_cron_plugin SET cron_status=$2::varchar, "
    "cron_last_exec=cron_next_exec, cron_next_exec=cron_next_exec+cron_interval WHERE "
    "cron_id=$1::int RETURNING  EXTRACT(EPOCH FROM cron_next_exec)::int;";
const std::string kInsertCronError =
    "insertCronError: INSERT INTO kodu_cron_error(cron_error_id, cron_id, cron_date, cron_logfile) "
    "VALUES (DEFAULT,$1::int,NOW(),$2::varchar);";
const std::string kUpdateCronExecTask =
    "updateCronExecTask: UPDATE kodu_cron_plugin SET "
    "cron_next_exec=cron_next_exec+(cron_interval*$2::int) WHERE cron_id=$1::int RETURNING  "
    "EXTRACT(EPOCH FROM cron_next_exec)::int;";
const std::string kTaskQuery =
    "SELECT cron_id, plugin_name, cron_plugin_id, EXTRACT(EPOCH FROM cron_interval) as interval, "
    "cron_status, cron_last_exec, FLOOR(EXTRACT(EPOCH FROM cron_next_exec)) as nextexec,"
    "\tcron_log_file,cron_retries, EXTRACT(EPOCH FROM cron_retries_interval) as retries_interval,  "
    "plugin_path,cron_parameter\tFROM public.kodu_cron_plugin\tJOIN kodu_plugins ON plugin_id = "
    "cron_plugin_id\tWHERE plugin_type='cron'";
const std::string kListenStatement = "statement: LISTEN koducronchannel;";

std::string statement(const std::string& sql) {
  return "statement: " + sql;
}
std::string parse(const std::string& nameAndSql) {
  return "parse " + nameAndSql;
}
std::string execute(const std::string& nameAndSql, const std::string& parameters = "") {
  return "execute " + nameAndSql + (parameters.empty() ? "" : " -- " + parameters);
}

/// The daemon's statements as its server has received them. The test's own session logs none.
class StatementLogTest : public DaemonTest {
 protected:
  void SetUp() override {
    // The server logs the preparation of a statement by its duration only.
    database.query("ALTER DATABASE " + database.name() + " SET log_min_duration_statement = 0");
    database.query("SET log_statement = 'none'");
    linesBefore = database.serverLog().size();
  }

  /// The daemon's statements so far, each as "KIND TEXT", an execution with its parameters.
  std::vector<std::string> statements() const {
    const std::string kLog = "LOG:  ";
    const std::string kParameters = "DETAIL:  parameters: ";
    std::vector<std::string> found;
    bool isExecution = false;
    const auto log = database.serverLog();
    for (std::size_t i = linesBefore; i < log.size(); ++i) {
      const std::string& line = log.at(i);
      if (line.starts_with(kParameters) && isExecution) {
        found.back() += " -- " + line.substr(kParameters.size());
      }
      isExecution = line.starts_with(kLog + "execute ");
      const auto parsed = line.find(" ms  parse ");
      if (isExecution || line.starts_with(kLog + "statement: ")) {
        found.push_back(line.substr(kLog.size()));
      } else if (line.starts_with(kLog + "duration: ") && parsed != std::string::npos &&
                 line.find("parse <unnamed>") == std::string::npos) {
        found.push_back(line.substr(parsed + 5));
      }
    }
    return found;
  }

  /// Waits until the daemon has subscribed and purged and has sent `last`. Returns its statements
  /// after the load, except the subscription and the purge, whose place is not fixed.
  std::vector<std::string> statementsAfterStart(const std::string& last) const {
    EXPECT_TRUE(waitUntil(
        [&] {
          const auto sent = statements();
          const auto has = [&](const std::string& one) {
            return std::find(sent.begin(), sent.end(), one) != sent.end();
          };
          return has(last) && has(kListenStatement) && has(execute(kSelectDeleteCron));
        },
        kPatience))
        << testing::PrintToString(statements());
    auto sent = statements();
    sent.erase(sent.begin(), std::find(sent.begin(), sent.end(), statement(kTaskQuery + ";")) + 1);
    std::erase(sent, kListenStatement);
    std::erase(sent, execute(kSelectDeleteCron));
    return sent;
  }

 private:
  std::size_t linesBefore = 0;
};

TEST_F(StatementLogTest, ShowsThePreparationsThenTheLoad) {
  ASSERT_TRUE(daemon.startAndWait());

  EXPECT_THAT(statementsAfterStart(kListenStatement), IsEmpty());
  auto sent = statements();
  sent.resize(9);
  EXPECT_THAT(sent,
              ElementsAre(parse(kUpdateCronProcess), parse(kSelectDeleteCron), parse(kDeleteCron),
                          parse(kDeleteCronHistory), parse(kSelectCronHistory),
                          parse(kUpdateCronState), parse(kInsertCronError),
                          parse(kUpdateCronExecTask), statement(kTaskQuery + ";")));
  EXPECT_EQ(statements().size(), 11U);
}

TEST_F(StatementLogTest, ShowsTwoStatementsForASuccess) {
  database.insertTask(makeTask(17, "echo fine"));
  ASSERT_TRUE(daemon.startAndWait());
  const std::string last = execute(kUpdateCronState, "$1 = '17', $2 = 'OK'");

  EXPECT_THAT(statementsAfterStart(last),
              ElementsAre(execute(kUpdateCronProcess, "$1 = '17'"), last));
}

TEST_F(StatementLogTest, ShowsTheHistoryRowOfAFailure) {
  TaskRow row = makeTask(17, "echo bad; exit 2");
  row.logFile = "it's $SERVICEID";
  database.takeAnyRow();
  database.insertTask(row);
  ASSERT_TRUE(daemon.startAndWait());
  const std::string last = execute(kUpdateCronState, "$1 = '17', $2 = 'FAILED'");

  EXPECT_THAT(statementsAfterStart(last),
              ElementsAre(execute(kUpdateCronProcess, "$1 = '17'"),
                          execute(kInsertCronError, "$1 = '17', $2 = 'it''s 17'"), last));
}

TEST_F(StatementLogTest, ShowsNoUpdateOfTheStateForARetry) {
  TaskRow row = makeTask(17, "echo bad; exit 2");
  row.retries = "1";
  row.logFile = "$DATE";
  database.insertTask(row);
  ASSERT_TRUE(daemon.startAndWait());

  auto sent = statementsAfterStart(execute(kUpdateCronState, "$1 = '17', $2 = 'FAILED'"));
  for (std::string& one : sent) {
    one.erase(std::min(one.size(), one.find(':')));
  }
  EXPECT_THAT(sent, ElementsAre("execute UpdateCronProcess", "execute insertCronError",
                                "execute UpdateCronProcess", "execute insertCronError",
                                "execute UpdateCronState"));
}

TEST_F(StatementLogTest, ShowsTheIntervalsThatAnOutageHasMissed) {
  TaskRow row = makeTask(17, "echo fine");
  row.interval = "300 seconds";
  row.nextExec = "date_trunc('second', now()) - interval '650 seconds'";
  database.insertTask(row);

  ASSERT_TRUE(daemon.startAndWait());

  EXPECT_THAT(statementsAfterStart(kListenStatement),
              ElementsAre(execute(kUpdateCronExecTask, "$1 = '17', $2 = '3'")));
}

TEST_F(StatementLogTest, ShowsThePurgeOfTheHistoryBeforeThatOfTheTask) {
  for (const int id : {4, 9}) {
    TaskRow row = makeTask(id, "echo fine");
    row.nextExec = TaskRow().nextExec;
    database.insertTask(row);
  }
  database.query("UPDATE kodu_cron_plugin SET cron_delete = TRUE");

  ASSERT_TRUE(daemon.startAndWait());

  EXPECT_THAT(
      statementsAfterStart(execute(kDeleteCron, "$1 = '9'")),
      ElementsAre(execute(kDeleteCronHistory, "$1 = '4'"), execute(kDeleteCron, "$1 = '4'"),
                  execute(kDeleteCronHistory, "$1 = '9'"), execute(kDeleteCron, "$1 = '9'")));
}

TEST_F(StatementLogTest, ShowsTheIdsOfEachNotificationInTheirOrder) {
  ASSERT_TRUE(startAndListen());

  database.query("SELECT pg_notify('koducronchannel', '" + payload("UPDATE", 9) +
                 "'), pg_notify('koducronchannel', '" + payload("ADD", 7) +
                 "'), pg_notify('koducronchannel', '" + payload("UPDATE", 4) + "')");
  database.notify(payload("UPDATE", 9));

  const std::string add = statement(kTaskQuery + " AND cron_id IN (7);");
  ASSERT_TRUE(waitForLog("NOTICE#script reload successful", 3));
  // The second notification arrives in the same pass of the listener or in the next one.
  const auto sent = statementsAfterStart(add);
  EXPECT_EQ(sent.front(), add);
  if (sent.at(1) != statement(kTaskQuery + " AND cron_id IN (9,4,9);")) {
    EXPECT_EQ(sent.at(1), statement(kTaskQuery + " AND cron_id IN (9,4);"));
  }
}

}  // namespace
