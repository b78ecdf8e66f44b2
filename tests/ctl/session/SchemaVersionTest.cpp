#include "ctl/session/schemaVersion.h"

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/schemaSql.h"
#include "ctl/session/session.h"
#include "tests/ctl/CtlTest.h"

namespace {

using testing::HasSubstr;
using testing::Not;

struct StateCase {
  const char* name;
  SchemaState state;
  bool isBehind, isNewer;
};

TEST(SchemaStateTest, ComparesTheVersions) {
  const int known = knownSchemaVersion();
  for (const StateCase& test :
       {StateCase{"current", {true, true, known}, false, false},
        StateCase{"the first release", {true, true, 0}, true, false},
        StateCase{"one behind", {true, true, known - 1}, true, false},
        StateCase{"one ahead", {true, true, known + 1}, false, true},
        StateCase{"no tables", {false, true, 0}, false, false},
        StateCase{"a version that the role may not read", {true, false, 0}, false, false}}) {
    EXPECT_EQ(test.state.isBehind(), test.isBehind) << test.name;
    EXPECT_EQ(test.state.isNewer(), test.isNewer) << test.name;
  }
}

TEST(SchemaStateTest, IsRefusedOnlyWhenItIsNewer) {
  const int known = knownSchemaVersion();
  refuseNewerSchema({true, true, 0});
  refuseNewerSchema({true, true, known});
  refuseNewerSchema({false, true, 0});
  try {
    refuseNewerSchema({true, true, known + 1});
    ADD_FAILURE() << "was accepted";
  } catch (const Failure& e) {
    EXPECT_EQ(e.exitCode, kRefused);
    EXPECT_EQ(e.what(), "the database's tables have version " + std::to_string(known + 1) +
                            ", but this koductl knows only version " + std::to_string(known) +
                            ": install the koductl of the newer release");
  }
}

TEST(SchemaStateTest, NamesTheCommandThatUpgrades) {
  EXPECT_EQ(upgradeAdvice({true, true, 0}),
            "the database's tables have version 0, but this koductl requires version " +
                std::to_string(knownSchemaVersion()) + ": run koductl --user OWNER schema upgrade");
}

TEST(MigrationsTest, AreNumberedFromOne) {
  int version = 0;
  for (const Migration& migration : migrations()) {
    EXPECT_EQ(migration.version, ++version) << migration.title;
    EXPECT_NE(std::string_view(migration.title), "") << version;
    EXPECT_NE(std::string_view(migration.sql), "") << version;
  }
  EXPECT_EQ(knownSchemaVersion(), version);
}

TEST(MigrationsTest, AreTheFilesOfTheProject) {
  std::vector<std::string> files;
  for (const std::string& name : filesIn(projectFile("sql/migrations"))) {
    if (name.front() == '0') {
      files.push_back(name);
    }
  }
  ASSERT_EQ(files.size(), migrations().size());
  for (std::size_t i = 0; i < files.size(); ++i) {
    const Migration& migration = migrations()[i];
    std::string title = files[i].substr(5, files[i].size() - 9);
    std::replace(title.begin(), title.end(), '-', ' ');
    EXPECT_EQ(std::stoi(files[i]), migration.version);
    EXPECT_EQ(title, migration.title);
    EXPECT_THAT(readFile(projectFile("sql/migrations/" + files[i])), HasSubstr(migration.sql));
  }
}

/// The upgrade runs everything in one transaction of its own.
TEST(SchemaSqlTest, ControlsNoTransaction) {
  std::vector<std::string> texts = {schemaSql, functionsSql, beforeSql, afterSql};
  for (const Migration& migration : migrations()) {
    texts.emplace_back(migration.sql);
  }
  for (const std::string& text : texts) {
    EXPECT_NE(text, "");
    for (const char* statement : {"\nBEGIN;", "\nCOMMIT;", "\nROLLBACK;"}) {
      EXPECT_THAT("\n" + text, Not(HasSubstr(statement)));
    }
  }
}

/// The state of a database's tables.
class ReadSchemaStateTest : public CtlTest {
 protected:
  SchemaState read() const {
    Options options;
    options.configFile = daemon.mainConfig();
    Session session(options, SchemaRule::kAnyVersion);
    return readSchemaState(session);
  }
};

TEST_F(ReadSchemaStateTest, IsCurrentInAFreshDatabase) {
  const SchemaState state = read();
  EXPECT_TRUE(state.tablesExist);
  EXPECT_TRUE(state.isReadable);
  EXPECT_EQ(state.version, knownSchemaVersion());
}

TEST_F(ReadSchemaStateTest, HasTheLatestVersion) {
  database.query("INSERT INTO kodu_schema_version VALUES (99, 'later'), (98, 'earlier')");
  EXPECT_EQ(read().version, 99);
}

TEST_F(ReadSchemaStateTest, HasVersionZeroWithoutARecord) {
  database.query("DELETE FROM kodu_schema_version");
  EXPECT_EQ(read().version, 0);
  database.query("DROP TABLE kodu_schema_version CASCADE");
  const SchemaState state = read();
  EXPECT_EQ(state.version, 0);
  EXPECT_TRUE(state.tablesExist);
}

TEST_F(ReadSchemaStateTest, HasNoTablesInAnotherDatabase) {
  database.query(
      "SET client_min_messages = warning; DROP SCHEMA public CASCADE; CREATE SCHEMA public");
  database.query("GRANT USAGE ON SCHEMA public TO kodu");
  EXPECT_FALSE(read().tablesExist);
}

TEST_F(ReadSchemaStateTest, CountsAnUnreadableVersionAsKnown) {
  database.query("REVOKE SELECT ON kodu_schema_version FROM kodu, public");
  const SchemaState state = read();
  EXPECT_FALSE(state.isReadable);
  EXPECT_FALSE(state.isBehind());
  EXPECT_FALSE(state.isNewer());
}

TEST_F(ReadSchemaStateTest, IsCheckedByEachSession) {
  database.query("INSERT INTO kodu_schema_version VALUES (99, 'later')");
  Options options;
  options.configFile = daemon.mainConfig();
  EXPECT_THROW(Session{options}, Failure);
  EXPECT_NO_THROW(Session(options, SchemaRule::kAnyVersion));
}

}  // namespace
