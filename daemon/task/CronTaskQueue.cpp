#include "task/CronTaskQueue.h"

#include <algorithm>
#include <utility>

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
  return heap.empty() ? nullptr : heap.front();
}

std::shared_ptr<serviceCron> CronTaskQueue::pop() {
  const std::lock_guard lock(mutex);
  return heap.empty() ? nullptr : take();
}

bool CronTaskQueue::empty() {
  const std::lock_guard lock(mutex);
  return heap.empty();
}

std::size_t CronTaskQueue::size() {
  const std::lock_guard lock(mutex);
  return heap.size();
}

void CronTaskQueue::clear() {
  const std::lock_guard lock(mutex);
  while (!heap.empty()) {
    take();
  }
}

std::shared_ptr<serviceCron> CronTaskQueue::take() {
  std::pop_heap(heap.begin(), heap.end(), CompareTask());
  std::shared_ptr<serviceCron> task = std::move(heap.back());
  heap.pop_back();
  return task;
}
