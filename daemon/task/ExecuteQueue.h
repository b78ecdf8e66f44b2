#pragma once

#include <pthread.h>

#include <deque>
#include <utility>

#include "core/posixLock.h"
#include "core/signals.h"
#include "task/EmptyQueueException.h"

/// A first-in-first-out hand-over between threads. Any thread may call any member; each takes the
/// queue's own lock unless it says otherwise, and throws std::system_error when that fails.
///
/// POSIX primitives, because HandlerQuit calls wakeAll from a signal handler.
template <typename T>
class ExecuteQueue {
 public:
  ExecuteQueue() {
    pthread_mutex_init(&mutex, nullptr);
    pthread_cond_init(&condition, nullptr);
  }
  virtual ~ExecuteQueue() {
    pthread_mutex_destroy(&mutex);
    pthread_cond_destroy(&condition);
  }
  ExecuteQueue(const ExecuteQueue&) = delete;
  ExecuteQueue& operator=(const ExecuteQueue&) = delete;

  /// Appends `element`, then wakes at most one waiting thread.
  void push(T element) {
    {
      const PosixLock lock(mutex);
      elements.push_back(std::move(element));
    }
    // The condition variable has a lock inside, which the handler's broadcast takes too.
    const SignalBlock noSigterm = SignalBlock::sigterm();
    pthread_cond_signal(&condition);
  }

  /// Returns once the queue holds an element or `stop` is not 0. Wakes for an element, and for
  /// wakeAll; `stop` is any integer flag that other threads may set. SIGTERM is blocked for the
  /// thread meanwhile.
  template <typename Flag>
  void waitForTask(Flag& stop) {
    // A waiting thread keeps a reference inside the condition variable, and a broadcast can wait
    // for its release. A broadcast by the handler on the waiting thread would wait for itself
    // forever. Tested by ExecuteQueueTest.ToleratesTheHandlerForAWaitingWorker.
    const SignalBlock noSigterm = SignalBlock::sigterm();
    const PosixLock lock(mutex);
    while (elements.empty() && stop == 0) {
      pthread_cond_wait(&condition, &mutex);
    }
  }

  /// Removes and returns the oldest element. Throws EmptyQueueException when there is none: the
  /// wait and this call lock separately, so another thread may have taken it in between.
  T pop() {
    const PosixLock lock(mutex);
    if (elements.empty()) {
      throw EmptyQueueException("queue is empty");
    }
    T element = std::move(elements.front());
    elements.pop_front();
    return element;
  }

  /// Wakes every waiting thread. Takes no lock, so a thread that has read its flag and does not
  /// wait yet misses it, and ends at its next wake-up.
  void wakeAll() { pthread_cond_broadcast(&condition); }

  /// Removes the elements from the front, one by one. Wakes no thread.
  void clear() {
    const PosixLock lock(mutex);
    while (!elements.empty()) {
      elements.pop_front();
    }
  }

 private:
  pthread_mutex_t mutex{};
  pthread_cond_t condition{};
  std::deque<T> elements;  // guarded by mutex
};
