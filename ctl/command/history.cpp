// koductl history: the failed runs of one task.

#include <unistd.h>

#include <string>
#include <vector>

#include "ctl/command/commands.h"
#include "ctl/daemon/daemonProcess.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/task/archive.h"
#include "ctl/task/task.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/table.h"
#include "ctl/terminal/text.h"
#include "ctl/terminal/zone.h"

namespace {

constexpr int kShownCharacters = 60;

/// What the failed run said first; "(gone)" for a copy that is no longer there.
std::string firstLine(const FailedRun& run) {
  if (!run.size) {
    return "(gone)";
  }
  if (access(run.path.c_str(), R_OK) != 0) {
    return "(not readable)";
  }
  return cutTo(firstLineOf(run.path), kShownCharacters);
}

void printForPeople(const Task& task, const std::vector<FailedRun>& runs) {
  if (runs.empty()) {
    print("No failed run of task {} ({}) is recorded.\n", task.id, oneLine(task.name));
    return;
  }
  Table table({{"#", Table::Align::kRight},
               {"FAILED AT (" + zoneName() + ")"},
               {"BYTES", Table::Align::kRight},
               {"ARCHIVED AS"},
               {"FIRST LINE"}});
  int number = 0;
  for (const FailedRun& run : runs) {
    table.add({std::to_string(++number), timeText(run.time),
               run.size ? std::to_string(*run.size) : "-", run.name, firstLine(run)});
  }
  table.print();
}

void printAsJson(const std::vector<FailedRun>& runs) {
  Json::Value list(Json::arrayValue);
  for (const FailedRun& run : runs) {
    Json::Value entry;
    entry["failed_at"] = jsonTime(run.time);
    entry["archived_as"] = run.name;
    entry["path"] = run.path;
    entry["bytes"] = run.size ? Json::Value(Json::UInt64{*run.size}) : Json::Value();
    list.append(entry);
  }
  printJson(list);
}

}  // namespace

int runHistory(const Options& options) {
  Session session(options);
  session.makeReadOnly();
  const Task task = readTask(session, options.id);
  // Writers of rows and outputs choose which file is read: with root's rights, it could be any
  // file.
  const AsDaemon rights(findDaemon(session.config));
  const std::vector<FailedRun> runs = readFailedRuns(session, task, options.count);
  if (options.asJson) {
    printAsJson(runs);
  } else {
    printForPeople(task, runs);
  }
  return 0;
}
