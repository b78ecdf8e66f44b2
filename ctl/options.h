#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ctl/task/selection.h"

/// The command line of koductl as given. A field that belongs to one command has its default for
/// all others.
// Grouped by command, not by size. NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding)
struct Options {
  std::string configFile;  // the daemon's main INI file
  std::string user;        // "": the role of the INI file
  std::string zone;        // "": that of TZ, else of the system
  bool asJson = false;
  int lockTimeout = 5, statementTimeout = 60;  // seconds; 0 is no limit

  // Of the session, set by commands.
  std::string applicationName = "kodu_ctl";
  // Look for the holder of a lock by a second session while a statement waits.
  bool namesLockHolders = true;
  std::optional<int> connectTimeout;  // seconds; nothing: that of the database file, else 10

  int id = 0;  // of a command about one task

  // Commands about several tasks.
  Selection selection;
  bool isAll = false;        // all tasks: no limit of a page, and no condition is needed
  bool isConfirmed = false;  // change them without a question; also apply
  bool isDryRun = false;     // change nothing; also schema, apply

  bool isQuick = false;  // check

  // status
  bool withOutput = false;
  bool watch = false;

  bool withNames = false;  // ids

  // logs, with follow
  std::optional<int> onlyTask;  // nothing: all tasks
  int outputs = 10;             // at most
  bool onlyFailed = false;

  // history, next, output
  int count = 20;        // rows
  std::string archived;  // "": the last output; a file name, or a number counted from the latest
  bool follow = false;

  // health: whole numbers of seconds, the failures a count; nothing: no limit
  std::string warnOverdue = "10", criticalOverdue = "60", warnProcess = "600", answerTimeout = "5";
  std::optional<std::string> warnFailures;

  // metrics
  bool isOpenMetrics = false;
  std::string metricsFile;  // "": standard output

  // add, set; without a value, the database's default or the present value is kept. Periods are
  // intervals in the syntax of PostgreSQL ("90 s", "5m"), and so are times ("2030-01-01 12:00",
  // "tomorrow").
  std::optional<std::string> plugin, name, every, fileName, retryAfter, next, timeout;
  std::optional<std::string> calendar;  // its zone is `zone`
  bool isUnlimited = false;             // set: without a timeout
  bool isWithoutCalendar = false;       // set
  // set: the task gets metrics of its own, or loses them
  bool isMarked = false, isUnmarked = false;
  std::optional<int> retries;
  std::optional<std::string> key;
  bool ifMissing = false;           // add
  std::optional<std::string> host;  // add; nothing: the default host
  /// The arguments after "--"; nothing without "--".
  std::optional<std::vector<std::string>> pluginArguments;

  bool isAwaited = false;                    // run
  std::optional<std::string> reason, until;  // pause; the end also as an interval

  // forecast: hours and seconds as numbers, and "ID=SECONDS"
  std::string hours = "1", runSeconds = "1";
  std::vector<std::string> took;

  // stagger
  bool apply = false;
  std::string longest = "1 hour";

  std::string olderThan;  // prune

  // export, apply, import
  std::string set;         // "": any
  std::string source;      // a file, a directory or "-"
  bool isPartial = false;  // export: without tasks that cannot be written
  bool isPruning = false;

  // import
  std::string importFormat;
  std::vector<std::string> sources;  // as `source`
  bool hasUsers = false;             // the lines of crontabs name users
  bool isStrict = false;

  std::optional<std::string> since;  // account, events; nothing: the default of the command

  // events, with since and follow
  std::string reader;      // "": none
  bool onlyDead = false;   // those that could not be delivered
  std::string redelivery;  // the key of one of them, or "all"; "": none

  // ledger
  std::string ledgerAction = "status";
  std::optional<int> ledgerDays;

  // host
  std::string hostAction = "status";
  std::vector<std::string> hosts;
  std::optional<long> hostTasks;  // nothing: all
  std::string passwordFile;       // "": none
  bool isSpread = false;          // takeover, watch: to all hosts that listen
  bool isReturning = false;       // watch: fetch what the own host has lent
  int deadAfter = 6;              // watch: seconds

  // window, with selection.ids, reason, until, calendar
  std::string windowAction = "list";
  std::vector<std::string> windowNames, windowPlugins;   // add: patterns; names or paths
  std::optional<std::string> windowBegin, windowLength;  // add
  std::string windowSpread = "1m";                       // add
  bool isOnce = false;                                   // end: only the present occurrence

  // schema
  std::string schemaAction;  // "": show the state; "upgrade"
  int waitSeconds = 60;
  std::string connection;  // a libpq connection string instead of the INI files; "": none
};
