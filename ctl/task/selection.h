#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

class Session;
struct Task;

/// Which tasks a command is about, in which order and how many of them. A task must meet every
/// condition that is set.
struct Selection {
  std::vector<int> ids;                     // one of these; empty: any
  std::string prefix;                       // digits with which the id begins; "": any
  std::optional<std::string> name, plugin;  // patterns with * and ?; \ takes the next one literally
  bool isFailed = false, isLate = false, isRunning = false, isPaused = false, isDeleting = false;
  bool isNeverRun = false;
  bool isHeld = false;          // by a maintenance window
  bool hasFailedToday = false;  // in the last day
  std::string search;           // in the name or the plugin, or where the id begins; "": any
  bool isKept = false;          // not being deleted

  std::string sort;           // a key of sortKeys(), with ",desc" for the other direction; "": id
  std::optional<long> limit;  // nothing: all
  std::string after;          // the tasks that follow this key of a page; "": from the beginning

  /// True when a condition says which tasks are meant.
  bool isLimitedToSome() const;
};

/// The names that `Selection::sort` accepts.
const std::vector<std::string>& sortKeys();

/// Throws Failure (kWrongUsage) for a sort key or a page's key that is none. The functions below
/// throw the same.
void requireValid(const Selection& selection);

/// A pattern of a Selection as one for LIKE.
std::string likePattern(const std::string& glob);

/// An SQL statement, or a part of one, and the values of its $1 to $n. Its text contains none of
/// the values that the user gave, except numbers.
struct Statement {
  std::string sql;
  std::vector<std::string> values;
};

/// SELECT id, place: the selected tasks and the values by which they are ordered. The conditions
/// that cost most are tested last.
Statement idsOf(const Selection& selection);

/// Throws Failure (kNotFound) when one of the ids that the selection names does not exist.
void requireIds(Session& session, const Selection& selection);

/// Reads the selected tasks and calls `use` for each in the selection's order. None is kept: memory
/// does not depend on their number. A second statement on the session has to wait for the end.
void forEachTask(Session& session, const Selection& selection,
                 const std::function<void(const Task&)>& use);

/// The definitions of all tasks, as takeDefinition() reads them, by id. None is kept.
void forEachDefinition(Session& session, const std::function<void(const Task&)>& use);

/// The selected tasks, of a page that fits into memory.
std::vector<Task> readTasks(Session& session, const Selection& selection);

/// The ids of the selected tasks in the selection's order, with their names or "". None is kept.
void forEachId(Session& session, const Selection& selection, bool withNames,
               const std::function<void(int, const std::string&)>& use);

/// The ids of the selected tasks in the selection's order: four bytes for each.
std::vector<int> readIds(Session& session, const Selection& selection);

/// The key of a task's place in the order, for `Selection::after`; "" when there is no such task.
std::string pageKeyOf(Session& session, const Selection& selection, int id);

/// How many tasks a selection has, without its limit and its key.
long countTasks(Session& session, const Selection& selection);

/// The same by the word of their status, and those that are late or paused.
struct Totals {
  long tasks = 0, late = 0, paused = 0;
  /// "OK", "FAILED", "PROCESS", "-", "paused", "held", "deleted".
  std::map<std::string, long> words;
};
Totals readTotals(Session& session, const Selection& selection);
