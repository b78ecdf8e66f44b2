#pragma once

#include <string>

/// The values of the daemon's two INI files, exactly as written except outputDirectory, which has
/// no slash at its end.
struct DaemonConfig {
  std::string mainFile;
  std::string logFile;
  std::string outputDirectory;  // never empty: without a value the daemon's default
  std::string threadNumber;
  std::string databaseFile;
  /// False when this user may not read it: then the environment names the database, `user` is the
  /// role that sql/schema.sql makes, and the other four are empty.
  bool isDatabaseFileRead = true;
  std::string host, port, database, user, password;
};

/// Reads both files as the daemon does. Throws Failure (kWrongConfig, kNotPermitted) when one
/// cannot be read. The database file contains the daemon's password. It need not be readable when
/// `user` is not empty and PGDATABASE or PGSERVICE names the database.
DaemonConfig readConfig(const std::string& mainFile, const std::string& user);

/// The libpq connection string for the daemon's role; for `user` when that is not empty, and then
/// without a password, which libpq takes from PGPASSWORD or ~/.pgpass. `application` is the name of
/// the session; one that begins with "kodu_" is not taken for the daemon's.
std::string connectionString(const DaemonConfig& config, const std::string& user,
                             const std::string& application = "kodu_ctl");
/// The same of a connection string that the operator gave.
std::string connectionString(const std::string& given);
