#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ctl/declared/declaration.h"
#include "ctl/declared/stored.h"

/// A setting that changes; nothing stands for a setting with its default.
struct SettingChange {
  std::string name;
  std::optional<std::string> before, after;
};

/// What happens to one task.
struct Change {
  enum class Kind { kAdd, kChange, kDelete };

  Kind kind = Kind::kAdd;
  std::string key;
  int id = 0;             // 0: it is to be added
  std::string name;       // of the task as it is, or will be
  Place place;            // of its declaration; not of a deletion
  Definition definition;  // the declared one
  std::vector<SettingChange> settings;

  bool isDefined = false;        // its row, or the rhythm of its runs, changes
  bool isMoved = false;          // the rhythm changes
  bool isGrouped = false;        // it joins the set
  std::optional<bool> isPaused;  // to be paused or resumed
};

/// What turns the stored tasks into the declared ones.
struct Plan {
  std::string set;
  std::vector<Change> changes;  // in the order of the declaration; deletions last, by key
  long unchanged = 0;
  long undeclared = 0;  // tasks of the set that are kept, because deletions were not asked for

  long count(Change::Kind kind) const;
};

/// Compares the two. A declared key of another set is a mistake.
Plan makePlan(const Declaration& declaration, const std::vector<StoredTask>& stored,
              bool withDeletions, Mistakes& mistakes);

/// The time of a task's runs from which it can be told without naming one of them: the first
/// moment of its rhythm since 1970 as "1970-01-01 03:00:00", or, when its next run is more than one
/// interval and a minute ahead, that run. Nothing without a due time, or for an interval with
/// fractions or months.
std::optional<std::string> rhythmOf(const StoredTask& task);
