#include <string>
#include <vector>

#include "ctl/session/schemaSql.h"
#include "ctl/session/schemaVersion.h"
#include "tests/ctl/CtlTest.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

using Words = std::vector<std::string>;

/// koductl schema where the tables need no upgrade; UpgradeTest has those that do.
class SchemaCommandTest : public CtlTest {
 protected:
  void expectFailure(const Words& command, int exitCode, const std::string& text) const {
    const CtlResult result = run(command);
    EXPECT_EQ(result.exitCode, exitCode) << testing::PrintToString(command) << result.out;
    EXPECT_THAT(result.err, StartsWith("koductl: ")) << testing::PrintToString(command);
    EXPECT_THAT(result.err, HasSubstr(text)) << testing::PrintToString(command);
    EXPECT_EQ(result.out, "");
  }
};

TEST_F(SchemaCommandTest, ListsTheMigrationsOfAFreshDatabase) {
  const CtlResult result = run({"schema"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  const std::string version = std::to_string(knownSchemaVersion());
  EXPECT_THAT(result.out, StartsWith("VERSION  TITLE "));
  EXPECT_THAT(result.out, HasSubstr(migrations().back().title));
  EXPECT_THAT(result.out,
              testing::EndsWith("\n\nThe database has version " + version +
                                ", this koductl knows version " + version + ": current.\n"));
}

TEST_F(SchemaCommandTest, PrintsTheStateAsJson) {
  const Json::Value json = parsed(run({"schema", "--json"}).out);
  EXPECT_EQ(json["state"].asString(), "current");
  EXPECT_EQ(json["version"].asInt(), knownSchemaVersion());
  EXPECT_EQ(json["known_version"].asInt(), knownSchemaVersion());
  const Json::Value& last = json["migrations"][json["migrations"].size() - 1];
  EXPECT_EQ(last["version"].asInt(), knownSchemaVersion());
  EXPECT_EQ(last["applied_by"].asString(), "postgres");
  EXPECT_THAT(last["applied_at"].asString(), MatchesRegex("....-..-..T.*Z"));
}

TEST_F(SchemaCommandTest, ShowsTablesOfALaterRelease) {
  database.query("INSERT INTO kodu_schema_version VALUES (99, E'to\\x1bcome')");
  const CtlResult result = run({"schema"});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_THAT(result.out, HasSubstr("     99  to?come "));
  EXPECT_THAT(result.out, HasSubstr("The database has version 99, this koductl knows version "));
  EXPECT_EQ(parsed(run({"schema", "--json"}).out)["state"].asString(), "newer");
}

TEST_F(SchemaCommandTest, ReportsADatabaseWithoutTables) {
  database.query(
      "SET client_min_messages = warning; DROP SCHEMA public CASCADE; CREATE SCHEMA public;"
      "GRANT USAGE ON SCHEMA public TO kodu");
  expectFailure({"schema"}, 66,
                "this database has no tables of koducron: load sql/schema.sql as its owner");
  expectFailure({"schema", "upgrade"}, 65, "");
}

TEST_F(SchemaCommandTest, ReportsARoleThatMayNotReadTheVersion) {
  database.query("REVOKE SELECT ON kodu_schema_version FROM kodu, public");
  expectFailure({"schema"}, 77, "this role may not read kodu_schema_version: use --user OWNER");
}

TEST_F(SchemaCommandTest, RefusesAnUpgradeByTheDaemonsRole) {
  database.query("DELETE FROM kodu_schema_version");
  expectFailure({"schema", "upgrade"}, 77, "");
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_schema_version"), "0");
}

TEST_F(SchemaCommandTest, RefusesAWrongCommandLine) {
  for (const Words& command : {Words{"schema", "downgrade"},
                               {"schema", "upgrade", "upgrade"},
                               {"schema", "--wait", "soon"},
                               {"schema", "--wait", "86401"},
                               {"schema", "--connect"},
                               {"schema", "--", "x"}}) {
    expectFailure(command, 64, "koductl schema --help");
  }
}

TEST_F(SchemaCommandTest, ReportsAConnectionStringThatLeadsNowhere) {
  expectFailure({"schema", "--connect", "nonsense"}, 64, "--connect: ");
  expectFailure({"schema", "--connect", "host=127.0.0.1 port=1"}, 69,
                "check that the server is running, and check the value of --connect");
  expectFailure({"schema", "--connect", "postgresql://127.0.0.1:1/x"}, 69, "Connection refused");
}

TEST_F(SchemaCommandTest, NeedsNoIniFileWithAConnectionString) {
  const std::string place = database.adminConninfo();
  const CtlResult result = runWith({"schema", "-f", "/nowhere/cron.conf", "--connect", place});
  EXPECT_EQ(result.exitCode, 0) << result.err;
}

}  // namespace
