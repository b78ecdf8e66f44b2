#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <unordered_set>
#include <vector>

#include "task/DroppedTasks.h"

class serviceCron;

/// Orders a heap with the smallest ExecTime first.
class CompareTask {
 public:
  /// True when `first` is due later than `second`.
  bool operator()(std::shared_ptr<serviceCron> first, std::shared_ptr<serviceCron> second) const;
};

/// The tasks that wait for their next run, earliest first; equal times in any order. Any thread
/// may call any member; each holds the queue's lock for its whole duration, takes no other, and
/// throws std::system_error when the lock cannot be taken.
///
/// A task's ExecTime is read whenever the heap is ordered, so it must not change while the task is
/// inside. The loader's update of a known task can change it nevertheless: the task then keeps its
/// old position until a push or a pop moves it. Searching the heap for it would cost more than a
/// run that is slightly early or late. Tested by
/// CronTaskQueueTest.ReadsTheTimeWhenTheHeapIsOrdered.
///
/// A task that is marked to be dropped (ExecState 3) stays until its due time like any other: then
/// the timer logs it and a worker drops it. For a task that only the queue still references, only
/// time and name are kept; at its due time the queue returns a record with these and the mark.
class CronTaskQueue {
 public:
  CronTaskQueue() = default;
  virtual ~CronTaskQueue() = default;
  CronTaskQueue(const CronTaskQueue&) = delete;
  CronTaskQueue& operator=(const CronTaskQueue&) = delete;

  void push(std::shared_ptr<serviceCron> task);

  /// The earliest task, which stays in the queue; null when the queue is empty.
  std::shared_ptr<serviceCron> front();

  /// Removes and returns the earliest task; null when the queue is empty.
  std::shared_ptr<serviceCron> pop();

  bool empty();
  /// The number of tasks.
  std::size_t size();

  /// Removes the tasks one by one, earliest first.
  void clear();

  /// To be called for each task that was marked, with its address, once the caller has let go of
  /// it. Now and then it frees the marked tasks that only the queue holds. Such a call compares the
  /// address of every task in the queue with those of the marked ones: on average a call compares
  /// 32 addresses, or a thousandth of them where that is more.
  void noteMarked(const serviceCron* task);

 private:
  /// Frees the marked tasks that only the heap references, except time and name. Caller holds
  /// mutex.
  void freeMarked();
  /// Puts the earliest of the freed tasks back on the heap when it is due before all others. Caller
  /// holds mutex.
  void takeUpDropped();
  /// Removes and returns the task at `at`. Caller holds mutex.
  std::shared_ptr<serviceCron> takeAt(std::size_t at);
  /// Moves the task at `at` down to its place. Caller holds mutex.
  void sink(std::size_t at);
  /// Removes and returns the earliest task. Caller holds mutex; the queue is not empty.
  std::shared_ptr<serviceCron> take();

  std::mutex mutex;
  std::vector<std::shared_ptr<serviceCron>> heap;  // guarded by mutex
  DroppedTasks dropped;                            // guarded by mutex
  // The addresses of marked tasks that may be in the heap, or may be gone; guarded by mutex.
  std::unordered_set<const serviceCron*> marked;
};
