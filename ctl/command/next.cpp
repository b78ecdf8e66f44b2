// koductl next: the coming runs of one task.

#include <fmt/format.h>

#include <string>

#include "ctl/command/commands.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
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
  return task.isRunning ? "has a run in progress, which the list begins with" : "";
}

void printForPeople(const Task& task, const Rows& runs) {
  const std::string text = remark(task);
  if (runs.count() == 0 || !text.empty()) {
    print("Task {} ({}) {}.\n", task.id, oneLine(task.name), text.empty() ? "has no runs" : text);
  }
  if (runs.count() == 0) {
    return;
  }
  Table table({{"DUE (" + zoneName() + ")"}, {"IN", Table::Align::kRight}});
  for (int row = 0; row < runs.count(); ++row) {
    const long due = runs.number(row, "due");
    table.add({timeText(due), due > task.now ? durationText(due - task.now) : "-"});
  }
  table.print();
}

void printAsJson(const Rows& runs) {
  Json::Value list(Json::arrayValue);
  for (int row = 0; row < runs.count(); ++row) {
    list.append(jsonTime(runs.number(row, "due")));
  }
  printJson(list);
}

}  // namespace

int runNext(const Options& options) {
  Session session(options);
  session.makeReadOnly();
  const Task task = readTask(session, options.id);
  const Rows runs = session.query(
      "SELECT floor(EXTRACT(EPOCH FROM due))::bigint AS due"
      " FROM kodu_coming_runs($1::integer, $2::integer) AS due",
      {std::to_string(task.isFlagged ? -1 : task.id), std::to_string(options.count)});
  if (options.asJson) {
    printAsJson(runs);
  } else {
    printForPeople(task, runs);
  }
  return 0;
}
