#include <fmt/format.h>
#include <sys/stat.h>

#include <array>
#include <stdexcept>
#include <string>

#include "core/iniConfig.h"
#include "ctl/check/checks.h"
#include "ctl/check/findings.h"
#include "ctl/daemon/daemonProcess.h"
#include "ctl/files/fileCheck.h"
#include "ctl/session/config.h"

namespace {

struct Key {
  const char* section;
  const char* name;
  bool isNeeded;
};

constexpr std::array<Key, 4> kMainKeys = {{{"LOG", "log_file", true},
                                           {"LOG", "log_path_task", false},
                                           {"CRON", "thread_number", true},
                                           {"CRON", "kodu_conf_file", true}}};
constexpr std::array<Key, 5> kDatabaseKeys = {{{"POSTGRESQL", "PGSQL_host", true},
                                               {"POSTGRESQL", "PGSQL_port", true},
                                               {"POSTGRESQL", "PGSQL_db", true},
                                               {"POSTGRESQL", "PGSQL_username", true},
                                               {"POSTGRESQL", "PGSQL_pwd", false}}};

/// Warns of a key whose value the daemon reads differently from what the file suggests.
void checkKey(const std::string& file, const Key& key, Findings& findings) {
  iniConfig config(file);
  const std::string value = config.getKey(key.section, key.name);
  const std::string where = fmt::format("{}: {} in [{}]", file, key.name, key.section);
  const auto& lines = config.getSection(key.section);
  const auto exact = lines.find(key.name);
  if (exact != lines.end() && exact->second != value) {
    findings.addWarning(
        where + " is taken from an earlier line that contains its name: move that line down");
  }
  if (value.empty() && key.isNeeded) {
    findings.addError(where + " is missing or empty");
  } else if (trim(value) != value) {
    findings.addWarning(where + " has leading or trailing white space, which is part of the value");
  }
}

template <std::size_t kCount>
void checkKeys(const std::string& file, const std::array<Key, kCount>& keys, Findings& findings) {
  for (const Key& key : keys) {
    checkKey(file, key, findings);
  }
}

void checkThreadNumber(const DaemonConfig& config, Findings& findings) {
  const std::string where = config.mainFile + ": thread_number";
  try {
    if (std::stoi(config.threadNumber) <= 0) {
      findings.addError(where + " starts no worker, so no task runs: set it to 1 or more");
    }
  } catch (const std::logic_error&) {
    findings.addError(where + " is not a number: the daemon ends at startup");
  }
}

void checkPasswordFile(const std::string& file, Findings& findings) {
  struct stat status {};
  if (stat(file.c_str(), &status) == 0 && (status.st_mode & S_IROTH) != 0) {
    findings.addWarning(fmt::format(
        "{} contains a password and is readable by all users: chmod o-r {}", file, file));
  }
}

void checkPaths(const DaemonConfig& config, const DaemonIdentity& daemon, Findings& findings) {
  const AsDaemon rights(daemon);
  const std::string user = daemon.userName();
  if (!config.logFile.empty()) {
    if (const auto reason = whyNotWritable(config.logFile)) {
      findings.addError(
          fmt::format("user {} cannot write the log {}: {}", user, config.logFile, *reason));
    }
  }
  const std::string archive = config.outputDirectory + "/archive";
  for (const std::string& directory : {config.outputDirectory, archive}) {
    struct stat status {};
    const bool isMadeLater = stat(directory.c_str(), &status) != 0 && directory == archive;
    if (const auto reason = isMadeLater ? std::nullopt : whyNoFilesIn(directory)) {
      findings.addError(fmt::format("user {} cannot write task output: {}", user, *reason));
    }
  }
}

}  // namespace

void checkConfig(const DaemonConfig& config, const DaemonIdentity& daemon, Findings& findings) {
  checkKeys(config.mainFile, kMainKeys, findings);
  if (config.isDatabaseFileRead) {
    checkKeys(config.databaseFile, kDatabaseKeys, findings);
  } else {
    findings.addWarning("not checked, because you may not read it: " + config.databaseFile);
  }
  checkThreadNumber(config, findings);
  checkPasswordFile(config.databaseFile, findings);
  checkPaths(config, daemon, findings);
}
