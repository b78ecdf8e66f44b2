#include <fcntl.h>
#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ctl/commandLine.h"
#include "ctl/description.h"
#include "tests/ctl/CtlTest.h"
#include "tests/ctl/everyCommand.h"

namespace {

using std::chrono::microseconds;
using std::chrono::steady_clock;

constexpr int kTasks = 40;

/// Every command of koductl, stopped at a random moment or by a reader that has gone: it ends at
/// once, without a stack of messages, and has done all or nothing.
class InterruptTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    database.query(readFile(projectFile("sql/events.sql")));
    const std::string path = writePlugin(daemon.directory / "plugin", "echo fine");
    database.query(
        "INSERT INTO kodu_plugins (plugin_id, plugin_name, plugin_path)"
        " SELECT n, 'task' || n, '" +
        path + "' FROM generate_series(1, " + std::to_string(kTasks) +
        ") AS n;"
        "INSERT INTO kodu_cron_plugin (cron_id, cron_plugin_id, cron_interval, cron_status,"
        " cron_next_exec, cron_log_file, cron_parameter)"
        " SELECT n, n, '1 hour', 'OK', date_trunc('second', now()) + interval '50 minutes',"
        " '$SERVICEID_$DATE.txt', 'a' FROM generate_series(1, " +
        std::to_string(kTasks) +
        ") AS n;"
        "SELECT setval('kodu_plugins_plugin_id_seq', 1000),"
        " setval('kodu_cron_plugin_cron_id_seq', 1000)");
    writeOutput("1_last.txt", "fine\n");
    writeFile(daemon.logPath(), "");
    writeFile(declared(), declaration());
    for (const std::string& table : tables()) {
      database.query(fmt::format("CREATE TABLE backup_{0} AS TABLE {0}", table));
    }
    restore();
    environment.emplace_back("PGPASSWORD=secret");
  }

  std::string declared() const { return daemon.directory / "declared.yaml"; }
  std::string metrics() const { return daemon.directory / "metrics.prom"; }

  /// Changes the first tasks and adds as many.
  static std::string declaration() {
    std::string text = "set: s\ntasks:\n";
    for (int id = 1; id <= kTasks; ++id) {
      const std::string number = std::to_string(id);
      text += "  task-" + number + ": {plugin: /bin/true, every: 7m}\n";
      text += "  new-" + number + ": {plugin: /bin/true, every: 7m}\n";
    }
    return text;
  }

  std::map<std::string, std::vector<Words>> calls() const {
    return callsOfEveryCommand(declared(), metrics());
  }

  /// The database and the archive as they were at the beginning.
  void restore() const {
    std::string sql = "BEGIN; SET LOCAL session_replication_role = replica;";
    for (const std::string& table : tables()) {
      sql += fmt::format(
          "DELETE FROM {0};INSERT INTO {0} OVERRIDING SYSTEM VALUE TABLE backup_{0};", table);
    }
    database.query(sql + "COMMIT");
    std::filesystem::remove_all(archive(1));
    for (int number = 0; number < kTasks; ++number) {
      addFailure(1, 100 + number, "1_" + std::to_string(number) + ".txt", "bad\n");
    }
    std::filesystem::remove(metrics());
  }

  /// What commands change, without the times, which are others at each call.
  std::string state() const {
    return database.value(
        "SELECT concat_ws(' / ',"
        " (SELECT string_agg(concat_ws(' x ', kind, tasks), '; ' ORDER BY kind)"
        "  FROM (SELECT concat_ws(' ', every, plugin_path, CASE WHEN deleting THEN 'deleting' END,"
        "          CASE WHEN paused THEN 'paused' END,"
        "          CASE WHEN scheduled < now() + interval '10 minutes' THEN 'soon' END) AS kind,"
        "          count(*) AS tasks FROM kodu_task_state GROUP BY 1) AS kinds),"
        " (SELECT count(DISTINCT cron_next_exec) > 1 FROM kodu_cron_plugin"
        "  WHERE cron_next_exec BETWEEN now() + interval '10 minutes' AND now() + interval '2 "
        "hours'),"
        " (SELECT count(*) FROM kodu_metric_mark),"
        " (SELECT string_agg(concat_ws(' in ', task_key, task_set), ';' ORDER BY task_key)"
        "  FROM kodu_cron_key),"
        " (SELECT count(*) FROM kodu_cron_error))");
  }

  /// The archived outputs that no row of the history names.
  int strayFiles() const {
    int count = 0;
    std::error_code none;
    for (const auto& file : std::filesystem::directory_iterator(archive(1), none)) {
      count += database.value("SELECT count(*) FROM kodu_cron_error WHERE cron_logfile = '" +
                              file.path().filename().string() + "'") == "0"
                   ? 1
                   : 0;
    }
    return count;
  }

  Words commandOf(const Words& call) const {
    Words all = {"-f", daemon.mainConfig()};
    if (call.front() != "repair" && call.front() != "test") {  // which need the daemon's role
      all.insert(all.end(), {"--user", admin()});
    }
    all.insert(all.end(), call.begin(), call.end());
    return all;
  }

  /// The status of a process that is to end by itself within some seconds.
  static int statusOf(pid_t process, const std::string& name) {
    int status = -1;
    if (!waitUntil([&] { return waitpid(process, &status, WNOHANG) == process; })) {
      ADD_FAILURE() << name << " does not end";
      kill(process, SIGKILL);
      waitpid(process, &status, 0);
    }
    return status;
  }

  static bool isEndless(const Words& call) {
    static const std::set<std::string> kEndless = {"--watch", "-f", "--follow", "--wait"};
    return std::any_of(call.begin(), call.end(),
                       [](const std::string& word) { return kEndless.count(word) > 0; });
  }

  static std::string nameOf(const Words& call) {
    std::string name;
    for (const std::string& word : call) {
      name += word + " ";
    }
    return name;
  }

  /// One line, two with a hint: the same as without a signal.
  void expectNoStackOfMessages(const std::string& name) const {
    const std::string err = readFile(errPath());
    EXPECT_LE(std::count(err.begin(), err.end(), '\n'), 4) << name << "\n" << err;
    EXPECT_EQ(err.find("terminate called"), std::string::npos) << name << "\n" << err;
  }

  /// Nothing, or all that the undisturbed command does.
  void expectAllOrNothing(const std::string& name, const std::string& before,
                          const std::string& after) const {
    // The server notices within a second that a client has gone.
    EXPECT_TRUE(waitUntil([&] {
      return database.value(
                 "SELECT count(*) FROM pg_stat_activity WHERE datname = current_database()"
                 " AND application_name LIKE 'kodu\\_%'") == "0";
    })) << name
        << " leaves a session";
    const std::string now = state();
    EXPECT_TRUE(now == before || now == after) << name << "\n"
                                               << before << "\n"
                                               << now << "\n"
                                               << after;
    EXPECT_EQ(strayFiles(), 0) << name;
    for (const auto& file :
         std::filesystem::directory_iterator(std::filesystem::path(errPath()).parent_path())) {
      EXPECT_EQ(file.path().filename().string().find("metrics.prom."), std::string::npos) << name;
    }
  }

  static bool isChange(const std::string& command) {
    static const std::set<std::string> kChanges = {
        "add",   "set",    "pause",   "resume", "run",    "delete", "undelete",
        "apply", "schema", "stagger", "prune",  "repair", "metrics"};
    return kChanges.count(command) > 0;
  }

  /// Other moments in each run of the test.
  static std::mt19937 makeRandom() {
    const auto seed = std::random_device()();
    std::cout << "seed " << seed << "\n";
    return std::mt19937(seed);
  }

  /// Starts the command and stops it at a moment of the time that it takes.
  void stop(const Words& call, microseconds took, std::mt19937& random) const {
    const pid_t process = start(commandOf(call));
    std::this_thread::sleep_for(
        microseconds(std::uniform_int_distribution<long>(0, took.count())(random)));
    kill(process, SIGINT);
    const int status = statusOf(process, nameOf(call));
    // One that ended before the signal has its own exit status.
    EXPECT_TRUE(signalOf(status) == SIGINT || exitStatusOf(status) >= 0) << nameOf(call);
    expectNoStackOfMessages(nameOf(call));
  }

  /// Prepares what the command changes back.
  void prepare(const Words& call) const {
    restore();
    if (call.front() == "resume") {
      database.query("SELECT kodu_task_pause(cron_id) FROM kodu_cron_plugin");
    } else if (call.front() == "undelete") {
      database.query("SELECT kodu_task_delete(cron_id) FROM kodu_cron_plugin");
    }
  }

  /// The state that the command leads to, and how long it takes.
  std::string whole(const Words& call, microseconds& took) const {
    if (isEndless(call)) {
      took = std::chrono::milliseconds(200);
      return call.front() == "run" ? "" : state();
    }
    const auto begin = steady_clock::now();
    statusOf(start(commandOf(call)), nameOf(call));
    took = std::chrono::duration_cast<microseconds>(steady_clock::now() - begin);
    return state();
  }

  /// Starts it with a pipe without a reader as standard output.
  pid_t startIntoClosedPipe(const Words& call, bool isSignalIgnored) const {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    close(ends[0]);
    Words all = commandOf(call);
    all.insert(all.begin(), program());
    std::vector<char*> pointers;
    std::vector<char*> variables;
    for (std::string& word : all) {
      pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    Words settings = environment;
    for (std::string& setting : settings) {
      variables.push_back(setting.data());
    }
    variables.push_back(nullptr);
    const std::string err = errPath();
    const pid_t process = fork();
    if (process == 0) {
      std::signal(SIGPIPE, isSignalIgnored ? SIG_IGN : SIG_DFL);
      const int errors = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      const int nothing = open("/dev/null", O_RDONLY);
      dup2(nothing, STDIN_FILENO);
      dup2(ends[1], STDOUT_FILENO);
      dup2(errors, STDERR_FILENO);
      execve(pointers[0], pointers.data(), variables.data());
      _exit(127);
    }
    close(ends[1]);
    return process;
  }

  static Words tables() {
    return {"kodu_plugins",  "kodu_cron_plugin", "kodu_cron_pause",
            "kodu_cron_key", "kodu_cron_error",  "kodu_metric_mark"};
  }
};

TEST_F(InterruptTest, KnowsEveryCommand) {
  const auto known = calls();
  for (const CommandDescription& command : allCommands(describeCommandLine())) {
    EXPECT_EQ(known.count(command.name), 1U) << command.name;
  }
}

TEST_F(InterruptTest, ChangesNothingWhenACommandThatShowsIsStopped) {
  std::mt19937 random = makeRandom();
  const std::string before = state();
  for (const auto& [command, forms] : calls()) {
    for (const Words& call : forms) {
      if (isChange(command)) {
        continue;
      }
      microseconds took{};
      whole(call, took);
      for (int round = 0; round < 3; ++round) {
        stop(call, took, random);
      }
    }
  }
  expectAllOrNothing("a command that shows", before, before);
}

TEST_F(InterruptTest, DoesAllOrNothingWhenACommandThatChangesIsStopped) {
  std::mt19937 random = makeRandom();
  for (const auto& [command, forms] : calls()) {
    for (const Words& call : forms) {
      if (!isChange(command)) {
        continue;
      }
      prepare(call);
      microseconds took{};
      const std::string after = whole(call, took);
      for (int round = 0; round < 3; ++round) {
        prepare(call);
        const std::string before = state();
        stop(call, took, random);
        if (!after.empty()) {  // not of the run of a task that the command does not wait for
          expectAllOrNothing(nameOf(call), before, after);
        }
      }
    }
  }
}

TEST_F(InterruptTest, EndsQuietlyWhenNobodyReadsItsOutput) {
  for (const auto& [command, forms] : calls()) {
    for (const Words& call : forms) {
      if (isEndless(call) && call.front() != "status") {
        continue;  // they write nothing until something happens
      }
      prepare(call);
      microseconds took{};
      const std::string after = whole(call, took);
      for (const bool isSignalIgnored : {false, true}) {
        prepare(call);
        const std::string before = state();
        const int status = statusOf(startIntoClosedPipe(call, isSignalIgnored), nameOf(call));
        EXPECT_TRUE(signalOf(status) == (isSignalIgnored ? -1 : SIGPIPE) ||
                    exitStatusOf(status) >= 0)
            << nameOf(call);
        expectNoStackOfMessages(nameOf(call));
        expectAllOrNothing(nameOf(call), before, after);
      }
    }
  }
}

}  // namespace
