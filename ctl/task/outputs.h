#pragma once

#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

class Session;
struct Task;

/// An output that the daemon keeps: that of a task's latest run, or the copy of a failed run's.
struct KeptOutput {
  int taskId = 0;
  std::string taskName;
  long time = 0;  // of the failure, else when the file was written; seconds since the epoch
  bool isFailed = false;
  std::string path;
};

/// The task's outputs, the latest last, at most `limit`: those of failed runs and, unless
/// `onlyFailed` is set, that of the latest run. A latest run that has failed is listed once. The
/// files are looked at with the present rights of this process (see AsDaemon).
std::vector<KeptOutput> readOutputs(Session& session, const Task& task, int limit, bool onlyFailed);

/// Prints an output below a line with its time, or as a JSON object. That line names the task when
/// `withTask` is set. A file that cannot be read is named instead of its content.
void printKept(const KeptOutput& output, bool withTask, bool asJson);

/// Prints an output alone. On a terminal, its last line ends.
void printBytes(const std::string& output);

/// The output as a JSON object with that content; nothing for a file that cannot be read.
Json::Value toJson(const KeptOutput& output, const std::optional<std::string>& content);
/// The same with the content of the file.
Json::Value toJson(const KeptOutput& output);
