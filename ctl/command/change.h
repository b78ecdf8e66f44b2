#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "ctl/session/call.h"

class Session;
struct Options;
struct Task;

/// A change of tasks by a function of the database that takes a task's id.
struct TaskChange {
  Call call;           // without the id
  std::string verb;    // "pause"
  std::string result;  // "paused"
  /// Whether conditions choose tasks that are being deleted, too, which most changes refuse.
  bool takesDeleted = false;
  /// What a change of one task prints instead of "task 7 (load) paused; next due at ...".
  std::function<void(const Task& before)> report = nullptr;
  /// What a task loses, "its output, archive and history": then one task is confirmed, too.
  std::string loss{};
  /// Called with the first of the changed tasks at the end.
  std::function<void(int id)> afterwards = nullptr;
  /// A second call for each task, in the same transaction.
  std::optional<Call> further{};
  /// Of several tasks, those that meet this condition of kodu_task_state are left as they are, and
  /// counted by these words: "paused", "paused already". "": all are changed.
  std::string unaffected{}, already{};
};

/// The ids of the tasks that the options select for `verb`, in the order of the selection; without
/// `takesDeleted`, conditions leave out tasks that are being deleted. Throws Failure (kWrongUsage)
/// when they select none in particular, and kNotFound for an unknown id.
std::vector<int> selectedIds(Session& session, const Options& options, const std::string& verb,
                             bool takesDeleted);

/// Returns when these tasks may be changed: with --yes or after the answer of a terminal. One task
/// is asked for only when there is a `loss`. Throws Failure otherwise.
void confirm(Session& session, const Options& options, const std::string& verb,
             const std::string& loss, const std::vector<int>& ids);

/// Changes the tasks that the options select, all or none, in one transaction, and prints what has
/// been done. More than one task is confirmed on the terminal or by --yes; the tasks that were
/// confirmed are those that are changed. With --dry-run the transaction is rolled back. Returns the
/// exit status; throws Failure.
int changeTasks(Session& session, const Options& options, const TaskChange& change);
