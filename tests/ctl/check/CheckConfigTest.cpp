#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/check/checks.h"
#include "ctl/check/findings.h"
#include "ctl/daemon/daemonProcess.h"
#include "ctl/session/config.h"
#include "tests/support/Files.h"

namespace {

namespace fs = std::filesystem;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

/// checkConfig on a valid pair of INI files, in which a test replaces something.
class CheckConfigTest : public testing::Test {
 protected:
  CheckConfigTest() {
    fs::create_directories(output());
    mainContent = "[LOG]\nlog_file=" + log() + "\nlog_path_task=" + output() +
                  "\n[CRON]\nthread_number=2\nkodu_conf_file=" + databaseFile() + "\n";
    databaseContent =
        "[POSTGRESQL]\nPGSQL_host=h\nPGSQL_port=1\nPGSQL_db=d\nPGSQL_username=u\nPGSQL_pwd=p\n";
  }
  std::string log() const { return directory / "cron.log"; }
  std::string output() const { return directory / "output"; }
  std::string mainFile() const { return directory / "cron.conf"; }
  std::string databaseFile() const { return directory / "database.conf"; }

  static void replace(std::string& content, const std::string& old, const std::string& text) {
    ASSERT_NE(content.find(old), std::string::npos) << old;
    content.replace(content.find(old), old.size(), text);
  }

  /// Each finding as "error: TEXT" or "warning: TEXT".
  std::vector<std::string> check(bool isDatabaseFileRead = true, mode_t mode = 0600) const {
    writeFile(mainFile(), mainContent);
    writeFile(databaseFile(), databaseContent);
    chmod(databaseFile().c_str(), mode);
    DaemonConfig config = readConfig(mainFile(), "");
    config.isDatabaseFileRead = isDatabaseFileRead;
    DaemonIdentity identity;
    identity.uid = geteuid();
    Findings findings;
    checkConfig(config, identity, findings);
    std::vector<std::string> texts;
    for (const Json::Value& finding : findings.toJson()) {
      texts.push_back(finding["severity"].asString() + ": " + finding["text"].asString());
    }
    return texts;
  }
  std::string userName() const {
    DaemonIdentity identity;
    identity.uid = geteuid();
    return identity.userName();
  }

  TempDir directory;
  std::string mainContent, databaseContent;  // the contents of the files
};

TEST_F(CheckConfigTest, FindsNothingInValidFiles) {
  EXPECT_THAT(check(), IsEmpty());
}

TEST_F(CheckConfigTest, FindsEachKeyThatIsMissingOrEmpty) {
  const std::vector<std::pair<std::string, std::string>> mainKeys = {
      {"log_file=" + log(), "log_file in [LOG]"}, {"thread_number=2", "thread_number in [CRON]"}};
  const std::string valid = mainContent;
  for (const auto& [line, key] : mainKeys) {
    for (const std::string& text : {std::string(), line.substr(0, line.find('=') + 1)}) {
      mainContent = valid;
      replace(mainContent, line, text);
      EXPECT_THAT(check(), Contains("error: " + mainFile() + ": " + key + " is missing or empty"))
          << "'" << text << "'";
    }
  }
  mainContent = valid;
  const std::string validDatabaseContent = databaseContent;
  for (const std::string line :
       {"PGSQL_host=h", "PGSQL_port=1", "PGSQL_db=d", "PGSQL_username=u"}) {
    const std::string key = line.substr(0, line.find('='));
    for (const std::string& text : {std::string(), key + "="}) {
      databaseContent = validDatabaseContent;
      replace(databaseContent, line, text);
      EXPECT_THAT(check(), ElementsAre("error: " + databaseFile() + ": " + key +
                                       " in [POSTGRESQL] is missing or empty"));
    }
  }
}

TEST_F(CheckConfigTest, AcceptsMissingKeysThatHaveADefault) {
  replace(databaseContent, "PGSQL_pwd=p\n", "");
  EXPECT_THAT(check(), IsEmpty()) << "the password may come from elsewhere";
}

TEST_F(CheckConfigTest, WarnsOfWhiteSpaceAroundAValue) {
  const std::string valid = databaseContent;
  for (const char* line : {"PGSQL_db= d", "PGSQL_db=d ", "PGSQL_db=\td", "PGSQL_db=d\r"}) {
    databaseContent = valid;
    replace(databaseContent, "PGSQL_db=d", line);
    EXPECT_THAT(check(), ElementsAre("warning: " + databaseFile() +
                                     ": PGSQL_db in [POSTGRESQL] has leading or trailing white "
                                     "space, which is part of the value"))
        << line;
  }
}

TEST_F(CheckConfigTest, WarnsOfAKeyThatIsReadFromAnotherLine) {
  replace(databaseContent, "PGSQL_db=d", "old_PGSQL_db=x\nPGSQL_db=d");
  EXPECT_THAT(check(), ElementsAre("warning: " + databaseFile() +
                                   ": PGSQL_db in [POSTGRESQL] is taken from an earlier line that "
                                   "contains its name: move that line down"));
  replace(databaseContent, "old_PGSQL_db=x", "old_PGSQL_db=d");
  EXPECT_THAT(check(), IsEmpty()) << "both lines have the same value";
}

TEST_F(CheckConfigTest, FindsThreadNumbersThatStartNoWorker) {
  const std::string where = mainFile() + ": thread_number";
  const std::string none =
      "error: " + where + " starts no worker, so no task runs: set it to 1 or more";
  const std::string invalid = "error: " + where + " is not a number: the daemon ends at startup";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"1", ""},    {"200", ""},      {" 3", ""},      {"2 workers", ""},       {"0", none},
      {"-1", none}, {"two", invalid}, {"x2", invalid}, {"2147483648", invalid}, {"-", invalid}};
  const std::string valid = mainContent;
  for (const auto& [value, finding] : cases) {
    mainContent = valid;
    replace(mainContent, "thread_number=2", "thread_number=" + value);
    if (finding.empty()) {
      EXPECT_THAT(check(), testing::Not(Contains(testing::HasSubstr("error")))) << value;
    } else {
      EXPECT_THAT(check(), ElementsAre(finding)) << value;
    }
  }
}

TEST_F(CheckConfigTest, WarnsOfAPasswordThatOthersCanRead) {
  const std::string warning = "warning: " + databaseFile() +
                              " contains a password and is readable by all users: chmod o-r " +
                              databaseFile();
  for (const mode_t mode : {0644U, 0604U, 0666U}) {
    EXPECT_THAT(check(true, mode), ElementsAre(warning)) << std::oct << mode;
  }
  for (const mode_t mode : {0600U, 0640U, 0622U, 0601U}) {
    EXPECT_THAT(check(true, mode), IsEmpty()) << std::oct << mode;
  }
}

TEST_F(CheckConfigTest, SaysThatItDidNotReadTheDatabaseFile) {
  replace(databaseContent, "PGSQL_db=d\n", "");
  EXPECT_THAT(check(false),
              ElementsAre("warning: not checked, because you may not read it: " + databaseFile()));
}

TEST_F(CheckConfigTest, FindsALogThatCannotBeWritten) {
  const std::string begin = "error: user " + userName() + " cannot write the log ";
  fs::create_directory(log());
  EXPECT_THAT(check(), ElementsAre(begin + log() + ": it is a directory"));
  fs::remove(log());
  replace(mainContent, log(), "/nowhere/cron.log");
  EXPECT_THAT(check(), ElementsAre(begin + "/nowhere/cron.log: directory /nowhere: No such file or "
                                           "directory"));
}

TEST_F(CheckConfigTest, FindsFoldersThatTakeNoOutput) {
  const std::string begin = "error: user " + userName() + " cannot write task output: ";
  writeFile(output() + "/archive", "");
  EXPECT_THAT(check(), ElementsAre(begin + output() + "/archive is not a directory"));
  fs::remove_all(output());
  EXPECT_THAT(check(), ElementsAre(begin + "directory " + output() + ": No such file or directory"))
      << "the archive is created later";
  writeFile(output(), "");
  EXPECT_THAT(check(), ElementsAre(begin + output() + " is not a directory"));
}

}  // namespace
