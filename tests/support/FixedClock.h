#pragma once

#include <ctime>

/// Makes std::time return one second, in the whole process, while it lives; one at a time. A
/// program that uses it has its own `time`, which otherwise returns the system's. localtime,
/// timeouts and the database's now() are not touched. Any thread may call any member.
class FixedClock {
 public:
  explicit FixedClock(std::time_t now);
  ~FixedClock();
  FixedClock(const FixedClock&) = delete;
  FixedClock& operator=(const FixedClock&) = delete;

  void set(std::time_t now);
  /// How often any thread has read the clock since it was made.
  long reads() const;
};

/// 1 May 2024, 13:02:09 UTC.
constexpr std::time_t kMayDay = 1714568529;
