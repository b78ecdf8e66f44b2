#include "ctl/task/ledger.h"

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "tests/ctl/CtlTest.h"

namespace {

using testing::HasSubstr;

LedgerRow rowOf(const std::string& outcome, long attempt = 1) {
  LedgerRow row;
  row.outcome = outcome;
  row.attempt = attempt;
  return row;
}

TEST(OutcomeTextTest, NamesTheAttemptOfARetriedRun) {
  EXPECT_EQ(outcomeText(rowOf("ok")), "ok");
  EXPECT_EQ(outcomeText(rowOf("failed", 3)), "failed, attempt 3");
  EXPECT_EQ(outcomeText(rowOf("interrupted")), "interrupted");
  EXPECT_EQ(outcomeText(rowOf("retried", 1)), "retried");
}

TEST(OutcomeTextTest, CountsTheSkippedPeriods) {
  LedgerRow row = rowOf("skipped");
  row.periods = 12;
  row.reason = "daemon";
  EXPECT_EQ(outcomeText(row), "12 skipped: daemon");
}

TEST(WhySkippedTest, ShowsAReasonOfALaterReleaseAsItIs) {
  EXPECT_EQ(whySkipped("eclipse"), "eclipse");
}

/// What koductl reads of the ledger.
class LedgerReadingTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    Options options;
    options.configFile = daemon.mainConfig();
    session = std::make_unique<Session>(options);
  }

  std::unique_ptr<Session> session;
};

TEST_F(LedgerReadingTest, HasASentenceForEachReasonOfTheView) {
  const std::string definition =
      database.value("SELECT prosrc FROM pg_proc WHERE proname = 'kodu_ledger_word'");
  std::set<std::string> sentences;
  for (const std::string reason : {"overrun", "late", "interrupted", "daemon", "database", "reload",
                                   "paused", "changed", "moved", "maintenance", "unrecorded"}) {
    EXPECT_THAT(definition, HasSubstr("'" + reason + "'"));
    EXPECT_NE(whySkipped(reason), reason);
    sentences.insert(whySkipped(reason));
  }
  EXPECT_EQ(sentences.size(), 11U);
}

TEST_F(LedgerReadingTest, IsEmptyForATaskThatHasNotRun) {
  EXPECT_TRUE(hasLedger(*session));
  EXPECT_NO_THROW(requireLedger(*session));
  EXPECT_TRUE(readLedger(*session, 99, 10).empty());
  EXPECT_FALSE(readLastSkip(*session, 99).has_value());
}

TEST_F(LedgerReadingTest, HasTheRunsOfADaemonTheLatestFirst) {
  database.insertTask(makeTask(1, "echo bad; exit 2"));
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForStatus(1, "FAILED"));
  const std::vector<LedgerRow> rows = readLedger(*session, 1, 10);
  ASSERT_FALSE(rows.empty());
  EXPECT_EQ(rows.front().outcome, "failed");
  EXPECT_EQ(rows.front().attempt, 1);
  EXPECT_EQ(rows.front().failure, 1) << "its number among the failed runs";
  ASSERT_TRUE(rows.front().started);
  EXPECT_LE(rows.front().due, *rows.front().started);
  EXPECT_LE(*rows.front().started, rows.front().ended);
  EXPECT_THAT(rows.front().seconds.value_or(""), testing::MatchesRegex("[0-9]+\\.[0-9]"));
  EXPECT_TRUE(readLedger(*session, 1, 0).empty());
}

TEST_F(LedgerReadingTest, IsRefusedWithoutARightToReadIt) {
  database.query("REVOKE SELECT ON kodu_run FROM PUBLIC, kodu, kodu_admin");
  EXPECT_FALSE(hasLedger(*session));
  EXPECT_TRUE(readLedger(*session, 1, 10).empty());
  EXPECT_FALSE(readLastSkip(*session, 1).has_value());
  try {
    requireLedger(*session);
    ADD_FAILURE() << "not refused";
  } catch (const Failure& e) {
    EXPECT_EQ(e.exitCode, kRefused);
    EXPECT_THAT(e.what(), HasSubstr("load sql/ledger.sql as the owner of the tables"));
  }
}

}  // namespace
