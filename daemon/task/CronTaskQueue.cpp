#include "task/CronTaskQueue.h"

#include <algorithm>
#include <utility>

#include "core/constants.h"
#include "task/serviceCron.h"

bool CompareTask::operator()(std::shared_ptr<serviceCron> first,
                             std::shared_ptr<serviceCron> second) const {
  return first->GetExecTimeSec() > second->GetExecTimeSec();
}

void CronTaskQueue::push(std::shared_ptr<serviceCron> task) {
  const std::lock_guard lock(mutex);
  heap.push_back(std::move(task));
  std::push_heap(heap.begin(), heap.end(), CompareTask());
}

std::shared_ptr<serviceCron> CronTaskQueue::front() {
  const std::lock_guard lock(mutex);
  takeUpDropped();
  return heap.empty() ? nullptr : heap.front();
}

std::shared_ptr<serviceCron> CronTaskQueue::pop() {
  const std::lock_guard lock(mutex);
  takeUpDropped();
  return heap.empty() ? nullptr : take();
}

bool CronTaskQueue::empty() {
  const std::lock_guard lock(mutex);
  return heap.empty() && dropped.empty();
}

std::size_t CronTaskQueue::size() {
  const std::lock_guard lock(mutex);
  return heap.size() + dropped.size();
}

void CronTaskQueue::clear() {
  const std::lock_guard lock(mutex);
  dropped.clear();
  while (!heap.empty()) {
    take();
  }
}

void CronTaskQueue::noteMarked() {
  constexpr std::size_t kMostMarked = 1000;
  constexpr std::size_t kLooksPerMark = 32;
  const std::lock_guard lock(mutex);
  ++marked;
  if (marked >= kMostMarked || marked * kLooksPerMark >= heap.size()) {
    marked = 0;
    freeMarked();
  }
}

void CronTaskQueue::freeMarked() {
  // A task that only the heap references can be reached only through this queue, whose lock is
  // held.
  const auto isNeeded = [](const std::shared_ptr<serviceCron>& task) {
    return task->GetExecState() != kRecordDropped || task.use_count() > 1;
  };
  const auto freed = std::partition(heap.begin(), heap.end(), isNeeded);
  if (freed == heap.end()) {
    return;
  }
  dropped.add({freed, heap.end()});
  heap.erase(freed, heap.end());
  std::make_heap(heap.begin(), heap.end(), CompareTask());
}

void CronTaskQueue::takeUpDropped() {
  if (dropped.empty() || (!heap.empty() && heap.front()->GetExecTimeSec() <= dropped.earliest())) {
    return;
  }
  heap.push_back(dropped.take());
  std::push_heap(heap.begin(), heap.end(), CompareTask());
}

std::shared_ptr<serviceCron> CronTaskQueue::take() {
  std::pop_heap(heap.begin(), heap.end(), CompareTask());
  std::shared_ptr<serviceCron> task = std::move(heap.back());
  heap.pop_back();
  return task;
}
