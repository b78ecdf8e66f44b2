#include "task/CronTaskQueue.h"

#include <algorithm>
#include <utility>

#include "core/constants.h"
#include "task/serviceCron.h"

namespace {

bool isMarked(const serviceCron& task) {
  return task.GetExecState() == kRecordDropped;
}

}  // namespace

bool CompareTask::operator()(std::shared_ptr<serviceCron> first,
                             std::shared_ptr<serviceCron> second) const {
  return first->GetExecTimeSec() > second->GetExecTimeSec();
}

void CronTaskQueue::push(std::shared_ptr<serviceCron> task) {
  const std::lock_guard lock(mutex);
  if (isMarked(*task)) {  // during its run, when it was not here to be freed
    marked.insert(task.get());
  }
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
  marked.clear();
  dropped.clear();
  while (!heap.empty()) {
    take();
  }
}

void CronTaskQueue::noteMarked(const serviceCron* task) {
  constexpr std::size_t kMostMarked = 1000;
  constexpr std::size_t kLooksPerMark = 32;
  const std::lock_guard lock(mutex);
  marked.insert(task);
  if (marked.size() >= kMostMarked || marked.size() * kLooksPerMark >= heap.size()) {
    freeMarked();
  }
}

void CronTaskQueue::freeMarked() {
  std::unordered_set<const serviceCron*> held;
  // By address: a look into each record would take ten times as long.
  const auto canBeFreed = [&](const std::shared_ptr<serviceCron>& task) {
    if (!marked.contains(task.get()) || !isMarked(*task)) {  // or a new one at an old address
      return false;
    }
    // A task that only the heap references can be reached only through this
    // queue, whose lock is held.
    const bool isHeld = task.use_count() > 1;
    if (isHeld) {
      held.insert(task.get());
    }
    return !isHeld;
  };
  std::vector<std::shared_ptr<serviceCron>> freed;
  // From the end: all that moves has been looked at, but for what comes to the freed task's place.
  for (std::size_t at = heap.size(); at-- > 0;) {
    while (at < heap.size() && canBeFreed(heap[at])) {
      freed.push_back(takeAt(at));
    }
  }
  marked.swap(held);
  if (!freed.empty()) {
    dropped.add(freed);
  }
}

std::shared_ptr<serviceCron> CronTaskQueue::takeAt(std::size_t at) {
  std::swap(heap[at], heap.back());
  std::shared_ptr<serviceCron> task = std::move(heap.back());
  heap.pop_back();
  if (at < heap.size()) {
    std::push_heap(heap.begin(), heap.begin() + static_cast<std::ptrdiff_t>(at) + 1, CompareTask());
    sink(at);
  }
  return task;
}

void CronTaskQueue::sink(std::size_t at) {
  const CompareTask isLater;
  for (std::size_t child = 2 * at + 1; child < heap.size(); child = 2 * at + 1) {
    if (child + 1 < heap.size() && isLater(heap[child], heap[child + 1])) {
      ++child;
    }
    if (!isLater(heap[at], heap[child])) {
      return;
    }
    std::swap(heap[at], heap[child]);
    at = child;
  }
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
