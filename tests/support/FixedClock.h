#pragma once

#include <ctime>

/// Makes std::time return a fixed second in the whole process during its lifetime; only one object
/// at a time. A program that uses it has its own `time`, which otherwise returns the system's. It
/// does not affect localtime, timeouts and the database's now(). Any thread may call any member.
class FixedClock {
 public:
  explicit FixedClock(std::time_t now);
  ~FixedClock();
  FixedClock(const FixedClock&) = delete;
  FixedClock& operator=(const FixedClock&) = delete;

  void set(std::time_t now);
  /// The number of times that any thread has read the clock since the construction.
  long reads() const;
};

/// 1 May 2024, 13:02:09 UTC.
constexpr std::time_t kMayDay = 1714568529;
