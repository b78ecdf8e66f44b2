#pragma once

#include <string>

/// Captures what a library or a child of this process writes to standard error, so that it can be
/// printed like everything else. Owned by one thread; only one object at a time.
class CapturedErrors {
 public:
  CapturedErrors();
  ~CapturedErrors();
  CapturedErrors(const CapturedErrors&) = delete;
  CapturedErrors& operator=(const CapturedErrors&) = delete;

  /// What has been written since the construction. The first call restores standard error.
  std::string take();

 private:
  void release();

  int memory;    // -1 when it could not be created: nothing is captured then
  int terminal;  // the former standard error; -1 once it is back
};
