#pragma once

#include <string>
#include <vector>

/// Where something is declared.
struct Place {
  std::string file;
  int line = 0;  // from 1; 0: the file as a whole
};

/// Collects what is wrong in declarations, so that one call shows all of it. Owned by one thread.
class Mistakes {
 public:
  /// `key` is the task's key, or "" outside of a task; `text` says what is wrong and what to do.
  void add(const Place& place, const std::string& key, const std::string& text);

  bool areThere() const { return !lines.empty(); }
  /// Throws Failure (kRefused) with "FILE:LINE: KEY: TEXT" for each, if there is one.
  void throwIfAny() const;

 private:
  std::vector<std::string> lines;
};
