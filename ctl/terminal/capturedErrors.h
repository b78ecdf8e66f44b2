#pragma once

#include <string>

/// Keeps from the terminal what a library or a child of this process writes to standard error, so
/// that it can be printed like everything else. Owned by one thread, one at a time.
class CapturedErrors {
 public:
  CapturedErrors();
  ~CapturedErrors();
  CapturedErrors(const CapturedErrors&) = delete;
  CapturedErrors& operator=(const CapturedErrors&) = delete;

  /// What has been written since the construction. From the first call on standard error is the
  /// former one.
  std::string take();

 private:
  void release();

  int memory;    // -1 where there is none: then nothing is captured
  int terminal;  // the former standard error; -1 once it is back
};
