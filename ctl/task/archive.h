#pragma once

#include <optional>
#include <string>
#include <vector>

class Session;
struct Task;

/// A failed run: its row in the history and the copy of its output.
struct FailedRun {
  long time = 0;     // seconds since the epoch
  std::string name;  // of the copy, below the task's archive folder
  std::string path;
  std::optional<std::uintmax_t> size;  // bytes; nothing when the copy is gone
};

/// The task's latest failed runs, the latest first, at most `limit` of them.
std::vector<FailedRun> readFailedRuns(Session& session, const Task& task, int limit);

/// True for a name that cannot leave the folder to which it is appended.
bool staysBelow(const std::string& name);

/// The beginning of a file's first line, at most 240 bytes: an output may be one large line.
std::string firstLineOf(const std::string& path);

/// The bytes of a file. Throws Failure (kNotFound, kNotPermitted) when it cannot be read.
std::string readOutput(const std::string& path);
