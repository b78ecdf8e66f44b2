// koductl history: the runs of one task, and the periods without a run.

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "ctl/command/commands.h"
#include "ctl/daemon/daemonProcess.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/task/archive.h"
#include "ctl/task/ledger.h"
#include "ctl/task/task.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/printable.h"
#include "ctl/terminal/table.h"
#include "ctl/terminal/text.h"
#include "ctl/terminal/zone.h"

namespace {

constexpr int kShownCharacters = 60;

/// A row of the ledger, or a failed run that the ledger does not contain: one that is older than
/// what it keeps.
struct Entry {
  std::optional<LedgerRow> row;
  const FailedRun* failure = nullptr;  // its output, of the list that the caller owns
  long number = 0;                     // of the failure, for koductl output

  long time() const { return row ? row->ended : failure->time; }
  std::string outcome() const { return row ? outcomeText(*row) : "failed"; }
};

std::vector<Entry> merge(const std::vector<LedgerRow>& rows, const std::vector<FailedRun>& failures,
                         int limit) {
  std::vector<Entry> entries;
  std::vector<bool> isListed(failures.size());
  for (const LedgerRow& row : rows) {
    Entry entry{row};
    const auto place = static_cast<std::size_t>(row.failure.value_or(0));
    if (place > 0 && place <= failures.size()) {
      isListed[place - 1] = true;
      entry.failure = &failures[place - 1];
      entry.number = *row.failure;
    }
    entries.push_back(entry);
  }
  for (std::size_t place = 0; place < failures.size(); ++place) {
    if (!isListed[place]) {
      entries.push_back({std::nullopt, &failures[place], static_cast<long>(place) + 1});
    }
  }
  std::stable_sort(entries.begin(), entries.end(),
                   [](const Entry& one, const Entry& other) { return one.time() > other.time(); });
  if (entries.size() > static_cast<std::size_t>(limit)) {
    entries.resize(static_cast<std::size_t>(limit));
  }
  return entries;
}

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

std::string tookText(const Entry& entry) {
  return entry.row && entry.row->seconds ? *entry.row->seconds + "s" : "-";
}

void printForPeople(const Task& task, const std::vector<Entry>& entries) {
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
  for (const Entry& entry : entries) {
    const std::optional<long> due = entry.row ? std::optional(entry.row->due) : std::nullopt;
    table.add({entry.number > 0 ? std::to_string(entry.number) : "-", timeText(entry.time()),
               shortTime(due, entry.time()), tookText(entry), entry.outcome(),
               entry.failure != nullptr ? entry.failure->name : "-",
               entry.failure != nullptr ? firstLine(*entry.failure) : ""});
  }
  table.print();
}

void addRun(Json::Value& entry, const LedgerRow& row) {
  entry["due"] = jsonTime(row.due);
  entry["started_at"] = jsonTime(row.started);
  entry["seconds"] = row.seconds ? Json::Value(std::stod(*row.seconds)) : Json::Value();
  entry["outcome"] = row.outcome;
  entry["reason"] = row.reason.empty() ? Json::Value() : Json::Value(row.reason);
  entry["attempt"] = Json::Int64{row.attempt};
  entry["periods"] = Json::Int64{row.periods};
}

void addFailure(Json::Value& entry, const FailedRun& run, long number) {
  entry["number"] = Json::Int64{number};
  entry["failed_at"] = jsonTime(run.time);
  entry["archived_as"] = run.name;
  entry["path"] = run.path;
  entry["bytes"] = run.size ? Json::Value(Json::UInt64{*run.size}) : Json::Value();
}

void printAsJson(const std::vector<Entry>& entries) {
  Json::Value list(Json::arrayValue);
  for (const Entry& found : entries) {
    Json::Value entry;
    entry["ended_at"] = jsonTime(found.time());
    entry["outcome"] = "failed";
    if (found.row) {
      addRun(entry, *found.row);
    }
    if (found.failure != nullptr) {
      addFailure(entry, *found.failure, found.number);
    }
    list.append(entry);
  }
  printJson(list);
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
  const std::vector<Entry> entries = merge(rows, failures, options.count);
  if (options.asJson) {
    printAsJson(entries);
  } else {
    printForPeople(task, entries);
  }
  return 0;
}
