#include "ctl/commandLine.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ctl/command/commands.h"
#include "ctl/description.h"
#include "ctl/failure.h"
#include "tests/ctl/CtlTest.h"
#include "tests/support/Variable.h"
#include "tests/support/outputOf.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::Eq;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Optional;
using testing::StartsWith;

using Words = std::vector<std::string>;
using Command = int (*)(const Options&);

/// The parser without the commands.
class ParserTest : public testing::Test {
 protected:
  Request parse(const Words& arguments) {
    std::vector<const char*> pointers = {"koductl"};
    for (const std::string& argument : arguments) {
      pointers.push_back(argument.c_str());
    }
    Request request;
    err = outputOf(
        [&] {
          out = outputOf([&] {
            request = parseCommandLine(static_cast<int>(pointers.size()), pointers.data());
          });
        },
        STDERR_FILENO);
    return request;
  }
  /// The options of a command line without an error.
  Options optionsOf(const Words& arguments) {
    const Request request = parse(arguments);
    EXPECT_TRUE(request.run) << testing::PrintToString(arguments) << err;
    return request.options;
  }
  void expectError(const Words& arguments, const std::string& text) {
    const Request request = parse(arguments);
    EXPECT_FALSE(request.run) << testing::PrintToString(arguments);
    EXPECT_EQ(request.exitCode, kWrongUsage) << testing::PrintToString(arguments);
    EXPECT_EQ(out, "");
    EXPECT_THAT(err, StartsWith("koductl: ")) << testing::PrintToString(arguments);
    EXPECT_THAT(err, HasSubstr(text)) << testing::PrintToString(arguments);
  }

  std::string out, err;  // of the last parse
};

TEST_F(ParserTest, HasDefaults) {
  const Options options = optionsOf({"status"});
  EXPECT_EQ(options.configFile, "/etc/kodu/cron.conf");
  EXPECT_EQ(options.user, "");
  EXPECT_EQ(options.lockTimeout, 5);
  EXPECT_EQ(options.statementTimeout, 60);
  EXPECT_FALSE(options.asJson || options.onlyFailed || options.withOutput || options.watch);
}

TEST_F(ParserTest, AcceptsTheCommonOptionsOnBothSidesOfTheCommand) {
  const Words common = {
      "-f", "/x", "--user", "alice", "--json", "--lock-timeout", "1", "--statement-timeout", "0"};
  Words before = common;
  before.emplace_back("status");
  Words after = {"status"};
  after.insert(after.end(), common.begin(), common.end());
  for (const Words& arguments : {before, after}) {
    const Options options = optionsOf(arguments);
    EXPECT_EQ(options.configFile, "/x");
    EXPECT_EQ(options.user, "alice");
    EXPECT_TRUE(options.asJson);
    EXPECT_EQ(options.lockTimeout, 1);
    EXPECT_EQ(options.statementTimeout, 0);
  }
  EXPECT_EQ(optionsOf({"--config=/y", "status"}).configFile, "/y");
}

TEST_F(ParserTest, FindsEachCommand) {
  const std::vector<std::pair<Words, Command>> cases = {
      {{"status"}, runStatus},
      {{"show", "7"}, runShow},
      {{"explain", "7"}, runExplain},
      {{"history", "7"}, runHistory},
      {{"output", "7"}, runOutput},
      {{"rerun", "7"}, runTest},
      {{"check"}, runCheck},
      {{"add", "p", "--every", "1s"}, runAdd},
      {{"set", "7"}, runSet},
      {{"pause", "7"}, runPause},
      {{"resume", "7"}, runResume},
      {{"run", "7"}, runNow},
      {{"delete", "7"}, runDelete},
      {{"forecast"}, runForecast},
      {{"stagger"}, runStagger},
      {{"prune", "--older-than", "1d"}, runPrune},
      {{"schema"}, runSchema},
      {{"ids"}, runIds},
      {{"top"}, runTop},
      {{"account"}, runAccount},
      {{"events"}, runEvents},
      {{"metrics"}, runMetrics},
      {{"logs"}, runLogs},
      {{"test", "7"}, runTest},
      {{"daemon"}, runDaemon},
      {{"health"}, runHealth},
      {{"undelete", "7"}, runUndelete},
      {{"export"}, runExport},
      {{"apply", "f"}, runApply},
      {{"ledger"}, runLedger},
      {{"repair"}, runRepair},
      {{"next", "7"}, runNext},
      {{"host"}, runHost},
      {{"window"}, runWindow},
      {{"import", "crontab", "f"}, runImport},
  };
  for (const auto& [arguments, command] : cases) {
    const Request request = parse(arguments);
    const auto* found = request.run.target<Command>();
    ASSERT_NE(found, nullptr) << arguments.front() << err;
    EXPECT_EQ(*found, command) << arguments.front();
  }
  std::set<std::string> tried = {"rerun"};
  for (const auto& [arguments, command] : cases) {
    tried.insert(arguments.front());
  }
  EXPECT_EQ(tried.size(), allCommands(describeCommandLine()).size() + 1);
}

TEST_F(ParserTest, GivesASelectionToEachCommandOfSeveralTasks) {
  const Words conditions = {"3",        "4",          "--failed",    "--late", "--running",
                            "--paused", "--deleting", "--never-ran", "--sort", "name,desc",
                            "--limit",  "5",          "--after",     "k,7",    "--all"};
  for (const Words& command : {Words{"status"},
                               {"ids"},
                               {"pause"},
                               {"resume"},
                               {"run"},
                               {"delete"},
                               {"undelete"},
                               {"set"},
                               {"prune", "--older-than", "1d"}}) {
    Words line = command;
    line.insert(line.end(), conditions.begin(), conditions.end());
    const Options options = optionsOf(line);
    const Selection& selection = options.selection;
    EXPECT_THAT(selection.ids, ElementsAre(3, 4)) << command[0];
    EXPECT_TRUE(selection.isFailed && selection.isLate && selection.isRunning &&
                selection.isPaused && selection.isDeleting && selection.isNeverRun)
        << command[0];
    EXPECT_EQ(selection.sort, "name,desc");
    EXPECT_THAT(selection.limit, Optional(5));
    EXPECT_EQ(selection.after, "k,7");
    EXPECT_TRUE(options.isAll);
  }
}

TEST_F(ParserTest, TellsTheNameOfATaskFromACondition) {
  const Options set =
      optionsOf({"set", "--where-name", "a*", "--where-plugin", "/p", "--name", "b"});
  EXPECT_THAT(set.selection.name, Optional(Eq("a*")));
  EXPECT_THAT(set.selection.plugin, Optional(Eq("/p")));
  EXPECT_THAT(set.name, Optional(Eq("b")));
  EXPECT_EQ(set.plugin, std::nullopt);
  const Options pause = optionsOf({"pause", "--name", "a*"});
  EXPECT_THAT(pause.selection.name, Optional(Eq("a*")));
  EXPECT_EQ(pause.name, std::nullopt);
}

TEST_F(ParserTest, TakesAnOptionFAfterLogsForFollow) {
  const Options options = optionsOf({"-f", "/x", "logs", "7", "-f", "-n", "3", "--failed"});
  EXPECT_EQ(options.configFile, "/x");
  EXPECT_TRUE(options.follow);
  EXPECT_TRUE(options.onlyFailed);
  EXPECT_THAT(options.onlyTask, Optional(7));
  EXPECT_EQ(options.outputs, 3);
  EXPECT_EQ(optionsOf({"logs"}).onlyTask, std::nullopt);
  EXPECT_EQ(optionsOf({"logs"}).outputs, 10);
  EXPECT_EQ(optionsOf({"status", "-f", "/y"}).configFile, "/y");
}

TEST_F(ParserTest, LeavesTheThresholdsOfHealthAsTheyAreWritten) {
  const Options given =
      optionsOf({"health", "-w", "1", "-c", "two", "-p", "3", "-e", "", "-t", "5"});
  EXPECT_EQ(given.warnOverdue, "1");
  EXPECT_EQ(given.criticalOverdue, "two");
  EXPECT_EQ(given.warnProcess, "3");
  EXPECT_THAT(given.warnFailures, Optional(Eq("")));
  EXPECT_EQ(given.answerTimeout, "5");
  EXPECT_EQ(optionsOf({"health"}).warnFailures, std::nullopt);
}

TEST_F(ParserTest, AnswersAMonitoringSystemInItsOwnForm) {
  for (const Words& wrong : {Words{"health", "--no-such"}, {"health", "x"}, {"health", "-w"}}) {
    const Request request = parse(wrong);
    EXPECT_FALSE(request.run) << testing::PrintToString(wrong);
    EXPECT_EQ(request.exitCode, 3) << "UNKNOWN";
    EXPECT_THAT(out, StartsWith("KODUCRON UNKNOWN - "));
    EXPECT_THAT(out, EndsWith("; see koductl health --help\n"));
    EXPECT_EQ(err, "") << "some of them join both outputs";
  }
}

TEST_F(ParserTest, ReadsWhatIsDeclaredAndWhatIsExported) {
  const Options apply = optionsOf({"apply", "-", "--prune", "--dry-run", "--yes"});
  EXPECT_EQ(apply.source, "-");
  EXPECT_TRUE(apply.isPruning && apply.isDryRun && apply.isConfirmed);
  EXPECT_FALSE(optionsOf({"apply", "f"}).isPruning);
  const Options exported = optionsOf({"export", "1", "2", "--set", "web"});
  EXPECT_THAT(exported.selection.ids, ElementsAre(1, 2));
  EXPECT_EQ(exported.set, "web");
}

TEST_F(ParserTest, ChoosesTasksOfAnAccount) {
  const Options options =
      optionsOf({"account", "1", "2", "--name", "a*", "--plugin", "/p", "--since", "yesterday"});
  EXPECT_THAT(options.selection.ids, ElementsAre(1, 2));
  EXPECT_THAT(options.selection.name, Optional(Eq("a*")));
  EXPECT_THAT(options.selection.plugin, Optional(Eq("/p")));
  EXPECT_THAT(options.since, Optional(Eq("yesterday")));
  EXPECT_EQ(optionsOf({"account"}).since, std::nullopt);
}

TEST_F(ParserTest, ReadsTheSettingsOfTheLedger) {
  EXPECT_EQ(optionsOf({"ledger"}).ledgerAction, "status");
  const Options keep = optionsOf({"ledger", "keep", "30"});
  EXPECT_EQ(keep.ledgerAction, "keep");
  EXPECT_THAT(keep.ledgerDays, Optional(30));
  EXPECT_EQ(optionsOf({"ledger", "off"}).ledgerDays, std::nullopt);
}

TEST_F(ParserTest, SetsTheZoneOfTheProcess) {
  const Variable zone("TZ", "UTC");
  EXPECT_EQ(optionsOf({"status", "--zone", "Asia/Kathmandu"}).zone, "Asia/Kathmandu");
  EXPECT_STREQ(std::getenv("TZ"), "Asia/Kathmandu");
}

TEST_F(ParserTest, AcceptsTheLimitsOfAnId) {
  EXPECT_EQ(optionsOf({"show", "0"}).id, 0);
  EXPECT_EQ(optionsOf({"show", "2147483647"}).id, 2147483647);
}

TEST_F(ParserTest, KeepsMissingSettingsApartFromEmptyOnes) {
  const Options none = optionsOf({"set", "7"});
  for (const auto& value : {none.plugin, none.name, none.every, none.fileName, none.retryAfter,
                            none.next, none.timeout}) {
    EXPECT_EQ(value, std::nullopt);
  }
  EXPECT_EQ(none.retries, std::nullopt);
  EXPECT_EQ(none.pluginArguments, std::nullopt);
  const Options given = optionsOf({"set", "7", "--name", "", "--retries", "0", "--"});
  EXPECT_THAT(given.name, Optional(Eq("")));
  EXPECT_THAT(given.retries, Optional(0));
  EXPECT_THAT(given.pluginArguments, Optional(IsEmpty()));
}

TEST_F(ParserTest, LeavesWhatFollowsTheSeparatorToThePlugin) {
  const Words arguments = {"--json", "-f", "--", "--help", "", "two words", "7"};
  Words line = {"add", "p", "--every", "1s", "--"};
  line.insert(line.end(), arguments.begin(), arguments.end());
  const Options options = optionsOf(line);
  EXPECT_THAT(options.pluginArguments, Optional(arguments));
  EXPECT_FALSE(options.asJson);
}

TEST_F(ParserTest, RefusesPluginArgumentsOfOtherCommands) {
  for (const Words& arguments :
       {Words{"status", "--"}, {"show", "7", "--", "x"}, {"delete", "7", "--", "--yes"}}) {
    expectError(arguments, "only add and set accept plugin arguments after --");
  }
}

TEST_F(ParserTest, CollectsRepeatedDurations) {
  EXPECT_THAT(optionsOf({"forecast", "--took", "1=2", "3", "--took", "4=5"}).took,
              ElementsAre("1=2", "4=5"));
  EXPECT_EQ(optionsOf({"forecast", "3"}).hours, "3");
}

TEST_F(ParserTest, ReportsErrorsWithTheHelpOfTheCommand) {
  const std::vector<std::pair<Words, std::string>> cases = {
      {{}, "; see koductl --help\n"},
      {{"stats"}, "unknown command stats; koductl --help lists the commands\n"},
      {{"stats", "--json"}, "unknown command stats; "},
      {{"--unknown"}, "--unknown"},
      {{"show"}, "ID is required; see koductl show --help\n"},
      {{"show", "-1"}, "; see koductl show --help\n"},
      {{"show", "seven"}, "; see koductl show --help\n"},
      {{"status", "x"}, "; see koductl status --help\n"},
      {{"status", "--lat"}, "--lat"},
      {{"history", "7", "-n", "0"}, "; see koductl history --help\n"},
      {{"--lock-timeout", "86401", "status"}, "86401"},
      {{"--statement-timeout", "-1", "status"}, "-1"},
      {{"prune"}, "--older-than is required; see koductl prune --help\n"},
      {{"schema", "downgrade"}, "downgrade"},
      {{"schema", "upgrade", "--wait", "-1"}, "; see koductl schema --help\n"},
      {{"pause", "7", "--reason"}, "--reason"},
      {{"status", "show", "7"}, "; see koductl status --help\n"},
      {{"status", "--limit", "0"}, "--limit"},
      {{"logs", "-n", "0"}, "; see koductl logs --help\n"},
      {{"logs", "1", "2"}, "; see koductl logs --help\n"},
      {{"apply"}, "FILE is required; see koductl apply --help\n"},
      {{"apply", "a", "b"}, "; see koductl apply --help\n"},
      {{"add", "p", "--every", "1m", "--if-missing"}, "--key"},
      {{"add", "p", "--every", "1m", "--retries", "-1"}, "; see koductl add --help\n"},
      {{"set", "7", "--timeout", "1m", "--no-timeout"}, "--no-timeout"},
      {{"export", "--set"}, "--set"},
      {{"run", "7", "--wait", "--dry-run"}, "--dry-run"},
      {{"top", "7"}, "; see koductl top --help\n"},
      {{"forecast", "--took"}, "--took"},
  };
  for (const auto& [arguments, text] : cases) {
    expectError(arguments, text);
  }
}

TEST_F(ParserTest, PrintsAnErrorOnOneLineWithoutControlCharacters) {
  expectError({"a\nb\x1b[2J"}, "unknown command a b?[2J; ");
  expectError({"show", "a\nb\x1b[2J"}, "a b?[2J");
}

TEST_F(ParserTest, PrintsHelpAndVersionToStandardOutput) {
  for (const Words& arguments : {Words{"--help"},
                                 {"-h"},
                                 {"--version"},
                                 {"status", "--help"},
                                 {"-f", "/nowhere", "add", "-h"}}) {
    const Request request = parse(arguments);
    EXPECT_FALSE(request.run) << testing::PrintToString(arguments);
    EXPECT_EQ(request.exitCode, 0);
    EXPECT_THAT(out, EndsWith("\n"));
    EXPECT_EQ(err, "");
  }
  parse({"delete", "--help"});
  EXPECT_THAT(out, StartsWith("Usage: koductl delete [ID]... [OPTION...]\n"));
}

/// Messages and exit statuses of koductl when it cannot start a command.
class CommandLineTest : public CtlTest {};

TEST_F(CommandLineTest, PrintsHelpAndVersion) {
  const CtlResult help = runWith({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_THAT(help.out, HasSubstr("  test  "));
  const CtlResult version = runWith({"--version"});
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_THAT(version.out, testing::MatchesRegex("koductl [0-9.]+\n"));
}

TEST_F(CommandLineTest, ExitsWith64ForAWrongCommandLine) {
  for (const std::vector<std::string>& wrong : {std::vector<std::string>{},
                                                {"foo"},
                                                {"show"},
                                                {"show", "x"},
                                                {"show", "1", "2"},
                                                {"status", "--", "x"},
                                                {"history", "1", "-n", "0"},
                                                {"add", "plugin"}}) {
    const CtlResult result = run(wrong);
    EXPECT_EQ(result.exitCode, 64) << testing::PrintToString(wrong);
    EXPECT_THAT(result.err, testing::StartsWith("koductl: "));
    EXPECT_EQ(result.out, "");
  }
  EXPECT_THAT(run({"foo"}).err, HasSubstr("unknown command foo"));
  EXPECT_EQ(run({"show"}).err, "koductl: ID is required; see koductl show --help\n");
}

TEST_F(CommandLineTest, ExitsWith78WithoutAConfiguration) {
  const CtlResult result = runWith({"-f", "/nowhere/cron.conf", "status"});
  EXPECT_EQ(result.exitCode, 78);
  EXPECT_EQ(result.err,
            "koductl: cannot read /nowhere/cron.conf: No such file or directory; name the daemon's "
            "main INI file with -f\n");
}

TEST_F(CommandLineTest, ExitsWith78WithoutADatabaseFile) {
  std::filesystem::remove(daemon.databaseConfig());
  const CtlResult result = run({"status"});
  EXPECT_EQ(result.exitCode, 78);
  EXPECT_THAT(result.err, HasSubstr("kodu_conf_file in " + daemon.mainConfig() + " names it"));
}

TEST_F(CommandLineTest, ExitsWith78WhenTheMainFileNamesNoDatabaseFile) {
  const CtlResult result = runWith({"-f", "/dev/null", "status"});
  EXPECT_EQ(result.exitCode, 78);
  EXPECT_EQ(result.err,
            "koductl: /dev/null names no database file: write kodu_conf_file=PATH into its section "
            "[CRON]\n");
}

TEST_F(CommandLineTest, ExitsWith74WhenItsOutputCannotBeWritten) {
  database.insertTask(quietTask(1));
  for (const std::string command : {"status", "status --json", "history 1"}) {
    const std::string line = "'" + program() + "' -f " + daemon.mainConfig() + " " + command +
                             " >/dev/full 2>" + errPath();
    EXPECT_EQ(exitStatusOf(std::system(line.c_str())), 74) << command;
    EXPECT_EQ(readFile(errPath()),
              "koductl: cannot write to standard output: No space left on device\n");
  }
}

TEST_F(CommandLineTest, ExitsWith69WhenNoDatabaseAnswers) {
  writeFile(daemon.databaseConfig(),
            "[POSTGRESQL]\nPGSQL_host=127.0.0.1\nPGSQL_port=1\nPGSQL_db=x\nPGSQL_username=kodu\n"
            "PGSQL_pwd=x\n");
  const CtlResult result = run({"status"});
  EXPECT_EQ(result.exitCode, 69);
  EXPECT_THAT(result.err, HasSubstr("Connection refused\nIs the server running on that host"));
  EXPECT_THAT(result.err, HasSubstr("\ncheck that the server is running, and check "));
  EXPECT_THAT(result.err, Not(HasSubstr("PGPASSWORD")));
  EXPECT_THAT(run({"status", "--user", "someone"}).err,
              HasSubstr("; the password comes from PGPASSWORD"));
}

TEST_F(CommandLineTest, ExitsWith66ForAnUnknownTask) {
  for (const char* command : {"show", "explain", "history", "output", "rerun", "set", "pause",
                              "resume", "run", "delete"}) {
    const CtlResult result = run({command, "99"});
    EXPECT_EQ(result.exitCode, 66) << command;
    EXPECT_EQ(result.err, "koductl: there is no task 99; koductl status lists them\n");
  }
}

TEST_F(CommandLineTest, AcceptsTheCommonOptionsAfterTheCommand) {
  database.insertTask(quietTask(1));
  const CtlResult result = runWith({"status", "--json", "-f", daemon.mainConfig()});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(parsed(result.out)[0]["name"].asString(), "task1");
}

TEST_F(CommandLineTest, SetsAnApplicationName) {
  database.insertTask(quietTask(1));
  const pid_t pid = start({"-f", daemon.mainConfig(), "status", "--watch"});
  const bool isSeen = waitUntil([&] {
    return database.value(
               "SELECT count(*) FROM pg_stat_activity WHERE application_name ="
               " 'kodu_ctl' AND datname = current_database()") == "1";
  });
  kill(pid, SIGTERM);
  waitpid(pid, nullptr, 0);
  EXPECT_TRUE(isSeen);
}

}  // namespace
