#include "ctl/session/config.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>

#include <libpq-fe.h>

#include "core/globals.h"
#include "core/iniConfig.h"
#include "ctl/failure.h"
#include "ctl/files/regularFile.h"

namespace {

/// Called before the first lookup, because the reader's message does not give the reason.
void requireReadable(const std::string& path, const std::string& advice) {
  struct stat status {};
  const auto kind = stat(path.c_str(), &status) == 0 ? waitingKind(status.st_mode) : std::nullopt;
  const std::ifstream file(kind ? "" : path);
  if (file.is_open()) {
    return;
  }
  const int error = errno;
  throw Failure(
      error == EACCES ? kNotPermitted : kWrongConfig,
      fmt::format("cannot read {}: {}; {}", path, kind.value_or(std::strerror(error)), advice));
}

/// `value` in the form that libpq reads after a "=".
std::string quoted(const std::string& value) {
  std::string text = "'";
  for (const char c : value) {
    if (c == '\'' || c == '\\') {
      text += '\\';
    }
    text += c;
  }
  return text + "'";
}

void readDatabaseFile(DaemonConfig& config) {
  const iniConfig database(config.databaseFile);
  config.host = database.getKey("POSTGRESQL", "PGSQL_host");
  config.port = database.getKey("POSTGRESQL", "PGSQL_port");
  config.database = database.getKey("POSTGRESQL", "PGSQL_db");
  config.user = database.getKey("POSTGRESQL", "PGSQL_username");
  config.password = database.getKey("POSTGRESQL", "PGSQL_pwd");
}

bool mayRead(const std::string& path) {
  return faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) == 0 || errno != EACCES;
}

bool isInEnvironment(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): there is one thread
  return value != nullptr && *value != '\0';
}

/// For a role of the caller, whose password is not in the file.
void requireDatabaseInEnvironment(const DaemonConfig& config) {
  if (!isInEnvironment("PGDATABASE") && !isInEnvironment("PGSERVICE")) {
    throw Failure(
        kNotPermitted,
        fmt::format("cannot read {}: {}; with --user, name the database by PGHOST, PGPORT "
                    "and PGDATABASE, or by PGSERVICE",
                    config.databaseFile, std::strerror(EACCES)));
  }
}

}  // namespace

DaemonConfig readConfig(const std::string& mainFile, const std::string& user) {
  requireReadable(mainFile, "name the daemon's main INI file with -f");
  const iniConfig mainConfig(mainFile);
  DaemonConfig config;
  config.mainFile = mainFile;
  config.logFile = mainConfig.getKey("LOG", "log_file");
  config.outputDirectory = mainConfig.getKey("LOG", "log_path_task");
  config.threadNumber = mainConfig.getKey("CRON", "thread_number");
  config.databaseFile = mainConfig.getKey("CRON", "kodu_conf_file");
  if (config.outputDirectory.empty()) {
    config.outputDirectory = log_directory;
  }
  // The daemon appends a slash: its "output//1_last.txt" is the same file.
  while (config.outputDirectory.size() > 1 && config.outputDirectory.ends_with('/')) {
    config.outputDirectory.pop_back();
  }
  if (config.databaseFile.empty()) {
    throw Failure(kWrongConfig, fmt::format("{} names no database file: write kodu_conf_file=PATH "
                                            "into its section [CRON]",
                                            mainFile));
  }
  config.isDatabaseFileRead = user.empty() || mayRead(config.databaseFile);
  if (!config.isDatabaseFileRead) {
    requireDatabaseInEnvironment(config);
    config.user = "kodu";
    return config;
  }
  requireReadable(config.databaseFile,
                  fmt::format("kodu_conf_file in {} names it; run koductl as the daemon's user or "
                              "as root, or use --user ROLE",
                              mainFile));
  readDatabaseFile(config);
  return config;
}

std::string connectionString(const DaemonConfig& config, const std::string& user,
                             const std::string& application) {
  const std::string own = fmt::format("application_name={} connect_timeout=10", application);
  if (!config.isDatabaseFileRead) {
    return own + " user=" + quoted(user);
  }
  // Unquoted, as in the daemon: a value can contain further settings of libpq. koductl's own
  // settings come first, so that the file's values win.
  const std::string place =
      fmt::format("{} host={} port={} dbname={}", own, config.host, config.port, config.database);
  if (!user.empty()) {
    return place + " user=" + quoted(user);
  }
  return fmt::format("{} user={} password={}", place, config.user, config.password);
}

std::string connectionString(const std::string& given) {
  char* error = nullptr;
  const std::unique_ptr<PQconninfoOption, decltype(&PQconninfoFree)> options(
      PQconninfoParse(given.c_str(), &error), PQconninfoFree);
  const std::unique_ptr<char, decltype(&PQfreemem)> reason(error, PQfreemem);
  if (!options) {
    throw Failure(kWrongUsage,
                  fmt::format("--connect: {}", trim(reason ? reason.get() : "no memory")));
  }
  // As settings, whether they were given so or as a URI: further ones can stand behind them.
  std::string text = "application_name=kodu_ctl connect_timeout=10";
  for (const PQconninfoOption* option = options.get(); option->keyword != nullptr; ++option) {
    if (option->val != nullptr) {
      text += fmt::format(" {}={}", option->keyword, quoted(option->val));
    }
  }
  return text;
}
