#include "ctl/config.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "core/globals.h"
#include "core/iniConfig.h"
#include "ctl/failure.h"

namespace {

/// Before the first lookup, since the reader's own message does not say why.
void requireReadable(const std::string& path, const std::string& advice) {
  const std::ifstream file(path);
  if (file.is_open()) {
    return;
  }
  const int error = errno;
  throw Failure(error == EACCES ? kNotPermitted : kWrongConfig,
                fmt::format("cannot read {}: {}; {}", path, std::strerror(error), advice));
}

/// `value` as libpq reads it behind a "=".
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

}  // namespace

DaemonConfig readConfig(const std::string& mainFile) {
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
  // The daemon puts a slash of its own behind it: its "output//1_last.txt" is this very file.
  while (config.outputDirectory.size() > 1 && config.outputDirectory.ends_with('/')) {
    config.outputDirectory.pop_back();
  }
  log_directory = config.outputDirectory;
  if (config.databaseFile.empty()) {
    throw Failure(kWrongConfig, fmt::format("{} names no database file: write kodu_conf_file=PATH "
                                            "into its section [CRON]",
                                            mainFile));
  }
  requireReadable(config.databaseFile,
                  fmt::format("kodu_conf_file in {} names it; run koductl as the daemon's user or "
                              "as root where only they may read it",
                              mainFile));
  const iniConfig database(config.databaseFile);
  config.host = database.getKey("POSTGRESQL", "PGSQL_host");
  config.port = database.getKey("POSTGRESQL", "PGSQL_port");
  config.database = database.getKey("POSTGRESQL", "PGSQL_db");
  config.user = database.getKey("POSTGRESQL", "PGSQL_username");
  config.password = database.getKey("POSTGRESQL", "PGSQL_pwd");
  return config;
}

std::string connectionString(const DaemonConfig& config, const std::string& user) {
  // Unquoted, as the daemon inserts them: a value may bring further settings of libpq with it. Ours
  // stand first, so that those win; the healthcheck does not take a kodu_ session for the daemon.
  const std::string place =
      fmt::format("application_name=kodu_ctl connect_timeout=10 host={} port={} dbname={}",
                  config.host, config.port, config.database);
  if (!user.empty()) {
    return place + " user=" + quoted(user);
  }
  return fmt::format("{} user={} password={}", place, config.user, config.password);
}

std::string connectionString(const std::string& given) {
  return "application_name=kodu_ctl connect_timeout=10 " + given;
}
