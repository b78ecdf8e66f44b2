#include "ctl/task/outputs.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <optional>

#include "ctl/failure.h"
#include "ctl/session/session.h"
#include "ctl/task/archive.h"
#include "ctl/task/task.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/printable.h"
#include "ctl/terminal/text.h"

namespace {

/// When the file was written; nothing when there is none.
std::optional<timespec> writtenAt(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? std::optional(status.st_mtim) : std::nullopt;
}

bool isBefore(const timespec& a, const timespec& b) {
  return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

/// The latest run's output; nothing when it is that of the failed run, whose copy is made after it.
std::optional<KeptOutput> latestOutput(const Task& task, const std::vector<FailedRun>& failed) {
  const std::string path = task.outputPath();
  const auto time = task.status ? writtenAt(path) : std::nullopt;
  const auto copied = failed.empty() ? std::nullopt : writtenAt(failed.front().path);
  if (!time || (copied && !isBefore(*copied, *time))) {
    return std::nullopt;
  }
  return KeptOutput{task.id, task.name, time->tv_sec, false, path};
}

}  // namespace

std::vector<KeptOutput> readOutputs(Session& session, const Task& task, int limit,
                                    bool onlyFailed) {
  std::vector<FailedRun> failed = readFailedRuns(session, task, limit);
  std::vector<KeptOutput> outputs;
  if (!onlyFailed) {
    if (const auto latest = latestOutput(task, failed)) {
      outputs.push_back(*latest);
    }
  }
  failed.resize(std::min(failed.size(), static_cast<std::size_t>(limit) - outputs.size()));
  for (const FailedRun& run : failed) {
    outputs.push_back({task.id, task.name, run.time, true, run.path});
  }
  std::reverse(outputs.begin(), outputs.end());
  return outputs;
}

void printBytes(const std::string& output) {
  const bool isLineOpen = !output.empty() && output.back() != '\n';
  printOutput(isTerminal() && isLineOpen ? output + "\n" : output);
}

void printKept(const KeptOutput& output, bool withTask, bool asJson) {
  if (asJson) {
    printJson(toJson(output));
    return;
  }
  const std::string task =
      withTask ? fmt::format(", task {} ({})", output.taskId, oneLine(output.taskName)) : "";
  print("==> {}{}{} <==\n", zonedTime(output.time), task, output.isFailed ? ", failed" : "");
  try {
    const std::string text = readOutput(output.path);
    printOutput(text.empty() || text.back() == '\n' ? text : text + "\n");
  } catch (const Failure& e) {
    print("({})\n", e.what());
  }
}

Json::Value toJson(const KeptOutput& output, const std::optional<std::string>& content) {
  Json::Value json;
  json["id"] = output.taskId;
  json["name"] = output.taskName;
  json["time"] = jsonTime(output.time);
  json["failed"] = output.isFailed;
  json["path"] = output.path;
  json["output"] = jsonText(content);
  return json;
}

Json::Value toJson(const KeptOutput& output) {
  try {
    return toJson(output, readOutput(output.path));
  } catch (const Failure&) {
    return toJson(output, std::nullopt);
  }
}
