#include "ctl/declared/plan.h"

#include <fmt/format.h>

#include <algorithm>
#include <unordered_map>
#include <unordered_set>

namespace {

/// The settings that are in a task's row.
constexpr std::array<const char*, 10> kRowSettings = {
    "plugin",  "name",    "at",          "zone", "every",
    "retries", "timeout", "retry-after", "file", "arguments"};

std::optional<std::string> optionalSetting(const Definition& definition, const char* name) {
  const auto found = definition.find(name);
  return found == definition.end() ? std::nullopt : std::optional(found->second);
}

std::string nameIn(const Definition& definition) {
  return optionalSetting(definition, "name").value_or(fileNameOf(settingOf(definition, "plugin")));
}

/// The first moment of a rhythm since 1970.
long phaseOf(long moment, long every) {
  return ((moment % every) + every) % every;
}

void compareRow(const Definition& before, Change& change) {
  for (const char* name : kRowSettings) {
    const auto old = optionalSetting(before, name);
    const auto wanted = optionalSetting(change.definition, name);
    if (old != wanted) {
      change.settings.push_back({name, old, wanted});
      change.isDefined = true;
    }
  }
}

/// A paused task has no run to be moved; it is moved when it is resumed.
void compareRhythm(const StoredTask& task, Change& change) {
  const auto first = secondsOf(settingOf(change.definition, "first"));
  const auto every = secondsIn(settingOf(change.definition, "every"));
  const bool remainsPaused = task.isPaused && change.isPaused != false;
  if (change.definition.count("at") > 0) {
    return;  // the calendar sets all times but that of the first run
  }
  if (first && every && task.due && !remainsPaused &&
      phaseOf(*first, *every) != phaseOf(*task.due, *every)) {
    change.settings.push_back({"first", rhythmOf(task), settingOf(change.definition, "first")});
    change.isDefined = change.isMoved = true;
  }
}

void comparePause(const StoredTask& task, Change& change) {
  const std::string paused = settingOf(change.definition, "paused");
  if (!paused.empty() && (paused == "true") != task.isPaused) {
    change.isPaused = paused == "true";
    change.settings.push_back({"paused", task.isPaused ? "true" : "false", paused});
  }
  const auto until = secondsOf(settingOf(change.definition, "until"));
  if (until && until != task.pausedUntil) {
    change.isPaused = true;
    change.settings.push_back(
        {"until", task.pausedUntil ? std::optional(declaredTime(*task.pausedUntil)) : std::nullopt,
         declaredTime(*until)});
  }
}

void compareSet(const std::string& set, const std::string& before, Change& change) {
  if (!set.empty() && set != before) {
    change.isGrouped = true;
    change.settings.push_back({"set", before.empty() ? std::nullopt : std::optional(before), set});
  }
}

Change changeOf(const DeclaredTask& declared) {
  Change change;
  change.key = declared.key;
  change.name = nameIn(declared.definition);
  change.place = declared.place;
  change.definition = declared.definition;
  return change;
}

Change addition(const DeclaredTask& declared, const std::string& set) {
  Change change = changeOf(declared);
  for (const char* name : kSettings) {
    if (const auto value = optionalSetting(declared.definition, name)) {
      change.settings.push_back({name, std::nullopt, value});
    }
  }
  compareSet(set, "", change);
  change.isPaused = settingOf(declared.definition, "paused") == "true";
  return change;
}

Change alteration(const DeclaredTask& declared, const StoredTask& task, const std::string& set) {
  Change change = changeOf(declared);
  change.kind = Change::Kind::kChange;
  change.id = task.id;
  compareRow(task.definition, change);
  comparePause(task, change);
  compareRhythm(task, change);
  compareSet(set, task.set, change);
  return change;
}

Change deletion(const StoredTask& task) {
  Change change;
  change.kind = Change::Kind::kDelete;
  change.key = task.key;
  change.id = task.id;
  change.name = nameIn(task.definition);
  return change;
}

void addDeletions(const std::vector<StoredTask>& stored,
                  const std::unordered_set<std::string>& declared, bool areWanted, Plan& plan) {
  std::vector<Change> deletions;
  for (const StoredTask& task : stored) {
    if (!plan.set.empty() && task.set == plan.set && declared.count(task.key) == 0) {
      deletions.push_back(deletion(task));
    }
  }
  if (!areWanted) {
    plan.undeclared = static_cast<long>(deletions.size());
    return;
  }
  std::sort(deletions.begin(), deletions.end(),
            [](const Change& one, const Change& other) { return one.key < other.key; });
  std::move(deletions.begin(), deletions.end(), std::back_inserter(plan.changes));
}

}  // namespace

long Plan::count(Change::Kind kind) const {
  return std::count_if(changes.begin(), changes.end(),
                       [kind](const Change& change) { return change.kind == kind; });
}

Plan makePlan(const Declaration& declaration, const std::vector<StoredTask>& stored,
              bool withDeletions, Mistakes& mistakes) {
  Plan plan;
  plan.set = declaration.set;
  std::unordered_map<std::string, const StoredTask*> byKey;
  for (const StoredTask& task : stored) {
    byKey[task.key] = &task;
  }
  std::unordered_set<std::string> declared;
  for (const DeclaredTask& task : declaration.tasks) {
    declared.insert(task.key);
    const auto found = byKey.find(task.key);
    if (found == byKey.end()) {
      plan.changes.push_back(addition(task, plan.set));
      continue;
    }
    const StoredTask& present = *found->second;
    if (!plan.set.empty() && !present.set.empty() && present.set != plan.set) {
      mistakes.add(
          task.place, task.key,
          fmt::format("the key belongs to task {} of the set {}", present.id, present.set));
      continue;
    }
    Change change = alteration(task, present, plan.set);
    if (change.settings.empty()) {
      ++plan.unchanged;
    } else {
      plan.changes.push_back(std::move(change));
    }
  }
  addDeletions(stored, declared, withDeletions, plan);
  return plan;
}

std::optional<std::string> rhythmOf(const StoredTask& task) {
  const auto every = secondsIn(settingOf(task.definition, "every"));
  if (!every || !task.due) {
    return std::nullopt;
  }
  // The functions move a run ahead a little for themselves.
  constexpr long kAhead = 60;
  const bool isLater = *task.due > task.now + *every + kAhead;
  return declaredTime(isLater ? *task.due : phaseOf(*task.due, *every));
}
