// koductl history: the runs of one task, and the periods without a run.

#include <fmt/format.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "ctl/command/commands.h"
#include "ctl/daemon/daemonProcess.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/task/archive.h"
#include "ctl/task/ledger.h"
#include "ctl/task/runs.h"
#include "ctl/task/task.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/printable.h"
#include "ctl/terminal/table.h"
#include "ctl/terminal/text.h"
#include "ctl/terminal/zone.h"

namespace {

constexpr int kShownCharacters = 60;

/// What the failed run printed first; "(gone)" for a copy that is no longer there.
std::string firstLine(const FailedRun& run) {
  if (!run.size) {
    return "(gone)";
  }
  if (access(run.path.c_str(), R_OK) != 0) {
    return "(not readable)";
  }
  return cutTo(firstLineOf(run.path), kShownCharacters);
}

std::string tookText(const RunEntry& entry) {
  return entry.row && entry.row->seconds ? *entry.row->seconds + "s" : "-";
}

void printForPeople(const Task& task, const std::vector<RunEntry>& entries) {
  if (entries.empty()) {
    print("No run of task {} ({}) is recorded.\n", task.id, oneLine(task.name));
    return;
  }
  Table table({{"#", Table::Align::kRight},
               {"ENDED (" + zoneName() + ")"},
               {"DUE"},
               {"TOOK", Table::Align::kRight},
               {"OUTCOME"},
               {"ARCHIVED AS"},
               {"FIRST LINE"}});
  for (const RunEntry& entry : entries) {
    const std::optional<long> due = entry.row ? std::optional(entry.row->due) : std::nullopt;
    table.add({entry.number > 0 ? std::to_string(entry.number) : "-", timeText(entry.time()),
               shortTime(due, entry.time()), tookText(entry), entry.outcome(),
               entry.failure ? entry.failure->name : "-",
               entry.failure ? firstLine(*entry.failure) : ""});
  }
  table.print();
}

}  // namespace

int runHistory(const Options& options) {
  Session session(options);
  session.makeReadOnly();
  const Task task = readTask(session, options.id);
  const std::vector<LedgerRow> rows = readLedger(session, task.id, options.count);
  // Writers of rows and outputs choose which file is read: with root's rights, it could be any
  // file.
  const AsDaemon rights(findDaemon(session.config));
  const std::vector<FailedRun> failures = readFailedRuns(session, task, options.count);
  const std::vector<RunEntry> entries = mergeRuns(rows, failures, options.count);
  if (options.asJson) {
    printJson(toJson(entries));
  } else {
    printForPeople(task, entries);
  }
  return 0;
}
