#include "task/DroppedTasks.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "core/constants.h"
#include "task/serviceCron.h"

bool DroppedTasks::Entry::isBefore(const Entry& other) const {
  return execTime != other.execTime ? execTime > other.execTime : name < other.name;
}

bool DroppedTasks::Entry::isSameAs(const Entry& other) const {
  return execTime == other.execTime && name == other.name;
}

void DroppedTasks::add(std::span<const std::shared_ptr<serviceCron>> tasks) {
  const std::size_t before = entries.size();
  // Exactly this many: a vector that doubles its capacity would cost twice the memory.
  entries.reserve(before + tasks.size());
  for (const auto& task : tasks) {
    entries.push_back({task->GetExecTimeSec(), task->unlockedName(), 1});
  }
  count += tasks.size();
  settle(before);
}

void DroppedTasks::settle(std::size_t begin) {
  const auto isBefore = [](const Entry& one, const Entry& other) { return one.isBefore(other); };
  const auto middle = entries.begin() + static_cast<std::ptrdiff_t>(begin);
  std::sort(middle, entries.end(), isBefore);
  std::inplace_merge(entries.begin(), middle, entries.end(), isBefore);
  auto last = entries.begin();
  for (auto next = std::next(last); next != entries.end(); ++next) {
    if (next->isSameAs(*last)) {
      last->count += next->count;
    } else if (++last != next) {
      *last = std::move(*next);
    }
  }
  entries.erase(std::next(last), entries.end());
}

std::shared_ptr<serviceCron> DroppedTasks::take() {
  Entry& entry = entries.back();
  auto task = std::make_shared<serviceCron>();
  task->SetExecTime(entry.execTime);
  task->Setname(entry.name);
  task->SetExecState(kRecordDropped);
  --count;
  if (--entry.count == 0) {
    entries.pop_back();
  }
  return task;
}

void DroppedTasks::clear() {
  entries.clear();
  count = 0;
}
