#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

using Words = std::vector<std::string>;

/// How each command of koductl reports an error: one exit status, a message on standard error,
/// nothing on standard output, and no change in the database.
class ErrorTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    database.insertTask(quietTask(7));
  }
  /// Every command with arguments that are valid for task 7.
  static std::vector<Words> commands() {
    return {{"status"},
            {"show", "7"},
            {"explain", "7"},
            {"history", "7"},
            {"output", "7"},
            {"test", "7"},
            {"add", "/bin/true", "--every", "5m"},
            {"set", "7", "--retries", "3"},
            {"pause", "7"},
            {"resume", "7"},
            {"run", "7"},
            {"delete", "7", "--yes"},
            {"forecast"},
            {"stagger", "--apply"},
            {"prune", "--older-than", "1d"}};
  }
  /// Those that call a function of the database.
  static std::vector<Words> changingCommands() {
    std::vector<Words> all = commands();
    all.erase(all.begin(), all.begin() + 6);
    return all;
  }
  std::string rows() const {
    return database.value("SELECT string_agg(t::text, ' ') FROM kodu_cron_plugin t");
  }
  void expectError(const CtlResult& result, const Words& command, int exitCode,
                   const std::string& text) const {
    EXPECT_EQ(result.exitCode, exitCode) << testing::PrintToString(command) << result.out;
    EXPECT_THAT(result.err, StartsWith("koductl: ")) << testing::PrintToString(command);
    EXPECT_THAT(result.err, HasSubstr(text)) << testing::PrintToString(command);
    EXPECT_THAT(result.err, testing::EndsWith("\n")) << testing::PrintToString(command);
    EXPECT_EQ(result.out, "") << testing::PrintToString(command);
  }
};

TEST_F(ErrorTest, ReportsAMissingConfigurationInEachCommand) {
  for (const Words& command : commands()) {
    Words arguments = {"-f", "/nowhere/cron.conf"};
    arguments.insert(arguments.end(), command.begin(), command.end());
    expectError(runWith(arguments), command, 78,
                "cannot read /nowhere/cron.conf: No such file or directory");
  }
}

TEST_F(ErrorTest, ReportsAServerThatDoesNotAnswerInEachCommand) {
  daemon.writeDatabaseConfig("127.0.0.1", 1);
  for (const Words& command : commands()) {
    expectError(run(command), command, 69, "Connection refused");
  }
}

TEST_F(ErrorTest, ReportsAWrongPasswordInEachCommand) {
  std::string config = readFile(daemon.databaseConfig());
  config.replace(config.find(database.password()), database.password().size(), "wrong");
  writeFile(daemon.databaseConfig(), config);
  for (const Words& command : commands()) {
    const CtlResult result = run(command);
    expectError(result, command, 69, "password authentication failed for user \"kodu\"");
    EXPECT_THAT(result.err, testing::Not(HasSubstr("wrong\n")));
  }
}

TEST_F(ErrorTest, ReportsTablesOfALaterReleaseInEachCommand) {
  database.query("INSERT INTO kodu_schema_version VALUES (99, 'later')");
  const std::string before = rows();
  for (const Words& command : commands()) {
    expectError(runAsAdmin(command), command, 65, "the database's tables have version 99");
  }
  EXPECT_EQ(rows(), before);
}

TEST_F(ErrorTest, ReportsAMissingRightInEachChangingCommand) {
  const std::string before = rows();
  for (const Words& command : changingCommands()) {
    expectError(run(command), command, 77, "role kodu may not do this: connect as a member of");
  }
  EXPECT_EQ(rows(), before);
}

TEST_F(ErrorTest, ReportsMissingFunctionsInEachChangingCommand) {
  database.query(
      "SET client_min_messages = warning;"
      "DO $$ DECLARE f regprocedure; BEGIN"
      " FOR f IN SELECT oid FROM pg_proc WHERE proname ~ '^kodu_(task_(add|set|pause|resume|run_now"
      "|delete)|stagger|forecast|history_cutoff)$' LOOP EXECUTE 'DROP FUNCTION ' || f || ' CASCADE';"
      " END LOOP; END $$");
  const std::string before = rows();
  for (const Words& command : changingCommands()) {
    expectError(runAsAdmin(command), command, 65, "load sql/functions.sql as its owner");
  }
  EXPECT_EQ(rows(), before);
}

TEST_F(ErrorTest, ReportsAWrongIdInEachCommandOfOneTask) {
  for (const char* command : {"show", "explain", "history", "output", "test"}) {
    for (const char* id : {"-1", "2147483648", "seven", ""}) {
      expectError(run({command, id}), {command, id}, 64,
                  std::string("; see koductl ") + command + " --help");
    }
    expectError(run({command}), {command}, 64, "ID is required");
  }
}

TEST_F(ErrorTest, ReportsUnknownOptionsInEachCommand) {
  for (Words command : commands()) {
    command.emplace_back("--no-such-option");
    expectError(runAsAdmin(command), command, 64, "--no-such-option");
  }
}

TEST_F(ErrorTest, ReportsWhatTheDatabaseRefusesInASet) {
  const std::vector<std::pair<Words, std::string>> cases = {
      {{}, "there is nothing to set for task 7"},
      {{"--every", "0s"}, ""},
      {{"--every", "1 month"}, ""},
      {{"--every", "x"}, "invalid input syntax for type interval: \"x\""},
      {{"--file", "fixed.txt"}, "the file name 'fixed.txt' lacks $DATE"},
      {{"--file", "../$DATE"}, "file name"},
      {{"--retries", "1", "--retry-after", "1s"}, "retry"},
      {{"--next", "1960-01-01"}, "the time of a run must be between 1970 and 2035"},
      {{"--next", "x"}, "invalid input syntax for type timestamp"},
      {{"--plugin", "nothing"}, "there is no plugin 'nothing'"},
      {{"--", "a", ""}, "a plugin cannot get an empty argument"},
  };
  const std::string before = rows();
  for (const auto& [settings, text] : cases) {
    Words command = {"set", "7"};
    command.insert(command.end(), settings.begin(), settings.end());
    expectError(runAsAdmin(command), command, 65, text);
  }
  EXPECT_EQ(rows(), before);
}

TEST_F(ErrorTest, ReportsThatATaskIsBeingDeleted) {
  ASSERT_EQ(runAsAdmin({"delete", "7", "--yes"}).exitCode, 0);
  const std::string before = rows();
  for (const Words& command :
       {Words{"set", "7", "--retries", "3"}, {"pause", "7"}, {"resume", "7"}, {"run", "7"}}) {
    expectError(runAsAdmin(command), command, 65, "task 7 is being deleted");
  }
  EXPECT_EQ(rows(), before);
}

TEST_F(ErrorTest, ReportsThatATaskIsPaused) {
  ASSERT_EQ(runAsAdmin({"pause", "7"}).exitCode, 0);
  expectError(runAsAdmin({"run", "7"}), {"run", "7"}, 65, "task 7 is paused");
}

TEST_F(ErrorTest, WarnsThatNothingChanges) {
  const CtlResult resumed = runAsAdmin({"resume", "7"});
  EXPECT_EQ(resumed.exitCode, 0);
  EXPECT_THAT(resumed.err, HasSubstr("koductl: task 7 is not paused\n"));
  ASSERT_EQ(runAsAdmin({"pause", "7"}).err, "");
  const CtlResult paused = runAsAdmin({"pause", "7"});
  EXPECT_EQ(paused.exitCode, 0);
  EXPECT_THAT(paused.err, HasSubstr("koductl: task 7 is paused already\n"));
}

TEST_F(ErrorTest, ReportsAnInvalidAgeInAPrune) {
  writeFile(daemon.logPath(), "");  // its owner counts as the daemon's user
  addFailure(7, 100000, "old", "text");
  const std::vector<std::pair<Words, std::string>> cases = {
      {{"0s"}, "the age must be longer than 0"},
      {{"-1d"}, "the age must be longer than 0"},
      {{"ages"}, "invalid input syntax for type interval: \"ages\""},
      {{""}, "invalid input syntax for type interval: \"\""},
  };
  for (const auto& [age, text] : cases) {
    const Words command = {"prune", "--older-than", age[0]};
    expectError(runAsAdmin(command), command, 65, text);
  }
  EXPECT_EQ(database.failures(7), 1);
  EXPECT_EQ(readFile(archive(7) + "/old"), "text");
}

TEST_F(ErrorTest, ReportsAPluginThatCannotBeRerun) {
  writeFile(daemon.logPath(), "");
  std::filesystem::remove(quietTask(7).path);
  const CtlResult result = run({"test", "7"});
  EXPECT_EQ(result.exitCode, 2) << "as the daemon's child";
  EXPECT_THAT(result.out + result.err, HasSubstr("plugin is not executable No such file"));
}

TEST_F(ErrorTest, EndsWith74WhenTheOutputIsFull) {
  for (const std::string command : {"show 7", "explain 7", "check", "schema", "--help"}) {
    const std::string line = "'" + program() + "' -f " + daemon.mainConfig() + " " + command +
                             " >/dev/full 2>" + errPath();
    // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe)
    EXPECT_EQ(exitStatusOf(std::system(line.c_str())), 74) << command;
    EXPECT_EQ(readFile(errPath()),
              "koductl: cannot write to standard output: No space left on device\n");
  }
}

}  // namespace
