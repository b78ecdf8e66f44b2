#pragma once

#include <string>
#include <vector>

/// What a program left.
struct ChildResult {
  int status = -1;     // its exit status; -1 when it could not be started or a signal ended it
  std::string output;  // of its standard output

  bool isDone() const { return status == 0; }
};

/// Runs a program by its path with these arguments, the path first, and waits for its end. It gets
/// no environment: the caller's must not decide whom it asks. Its standard input is `input`. Its
/// standard error is this process's when `withErrors` is set, else it is discarded.
ChildResult runProgram(const std::vector<std::string>& arguments, const std::string& input = "",
                       bool withErrors = false);
