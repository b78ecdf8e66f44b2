// koductl next: the coming runs of one task.

#include <fmt/format.h>

#include <string>
#include <vector>

#include "ctl/command/commands.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/task/runs.h"
#include "ctl/task/task.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/table.h"
#include "ctl/terminal/text.h"
#include "ctl/terminal/zone.h"

namespace {

/// Why the list is empty or does not begin now.
std::string remark(const Task& task) {
  if (task.isFlagged) {
    return "is being deleted";
  }
  if (task.isParked) {
    return "has a calendar without a time from now to 2035";
  }
  if (task.pause) {
    return oneLine(pauseText(*task.pause, task.now));
  }
  if (task.heldFrom) {
    return "is held by a maintenance window; its own time was " + zonedTime(*task.heldFrom);
  }
  return task.isRunning ? "has a run in progress, which the list begins with" : "";
}

void printForPeople(const Task& task, const std::vector<long>& runs) {
  const std::string text = remark(task);
  if (runs.empty() || !text.empty()) {
    print("Task {} ({}) {}.\n", task.id, oneLine(task.name), text.empty() ? "has no runs" : text);
  }
  if (runs.empty()) {
    return;
  }
  Table table({{"DUE (" + zoneName() + ")"}, {"IN", Table::Align::kRight}});
  for (const long due : runs) {
    table.add({timeText(due), due > task.now ? durationText(due - task.now) : "-"});
  }
  table.print();
}

void printAsJson(const std::vector<long>& runs) {
  Json::Value list(Json::arrayValue);
  for (const long due : runs) {
    list.append(jsonTime(due));
  }
  printJson(list);
}

}  // namespace

int runNext(const Options& options) {
  Session session(options);
  session.makeReadOnly();
  const Task task = readTask(session, options.id);
  const std::vector<long> runs =
      readComingRuns(session, task.isFlagged ? -1 : task.id, options.count);
  if (options.asJson) {
    printAsJson(runs);
  } else {
    printForPeople(task, runs);
  }
  return 0;
}
