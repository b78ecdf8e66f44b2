#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ctl/daemon/daemonProcess.h"
#include "ctl/task/ledger.h"
#include "ctl/task/task.h"

/// What an explanation needs besides the task's own row.
struct TaskContext {
  DaemonIdentity daemon;
  bool isConnected = false;  // a session of the daemon is in the database
  int workers = 0;           // as the INI file has it
  Workload workload;
  std::string failureText;  // first line of the latest failed run; empty when it cannot be read
  bool isFailureSilent = false;       // the latest failed run's output exists and is empty
  std::optional<LedgerRow> lastSkip;  // as the ledger has it
  std::string window;                 // "3 (new disks)", which holds the task; "": none
};

/// Sentences: what the task is, how its last run ended, what it waits for, which rule set its next
/// time, why periods were skipped, since when it has been failing and with which output. Does not
/// use the context's `daemon`.
std::vector<std::string> explainState(const Task& task, const TaskContext& context);

/// The same, and whether its plugin can be run and its output be written.
std::vector<std::string> explain(const Task& task, const TaskContext& context);
