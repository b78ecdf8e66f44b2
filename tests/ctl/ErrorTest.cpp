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
    writeFile(declared(), "tasks: {a: {plugin: /bin/true, every: 5m}}\n");
  }
  /// The commands that only read, with arguments that are valid for task 7.
  static std::vector<Words> readingCommands() {
    return {{"status"},       {"ids"},          {"top", "--json"}, {"show", "7"},
            {"explain", "7"}, {"history", "7"}, {"account"},       {"logs", "7"},
            {"output", "7"},  {"test", "7"},    {"export"},        {"ledger"}};
  }
  /// Those that call a function of the database.
  std::vector<Words> changingCommands() const {
    return {{"add", "/bin/true", "--every", "5m"},
            {"set", "7", "--retries", "3"},
            {"pause", "7"},
            {"resume", "7"},
            {"run", "7"},
            {"delete", "7", "--yes"},
            {"undelete", "7"},
            {"apply", declared()},
            {"ledger", "off"},
            {"ledger", "keep", "3"},
            {"forecast"},
            {"stagger", "--apply"},
            {"prune", "--older-than", "1d"}};
  }
  /// Every command but those that work with the tables of any release.
  std::vector<Words> commands() const {
    std::vector<Words> all = readingCommands();
    const std::vector<Words> changing = changingCommands();
    all.insert(all.end(), changing.begin(), changing.end());
    return all;
  }
  /// Every command but check, daemon and health, to which a failure is a finding.
  std::vector<Words> failingCommands() const {
    std::vector<Words> all = commands();
    all.insert(all.end(), {{"schema"}, {"schema", "upgrade"}, {"repair"}});
    return all;
  }
  /// A file for koductl apply.
  std::string declared() const { return daemon.directory / "declared.yaml"; }
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
  for (const Words& command : failingCommands()) {
    Words arguments = {"-f", "/nowhere/cron.conf"};
    arguments.insert(arguments.end(), command.begin(), command.end());
    expectError(runWith(arguments), command, 78,
                "cannot read /nowhere/cron.conf: No such file or directory");
  }
}

TEST_F(ErrorTest, ReportsAServerThatDoesNotAnswerInEachCommand) {
  daemon.writeDatabaseConfig("127.0.0.1", 1);
  for (const Words& command : failingCommands()) {
    expectError(run(command), command, 69, "Connection refused");
  }
}

TEST_F(ErrorTest, ReportsAWrongPasswordInEachCommand) {
  std::string config = readFile(daemon.databaseConfig());
  config.replace(config.find(database.password()), database.password().size(), "wrong");
  writeFile(daemon.databaseConfig(), config);
  for (const Words& command : failingCommands()) {
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
      "|delete|undelete|define)|ledger_(off|keep)|stagger|forecast|history_cutoff)$'"
      " LOOP EXECUTE 'DROP FUNCTION ' || f || ' CASCADE'; END LOOP; END $$");
  const std::string before = rows();
  for (const Words& command : changingCommands()) {
    const std::string file = command[0] == "ledger" ? "ledger" : "functions";
    expectError(runAsAdmin(command), command, 65, "load sql/" + file + ".sql as its owner");
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

TEST_F(ErrorTest, ReportsAWrongIdInEachCommandOfSeveralTasks) {
  for (const char* command : {"status", "ids", "logs", "account", "set", "pause", "resume", "run",
                              "delete", "undelete", "prune", "export"}) {
    for (const char* id : {"-1", "2147483648", "seven"}) {
      expectError(run({command, id}), {command, id}, 64,
                  std::string("; see koductl ") + command + " --help");
    }
  }
}

TEST_F(ErrorTest, ReportsATaskThatIsMissing) {
  for (const char* command :
       {"status", "ids", "logs", "pause", "resume", "run", "delete", "undelete", "export"}) {
    expectError(runAsAdmin({command, "8"}), {command, "8"}, 66,
                "there is no task 8; koductl status lists them");
  }
}

TEST_F(ErrorTest, ReportsACommandThatNeedsASelection) {
  const std::string before = rows();
  for (const char* command : {"pause", "resume", "run", "delete", "undelete", "set"}) {
    expectError(runAsAdmin({command}), {command}, 64,
                std::string("say which tasks to ") + command + ": their ids, or conditions");
  }
  EXPECT_EQ(rows(), before);
}

TEST_F(ErrorTest, ReportsAnUnknownTimeZoneInEachCommand) {
  for (Words command : failingCommands()) {
    command.insert(command.begin(), {"--zone", "Europe/Nowhere"});
    expectError(run(command), command, 64, "this machine knows no time zone Europe/Nowhere");
  }
}

TEST_F(ErrorTest, ReportsWhichSettingOfTheLedgerIsWrong) {
  const std::vector<std::pair<Words, std::string>> cases = {
      {{"ledger", "pause"}, "; see koductl ledger --help"},
      {{"ledger", "keep"}, "keep needs a number of days, as koductl ledger keep 3"},
      {{"ledger", "keep", "0"}, "; see koductl ledger --help"},
      {{"ledger", "keep", "31"}, "; see koductl ledger --help"},
      {{"ledger", "keep", "x"}, "; see koductl ledger --help"},
      {{"ledger", "off", "3"}, "only keep has a number of days"},
      {{"ledger", "status", "3"}, "only keep has a number of days"},
  };
  for (const auto& [command, text] : cases) {
    expectError(runAsAdmin(command), command, 64, text);
  }
}

TEST_F(ErrorTest, ReportsATimeThatIsNone) {
  for (const Words& command : {Words{"account", "--since", "x"},
                               {"pause", "7", "--until", "x"},
                               {"set", "7", "--next", "x"},
                               {"add", "/bin/true", "--every", "5m", "--first", "x"}}) {
    expectError(runAsAdmin(command), command, 65, "invalid input syntax for type timestamp");
  }
}

TEST_F(ErrorTest, ReportsUnknownOptionsInEachCommand) {
  for (Words command : failingCommands()) {
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
  for (const std::string command : {"show 7",
                                    "explain 7",
                                    "check",
                                    "check --json",
                                    "schema",
                                    "--help",
                                    "--version",
                                    "ids",
                                    "ids --names --json",
                                    "top --json",
                                    "account",
                                    "account --json",
                                    "ledger",
                                    "ledger --json",
                                    "daemon",
                                    "daemon --json",

                                    "export --json",
                                    "repair",
                                    "logs 7 --failed",
                                    "logs 7 --json",
                                    "forecast --help"}) {
    const std::string line = "'" + program() + "' -f " + daemon.mainConfig() + " " + command +
                             " >/dev/full 2>" + errPath();
    // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe)
    EXPECT_EQ(exitStatusOf(std::system(line.c_str())), 74) << command;
    EXPECT_EQ(readFile(errPath()),
              "koductl: cannot write to standard output: No space left on device\n");
  }
}

}  // namespace
