#pragma once

#include <stdexcept>
#include <string>
#include <utility>

/// Exit statuses of koductl. Below 64 they describe what a command examined (check: 0, 1, 2; test:
/// the plugin's return code). From 64 on they describe failures of the command itself, with the
/// numbers of sysexits.h.
enum ExitCode {
  kDone = 0,
  kWrongUsage = 64,    // the command line
  kRefused = 65,       // the database or the parameter grammar refuses the values
  kNotFound = 66,      // no such task, output or archived output
  kNoDatabase = 69,    // the database does not answer, or not in time
  kNotWritten = 74,    // standard output cannot be written
  kNotPermitted = 77,  // a right is missing, in the database or on the disk
  kWrongConfig = 78,   // an INI file cannot be read or lacks usable values
};

/// Ends the command: `what()` goes to standard error, `exitCode` to the caller of koductl. The text
/// says what is wrong and what to do about it.
class Failure : public std::runtime_error {
 public:
  Failure(ExitCode code, const std::string& text, std::string state = "")
      : std::runtime_error(text), exitCode(code), sqlState(std::move(state)) {}

  const ExitCode exitCode;
  const std::string sqlState;  // the server's code of an error of its own, else
};
