#include "ctl/session/config.h"

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/globals.h"
#include "ctl/failure.h"
#include "tests/support/Files.h"
#include "tests/support/OtherUser.h"
#include "tests/support/Variable.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

const char* const kOwnSettings = "application_name=kodu_ctl connect_timeout=10";

/// A pair of INI files, which a test may change.
class ConfigTest : public testing::Test {
 protected:
  ConfigTest() {
    writeMain(
        "[LOG]\nlog_file=/var/log/cron.log\nlog_path_task=/var/out\n[CRON]\nthread_number=7\n"
        "kodu_conf_file=" +
        databaseFile() + "\n");
    writeFile(databaseFile(),
              "[POSTGRESQL]\nPGSQL_host=db.example\nPGSQL_port=5433\nPGSQL_db=tasks\n"
              "PGSQL_username=cron\nPGSQL_pwd=se cret\n");
  }
  std::string mainFile() const { return directory / "cron.conf"; }
  std::string databaseFile() const { return directory / "database.conf"; }
  void writeMain(const std::string& content) const { writeFile(mainFile(), content); }
  DaemonConfig read(const std::string& user = "") const { return readConfig(mainFile(), user); }

  void expectFailure(ExitCode code, const std::string& reason, const std::string& user = "") const {
    try {
      read(user);
      ADD_FAILURE() << "read, instead of: " << reason;
    } catch (const Failure& e) {
      EXPECT_EQ(e.exitCode, code) << e.what();
      EXPECT_THAT(e.what(), HasSubstr(reason));
    }
  }

  TempDir directory;
  // The environment must not decide the result of a test.
  const Variable noDatabase{"PGDATABASE", nullptr};
  const Variable noService{"PGSERVICE", nullptr};
};

TEST_F(ConfigTest, ReadsBothFiles) {
  const DaemonConfig config = read();
  EXPECT_EQ(config.mainFile, mainFile());
  EXPECT_EQ(config.logFile, "/var/log/cron.log");
  EXPECT_EQ(config.outputDirectory, "/var/out");
  EXPECT_EQ(config.threadNumber, "7");
  EXPECT_EQ(config.databaseFile, databaseFile());
  EXPECT_TRUE(config.isDatabaseFileRead);
  EXPECT_EQ(config.host, "db.example");
  EXPECT_EQ(config.port, "5433");
  EXPECT_EQ(config.database, "tasks");
  EXPECT_EQ(config.user, "cron");
  EXPECT_EQ(config.password, "se cret");
}

TEST_F(ConfigTest, KeepsValuesAsTheyAreWritten) {
  writeMain("[LOG]\nlog_file= /a b \n[CRON]\nthread_number=two\nkodu_conf_file=" + databaseFile() +
            "\n");
  EXPECT_EQ(read().logFile, " /a b ");
  EXPECT_EQ(read().threadNumber, "two");
}

TEST_F(ConfigTest, HasTheDaemonsDefaultForTheOutputDirectory) {
  for (const std::string line : {"", "log_path_task=\n"}) {
    writeMain("[LOG]\n" + line + "[CRON]\nkodu_conf_file=" + databaseFile() + "\n");
    EXPECT_EQ(read().outputDirectory + "/", log_directory) << line;
  }
}

TEST_F(ConfigTest, RemovesSlashesAtTheEndOfTheOutputDirectory) {
  const std::vector<std::pair<std::string, std::string>> cases = {{"/var/out/", "/var/out"},
                                                                  {"/var/out///", "/var/out"},
                                                                  {"/var//out", "/var//out"},
                                                                  {"out/", "out"},
                                                                  {"/", "/"},
                                                                  {"//", "/"}};
  for (const auto& [written, directoryRead] : cases) {
    writeMain("[LOG]\nlog_path_task=" + written + "\n[CRON]\nkodu_conf_file=" + databaseFile() +
              "\n");
    EXPECT_EQ(read().outputDirectory, directoryRead);
  }
}

TEST_F(ConfigTest, HasEmptyValuesForMissingKeys) {
  writeFile(databaseFile(), "[POSTGRESQL]\nPGSQL_host=h\n");
  const DaemonConfig config = read();
  EXPECT_EQ(config.host, "h");
  EXPECT_EQ(config.port + config.database + config.user + config.password, "");
}

TEST_F(ConfigTest, ReportsAMainFileThatCannotBeRead) {
  const std::string advice = "; name the daemon's main INI file with -f";
  unlink(mainFile().c_str());
  expectFailure(kWrongConfig, "cannot read " + mainFile() + ": No such file or directory" + advice);
  ASSERT_EQ(mkfifo(mainFile().c_str(), 0666), 0);
  expectFailure(kWrongConfig, "cannot read " + mainFile() + ": it is a FIFO" + advice);
}

TEST_F(ConfigTest, ReportsAMainFileWithoutADatabaseFile) {
  for (const char* content : {"", "[CRON]\n", "[CRON]\nkodu_conf_file=\n",
                              "[LOG]\nkodu_conf_file=/x\n", "kodu_conf_file=/x\n"}) {
    writeMain(content);
    expectFailure(kWrongConfig, mainFile() +
                                    " names no database file: write kodu_conf_file=PATH "
                                    "into its section [CRON]");
  }
}

TEST_F(ConfigTest, ReportsADatabaseFileThatCannotBeRead) {
  unlink(databaseFile().c_str());
  expectFailure(kWrongConfig, "cannot read " + databaseFile() +
                                  ": No such file or directory; kodu_conf_file in " + mainFile() +
                                  " names it");
  // A missing file is no question of rights, so a role of one's own does not help.
  expectFailure(kWrongConfig, "No such file or directory", "alice");
  ASSERT_EQ(mkfifo(databaseFile().c_str(), 0666), 0);
  expectFailure(kWrongConfig, ": it is a FIFO; ");
}

/// A user who may not read the daemon's password.
class OtherUsersConfigTest : public ConfigTest {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "only root can become another user";
    }
    chmod(directory.path().c_str(), 0755);
    chmod(databaseFile().c_str(), 0600);
  }
};

TEST_F(OtherUsersConfigTest, NeedTheDatabaseInTheEnvironment) {
  const OtherUser nobody("nobody");
  expectFailure(kNotPermitted, "Permission denied; kodu_conf_file in " + mainFile());
  const std::string advice =
      "cannot read " + databaseFile() + ": Permission denied; with --user, name the database";
  expectFailure(kNotPermitted, advice, "alice");
  const Variable empty("PGDATABASE", "");
  expectFailure(kNotPermitted, advice, "alice");
}

TEST_F(OtherUsersConfigTest, ReadTheOtherFile) {
  const OtherUser nobody("nobody");
  for (const char* variable : {"PGDATABASE", "PGSERVICE"}) {
    const Variable place(variable, "tasks");
    const DaemonConfig config = read("alice");
    EXPECT_FALSE(config.isDatabaseFileRead);
    EXPECT_EQ(config.user, "kodu") << "the role that the schema creates";
    EXPECT_EQ(config.host + config.port + config.database + config.password, "");
    EXPECT_EQ(config.outputDirectory, "/var/out");
  }
}

TEST_F(OtherUsersConfigTest, CannotReadALockedMainFile) {
  chmod(mainFile().c_str(), 0600);
  const OtherUser nobody("nobody");
  expectFailure(kNotPermitted, "cannot read " + mainFile() + ": Permission denied; name the");
}

TEST_F(ConfigTest, ConnectsAsTheDaemonsRole) {
  EXPECT_EQ(connectionString(read(), ""),
            std::string(kOwnSettings) +
                " host=db.example port=5433 dbname=tasks user=cron password=se cret")
      << "unquoted, as in the daemon";
}

TEST_F(ConfigTest, ConnectsAsAnotherRoleWithoutThePassword) {
  EXPECT_EQ(connectionString(read(), "alice"),
            std::string(kOwnSettings) + " host=db.example port=5433 dbname=tasks user='alice'");
}

TEST_F(ConfigTest, LetsTheFileAddSettings) {
  writeFile(databaseFile(),
            "[POSTGRESQL]\nPGSQL_host=h connect_timeout=3\nPGSQL_port=1\n"
            "PGSQL_db=d\nPGSQL_username=u\nPGSQL_pwd=p\n");
  EXPECT_THAT(connectionString(read(), ""),
              StartsWith(std::string(kOwnSettings) + " host=h connect_timeout=3 port=1 "));
}

TEST_F(ConfigTest, NamesOnlyTheRoleWhenTheDatabaseIsInTheEnvironment) {
  DaemonConfig config;
  config.isDatabaseFileRead = false;
  config.user = "kodu";
  EXPECT_EQ(connectionString(config, "alice"), std::string(kOwnSettings) + " user='alice'");
}

TEST_F(ConfigTest, QuotesTheNameOfARole) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"two words", "'two words'"},
      {"o'neill", "'o\\'neill'"},
      {"back\\slash", "'back\\\\slash'"},
      {"x dbname=other", "'x dbname=other'"}};
  for (const auto& [role, quoted] : cases) {
    EXPECT_THAT(connectionString(read(), role), EndsWith(" user=" + quoted));
  }
}

TEST(ConnectionStringTest, AcceptsSettingsAndUris) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", ""},
      {"dbname=tasks", " dbname='tasks'"},
      {"host=h port=1", " host='h' port='1'"},
      {"port=1 host=h", " host='h' port='1'"},  // in libpq's order
      {"dbname='two words'", " dbname='two words'"},
      {"user=o\\'neill", " user='o\\'neill'"},
      {"postgresql://alice@h:5433/tasks", " user='alice' dbname='tasks' host='h' port='5433'"},
      {"postgresql:///tasks?host=/run/x", " dbname='tasks' host='/run/x'"},
      {"postgresql://h/a%20b", " dbname='a b' host='h'"},
  };
  for (const auto& [given, settings] : cases) {
    EXPECT_EQ(connectionString(given), kOwnSettings + settings) << given;
  }
}

TEST(ConnectionStringTest, LetsASettingReplaceItsOwn) {
  EXPECT_THAT(
      connectionString("application_name=mine connect_timeout=2"),
      StartsWith(std::string(kOwnSettings) + " connect_timeout='2' application_name='mine'"));
}

TEST(ConnectionStringTest, RefusesWhatLibpqCannotRead) {
  for (const char* wrong : {"tasks", "unknown=1", "dbname", "dbname='open", "postgresql://[::1",
                            "postgresql://h:/%zz"}) {
    try {
      connectionString(wrong);
      ADD_FAILURE() << wrong;
    } catch (const Failure& e) {
      EXPECT_EQ(e.exitCode, kWrongUsage) << wrong;
      EXPECT_THAT(e.what(), StartsWith("--connect: ")) << wrong;
      EXPECT_THAT(e.what(), testing::Not(HasSubstr("\n"))) << wrong;
    }
  }
}

}  // namespace
