#pragma once

#include <string>

/// What the daemon's two INI files say, each value exactly as written but for outputDirectory,
/// which has no slash at its end.
struct DaemonConfig {
  std::string mainFile;
  std::string logFile;
  std::string outputDirectory;  // never empty: without a value the daemon's default
  std::string threadNumber;
  std::string databaseFile;
  std::string host, port, database, user, password;
};

/// Reads both files as the daemon does, and sets log_directory, by which sched/outputPath.h finds a
/// task's files. Throws Failure (kWrongConfig, kNotPermitted) when one cannot be read.
DaemonConfig readConfig(const std::string& mainFile);

/// The libpq connection string for the daemon's role; for `user` when that is not empty, and then
/// without a password, which libpq takes from PGPASSWORD or ~/.pgpass.
std::string connectionString(const DaemonConfig& config, const std::string& user);
/// The same of a connection string that the operator gave.
std::string connectionString(const std::string& given);
