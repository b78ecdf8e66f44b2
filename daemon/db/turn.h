#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

/// A lock for which a thread may wait for a limited time, by the monotonic clock; for
/// std::lock_guard and std::unique_lock. Any thread may call any member.
///
/// A thread that waits for a limited time precedes threads that wait without a limit; otherwise
/// many threads that take the lock repeatedly could starve it. std::timed_mutex offers neither this
/// order nor, under the thread sanitizer, the monotonic clock.
class Turn {
 public:
  void lock() {
    std::unique_lock state(mutex);
    isFree.wait(state, [this] { return !isTaken && hurried == 0; });
    isTaken = true;
  }

  /// False when the lock cannot be taken by `limit`.
  // NOLINTNEXTLINE(readability-identifier-naming): the name that std::unique_lock calls.
  bool try_lock_until(std::chrono::steady_clock::time_point limit) {
    std::unique_lock state(mutex);
    ++hurried;
    const bool isMine = isFreeInHurry.wait_until(state, limit, [this] { return !isTaken; });
    --hurried;
    isTaken = isTaken || isMine;
    return isMine;
  }

  void unlock() {
    bool isHurried = false;
    {
      const std::lock_guard state(mutex);
      isTaken = false;
      isHurried = hurried > 0;
    }
    // Waking one thread is enough, and each that wakes in vain costs two context switches.
    (isHurried ? isFreeInHurry : isFree).notify_one();
  }

 private:
  std::mutex mutex;
  std::condition_variable isFree;
  std::condition_variable isFreeInHurry;  // for those that wait for a limited time
  bool isTaken = false;                   // guarded by mutex
  int hurried = 0;                        // how many wait for a limited time; guarded by mutex
};
