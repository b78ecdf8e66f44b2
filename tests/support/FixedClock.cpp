#include "tests/support/FixedClock.h"

#include <atomic>

namespace {

constexpr std::time_t kSystemClock = -1;
std::atomic<std::time_t> fixedNow = kSystemClock;
std::atomic<long> readCount = 0;

}  // namespace

/// Replaces the function of the C library in the program that links this file.
extern "C" std::time_t time(std::time_t* timer) noexcept {
  ++readCount;
  std::time_t now = fixedNow;
  if (now == kSystemClock) {
    timespec precise{};
    clock_gettime(CLOCK_REALTIME_COARSE, &precise);
    now = precise.tv_sec;
  }
  if (timer != nullptr) {
    *timer = now;
  }
  return now;
}

FixedClock::FixedClock(std::time_t now) {
  readCount = 0;
  fixedNow = now;
}

FixedClock::~FixedClock() {
  fixedNow = kSystemClock;
}

void FixedClock::set(std::time_t now) {
  fixedNow = now;
}

long FixedClock::reads() const {
  return readCount;
}
