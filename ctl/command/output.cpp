// koductl output: what a task's last run printed, or a failed one of before.

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <optional>
#include <string>

#include "ctl/command/commands.h"
#include "ctl/daemon/daemonProcess.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/task/archive.h"
#include "ctl/task/task.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/terminal.h"
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

void printText(const std::string& text) {
  const bool isLineOpen = !text.empty() && text.back() != '\n';
  printOutput(isTerminal() && isLineOpen ? text + "\n" : text);
}

/// Distinguishes the outputs of two runs: the daemon overwrites the file.
struct Version {
  timespec changed{};
  off_t size = -1;

  bool operator==(const Version& other) const {
    return changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec &&
           size == other.size;
  }
};

Version versionOf(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    return {};
  }
  return {status.st_mtim, status.st_size};
}

void printAsJson(const Task& task, const std::string& path) {
  Json::Value json;
  json["id"] = task.id;
  json["path"] = path;
  json["written_at"] = jsonTime(versionOf(path).changed.tv_sec);
  json["output"] = readOutput(path);
  printJson(json);
}

[[noreturn]] void follow(const Task& task, const std::string& path, bool asJson) {
  std::signal(SIGINT, [](int) { _exit(0); });
  std::signal(SIGTERM, [](int) { _exit(0); });
  Version shown;
  for (;;) {
    const Version present = versionOf(path);
    if (!(present == shown) && present.size >= 0) {
      if (asJson) {
        printAsJson(task, path);
      } else {
        print("==> {} UTC <==\n", timeText(present.changed.tv_sec));
        printText(readOutput(path));
      }
      flushOutput();
    }
    shown = present;
    usleep(200000);
  }
}

}  // namespace

int runOutput(const Options& options) {
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
  if (options.follow) {
    follow(*task, path, options.asJson);
  }
  if (!task->status && options.archived.empty()) {
    throw Failure(kNotFound, fmt::format("task {} has not run yet; it is due at {} UTC", task->id,
                                         timeText(task->next.value_or(0))));
  }
  if (options.asJson) {
    printAsJson(*task, path);
  } else {
    printText(readOutput(path));
  }
  return 0;
}
