#include "ctl/command/change.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <iostream>
#include <string_view>
#include <unordered_set>
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
  first.limit = static_cast<long>(ids.size());
  first.ids = std::move(ids);
  return first;
}

/// A table of tasks, read before it is printed: a terminal or a pipe may take its time, and the
/// transaction that has changed them holds up the daemon.
std::vector<Task> readFirst(Session& session, const Options& options, const std::vector<int>& ids) {
  std::vector<Task> tasks;
  const Selection first = firstOf(options, ids);
  tasks.reserve(first.ids.size());
  forEachTask(session, first, [&](const Task& task) {
    tasks.push_back(task);
    tasks.back().parameter = std::string();  // may be long, and the table does not show it
  });
  return tasks;
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

/// The tasks that a change is about.
struct Chosen {
  std::vector<int> ids;        // those that it changes
  std::vector<int> unchanged;  // those that are already as it would make them

  std::size_t count() const { return ids.size() + unchanged.size(); }
};

Json::Value jsonIds(const std::vector<int>& ids) {
  Json::Value list(Json::arrayValue);
  for (const int id : ids) {
    list.append(id);
  }
  return list;
}

void printIds(const Options& options, const Chosen& chosen) {
  Json::Value json;
  json["dry_run"] = options.isDryRun;
  json["tasks"] = jsonIds(chosen.ids);
  json["unchanged"] = jsonIds(chosen.unchanged);
  printJson(json);
}

/// "; 3 were paused already", or "".
std::string unchangedText(const TaskChange& change, const Chosen& chosen) {
  return chosen.unchanged.empty()
             ? ""
             : fmt::format("; {} {} {}", grouped(static_cast<long>(chosen.unchanged.size())),
                           chosen.unchanged.size() == 1 ? "was" : "were", change.already);
}

/// One task is always changed: the database says what there is to say about it.
Chosen choose(Session& session, const Options& options, const TaskChange& change) {
  Chosen chosen{selectedIds(session, options, change.verb, change.takesDeleted), {}};
  if (chosen.ids.size() < 2 || change.unaffected.empty()) {
    return chosen;
  }
  std::unordered_set<int> asTheyAre;
  session.forEachRow(fmt::format("SELECT id FROM kodu_task_state WHERE id = ANY ($1::int[]) AND {}",
                                 change.unaffected),
                     {fmt::format("{{{}}}", fmt::join(chosen.ids, ","))},
                     [&](Fields& row) { asTheyAre.insert(static_cast<int>(row.number())); });
  const auto end = std::stable_partition(chosen.ids.begin(), chosen.ids.end(),
                                         [&](int id) { return asTheyAre.count(id) == 0; });
  chosen.unchanged.assign(end, chosen.ids.end());
  chosen.ids.erase(end, chosen.ids.end());
  return chosen;
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
                   const Chosen& chosen) {
  const std::vector<int>& ids = chosen.ids;
  std::vector<Task> first;
  {
    const Transaction transaction(session, kEndWithoutKoductl);
    apply(session, change, ids);
    first = readFirst(session, options, ids);
  }
  if (options.asJson) {
    printIds(options, chosen);
    return;
  }
  printTable(options, first, ids.size());
  print("{} {}{}; nothing was changed\n", countText(ids.size()), conditional(change.result),
        unchangedText(change, chosen));
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
                const Chosen& chosen) {
  Transaction transaction(session, kEndWithoutKoductl);
  apply(session, change, chosen.ids);
  transaction.commit();
  if (options.asJson) {
    printIds(options, chosen);
  } else {
    print("{} {}{}\n", countText(chosen.ids.size()), change.result, unchangedText(change, chosen));
  }
}

/// Without a task to change.
void reportNone(const Options& options, const TaskChange& change, const Chosen& chosen) {
  if (options.asJson) {
    printIds(options, chosen);
  } else if (chosen.unchanged.empty()) {
    print("no task is selected; nothing was changed\n");
  } else {
    print("nothing was changed{}\n", unchangedText(change, chosen));
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
  const Chosen chosen = choose(session, options, change);
  const std::vector<int>& ids = chosen.ids;
  change.call.requireRight(session);
  if (change.further) {
    change.further->requireRight(session);
  }
  if (ids.empty()) {
    reportNone(options, change, chosen);
  } else if (options.isDryRun) {
    changeOnTrial(session, options, change, chosen);
  } else {
    confirm(session, options, change.verb, change.loss, ids);
    if (chosen.count() == 1) {
      changeOne(session, options, change, readTask(session, ids.front()));
    } else {
      changeMany(session, options, change, chosen);
    }
    if (change.afterwards) {
      change.afterwards(ids.front());
    }
  }
  return kDone;
}
