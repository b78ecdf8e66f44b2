#include "tests/support/Daemon.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include "tests/support/Database.h"
#include "tests/support/builtProgram.h"
#include "tests/support/waitUntil.h"

Daemon::Daemon(const Database& testDatabase) : role(testDatabase.user()), database(testDatabase) {
  writeConfig();
}

Daemon::~Daemon() {
  if (isRunning()) {
    kill(-process, SIGKILL);
    waitpid(process, nullptr, 0);
  }
}

void Daemon::writeConfig() const {
  writeFile(mainConfig(), "[LOG]\nlog_file=" + logPath() + "\nlog_path_task=" + outputDirectory() +
                              "\n[CRON]\nthread_number=" + threadNumber +
                              "\nkodu_conf_file=" + databaseConfig() + "\n");
  writeDatabaseConfig(database.host(), database.port());
}

void Daemon::writeDatabaseConfig(const std::string& host, int port) const {
  writeFile(databaseConfig(), "[POSTGRESQL]\nPGSQL_host=" + host +
                                  "\nPGSQL_port=" + std::to_string(port) +
                                  "\nPGSQL_db=" + database.name() + "\nPGSQL_username=" + role +
                                  "\nPGSQL_pwd=" + database.password() + "\n");
}

void Daemon::start(const std::vector<std::string>& options) {
  std::vector<std::string> arguments = {"-f", mainConfig()};
  arguments.insert(arguments.end(), options.begin(), options.end());
  startWith(arguments);
}

void Daemon::startWith(const std::vector<std::string>& arguments) {
  const std::string path = builtProgram(programVariable);
  std::vector<char*> pointers = {const_cast<char*>(path.c_str())};
  for (const std::string& argument : arguments) {
    pointers.push_back(const_cast<char*>(argument.c_str()));
  }
  pointers.push_back(nullptr);
  const std::string console = consolePath();
  endStatus.reset();
  process = fork();
  if (process == 0) {
    setpgid(0, 0);  // so that its plugins can be killed with it
    const int file = open(console.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(file, STDOUT_FILENO);
    dup2(file, STDERR_FILENO);
    close(file);
    execv(path.c_str(), pointers.data());
    _exit(127);
  }
  setpgid(process, process);
}

bool Daemon::startAndWait(const std::vector<std::string>& options) {
  const long before = logged("NOTICE#Start Thread");
  start(options);
  return waitUntil([&] { return logged("NOTICE#Start Thread") > before; },
                   std::chrono::seconds(20));
}

void Daemon::signal(int number) const {
  if (process <= 0) {  // kill(-1) would signal every process of the machine
    throw std::logic_error("the daemon has not been started");
  }
  kill(process, number);
}

void Daemon::poll() {
  int status = 0;
  if (process > 0 && !endStatus && waitpid(process, &status, WNOHANG) == process) {
    endStatus = status;
    kill(-process, SIGKILL);  // plugins that are still running
  }
}

std::optional<int> Daemon::waitForEnd(std::chrono::seconds limit) {
  waitUntil([&] { return !isRunning(); }, limit);
  return endStatus;
}

bool Daemon::isRunning() {
  poll();
  return process > 0 && !endStatus;
}

std::vector<std::string> Daemon::log() const {
  return readLog(logPath());
}

long Daemon::logged(const std::string& line) const {
  const auto messages = log();
  return std::count(messages.begin(), messages.end(), line);
}

std::string Daemon::console() const {
  return readFile(consolePath());
}

std::string Daemon::output(const std::string& name) const {
  return readFile(outputDirectory() + "/" + name);
}
