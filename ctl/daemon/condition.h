#pragma once

#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

#include "ctl/daemon/daemonProcess.h"

struct Options;

/// How the daemon is doing. Times are seconds since the epoch.
struct DaemonCondition {
  DaemonIdentity process;
  bool isReplaced = false;    // its program has been replaced since its start
  std::optional<long> since;  // when it was started
  std::vector<long> starts;   // within the last hour, by its log; those by the service manager's
  bool isByJournal = false;   // journal when this is set
  int workers = 0;            // as the INI file has it
  std::string logFile;

  std::string databaseFailure;  // why the database does not answer; the rest is unknown then
  long busy = 0;                // runs that occupy a worker
  long tasks = 0, late = 0;     // that the daemon runs, and of these those that are late
  long daemons = 0;             // that are connected
  std::optional<int> oldestId;  // of the tasks that wait, the one that is or will be due first
  std::string oldestName;
  long oldestDue = 0, oldestLate = 0;  // seconds since the epoch; seconds
  int schemaVersion = 0;
  bool isSchemaKnown = true;  // it is the version that this koductl knows
  long now = 0;               // the clock of this machine, and with it of the process
  long databaseNow = 0;       // the server's clock, and with it of the tasks
};

/// What a condition comes to.
struct Verdict {
  int exitCode = 0;      // 0 it works, 1 it works but has a problem, 2 it does not
  std::string sentence;  // with what to do, where there is something to do
};

/// Asks the process, the service manager or the log, and the database. Throws Failure when the
/// configuration cannot be read.
DaemonCondition examineDaemon(const Options& options);

Verdict judge(const DaemonCondition& condition);

Json::Value toJson(const DaemonCondition& condition);
