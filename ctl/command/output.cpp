// koductl output, an earlier name of parts of logs: the last output alone, or that of a failed run.

#include <fmt/format.h>
#include <sys/stat.h>

#include <charconv>
#include <optional>
#include <string>

#include "ctl/command/commands.h"
#include "ctl/daemon/daemonProcess.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/task/archive.h"
#include "ctl/task/outputs.h"
#include "ctl/task/task.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/text.h"

namespace {

std::optional<int> wholeNumber(const std::string& text) {
  int number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool isWhole = error == std::errc() && end == text.data() + text.size() && number > 0;
  return isWhole ? std::optional(number) : std::nullopt;
}

/// The path of the output that the options ask for.
std::string pathOf(Session& session, const Task& task, const std::string& archived) {
  if (archived.empty()) {
    return task.outputPath();
  }
  if (const auto number = wholeNumber(archived)) {
    const auto runs = readFailedRuns(session, task, *number);
    if (runs.empty()) {
      throw Failure(kNotFound, fmt::format("task {} has no failed runs", task.id));
    }
    if (static_cast<int>(runs.size()) < *number) {
      throw Failure(kNotFound,
                    fmt::format("task {} has only {}; koductl history {} lists them", task.id,
                                counted(static_cast<long>(runs.size()), "failed run"), task.id));
    }
    return runs.back().path;
  }
  if (!staysBelow(archived)) {
    throw Failure(kWrongUsage, "give a number or a name from koductl history, not a path");
  }
  return task.archivePath() + archived;
}

void printAsJson(const Task& task, const std::string& path) {
  Json::Value json;
  json["id"] = task.id;
  json["path"] = path;
  struct stat status {};
  json["written_at"] =
      stat(path.c_str(), &status) == 0 ? jsonTime(status.st_mtim.tv_sec) : Json::Value();
  json["output"] = readOutput(path);
  printJson(json);
}

/// logs --follow does that.
int followAsLogs(Options options) {
  options.onlyTask = options.id;
  options.outputs = 1;
  return runLogs(options);
}

}  // namespace

int runOutput(const Options& options) {
  if (options.follow) {
    return followAsLogs(options);
  }
  std::string path;
  std::optional<Task> task;
  DaemonIdentity daemon;
  {
    Session session(options);
    session.makeReadOnly();
    task = readTask(session, options.id);
    path = pathOf(session, *task, options.archived);
    daemon = findDaemon(session.config);
  }
  // Writers of rows and outputs choose which file is read: with root's rights, it could be any
  // file.
  const AsDaemon rights(daemon);
  if (!task->status && options.archived.empty()) {
    throw Failure(kNotFound, fmt::format("task {} has not run yet; it is due at {}", task->id,
                                         zonedTime(task->next.value_or(0))));
  }
  if (options.asJson) {
    printAsJson(*task, path);
  } else {
    printBytes(readOutput(path));
  }
  return 0;
}
