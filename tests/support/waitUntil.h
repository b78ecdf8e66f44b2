#pragma once

#include <chrono>
#include <thread>

/// Waits until `condition` holds, checking every 5 ms; false when it does not hold within `limit`.
template <typename Condition>
bool waitUntil(const Condition& condition, std::chrono::seconds limit = std::chrono::seconds(10)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}
