#include "db/pgSafeThread.h"
#include "db/statements.h"
#include "tests/ctl/CtlTest.h"

namespace {

using testing::HasSubstr;

/// koductl account, ledger, and what history and explain have from the ledger: task 1 has run three
/// times, and three periods were skipped after the second run.
class AccountTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    database.insertTask(quietTask(1));
    prepareNamedStatements(session);
    runOnce("OK");
    perform("UpdateCronProcess", {"1"});
    addFailure(1, 0, "out_1_a.txt", "no answer\n");
    perform("UpdateCronProcess", {"1"});
    perform("UpdateCronState", {"1", "OK"});
    perform("updateCronExecTask", {"1", "3"});
    runOnce("OK");
  }

  void perform(const std::string& statement, const std::vector<std::string>& parameters) {
    PQclear(session.executePrepareRequest(statement, parameters));
  }
  void runOnce(const std::string& status) {
    perform("UpdateCronProcess", {"1"});
    perform("UpdateCronState", {"1", status});
  }

  pgSafeThread session{database.conninfo()};
};

TEST_F(AccountTest, AddsUpThePeriodsOfATask) {
  const CtlResult result = run({"account"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out,
              testing::MatchesRegex("ID  NAME   PERIODS  RUNS  FAILED  RETRIED  SKIPPED  [A-Z]+\n"
                                    " 1  task1        6     3       0        1        3 +3\n"
                                    "\n6 periods = 3 runs \\+ 3 skipped\n"));
}

TEST_F(AccountTest, ChoosesTasks) {
  for (const std::vector<std::string>& choice : std::vector<std::vector<std::string>>{
           {"1"}, {"--name", "t?s*"}, {"--plugin", "/*"}, {"--since", "yesterday"}}) {
    std::vector<std::string> arguments = {"account", "--json"};
    arguments.insert(arguments.end(), choice.begin(), choice.end());
    const CtlResult result = run(arguments);
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(parsed(result.out)[0]["periods"].asInt(), 6) << choice[0];
  }
  for (const std::vector<std::string>& choice :
       std::vector<std::vector<std::string>>{{"2"},
                                             {"--name", "task"},
                                             {"--name", "task_"},
                                             {"--plugin", "x"},
                                             {"--since", "tomorrow"}}) {
    std::vector<std::string> arguments = {"account"};
    arguments.insert(arguments.end(), choice.begin(), choice.end());
    EXPECT_EQ(run(arguments).out, "The ledger has no row of such a task.\n") << choice[0];
  }
}

TEST_F(AccountTest, EndsWith1WhenThePeriodsDoNotAddUp) {
  database.query("DELETE FROM kodu_ledger WHERE periods = 3");

  const CtlResult result = run({"account"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.out, HasSubstr("6 periods = 3 runs + 0 skipped + 3 that are not accounted"));
}

TEST_F(AccountTest, ListsRunsRetriesAndSkips) {
  const CtlResult result = run({"history", "1"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("  ok, attempt 2 "));
  EXPECT_THAT(result.out, testing::ContainsRegex(" 3 skipped: [a-z]+ "));
  EXPECT_THAT(result.out, testing::ContainsRegex("1 .* retried +out_1_a.txt +no answer\n"));
  const Json::Value list = parsed(run({"history", "1", "--json"}).out);
  ASSERT_EQ(list.size(), 5U);
  EXPECT_EQ(list[1]["periods"].asInt(), 3);
  EXPECT_EQ(list[3]["number"].asInt(), 1);
  EXPECT_EQ(run({"output", "1", "1"}).out, "no answer\n");
}

TEST_F(AccountTest, ExplainsWhyThePeriodsWereSkipped) {
  database.query("UPDATE kodu_ledger SET outcome = 'v' WHERE periods = 3");
  EXPECT_THAT(run({"explain", "1"}).out,
              testing::ContainsRegex(
                  "\n3 periods due from .* on were skipped: the previous run took too long.\n"));
}

TEST_F(AccountTest, SwitchesTheLedger) {
  EXPECT_THAT(run({"ledger"}).out, HasSubstr("The ledger is on; "));
  EXPECT_EQ(run({"ledger", "off"}).exitCode, 77);

  EXPECT_THAT(runAsAdmin({"ledger", "off"}).out, HasSubstr("The ledger is off; "));
  EXPECT_THAT(runAsAdmin({"ledger", "keep", "7"}).out, HasSubstr("It keeps runs for 7 days: "));
  EXPECT_THAT(runAsAdmin({"ledger", "on"}).out, HasSubstr("The ledger is on; "));
  const Json::Value status = parsed(run({"ledger", "status", "--json"}).out);
  EXPECT_TRUE(status["is_on"].asBool());
  EXPECT_EQ(status["keep_days"].asInt(), 7);
  EXPECT_EQ(runAsAdmin({"ledger", "keep"}).exitCode, 64);
  EXPECT_EQ(runAsAdmin({"ledger", "on", "3"}).exitCode, 64);
}

TEST_F(AccountTest, DoesWithoutALedger) {
  database.query("DROP VIEW kodu_run");
  EXPECT_THAT(run({"history", "1"}).out, HasSubstr("out_1_a.txt"));
  EXPECT_EQ(run({"explain", "1"}).exitCode, 0);
  for (const std::string command : {"account", "ledger"}) {
    const CtlResult result = run({command});
    EXPECT_EQ(result.exitCode, 65);
    EXPECT_THAT(result.err, HasSubstr("the database has no ledger that this role may read"));
  }
}

TEST_F(AccountTest, SumsUpSeveralTasks) {
  database.insertTask(quietTask(2));
  perform("UpdateCronProcess", {"2"});
  perform("UpdateCronState", {"2", "OK"});
  const CtlResult result = run({"account"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, testing::ContainsRegex("\n 2  task2 +1 +1 +0 +0 +0 +0\n"
                                                 "    2 tasks +7 +4 +0 +1 +3 +3\n"));
  EXPECT_THAT(result.out, testing::EndsWith("\n7 periods = 4 runs + 3 skipped\n"));
  const Json::Value list = parsed(run({"account", "1", "2", "--json"}).out);
  ASSERT_EQ(list.size(), 2U) << "without the sum";
  EXPECT_EQ(list[0]["id"].asInt(), 1);
  EXPECT_EQ(list[1]["id"].asInt(), 2);
  EXPECT_EQ(parsed(run({"account", "2", "--json"}).out)[0]["periods"].asInt(), 1);
}

TEST_F(AccountTest, HasEveryReasonInJson) {
  const Json::Value account = parsed(run({"account", "--json"}).out)[0];
  EXPECT_EQ(account["name"].asString(), "task1");
  EXPECT_EQ(account["runs"].asInt(), 3);
  EXPECT_EQ(account["retried"].asInt(), 1);
  EXPECT_EQ(account["skipped"].asInt(), 3);
  EXPECT_EQ(account["difference"].asInt(), 0);
  const Json::Value& reasons = account["skipped_by_reason"];
  EXPECT_EQ(reasons.size(), 11U);
  int sum = 0;
  for (const std::string& reason : reasons.getMemberNames()) {
    sum += reasons[reason].asInt();
  }
  EXPECT_EQ(sum, account["skipped"].asInt());
}

TEST_F(AccountTest, KeepsTheAccountOfADeletedTask) {
  database.query("DELETE FROM kodu_cron_plugin");
  EXPECT_THAT(run({"account"}).out, HasSubstr(" 1  (deleted) "));
  EXPECT_TRUE(parsed(run({"account", "--json"}).out)[0]["name"].isNull());
  EXPECT_EQ(run({"account", "--name", "*"}).out, "The ledger has no row of such a task.\n");
}

TEST_F(AccountTest, MatchesPatternsAsOtherCommandsDo) {
  const auto matches = [&](const std::string& pattern) {
    return run({"account", "--json", "--name", pattern}).out != "[]\n";
  };
  database.query("UPDATE kodu_plugins SET plugin_name = 'a_%*b'");
  for (const char* pattern : {"*", "a_%*b", "a_%?b", R"(a_%\*b)", "?_*"}) {
    EXPECT_TRUE(matches(pattern)) << pattern;
    EXPECT_EQ(run({"ids", "--name", pattern}).out, "1\n") << pattern;
  }
  for (const char* pattern :
       {"a", "a_%", "a%", "____b", R"(a_%\?b)", "b'; DROP TABLE kodu_ledger; --"}) {
    EXPECT_FALSE(matches(pattern)) << pattern;
    EXPECT_EQ(run({"ids", "--name", pattern}).out, "") << pattern;
  }
}

TEST_F(AccountTest, ShowsNoControlCharacterOfAName) {
  database.query("UPDATE kodu_plugins SET plugin_name = E'a\\x1b[31m\\nb'");
  EXPECT_THAT(run({"account"}).out, HasSubstr(" 1  a?[31m b "));
}

TEST_F(AccountTest, SaysWhenTheLedgerWasKeptAndCleaned) {
  const std::string fresh = run({"ledger"}).out;
  EXPECT_THAT(fresh, testing::ContainsRegex("was last switched on at 20[0-9: -]+ UTC\\.\n"));
  EXPECT_THAT(fresh, HasSubstr("Last summarised: never. Last pruned: never.\n"));
  EXPECT_THAT(fresh, HasSubstr("Rows that could not be written: 0, and 0 more that later rows"));
  const Json::Value before = parsed(run({"ledger", "--json"}).out);
  EXPECT_TRUE(before["pruned_at"].isNull());
  EXPECT_TRUE(before["is_on"].asBool());
  database.query("SELECT kodu_ledger_summarise(); SELECT kodu_ledger_prune()");
  EXPECT_THAT(run({"ledger"}).out, testing::ContainsRegex("Last pruned: 20[0-9: -]+ UTC\\.\n"));
  EXPECT_THAT(parsed(run({"ledger", "--json"}).out)["pruned_at"].asString(),
              testing::MatchesRegex("....-..-..T..:..:..Z"));
}

TEST_F(AccountTest, CountsSinceATimeInTheZoneOfTheOperator) {
  const auto periodsSince = [&](const std::string& time, const std::string& zone) {
    const Json::Value list =
        parsed(run({"account", "--json", "--since", time, "--zone", zone}).out);
    return list.empty() ? 0 : list[0]["periods"].asInt();
  };
  // An hour ago in UTC is in the future of a clock that is some hours behind it.
  const std::string hourAgo = database.value(
      "SELECT to_char(now() AT TIME ZONE 'UTC' - interval '1 hour', 'YYYY-MM-DD HH24:MI:SS')");
  EXPECT_EQ(periodsSince(hourAgo, "UTC"), 6);
  EXPECT_EQ(periodsSince(hourAgo, "Pacific/Honolulu"), 0);
  EXPECT_EQ(periodsSince(hourAgo, "Asia/Kathmandu"), 6);
  EXPECT_EQ(periodsSince("2h", "Asia/Kathmandu"), 6);
  EXPECT_EQ(run({"account", "--since", "2 bananas"}).exitCode, 65);
}

TEST_F(AccountTest, ShowsTheTimesOfTheLedgerInTheZoneOfTheOperator) {
  database.query("UPDATE kodu_ledger_state SET switched_on = '2024-07-01 11:00:00'");
  EXPECT_THAT(run({"ledger", "--zone", "Europe/Berlin"}).out,
              HasSubstr("it was last switched on at 2024-07-01 13:00:00 CEST.\n"));
  EXPECT_EQ(
      parsed(run({"ledger", "--json", "--zone", "Europe/Berlin"}).out)["switched_on"].asString(),
      "2024-07-01T11:00:00Z");
}

TEST_F(AccountTest, KeepsTheLedgerAsItIsAfterAWrongSetting) {
  const std::string before =
      database.value("SELECT kodu_ledger_state::text FROM kodu_ledger_state");
  EXPECT_EQ(runAsAdmin({"ledger", "keep", "0"}).exitCode, 64);
  EXPECT_EQ(runAsAdmin({"ledger", "on", "7"}).exitCode, 64);
  EXPECT_EQ(run({"ledger", "keep", "7"}).exitCode, 77);
  EXPECT_EQ(database.value("SELECT kodu_ledger_state::text FROM kodu_ledger_state"), before);
}

}  // namespace
