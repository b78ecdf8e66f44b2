#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::HasSubstr;
using testing::Not;

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
