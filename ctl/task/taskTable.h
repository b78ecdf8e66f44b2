#pragma once

#include <optional>
#include <string>

#include "ctl/daemon/daemonProcess.h"
#include "ctl/terminal/table.h"

struct Options;
struct Task;
struct Totals;

/// The word for what a task is doing: its status, "paused", "deleted", or "-" before its first run.
/// A pause or a deletion takes effect at the end of a run in progress.
std::string statusWord(const Task& task);

/// "3 tasks: 2 OK, 1 FAILED; 1 late".
std::string totalsText(const Totals& totals);

/// The table of tasks of all commands. Owned by one thread.
class TaskTable {
 public:
  /// `withPause`: with a column about pauses. With `Options::withOutput` the outputs are read with
  /// the rights of the daemon. Throws Failure when these cannot be had.
  TaskTable(const Options& options, bool withPause);

  void add(const Task& task);

  /// The head and the tasks that were added, each line truncated to `columns`.
  std::vector<std::string> render(int columns) const { return table.render(columns); }
  /// Prints the tasks that were added since the last call. The first call prints the head and sets
  /// the widths of the columns: a thousand tasks show them well enough, and none has to be kept.
  void print() { table.print(); }

 private:
  const bool hasOutput, hasPause;
  std::optional<AsDaemon> rights;
  Table table;
};
