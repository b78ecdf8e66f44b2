#include "ctl/session/call.h"

#include <memory>
#include <string>
#include <vector>

#include "ctl/failure.h"
#include "ctl/options.h"
#include "tests/ctl/CtlTest.h"
#include "tests/support/Variable.h"

namespace {

using testing::HasSubstr;

/// Calls of a function that prints its arguments.
class CallTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    database.query(
        "CREATE FUNCTION kodu_example(a text DEFAULT 'none', n integer DEFAULT -1,"
        " d interval DEFAULT '1 day') RETURNS text LANGUAGE sql AS $$SELECT concat_ws('|', a, n, d)"
        "$$; REVOKE EXECUTE ON FUNCTION kodu_example FROM public;"
        " GRANT EXECUTE ON FUNCTION kodu_example TO kodu_admin");
    Options options;
    options.configFile = daemon.mainConfig();
    daemonsSession = std::make_unique<Session>(options);
    options.user = admin();
    const Variable password("PGPASSWORD", "secret");
    session = std::make_unique<Session>(options);
  }
  std::string resultOf(const Call& call) const { return call.run(*session).text(0, "result"); }

  static void expectFailure(const Call& call, Session& session, ExitCode code,
                            const std::string& text) {
    try {
      call.run(session);
      ADD_FAILURE() << "called, instead of: " << text;
    } catch (const Failure& e) {
      EXPECT_EQ(e.exitCode, code);
      EXPECT_THAT(e.what(), HasSubstr(text));
    }
  }

  std::unique_ptr<Session> session, daemonsSession;
};

TEST_F(CallTest, LeavesMissingArgumentsToTheFunction) {
  EXPECT_EQ(resultOf(Call("kodu_example")), "none|-1|1 day");
  EXPECT_EQ(resultOf(Call("kodu_example").with("a", "text", std::nullopt).with("n", std::nullopt)),
            "none|-1|1 day");
}

TEST_F(CallTest, PassesArgumentsByTheirNames) {
  EXPECT_EQ(resultOf(Call("kodu_example").with("n", 7)), "none|7|1 day");
  EXPECT_EQ(resultOf(Call("kodu_example").with("d", "interval", "90s").with("a", "text", "x")),
            "x|-1|00:01:30");
  EXPECT_EQ(resultOf(Call("kodu_example").with("a", "text", "")), "|-1|1 day");
}

TEST_F(CallTest, PassesNoArgumentAsPartOfTheStatement) {
  const std::string text = "'); DROP TABLE kodu_plugins; --";
  EXPECT_EQ(resultOf(Call("kodu_example").with("a", "text", text)), text + "|-1|1 day");
}

TEST_F(CallTest, ReturnsEveryRowOfATable) {
  database.query(
      "CREATE FUNCTION kodu_rows(n int) RETURNS TABLE (i int) LANGUAGE sql AS"
      " 'SELECT * FROM generate_series(1, n)'");
  const Rows rows = Call("kodu_rows").with("n", 3).run(*session);
  ASSERT_EQ(rows.count(), 3);
  EXPECT_EQ(rows.number(2, "i"), 3);
}

TEST_F(CallTest, ReportsAMissingRight) {
  expectFailure(Call("kodu_example"), *daemonsSession, kNotPermitted,
                "role kodu may not do this: connect as a member of kodu_admin with --user ROLE");
}

TEST_F(CallTest, ReportsAMissingFunction) {
  expectFailure(Call("kodu_nothing"), *session, kRefused,
                "the database has no function kodu_nothing: load sql/functions.sql as its owner");
  database.query(
      "CREATE SCHEMA other; CREATE FUNCTION other.kodu_nothing() RETURNS int"
      " LANGUAGE sql AS 'SELECT 1'");
  expectFailure(Call("kodu_nothing"), *session, kRefused, "the database has no function");
}

TEST_F(CallTest, ReportsTheErrorOfTheFunction) {
  database.query(
      "CREATE FUNCTION kodu_fails() RETURNS int LANGUAGE plpgsql AS"
      " $$BEGIN RAISE EXCEPTION 'no such thing' USING HINT = 'try another'; END$$");
  expectFailure(Call("kodu_fails"), *session, kRefused, "no such thing\nhint: try another");
}

TEST_F(CallTest, ReportsAValueOfAnotherType) {
  expectFailure(Call("kodu_example").with("d", "interval", "soon"), *session, kRefused,
                "invalid input syntax for type interval: \"soon\"");
}

}  // namespace
