#include "ctl/command/change.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <iostream>
#include <string_view>
#include <vector>

#include "ctl/command/report.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/call.h"
#include "ctl/session/session.h"
#include "ctl/session/transaction.h"
#include "ctl/task/pages.h"
#include "ctl/task/selection.h"
#include "ctl/task/task.h"
#include "ctl/task/taskTable.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/printable.h"
#include "ctl/terminal/terminal.h"
#include "ctl/terminal/text.h"

namespace {

/// The first of these tasks, as many as a terminal shows.
Selection firstOf(const Options& options, std::vector<int> ids) {
  constexpr std::size_t kMost = 1000;
  Selection first;
  first.sort = options.selection.sort;
  const auto rows = static_cast<std::size_t>(std::max(1, terminalSize().rows - 4));
  ids.resize(std::min({ids.size(), kMost, isTerminal() ? rows : kMost}));
  first.ids = std::move(ids);
  return first;
}

/// A table of tasks, read before it is printed: a terminal or a pipe may take its time, and the
/// transaction that has changed them holds up the daemon.
std::vector<Task> readFirst(Session& session, const Options& options, const std::vector<int>& ids) {
  return readTasks(session, firstOf(options, ids));
}

void printTable(const Options& options, const std::vector<Task>& tasks, std::size_t count) {
  const bool withPause =
      std::any_of(tasks.begin(), tasks.end(), [](const Task& task) { return task.isPaused(); });
  TaskTable table(options, withPause);
  for (const Task& task : tasks) {
    table.add(task);
  }
  table.print();
  if (tasks.size() < count) {
    print("… and {} more\n", grouped(static_cast<long>(count - tasks.size())));
  }
}

std::string countText(std::size_t count) {
  return counted(static_cast<long>(count), "task");
}

/// "Delete 5 tasks? [y/N]" after a table of these, or the same of one task by its name.
void ask(Session& session, const Options& options, std::string verb, const std::string& loss,
         const std::vector<int>& ids) {
  verb.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(verb.front())));
  if (ids.size() == 1) {
    const Task task = readTask(session, ids.front());
    printError("{} task {} ({}), {}? [y/N] ", verb, task.id, oneLine(task.name), loss);
    return;
  }
  printTable(options, readFirst(session, options, ids), ids.size());
  flushOutput();
  printError("{} {}? [y/N] ", verb, countText(ids.size()));
}

void printIds(const Options& options, const std::vector<int>& ids) {
  Json::Value json;
  json["dry_run"] = options.isDryRun;
  json["tasks"] = Json::Value(Json::arrayValue);
  for (const int id : ids) {
    json["tasks"].append(id);
  }
  printJson(json);
}

/// The rows are locked in the order of their ids: two changes at a time must not wait for each
/// other.
void apply(Session& session, const TaskChange& change, std::vector<int> ids) try {
  std::sort(ids.begin(), ids.end());
  change.call.runForEach(session, ids);
  if (change.further) {
    change.further->runForEach(session, ids);
  }
} catch (const Failure& e) {
  if (ids.size() > 1) {
    throw Failure(e.exitCode, fmt::format("{}\nnone of the tasks was changed", e.what()),
                  e.sqlState);
  }
  throw;
}

/// "would be paused" of "paused", "would run" of "will run".
std::string conditional(const std::string& result) {
  constexpr std::string_view kWill = "will ";
  return result.starts_with(kWill) ? "would " + result.substr(kWill.size()) : "would be " + result;
}

void changeOnTrial(Session& session, const Options& options, const TaskChange& change,
                   const std::vector<int>& ids) {
  std::vector<Task> first;
  {
    const Transaction transaction(session, kEndWithoutKoductl);
    apply(session, change, ids);
    first = readFirst(session, options, ids);
  }
  if (options.asJson) {
    printIds(options, ids);
    return;
  }
  printTable(options, first, ids.size());
  print("{} {}; nothing was changed\n", countText(ids.size()), conditional(change.result));
}

void changeOne(Session& session, const Options& options, const TaskChange& change,
               const Task& before) {
  if (change.further) {
    Transaction transaction(session, kEndWithoutKoductl);
    apply(session, change, {before.id});
    transaction.commit();
  } else {
    apply(session, change, {before.id});
  }
  if (options.asJson || !change.report) {
    reportChange(session, options, before.id, change.result);
  } else {
    change.report(before);
  }
}

void changeMany(Session& session, const Options& options, const TaskChange& change,
                const std::vector<int>& ids) {
  Transaction transaction(session, kEndWithoutKoductl);
  apply(session, change, ids);
  transaction.commit();
  if (options.asJson) {
    printIds(options, ids);
  } else {
    print("{} {}\n", countText(ids.size()), change.result);
  }
}

}  // namespace

std::vector<int> selectedIds(Session& session, const Options& options, const std::string& verb,
                             bool takesDeleted) {
  requireValid(options.selection);
  if (!options.selection.isLimitedToSome() && !options.isAll) {
    throw Failure(kWrongUsage, fmt::format("say which tasks to {0}: their ids, or conditions as "
                                           "--name GLOB and --failed, or --all; see koductl {0} "
                                           "--help",
                                           verb));
  }
  requireIds(session, options.selection);
  Selection selection = options.selection;
  selection.isKept = !takesDeleted && selection.ids.empty() && !selection.isDeleting;
  return readIds(session, selection);
}

void confirm(Session& session, const Options& options, const std::string& verb,
             const std::string& loss, const std::vector<int>& ids) {
  if (options.isConfirmed || (ids.size() == 1 && loss.empty())) {
    return;
  }
  if (isatty(STDIN_FILENO) == 0) {
    throw Failure(kWrongUsage, "cannot ask for confirmation without a terminal: use --yes");
  }
  ask(session, options, verb, loss, ids);
  std::string answer;
  std::getline(std::cin, answer);
  if (answer != "y" && answer != "yes") {
    throw Failure(kRefused, "nothing was changed");
  }
}

int changeTasks(Session& session, const Options& options, const TaskChange& change) {
  const std::vector<int> ids = selectedIds(session, options, change.verb, change.takesDeleted);
  change.call.requireRight(session);
  if (change.further) {
    change.further->requireRight(session);
  }
  if (ids.empty() && options.asJson) {
    printIds(options, ids);
  } else if (ids.empty()) {
    print("no task is selected; nothing was changed\n");
  } else if (options.isDryRun) {
    changeOnTrial(session, options, change, ids);
  } else {
    confirm(session, options, change.verb, change.loss, ids);
    if (ids.size() == 1) {
      changeOne(session, options, change, readTask(session, ids.front()));
    } else {
      changeMany(session, options, change, ids);
    }
    if (change.afterwards) {
      change.afterwards(ids.front());
    }
  }
  return kDone;
}
