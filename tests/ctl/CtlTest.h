#pragma once

#include <fcntl.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include "tests/support/DaemonTest.h"
#include "tests/support/Files.h"
#include "tests/support/Process.h"
#include "tests/support/builtProgram.h"

/// Exit status and output of a run of koductl.
struct CtlResult {
  int exitCode = -1;
  std::string out, err;
};

/// koductl as a child process, beside the database, the INI files and the daemon of DaemonTest. The
/// functions that its changing commands call are in the database, with an administrator's role.
class CtlTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    database.query(readFile(projectFile("sql/functions.sql")));
    database.query(readFile(projectFile("sql/ledger.sql")));
    database.query(readFile(projectFile("sql/metrics.sql")));
    database.query("CREATE ROLE " + admin() + " LOGIN PASSWORD 'secret' IN ROLE kodu_admin");
    environment = {"PATH=/usr/bin:/bin", "TERM=xterm"};
  }
  void TearDown() override { database.query("DROP ROLE " + admin()); }

  /// A role of this test's own: roles belong to the whole cluster.
  std::string admin() const { return "admin_of_" + database.name(); }

  /// Replaces the function that `koductl run` calls.
  void replaceRunNow(const std::string& language, const std::string& body) const {
    database.query(
        "DROP FUNCTION kodu_task_run_now; CREATE FUNCTION kodu_task_run_now(task int)"
        " RETURNS void LANGUAGE " +
        language + " AS $body$" + body + "$body$");
  }

  /// Runs koductl with the daemon's configuration and waits for its end.
  CtlResult run(const std::vector<std::string>& arguments) const {
    std::vector<std::string> all = {"-f", daemon.mainConfig()};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return runWith(all);
  }
  /// The same as a member of kodu_admin.
  CtlResult runAsAdmin(const std::vector<std::string>& arguments) {
    environment.emplace_back("PGPASSWORD=secret");
    std::vector<std::string> all = {"--user", admin()};
    all.insert(all.end(), arguments.begin(), arguments.end());
    CtlResult result = run(all);
    environment.pop_back();
    return result;
  }
  /// Runs it with these arguments alone.
  CtlResult runWith(const std::vector<std::string>& arguments) const {
    int status = 0;
    waitpid(start(arguments), &status, 0);
    return {exitStatusOf(status), readFile(outPath()), readFile(errPath())};
  }

  /// Starts it with its outputs in outPath() and errPath(); returns its pid at once.
  pid_t start(std::vector<std::string> arguments, const std::string& name = "ctl") const {
    arguments.insert(arguments.begin(), program());
    const std::vector<char*> pointers = pointersTo(arguments);
    std::vector<std::string> variables = environment;
    const std::vector<char*> variablePointers = pointersTo(variables);
    const std::string out = outPath(name);
    const std::string err = errPath(name);
    const pid_t pid = fork();
    if (pid == 0) {
      redirect("/dev/null", O_RDONLY, STDIN_FILENO);
      redirect(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, STDOUT_FILENO);
      redirect(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, STDERR_FILENO);
      execve(pointers[0], pointers.data(), variablePointers.data());
      _exit(127);
    }
    return pid;
  }

  /// The output of koductl on a terminal of 100 columns, standard output and standard error
  /// together.
  std::string runOnTerminal(const std::vector<std::string>& arguments,
                            const std::vector<std::string>& variables = {"TERM=xterm",
                                                                         "NO_COLOR=1"}) const {
    std::vector<std::string> all = {program(), "-f", daemon.mainConfig()};
    all.insert(all.end(), arguments.begin(), arguments.end());
    const std::vector<char*> pointers = pointersTo(all);
    winsize size{24, 100, 0, 0};
    int terminal = -1;
    const pid_t pid = forkpty(&terminal, nullptr, nullptr, &size);
    if (pid == 0) {
      for (const std::string& variable : variables) {
        putenv(const_cast<char*>(variable.c_str()));
      }
      execv(pointers[0], pointers.data());
      _exit(127);
    }
    std::string output;
    std::array<char, 4096> chunk{};
    for (ssize_t length = 0; (length = read(terminal, chunk.data(), chunk.size())) > 0;) {
      output.append(chunk.data(), static_cast<std::size_t>(length));
    }
    close(terminal);
    waitpid(pid, nullptr, 0);
    return output;
  }

  static std::string program() { return builtProgram("KODU_TEST_CTL"); }
  static std::string guard() { return builtProgram("KODU_TEST_GUARD"); }

  /// A task that is not due for an hour, with a plugin that prints "fine".
  TaskRow quietTask(int id) const {
    TaskRow row;
    row.id = id;
    row.name = "task" + std::to_string(id);
    row.path = writePlugin(daemon.directory / row.name, "echo fine");
    return row;
  }
  void setStatus(int id, const std::string& status) const {
    database.query("UPDATE kodu_cron_plugin SET cron_status = '" + status +
                   "' WHERE cron_id = " + std::to_string(id));
  }
  /// Adds a run that failed `secondsAgo`, with its archived output.
  void addFailure(int id, long secondsAgo, const std::string& name,
                  const std::string& output) const {
    database.query("INSERT INTO kodu_cron_error (cron_id, cron_date, cron_logfile) VALUES (" +
                   std::to_string(id) + ", now() - interval '" + std::to_string(secondsAgo) +
                   " seconds', '" + name + "')");
    std::filesystem::create_directories(archive(id));
    writeFile(archive(id) + "/" + name, output);
  }
  std::string archive(int id) const {
    return daemon.outputDirectory() + "/archive/" + std::to_string(id);
  }
  void writeOutput(const std::string& name, const std::string& content) const {
    std::filesystem::create_directories(daemon.outputDirectory());
    writeFile(daemon.outputDirectory() + "/" + name, content);
  }

  /// Appends two slashes to the output directory in the INI file.
  void endOutputDirectoryInSlash() const {
    std::string config = readFile(daemon.mainConfig());
    config.insert(config.find(daemon.outputDirectory()) + daemon.outputDirectory().size(), "//");
    writeFile(daemon.mainConfig(), config);
  }

  static Json::Value parsed(const std::string& text) {
    Json::Value value;
    std::istringstream stream(text);
    std::string errors;
    if (!Json::parseFromStream(Json::CharReaderBuilder(), stream, &value, &errors)) {
      throw std::runtime_error("not JSON: " + text);
    }
    return value;
  }
  /// A word of a table's line that begins with `first`, counted from 0.
  static std::string cell(const std::string& table, const std::string& first, int index) {
    std::istringstream lines(table);
    for (std::string line; std::getline(lines, line);) {
      std::istringstream words(line);
      std::string word;
      words >> word;
      if (word == first) {
        for (int i = 0; i < index; ++i) {
          words >> word;
        }
        return word;
      }
    }
    return "no line " + first;
  }

  std::string outPath(const std::string& name = "ctl") const {
    return daemon.directory / (name + ".out");
  }
  std::string errPath(const std::string& name = "ctl") const {
    return daemon.directory / (name + ".err");
  }

  std::vector<std::string> environment;  // of koductl

 private:
  static std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) {
      pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
  }
  static void redirect(const char* path, int flags, int target) {
    const int file = open(path, flags, 0600);
    dup2(file, target);
    close(file);
  }
};
