#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <vector>

class serviceCron;

/// What a queue keeps of tasks that are marked to be dropped: when each would have been due, and
/// its name for the log. Tasks with the same time and name take the memory of one. Not locked.
class DroppedTasks {
 public:
  /// Adds time and name of `tasks`, whose last references the caller holds.
  void add(std::span<const std::shared_ptr<serviceCron>> tasks);

  bool empty() const { return entries.empty(); }
  /// The number of tasks.
  std::size_t size() const { return count; }
  /// The smallest ExecTime. There must be a task.
  long earliest() const { return entries.back().execTime; }

  /// Removes the earliest task and returns it as a record that has its time, its name and the mark.
  /// There must be a task.
  std::shared_ptr<serviceCron> take();

  void clear();

 private:
  struct Entry {
    long execTime;
    std::string name;
    unsigned int count;

    /// True when this entry is due later; entries of the same time are ordered by name.
    bool isBefore(const Entry& other) const;
    bool isSameAs(const Entry& other) const;
  };

  /// Sorts the entries from `begin` on into place and merges equal ones.
  void settle(std::size_t begin);

  std::vector<Entry> entries;  // latest first
  std::size_t count = 0;
};
