#include "ctl/session/transaction.h"

#include <memory>
#include <stdexcept>
#include <string>

#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "tests/ctl/CtlTest.h"

namespace {

class TransactionTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    database.query("CREATE TABLE note (text text); GRANT ALL ON note TO kodu");
    Options options;
    options.configFile = daemon.mainConfig();
    session = std::make_unique<Session>(options);
  }
  std::string notes() const {
    return database.value("SELECT coalesce(string_agg(text, ' '), '') FROM note");
  }
  void write(const std::string& text) const {
    session->query("INSERT INTO note VALUES ($1)", {text});
  }

  std::unique_ptr<Session> session;
};

TEST_F(TransactionTest, IsKeptOnceItIsCommitted) {
  {
    Transaction transaction(*session, "");
    write("a");
    EXPECT_EQ(notes(), "") << "no other session sees it yet";
    transaction.commit();
    EXPECT_EQ(notes(), "a");
  }
  write("b");
  EXPECT_EQ(notes(), "a b") << "the session is no longer in a transaction";
}

TEST_F(TransactionTest, IsRolledBackUnlessItIsCommitted) {
  {
    const Transaction transaction(*session, "");
    write("a");
  }
  EXPECT_EQ(notes(), "");
  write("b");
  EXPECT_EQ(notes(), "b");
}

TEST_F(TransactionTest, IsRolledBackByAnException) {
  EXPECT_THROW(
      {
        const Transaction transaction(*session, "");
        write("a");
        throw std::runtime_error("stop");
      },
      std::runtime_error);
  write("b");
  EXPECT_EQ(notes(), "b");
}

TEST_F(TransactionTest, IsRolledBackAfterAStatementThatFailed) {
  {
    Transaction transaction(*session, "");
    write("a");
    EXPECT_THROW(session->query("SELECT 1 / 0"), Failure);
    EXPECT_THROW(session->query("SELECT 1"), Failure) << "it is aborted";
  }
  EXPECT_EQ(session->query("SELECT 1 AS one").number(0, "one"), 1);
  EXPECT_EQ(notes(), "");
}

TEST_F(TransactionTest, HasSettingsThatEndWithIt) {
  const auto timeout = [&] { return session->query("SHOW lock_timeout").text(0, "lock_timeout"); };
  const std::string before = timeout();
  {
    const Transaction transaction(*session, "SET LOCAL lock_timeout = '77s'");
    EXPECT_EQ(timeout(), "77s");
  }
  EXPECT_EQ(timeout(), before);
}

TEST_F(TransactionTest, FailsToCommitWhatADeferredCheckRefuses) {
  database.query(
      "CREATE TABLE parent (id int PRIMARY KEY);"
      "CREATE TABLE child (id int REFERENCES parent DEFERRABLE INITIALLY DEFERRED);"
      "GRANT ALL ON parent, child TO kodu");
  {
    Transaction transaction(*session, "");
    session->query("INSERT INTO child VALUES (7)");
    EXPECT_THROW(transaction.commit(), Failure);
  }
  EXPECT_EQ(database.value("SELECT count(*) FROM child"), "0");
  EXPECT_EQ(session->query("SELECT 1 AS one").number(0, "one"), 1);
}

TEST_F(TransactionTest, ToleratesThatItsSessionIsLost) {
  {
    const Transaction transaction(*session, "");
    write("a");
    database.query(
        "SELECT pg_terminate_backend(pid) FROM pg_stat_activity"
        " WHERE application_name = 'kodu_ctl' AND datname = current_database()");
    EXPECT_THROW(session->query("SELECT 1"), Failure);
  }
  EXPECT_EQ(notes(), "");
}

}  // namespace
