#pragma once

#include <optional>
#include <string>
#include <vector>

/// The command line of koductl as given. A field that belongs to one command has its default for
/// all others.
// Grouped by command, not by size. NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding)
struct Options {
  std::string configFile;  // the daemon's main INI file
  std::string user;        // "": the role of the INI file
  bool asJson = false;
  int lockTimeout = 5, statementTimeout = 60;  // seconds; 0 is no limit

  int id = 0;

  bool isQuick = false;  // check

  // status
  bool onlyFailed = false;
  bool onlyLate = false;
  bool withOutput = false;
  bool watch = false;

  // history, output
  int count = 20;        // rows
  std::string archived;  // "": the last output; a file name, or a number counted from the latest
  bool follow = false;

  // add, set; without a value, the database's default or the present value is kept. Periods are
  // intervals in the syntax of PostgreSQL ("90 s", "5m"), and so are times ("2030-01-01 12:00",
  // "tomorrow").
  std::optional<std::string> plugin, name, every, fileName, retryAfter, next, timeout;
  std::optional<int> retries;
  /// The arguments after "--"; nothing without "--".
  std::optional<std::vector<std::string>> pluginArguments;

  std::optional<std::string> reason;  // pause
  bool isConfirmed = false;           // delete

  // forecast: hours and seconds as numbers, and "ID=SECONDS"
  std::string hours = "1", runSeconds = "1";
  std::vector<std::string> took;

  // stagger
  bool apply = false;
  std::string longest = "1 hour";

  std::string olderThan;  // prune

  // account: "" without a condition; a pattern has * and ?
  std::vector<int> accountIds;
  std::string accountName, accountPlugin, since;

  // ledger
  std::string ledgerAction = "status";
  std::optional<int> ledgerDays;

  // schema
  std::string schemaAction;  // "": show the state; "upgrade"
  bool isDryRun = false;
  int waitSeconds = 60;
  std::string connection;  // a libpq connection string instead of the INI files; "": none
};
