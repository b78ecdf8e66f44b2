#pragma once

#include <chrono>

/// SIGTERM and SIGINT, which end the program once the delivery in progress has ended. One object at
/// a time. Owned by the main thread.
class StopSignal {
 public:
  /// Takes the signals from now on. Throws std::system_error.
  StopSignal();
  ~StopSignal();
  StopSignal(const StopSignal&) = delete;
  StopSignal& operator=(const StopSignal&) = delete;

  bool isSet() const;
  /// Waits until the signal, until `descriptor` can be read (-1: none), or for this time.
  void wait(std::chrono::milliseconds time, int descriptor = -1) const;
};
