#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/Files.h"

class Database;

/// The built daemon as a child process, with INI files, log and output files in a temporary
/// directory. The destructor kills it and its plugins.
class Daemon {
 public:
  /// Writes the INI files for `database`; starts nothing.
  explicit Daemon(const Database& database);
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Values for the INI files; change them before start().

  std::string threadNumber = "2";
  /// The role that it connects as, with the password of the database's.
  std::string role;
  /// The environment variable that contains the program's path.
  std::string programVariable = "KODU_TEST_DAEMON";
  std::string mainConfig() const { return directory / "cron.conf"; }
  std::string databaseConfig() const { return directory / "database.conf"; }
  std::string logPath() const { return directory / "cron.log"; }
  std::string outputDirectory() const { return directory / "output"; }
  /// Standard output and standard error of the daemon.
  std::string consolePath() const { return directory / "console"; }
  /// Writes both INI files again, with the present threadNumber and role.
  void writeConfig() const;
  /// Writes the database's INI file alone, with these values of its host and port lines.
  void writeDatabaseConfig(const std::string& host, int port) const;

  /// Starts the daemon with `-f mainConfig()` and `options`, as "-D". Returns at once.
  void start(const std::vector<std::string>& options = {});
  /// Starts it with these arguments alone.
  void startWith(const std::vector<std::string>& arguments);
  /// Starts it and waits until its log reports the start of its threads. False after 20 s.
  bool startAndWait(const std::vector<std::string>& options = {});

  pid_t pid() const { return process; }
  /// Throws std::logic_error before the first start.
  void signal(int number) const;

  /// waitpid's status once the daemon has ended; nothing when it still runs after `limit`.
  std::optional<int> waitForEnd(std::chrono::seconds limit = std::chrono::seconds(30));
  bool isRunning();

  /// Its log's messages in order, each as "LEVEL#message".
  std::vector<std::string> log() const;
  /// The number of lines `line` ("LEVEL#message") in its log.
  long logged(const std::string& line) const;
  /// What it wrote on standard output and standard error.
  std::string console() const;
  /// The content of an output file, by its path below outputDirectory().
  std::string output(const std::string& name) const;

  TempDir directory;

 private:
  /// Stores the status when the daemon has ended.
  void poll();

  const Database& database;
  pid_t process = -1;
  std::optional<int> endStatus;
};
