#include "db/statements.h"

#include <algorithm>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "db/PostgresqlException.h"
#include "db/pgSafeThread.h"
#include "db/result.h"
#include "tests/support/Database.h"

namespace {

using Rows = std::vector<Database::Row>;

constexpr const char* kTasks =
    "SELECT cron_id, plugin_name, cron_plugin_id, EXTRACT(EPOCH FROM cron_interval) as interval, "
    "cron_status, cron_last_exec, FLOOR(EXTRACT(EPOCH FROM cron_next_exec)) as nextexec,\t"
    "cron_log_file,cron_retries, EXTRACT(EPOCH FROM cron_retries_interval) as retries_interval,  "
    "plugin_path,cron_parameter\tFROM public.kodu_cron_plugin\tJOIN kodu_plugins ON plugin_id = "
    "cron_plugin_id\tWHERE plugin_type='cron'";

TEST(TaskQueryTest, AsksForAllTasksWithoutAList) {
  EXPECT_EQ(taskQuery(nullptr), std::string(kTasks) + ";");
}

TEST(TaskQueryTest, HasNoEndingWithAnEmptyList) {
  const std::vector<int> none;

  EXPECT_EQ(taskQuery(&none), kTasks);
}

TEST(TaskQueryTest, NamesTheIdsInTheListsOrder) {
  const std::vector<int> two = {4, 9};
  const std::vector<int> more = {9, 4, 9, -1};

  EXPECT_EQ(taskQuery(&two), std::string(kTasks) + " AND cron_id IN (4,9);");
  EXPECT_EQ(taskQuery(&more), std::string(kTasks) + " AND cron_id IN (9,4,9,-1);");
}

TEST(NamedStatementsTest, AreListedInTheOrderOfTheirPreparation) {
  std::vector<std::string> found;
  for (const NamedStatement& statement : kNamedStatements) {
    found.push_back(std::string(statement.name) + " " + std::to_string(statement.nParams) + " " +
                    statement.sql);
  }

  EXPECT_THAT(
      found,
      testing::ElementsAre(
          "UpdateCronProcess 1 UPDATE kodu_cron_plugin SET cron_status='PROCESS' WHERE "
          "cron_id=$1::int;",
          "SelectDeleteCron 0 SELECT cron_id FROM kodu_cron_plugin WHERE cron_delete=TRUE;",
          "DeleteCron 1 DELETE FROM kodu_cron_plugin WHERE cron_id=$1::int;",
          "DeleteCronHistory 1 DELETE FROM kodu_cron_error WHERE cron_id=$1::int;",
          "SelectCronHistory 1 SELECT cron_date,cron_logfile FROM kodu_cron_error WHERE "
          "cron_id=$1::int;",
          "UpdateCronState 2 UPDATE kodu_cron_plugin SET cron_status=$2::varchar, "
          "cron_last_exec=cron_next_exec, cron_next_exec=cron_next_exec+cron_interval WHERE "
          "cron_id=$1::int RETURNING  EXTRACT(EPOCH FROM cron_next_exec)::int;",
          "insertCronError 2 INSERT INTO kodu_cron_error(cron_error_id, cron_id, cron_date, "
          "cron_logfile) VALUES (DEFAULT,$1::int,NOW(),$2::varchar);",
          "updateCronExecTask 2 UPDATE kodu_cron_plugin SET "
          "cron_next_exec=cron_next_exec+(cron_interval*$2::int) WHERE cron_id=$1::int RETURNING  "
          "EXTRACT(EPOCH FROM cron_next_exec)::int;"));
}

TEST(NamedStatementsTest, ArePreparedWithExactlyTheirTexts) {
  const Database database;
  pgSafeThread connection(database.conninfo());
  prepareNamedStatements(connection);
  const ResultPtr result(connection.executeRequest(
      "SELECT name, statement, array_length(parameter_types, 1) FROM pg_prepared_statements"));

  ASSERT_EQ(PQntuples(result.get()), 8);
  for (int row = 0; row < 8; ++row) {
    const std::string name = PQgetvalue(result.get(), row, 0);
    const auto* const statement =
        std::find_if(kNamedStatements.begin(), kNamedStatements.end(),
                     [&](const NamedStatement& candidate) { return name == candidate.name; });
    ASSERT_NE(statement, kNamedStatements.end()) << name;
    EXPECT_STREQ(PQgetvalue(result.get(), row, 1), statement->sql);
  }
}

TEST(NamedStatementsTest, StopAtTheFirstThatCannotBePrepared) {
  const Database database;
  database.query("DROP TABLE kodu_cron_error CASCADE");
  pgSafeThread connection(database.conninfo());

  EXPECT_THROW(prepareNamedStatements(connection), PostgresqlException);

  const ResultPtr prepared(connection.executeRequest("SELECT FROM pg_prepared_statements"));
  EXPECT_EQ(PQntuples(prepared.get()), 3);
}

class StatementTest : public testing::Test {
 protected:
  void SetUp() override {
    prepareNamedStatements(connection);
    TaskRow row;
    row.id = 7;
    row.nextExec = "timestamp '2030-01-01 00:00:00'";
    database.insertTask(row);
  }

  /// Runs a named statement and returns its rows.
  Rows run(const char* name, const std::vector<std::string>& params) {
    const ResultPtr result(connection.executePrepareRequest(name, params));
    Rows rows;
    for (int row = 0; row < PQntuples(result.get()); ++row) {
      rows.emplace_back();
      for (int column = 0; column < PQnfields(result.get()); ++column) {
        rows.back().emplace_back(PQgetvalue(result.get(), row, column));
      }
    }
    return rows;
  }

  void insertOther(const std::string& nextExec) const {
    TaskRow row;
    row.id = 9;
    row.nextExec = nextExec;
    database.insertTask(row);
  }

  static constexpr long kDue = 1893456000;  // 2030-01-01 00:00:00 UTC

  Database database;
  pgSafeThread connection{database.conninfo()};
};

TEST_F(StatementTest, UpdateCronProcessMarksTheTaskAsRunning) {
  EXPECT_EQ(run("UpdateCronProcess", {"7"}), Rows());

  EXPECT_EQ(database.task(7, "cron_status"), "PROCESS");
  EXPECT_EQ(database.nextExec(7), kDue);
}

TEST_F(StatementTest, UpdateCronStateMovesTheTimesByOneInterval) {
  EXPECT_EQ(run("UpdateCronState", {"7", "OK"}), (Rows{{std::to_string(kDue + 300)}}));

  EXPECT_EQ(database.task(7, "cron_status"), "OK");
  EXPECT_EQ(database.task(7, "cron_last_exec"), "2030-01-01 00:00:00");
  EXPECT_EQ(database.nextExec(7), kDue + 300);
}

TEST_F(StatementTest, UpdateCronStateAddsOneIntervalToATimeLongPast) {
  insertOther("timestamp '2001-02-03 04:05:06'");

  EXPECT_EQ(run("UpdateCronState", {"9", "FAILED"}), (Rows{{"981173406"}}));

  EXPECT_EQ(database.task(9, "cron_status"), "FAILED");
  EXPECT_EQ(database.task(9, "cron_last_exec"), "2001-02-03 04:05:06");
  EXPECT_EQ(database.task(9, "cron_next_exec"), "2001-02-03 04:10:06");
}

// The query truncates, the two statements round: a time in the second half of its second is
// returned one second later than it was loaded.
TEST_F(StatementTest, TimesWithAFractionAreTruncatedByTheQueryAndRoundedByTheStatements) {
  database.query("UPDATE kodu_cron_plugin SET cron_next_exec = '2030-01-01 00:00:00.6'");
  const ResultPtr loaded(connection.executeRequest(taskQuery(nullptr)));

  EXPECT_EQ(PQgetvalue(loaded.get(), 0, 6), std::to_string(kDue));
  EXPECT_EQ(run("updateCronExecTask", {"7", "0"}), (Rows{{std::to_string(kDue + 1)}}));
  EXPECT_EQ(run("UpdateCronState", {"7", "OK"}), (Rows{{std::to_string(kDue + 301)}}));
}

TEST_F(StatementTest, StatementsLeaveOtherTasksAlone) {
  insertOther("timestamp '2030-01-01 00:00:00'");
  const std::string all = "SELECT * FROM kodu_cron_plugin WHERE cron_id = 9";
  const Rows before = database.query(all);

  run("UpdateCronProcess", {"7"});
  run("UpdateCronState", {"7", "OK"});
  run("updateCronExecTask", {"7", "2"});
  run("DeleteCronHistory", {"7"});
  run("DeleteCron", {"7"});

  EXPECT_EQ(database.query(all), before);
  EXPECT_EQ(database.task(7, "cron_id"), "");
}

TEST_F(StatementTest, TreatsAnUnknownTaskAsNoFailure) {
  for (const char* name :
       {"UpdateCronProcess", "DeleteCronHistory", "DeleteCron", "SelectCronHistory"}) {
    EXPECT_EQ(run(name, {"8"}), Rows()) << name;
  }
}

TEST_F(StatementTest, TreatsATextThatIsNotANumberAsAFailure) {
  std::string text = "nothing was thrown";
  try {
    run("UpdateCronProcess", {"seven"});
  } catch (const PostgresqlException& e) {
    text = e.what();
  }

  EXPECT_THAT(text, testing::StartsWith("Exec prepareRequest failed:  ERROR:  invalid input syntax "
                                        "for type integer: \"seven\"\n"));
}

TEST_F(StatementTest, UpdateCronExecTaskSkipsWholeIntervals) {
  EXPECT_EQ(run("updateCronExecTask", {"7", "3"}), (Rows{{std::to_string(kDue + 900)}}));
  EXPECT_EQ(run("updateCronExecTask", {"7", "0"}), (Rows{{std::to_string(kDue + 900)}}));

  EXPECT_EQ(database.nextExec(7), kDue + 900);
  EXPECT_EQ(database.task(7, "cron_last_exec"), "");
}

TEST_F(StatementTest, ReturningStatementsReturnNoRowForAnUnknownTask) {
  EXPECT_EQ(run("UpdateCronState", {"8", "OK"}), Rows());
  EXPECT_EQ(run("updateCronExecTask", {"8", "1"}), Rows());
}

TEST_F(StatementTest, HistoryIsInsertedReadAndDeleted) {
  run("insertCronError", {"7", "out_7.txt"});
  run("insertCronError", {"8", "out_8.txt"});

  const Rows history = run("SelectCronHistory", {"7"});
  ASSERT_EQ(history.size(), 1U);
  EXPECT_EQ(history[0][1], "out_7.txt");
  EXPECT_EQ(database.value("SELECT now() - cron_date < interval '1 minute' FROM kodu_cron_error"),
            "t");

  run("DeleteCronHistory", {"7"});
  EXPECT_EQ(database.failures(7), 0);
  EXPECT_EQ(database.failures(8), 1);
}

TEST_F(StatementTest, FlaggedTasksAreFoundAndDeleted) {
  insertOther("now()");
  EXPECT_EQ(run("SelectDeleteCron", {}), Rows());
  database.query("UPDATE kodu_cron_plugin SET cron_delete = TRUE WHERE cron_id = 7");
  EXPECT_EQ(run("SelectDeleteCron", {}), (Rows{{"7"}}));

  run("DeleteCron", {"7"});

  EXPECT_EQ(database.task(7, "cron_id"), "");
}

TEST_F(StatementTest, TheTaskQueryReturnsTwelveColumnsOfTasksOfTypeCron) {
  TaskRow other;
  other.id = 9;
  other.pluginType = "web";
  database.insertTask(other);
  database.query("UPDATE kodu_cron_plugin SET cron_interval = '1 day', cron_delete = TRUE");
  const std::vector<int> ids = {7, 9};
  const ResultPtr result(connection.executeRequest(taskQuery(&ids)));

  ASSERT_EQ(PQntuples(result.get()), 1);
  ASSERT_EQ(PQnfields(result.get()), 12);
  EXPECT_STREQ(PQgetvalue(result.get(), 0, 0), "7");
  EXPECT_STREQ(PQgetvalue(result.get(), 0, 1), "task");
  EXPECT_STREQ(PQgetvalue(result.get(), 0, 3), "86400.000000");
  EXPECT_EQ(PQgetvalue(result.get(), 0, 6), std::to_string(kDue));
  EXPECT_STREQ(PQgetvalue(result.get(), 0, 7), "out_$SERVICEID_$DATE.txt");
  EXPECT_STREQ(PQgetvalue(result.get(), 0, 8), "0");
  EXPECT_STREQ(PQgetvalue(result.get(), 0, 9), "2.000000");
  EXPECT_STREQ(PQgetvalue(result.get(), 0, 10), "/bin/true");
  EXPECT_STREQ(PQgetvalue(result.get(), 0, 11), "");
}

TEST_F(StatementTest, TheTaskQueryRunsWithEachOfItsEndings) {
  insertOther("now()");
  const std::vector<int> none;
  const std::vector<int> some = {9, 8};
  const auto rows = [&](const std::vector<int>* ids) {
    const ResultPtr result(connection.executeRequest(taskQuery(ids)));
    return PQntuples(result.get());
  };

  EXPECT_EQ(rows(nullptr), 2);
  EXPECT_EQ(rows(&none), 2) << "an empty list asks for all";
  EXPECT_EQ(rows(&some), 1);
}

TEST(ListenTest, SubscribesTheSession) {
  const Database database;
  pgSafeThread connection(database.conninfo());
  EXPECT_STREQ(kListen, "LISTEN koducronchannel;");

  PQclear(connection.executeRequest(kListen));

  const ResultPtr channels(connection.executeRequest("SELECT pg_listening_channels()"));
  ASSERT_EQ(PQntuples(channels.get()), 1);
  EXPECT_STREQ(PQgetvalue(channels.get(), 0, 0), "koducronchannel");
}

TEST(CellTextTest, ThrowsForAMissingRow) {
  const ResultPtr empty(PQmakeEmptyPGresult(nullptr, PGRES_TUPLES_OK));

  EXPECT_THROW(cellText(empty, 0, 0, "UpdateCronState"), std::logic_error);
}

}  // namespace
