#pragma once

#include <string>

/// A line on standard error that shows how much of a long task is done, when that is a terminal; it
/// is erased at the end. Owned by one thread.
class Progress {
 public:
  /// `total` things of that name: "rows".
  Progress(long total, std::string noun);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void advance(long count);

 private:
  const long all;
  const std::string things;
  const bool isShown;
  long done = 0;
};
