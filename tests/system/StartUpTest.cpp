#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libpq-fe.h>

#include "core/globals.h"
#include "core/iniConfig.h"
#include "tests/support/Daemon.h"
#include "tests/support/Database.h"
#include "tests/support/Process.h"
#include "tests/support/builtProgram.h"
#include "tests/support/waitUntil.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using testing::UnorderedElementsAre;

namespace fs = std::filesystem;

constexpr const char* kBanner = "NOTICE#KODUCRON start....  KODUCRON configuration open succesful";
constexpr const char* kNoDirectory = "NOTICE#KODUCRON log directory does not exist";
constexpr const char* kConnecting = "NOTICE#KODUCRON Database connection ....";
constexpr const char* kConnected = "NOTICE#Connection database sucessful. Encoding: UTF8";
constexpr const char* kLoading = "NOTICE#Load cron task";
constexpr const char* kLoaded = "NOTICE#script reload successful";
constexpr const char* kStarting = "NOTICE#Start Thread";
constexpr const char* kStop = "NOTICE#stop koduCron... SIGTERM: 15";
constexpr const char* kDefaultConfig = "/etc/kodu/cron.conf";

/// The lines of an INI file with the one that sets `key` replaced by `line`.
void replaceLine(const std::string& path, const std::string& key, const std::string& line) {
  std::string content;
  for (const std::string& old : readLines(path)) {
    content += (old.starts_with(key + "=") ? line : old) + "\n";
  }
  writeFile(path, content);
}

/// The error of libpq for a failed connection to `conninfo`.
std::string connectError(const std::string& conninfo) {
  PGconn* connection = PQconnectdb(conninfo.c_str());
  std::string message = PQerrorMessage(connection);
  PQfinish(connection);
  return message;
}

class StartUpTest : public testing::Test {
 protected:
  /// Starts the daemon and expects it to end with status 1 and only `text` on its console.
  void expectFailure(const std::string& text) {
    daemon.start();
    EXPECT_EQ(exitStatusOf(daemon.waitForEnd()), 1);
    EXPECT_EQ(daemon.console(), text);
  }

  /// Starts the daemon and expects it to end by the exception of a failed number conversion.
  void expectConversionFailure(const std::string& exception) {
    daemon.start();
    EXPECT_EQ(signalOf(daemon.waitForEnd()), SIGABRT);
    EXPECT_EQ(daemon.console(), "terminate called after throwing an instance of '" + exception +
                                    "'\n  what():  stoi\n");
    EXPECT_THAT(daemon.log(), ElementsAre(kBanner, kNoDirectory));
  }

  /// Starts the daemon with a log of all levels and waits until it has created its threads.
  bool startWithThreads() {
    daemon.start({"-D"});
    return waitUntil([&] { return daemon.logged("DEBUG#Join Thread") == 1; },
                     std::chrono::seconds(20));
  }

  void insertTask(int id, const std::string& name) const {
    TaskRow row;
    row.id = id;
    row.name = name;
    database.insertTask(row);
  }

  void insertDueTask(int id, const std::string& name) const {
    TaskRow row;
    row.id = id;
    row.name = name;
    row.interval = "1 second";
    row.nextExec = "now()";
    database.insertTask(row);
  }

  static std::string daemonPath() { return builtProgram("KODU_TEST_DAEMON"); }

  Database database;
  Daemon daemon{database};
};

TEST_F(StartUpTest, LogsItsMilestonesInOrder) {
  fs::create_directory(daemon.outputDirectory());
  insertTask(1, "task");

  ASSERT_TRUE(daemon.startAndWait());
  EXPECT_EQ(daemon.console(), "");
  daemon.signal(SIGTERM);

  ASSERT_TRUE(waitUntil([&] { return daemon.logged(kStop) == 1; }));
  EXPECT_THAT(daemon.log(),
              ElementsAre(kBanner, kConnecting, kConnected, kLoading, kLoaded, kStarting, kStop));
}

TEST_F(StartUpTest, LogsItsStepsWithDebugLines) {
  fs::create_directory(daemon.outputDirectory());
  insertTask(1, "check");
  const std::string nextExec = std::to_string(database.nextExec(1));

  daemon.start({"-D"});
  ASSERT_TRUE(waitUntil([&] { return daemon.log().size() >= 14; }, std::chrono::seconds(20)));

  // From here on four threads write to the log.
  std::vector<std::string> log = daemon.log();
  const auto threads = std::find(log.begin(), log.end(), kStarting) + 1;
  EXPECT_THAT(std::vector<std::string>(threads, log.end()),
              UnorderedElementsAre("DEBUG#Join Thread", "DEBUG#TH ADMIN#START ",
                                   "DEBUG#TH ADMIN#START ", "DEBUG#DELETE END"));
  log.erase(threads, log.end());
  EXPECT_THAT(log,
              ElementsAre("DEBUG#Debug mode enabled", kBanner, kConnecting, kConnected, kLoading,
                          "DEBUG#Load cron task: check", "DEBUG#cron task: getNextTimeToExec",
                          "DEBUG#ADD cron task: " + nextExec, kLoaded, kStarting));
}

TEST_F(StartUpTest, AppendsToItsLog) {
  writeFile(daemon.logPath(), "Sun Nov 15 12:16:44 2026#NOTICE#of yesterday\n");

  ASSERT_TRUE(daemon.startAndWait());

  EXPECT_EQ(daemon.log().at(0), "NOTICE#of yesterday");
  EXPECT_EQ(daemon.log().at(1), kBanner);
}

TEST_F(StartUpTest, CreatesAMissingLogDirectoryWithItsArchive) {
  const std::string directory = daemon.directory / "not/yet/there";
  replaceLine(daemon.mainConfig(), "log_path_task", "log_path_task=" + directory);

  ASSERT_TRUE(daemon.startAndWait());

  EXPECT_THAT(daemon.log(), ElementsAre(kBanner, kNoDirectory, kConnecting, kConnected, kLoading,
                                        kLoaded, kStarting));
  EXPECT_TRUE(fs::is_directory(directory));
  EXPECT_THAT(filesIn(directory), ElementsAre("archive"));
  EXPECT_TRUE(fs::is_directory(directory + "/archive"));
}

TEST_F(StartUpTest, CreatesNothingInAnExistingLogDirectory) {
  fs::create_directory(daemon.outputDirectory());

  ASSERT_TRUE(daemon.startAndWait());

  EXPECT_TRUE(fs::is_empty(daemon.outputDirectory()));
  EXPECT_EQ(daemon.logged(kNoDirectory), 0);
}

TEST_F(StartUpTest, AbortsWhenTheLogDirectoryCannotBeCreated) {
  writeFile(daemon.directory / "file", "");
  const std::string directory = daemon.directory / "file/output";
  replaceLine(daemon.mainConfig(), "log_path_task", "log_path_task=" + directory);

  daemon.start();

  EXPECT_EQ(signalOf(daemon.waitForEnd()), SIGABRT);
  EXPECT_THAT(daemon.console(), HasSubstr("filesystem_error"));
  EXPECT_THAT(daemon.log(), ElementsAre(kBanner, kNoDirectory));
}

TEST_F(StartUpTest, UsesTheLastOfTwoConfigurations) {
  daemon.startWith({"-f", daemon.directory / "first", "-f", daemon.mainConfig()});

  EXPECT_TRUE(waitUntil([&] { return daemon.logged(kStarting) == 1; }, std::chrono::seconds(20)));
}

TEST_F(StartUpTest, ForgetsAllButTheLastConfiguration) {
  const std::string last = daemon.directory / "last";

  daemon.startWith({"-f", daemon.mainConfig(), "-f", last});

  EXPECT_EQ(exitStatusOf(daemon.waitForEnd()), 1);
  EXPECT_EQ(daemon.console(), "error can't open file: " + last + "\n");
  EXPECT_FALSE(fs::exists(daemon.logPath()));
}

TEST_F(StartUpTest, IgnoresAnUnknownOption) {
  daemon.startWith({"-x", "-f", daemon.mainConfig(), "-D"});

  EXPECT_TRUE(
      waitUntil([&] { return daemon.logged("DEBUG#Join Thread") == 1; }, std::chrono::seconds(20)));
  EXPECT_EQ(daemon.console(), daemonPath() + ": invalid option -- 'x'\n");
}

class StartUpWithoutPathTest : public StartUpTest {
 protected:
  void SetUp() override {
    if (fs::exists(kDefaultConfig)) {
      GTEST_SKIP() << kDefaultConfig << " exists: a daemon of this machine's own is configured";
    }
  }

  /// Starts the daemon with `arguments` and expects an error about the missing default
  /// configuration.
  void expectDefault(const std::vector<std::string>& arguments, const std::string& before = "") {
    daemon.startWith(arguments);
    EXPECT_EQ(exitStatusOf(daemon.waitForEnd()), 1);
    EXPECT_EQ(daemon.console(), before + "error can't open file: /etc/kodu/cron.conf\n");
  }
};

TEST_F(StartUpWithoutPathTest, ReadsTheDefaultConfiguration) {
  expectDefault({});
}

TEST_F(StartUpWithoutPathTest, ReadsTheDefaultConfigurationWithTheDebugSwitch) {
  expectDefault({"-D"});
}

TEST_F(StartUpWithoutPathTest, IgnoresAPathSwitchWithoutItsPath) {
  expectDefault({"-f"}, daemonPath() + ": option requires an argument -- 'f'\n");
}

TEST(GlobalsDefaultsTest, NameTheInstalledPaths) {
  EXPECT_EQ(pathToConfigFile, kDefaultConfig);
  EXPECT_EQ(log_directory, "/usr/local/kodu/public_html/data/cron/");
  EXPECT_EQ(debug, 0);
  EXPECT_EQ(die_kodu, 0);
}

TEST_F(StartUpTest, RefusesAClientLibraryWithoutThreads) {
  setenv("LD_PRELOAD", KODU_TEST_NOT_THREAD_SAFE, 1);
  setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);

  expectFailure("Error: Postgresql is not thread safe\n");

  EXPECT_FALSE(fs::exists(daemon.logPath()));
}

TEST_F(StartUpTest, WaitsForPluginsWhereSigchldIsIgnored) {
  TaskRow row;
  row.path = writePlugin(daemon.directory / "plugin", "echo fine");
  row.nextExec = "date_trunc('second', now()) + interval '2 seconds'";
  row.interval = "5 seconds";
  database.insertTask(row);
  void (*const previous)(int) = std::signal(SIGCHLD, SIG_IGN);
  daemon.start();
  std::signal(SIGCHLD, previous);

  EXPECT_TRUE(
      waitUntil([&] { return database.task(1, "cron_status") == "OK"; }, std::chrono::seconds(30)));
}

TEST_F(StartUpTest, EndsWithoutItsConfiguration) {
  fs::remove(daemon.mainConfig());

  expectFailure("error can't open file: " + daemon.mainConfig() + "\n");
}

TEST_F(StartUpTest, EndsWhenItsConfigurationIsUnreadable) {
  fs::remove(daemon.mainConfig());
  fs::create_symlink(daemon.mainConfig(), daemon.mainConfig());  // not readable even by root

  expectFailure("error can't open file: " + daemon.mainConfig() + "\n");
}

TEST_F(StartUpTest, EndsWithAnEmptyConfiguration) {
  writeFile(daemon.mainConfig(), "");

  expectFailure("error open file: \n");
}

TEST_F(StartUpTest, EndsWithoutALogFileKey) {
  replaceLine(daemon.mainConfig(), "log_file", "");

  expectFailure("error open file: \n");
}

TEST_F(StartUpTest, EndsWithAnEmptyLogFileKey) {
  replaceLine(daemon.mainConfig(), "log_file", "log_file=");

  expectFailure("error open file: \n");
}

TEST_F(StartUpTest, EndsWhenTheLogCannotBeOpened) {
  const std::string path = daemon.directory / "missing/cron.log";
  replaceLine(daemon.mainConfig(), "log_file", "log_file=" + path);

  expectFailure("error open file: " + path + "\n");
  EXPECT_FALSE(fs::exists(daemon.outputDirectory()));
}

TEST_F(StartUpTest, EndsWithoutTheDatabaseConfiguration) {
  fs::remove(daemon.databaseConfig());

  expectFailure("error can't open file: " + daemon.databaseConfig() + "\n");
  EXPECT_THAT(daemon.log(), ElementsAre(kBanner, kNoDirectory, kConnecting));
}

TEST_F(StartUpTest, EndsWhenTheDatabaseConfigurationIsUnreadable) {
  fs::remove(daemon.databaseConfig());
  fs::create_symlink(daemon.databaseConfig(), daemon.databaseConfig());

  expectFailure("error can't open file: " + daemon.databaseConfig() + "\n");
}

TEST_F(StartUpTest, EndsWithoutADatabaseConfigurationKey) {
  replaceLine(daemon.mainConfig(), "kodu_conf_file", "");

  expectFailure("error can't open file: \n");
}

TEST_F(StartUpTest, EndsWithAnEmptyDatabaseConfigurationKey) {
  replaceLine(daemon.mainConfig(), "kodu_conf_file", "kodu_conf_file=");

  expectFailure("error can't open file: \n");
}

TEST_F(StartUpTest, AbortsWithoutAThreadNumber) {
  replaceLine(daemon.mainConfig(), "thread_number", "");

  expectConversionFailure("std::invalid_argument");
}

TEST_F(StartUpTest, AbortsWithAnEmptyThreadNumber) {
  replaceLine(daemon.mainConfig(), "thread_number", "thread_number=");

  expectConversionFailure("std::invalid_argument");
}

TEST_F(StartUpTest, AbortsWithAnInvalidThreadNumber) {
  replaceLine(daemon.mainConfig(), "thread_number", "thread_number=abc");

  expectConversionFailure("std::invalid_argument");
}

TEST_F(StartUpTest, AbortsWithAThreadNumberAboveTheIntegers) {
  replaceLine(daemon.mainConfig(), "thread_number", "thread_number=2147483648");

  expectConversionFailure("std::out_of_range");
}

/// The value of thread_number, and the number of workers that it starts.
using ThreadNumber = std::pair<std::string, int>;

class ThreadNumberTest : public StartUpTest, public testing::WithParamInterface<ThreadNumber> {};

TEST_P(ThreadNumberTest, StartsThatManyWorkers) {
  replaceLine(daemon.mainConfig(), "thread_number", "thread_number=" + GetParam().first);

  ASSERT_TRUE(startWithThreads());

  constexpr int kOthers = 4;  // main, timer, admin, listener
  EXPECT_EQ(threadCount(daemon.pid()), kOthers + GetParam().second);
}

INSTANTIATE_TEST_SUITE_P(Values, ThreadNumberTest,
                         testing::Values(ThreadNumber{"1", 1}, ThreadNumber{" 4", 4},
                                         ThreadNumber{"3 workers", 3}, ThreadNumber{"0", 0},
                                         ThreadNumber{"-1", 0}));

TEST_F(StartUpTest, LetsTasksPileUpWithoutWorkers) {
  daemon.threadNumber = "0";
  daemon.writeConfig();
  insertDueTask(1, "task");
  insertDueTask(2, "task");

  ASSERT_TRUE(startWithThreads());

  const char* const kSent = "DEBUG#TH TIME: Send task to execution task";
  ASSERT_TRUE(waitUntil([&] { return daemon.logged(kSent) == 2; }));
  // A task of a later notification is sent as well: the two were never put back.
  insertDueTask(3, "later");
  database.notify(R"({"TYPE":"SERVICE","COMMAND":"ADD","ID":3})");
  ASSERT_TRUE(
      waitUntil([&] { return daemon.logged("DEBUG#TH TIME: Send task to execution later") == 1; }));
  EXPECT_EQ(daemon.logged(kSent), 2);
  EXPECT_EQ(database.value("SELECT count(cron_status) FROM kodu_cron_plugin"), "0");
}

TEST_F(StartUpTest, AcceptsValuesWithALeadingSpace) {
  replaceLine(daemon.databaseConfig(), "PGSQL_port",
              "PGSQL_port= " + std::to_string(database.port()));
  replaceLine(daemon.databaseConfig(), "PGSQL_db", "PGSQL_db= " + database.name());

  EXPECT_TRUE(daemon.startAndWait());
}

TEST_F(StartUpTest, EndsWithAWrongPassword) {
  replaceLine(daemon.databaseConfig(), "PGSQL_pwd", "PGSQL_pwd=wrong");

  expectFailure("connection to server at \"127.0.0.1\", port " + std::to_string(database.port()) +
                " failed: FATAL:  password authentication failed for user \"kodu\"\n\n\n");
  EXPECT_THAT(daemon.log(), ElementsAre(kBanner, kNoDirectory, kConnecting));
}

TEST_F(StartUpTest, EndsWhenTheServerIsDown) {
  replaceLine(daemon.databaseConfig(), "PGSQL_port", "PGSQL_port=1");

  expectFailure(
      "connection to server at \"127.0.0.1\", port 1 failed: Connection refused\n"
      "\tIs the server running on that host and accepting TCP/IP connections?\n\n\n");
  EXPECT_THAT(daemon.log(), ElementsAre(kBanner, kNoDirectory, kConnecting));
}

TEST(SampleConfigurationTest, LimitsTheAttemptToConnect) {
  const iniConfig sample(projectFile("etc/database.conf"));
  const std::string text = "host=" + sample.getKey("POSTGRESQL", "PGSQL_host") +
                           " port=" + sample.getKey("POSTGRESQL", "PGSQL_port");
  PQconninfoOption* const options = PQconninfoParse(text.c_str(), nullptr);
  ASSERT_NE(options, nullptr) << text;
  std::map<std::string, std::string> values;
  for (const PQconninfoOption* option = options; option->keyword != nullptr; ++option) {
    values[option->keyword] = option->val == nullptr ? "" : option->val;
  }
  PQconninfoFree(options);

  EXPECT_EQ(values["host"], "127.0.0.1");
  EXPECT_EQ(values["connect_timeout"], "10");
}

class DatabaseKeyTest : public StartUpTest, public testing::WithParamInterface<std::string> {
 protected:
  /// Expects the daemon to end with libpq's error for the connection string without the value. A
  /// keyword without a value takes the next keyword and its value as its own value.
  void expectConnectionFailure() {
    const auto value = [](const char* key, const std::string& text) {
      return key == GetParam() ? "" : text;
    };
    const std::string message =
        connectError("host=" + value("PGSQL_host", database.host()) +
                     " port=" + value("PGSQL_port", std::to_string(database.port())) +
                     " dbname=" + value("PGSQL_db", database.name()) +
                     " user=" + value("PGSQL_username", database.user()) +
                     " password=" + value("PGSQL_pwd", database.password()));
    ASSERT_NE(message, "");
    expectFailure(message + "\n\n");
  }
};

TEST_P(DatabaseKeyTest, EndsWithLibpqsErrorWhenItIsMissing) {
  replaceLine(daemon.databaseConfig(), GetParam(), "");

  expectConnectionFailure();
}

TEST_P(DatabaseKeyTest, EndsWithLibpqsErrorWhenItIsEmpty) {
  replaceLine(daemon.databaseConfig(), GetParam(), GetParam() + "=");

  expectConnectionFailure();
}

INSTANTIATE_TEST_SUITE_P(Keys, DatabaseKeyTest,
                         testing::Values("PGSQL_host", "PGSQL_port", "PGSQL_db", "PGSQL_username",
                                         "PGSQL_pwd"),
                         [](const auto& key) { return key.param.substr(6); });

TEST_F(StartUpTest, EndsWhenAStatementCannotBePrepared) {
  database.query("DROP TABLE kodu_cron_error CASCADE");

  expectFailure(
      "prepare failed:  ERROR:  relation \"kodu_cron_error\" does not exist\n"
      "LINE 1: DELETE FROM kodu_cron_error WHERE cron_id=$1::int;\n"
      "                    ^\n\n");
  EXPECT_THAT(daemon.log(), ElementsAre(kBanner, kNoDirectory, kConnecting, kConnected));
}

TEST_F(StartUpTest, EndsWhenTheTasksCannotBeRead) {
  database.query("DROP TABLE kodu_plugins CASCADE");

  daemon.start();

  EXPECT_EQ(exitStatusOf(daemon.waitForEnd()), 1);
  EXPECT_THAT(daemon.console(),
              StartsWith("execute failed:  ERROR:  relation \"kodu_plugins\" does not exist\n"));
  EXPECT_THAT(daemon.log(), ElementsAre(kBanner, kNoDirectory, kConnecting, kConnected, kLoading));
}

/// Runs the daemon by a shell, with other standard files than the fixture's.
class StandardFilesTest : public StartUpTest {
 protected:
  /// Runs `command`, in which "$0" is the daemon and "$1" its configuration, with standard output
  /// and standard error in files.
  int run(const std::string& command) const {
    const std::string line = "exec sh -c '" + command + "' \"$KODU_TEST_DAEMON\" '" +
                             daemon.mainConfig() + "' >'" + output() + "' 2>'" + error() + "'";
    return std::system(line.c_str());
  }

  std::string output() const { return daemon.directory / "standard.output"; }
  std::string error() const { return daemon.directory / "standard.error"; }

  const std::string message = "erreur de redirection de flux stderr (dup2): Bad file descriptor";
};

// Standard input is closed too: otherwise the log would get the free descriptor of the standard
// output.
TEST_F(StandardFilesTest, EndsWithStatus2WhenTheStandardOutputIsClosed) {
  EXPECT_EQ(exitStatusOf(run(R"(exec "$0" -D -f "$1" <&- >&-)")), 2);

  EXPECT_EQ(readFile(output()), "");
  EXPECT_EQ(readFile(error()), message + ": Bad file descriptor\n");
  EXPECT_THAT(daemon.log(), ElementsAre("DEBUG#Debug mode enabled"));
}

// No descriptor from 2 on can be opened, so the log gets the standard input's.
TEST_F(StandardFilesTest, ReportsAFailedRedirectionOnBoth) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer's start needs more descriptors";
#endif
  EXPECT_EQ(exitStatusOf(run(R"(exec <&-; ulimit -n 2; exec "$0" -f "$1")")), 2);

  EXPECT_EQ(readFile(output()), message + "\n");
  EXPECT_EQ(readFile(error()), message + ": Bad file descriptor\n");
  EXPECT_EQ(readFile(daemon.logPath()), "");
}

TEST_F(StandardFilesTest, RedirectsStandardErrorToStandardOutput) {
  replaceLine(daemon.mainConfig(), "thread_number", "thread_number=abc");

  EXPECT_EQ(signalOf(run(R"(exec "$0" -f "$1")")), SIGABRT);

  EXPECT_THAT(readFile(output()), HasSubstr("what():  stoi\n"));
  EXPECT_EQ(readFile(error()), "");
}

}  // namespace
