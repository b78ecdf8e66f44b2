#include "ctl/task/taskTable.h"

#include <fmt/format.h>

#include <utility>
#include <vector>

#include "ctl/options.h"
#include "ctl/session/config.h"
#include "ctl/task/archive.h"
#include "ctl/task/selection.h"
#include "ctl/task/task.h"
#include "ctl/terminal/printable.h"
#include "ctl/terminal/terminal.h"
#include "ctl/terminal/text.h"

namespace {

constexpr auto kRight = Table::Align::kRight;

using Columns = std::vector<Table::Column>;
using Cells = std::vector<Table::Cell>;

/// The columns of every table of tasks: the state of a task.
const Columns kStateColumns = {{"ID", kRight},   {"NAME"},     {"STATUS"},
                               {"LATE", kRight}, {"LAST DUE"}, {"NEXT DUE"}};
void addState(Cells& line, const Task& task) {
  line.emplace_back(std::to_string(task.id));
  line.emplace_back(cutTo(oneLine(task.name), 30));
  line.emplace_back(statusWord(task), colourOf(statusWord(task)));
  line.emplace_back(task.isLate ? durationText(task.lateSeconds) : "-",
                    task.isLate ? Colour::kYellow : Colour::kNone);
  line.emplace_back(shortTime(task.lastDue, task.now));
  line.emplace_back(shortTime(task.next, task.now));
}

const Columns kHistoryColumns = {{"EVERY", kRight},
                                 {"RETRIES", kRight},
                                 {"FAILED 1H", kRight},
                                 {"24H", kRight},
                                 {"FAILING SINCE"}};
void addHistory(Cells& line, const Task& task) {
  line.emplace_back(task.every ? durationText(*task.every) : "-");
  line.emplace_back(fmt::format("{}/{}", task.failedAttempts, task.maxRetries()));
  line.emplace_back(std::to_string(task.failuresHour));
  line.emplace_back(std::to_string(task.failuresDay));
  line.emplace_back(shortTime(task.failingSince, task.now));
}

/// "since 10:31:01 by alice: new disks".
std::string pauseCell(const Pause& pause, long now) {
  return fmt::format("since {}{}{}{}", shortTime(pause.since, now),
                     pause.by.empty() ? "" : " by " + pause.by,
                     pause.until ? " until " + shortTime(pause.until, now) : "",
                     pause.reason.empty() ? "" : ": " + pause.reason);
}

const Columns kOutputColumns = {{"FAILED 24H", kRight}, {"OUTPUT"}};
/// A file that exists before the task's first run belonged to another task.
void addOutput(Cells& line, const Task& task) {
  line.emplace_back(std::to_string(task.failuresDay));
  line.emplace_back(task.status ? firstLineOf(task.outputPath()) : "");
}

Columns columnsOf(bool withOutput, bool withPause) {
  Columns columns = kStateColumns;
  const Columns& further = withOutput ? kOutputColumns : kHistoryColumns;
  columns.insert(columns.end(), further.begin(), further.end());
  if (withPause) {
    columns.push_back({"PAUSED"});
  }
  return columns;
}

}  // namespace

std::string statusWord(const Task& task) {
  if (task.isRunning) {
    return *task.status;
  }
  if (task.isFlagged) {
    return "deleted";
  }
  if (task.isPaused()) {
    return "paused";
  }
  if (task.heldFrom) {
    return "held";
  }
  return task.status.value_or("-");
}

std::string totalsText(const Totals& totals) {
  std::string states;
  for (const char* word : {"OK", "FAILED", "PROCESS", "-", "paused", "held", "deleted"}) {
    if (const auto count = totals.words.find(word); count != totals.words.end()) {
      states += fmt::format("{}{} {}", states.empty() ? ": " : ", ", grouped(count->second),
                            std::string(word) == "-" ? "not run yet" : word);
    }
  }
  return fmt::format("{}{}; {} late", counted(totals.tasks, "task"), states, grouped(totals.late));
}

TaskTable::TaskTable(const Options& options, bool withPause)
    : hasOutput(options.withOutput),
      hasPause(withPause),
      table(columnsOf(options.withOutput, withPause)) {
  if (hasOutput) {  // with root's rights, a writer of rows could have any file shown
    rights.emplace(findDaemon(readConfig(options.configFile, options.user)));
  }
}

void TaskTable::add(const Task& task) {
  Cells line;
  addState(line, task);
  (hasOutput ? addOutput : addHistory)(line, task);
  if (hasPause) {
    line.emplace_back(task.pause ? pauseCell(*task.pause, task.now) : "");
  }
  table.add(std::move(line));
}
