#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "ctl/check/findings.h"
#include "ctl/daemon/daemonProcess.h"
#include "ctl/files/fileCheck.h"
#include "ctl/task/guarded.h"
#include "ctl/task/task.h"

/// Output files that several tasks may write, and the first task that was found to write one.
using SharedFiles = std::map<std::string, std::optional<int>>;

/// What koductl check demands of a single task. Caches the results for plugins, because many tasks
/// share one.
class TaskRules {
 public:
  TaskRules(const DaemonIdentity& identity, SharedFiles files, Findings& list)
      : daemon(identity), findings(list), shared(std::move(files)) {}

  void look(const Task& task) {
    if (task.type != "cron") {
      findings.addWarning(
          fmt::format("plugin_type is '{}': the daemon runs only plugins of type 'cron'",
                      task.type),
          task.id);
      return;
    }
    lookAtRow(task);
    lookAtPlugin(task);
    lookAtOutput(task);
    if (task.isLate) {
      findings.addWarning("is overdue", task.id);
    }
  }

 private:
  /// Finds rows that the loader skips, or that exceed the database's limits in an older schema.
  void lookAtRow(const Task& task) {
    if (task.id < 0) {
      findings.addError("refused by the daemon: the id is negative", task.id);
    }
    if (!task.every || *task.every < 1) {
      findings.addError("refused by the daemon: cron_interval is missing or shorter than a second",
                        task.id);
    }
    if (!task.next && !task.isPaused()) {
      findings.addError("refused by the daemon: cron_next_exec is missing", task.id);
    }
    lookAtLimits(task);
    const auto quotes = std::count_if(task.parameter.begin(), task.parameter.end(),
                                      [](char c) { return c == '"' || c == '\''; });
    if (quotes % 2 != 0) {
      findings.addWarning("a quote in the parameters is not closed: it extends to their end",
                          task.id);
    }
  }

  /// Finds older rows that the tables would now refuse.
  void lookAtLimits(const Task& task) {
    if (task.isIntervalUneven) {
      findings.addError(
          "the interval contains months, years or a negative part, which can end the daemon: "
          "specify it in days",
          task.id);
    }
    if (task.maxRetries() > 0 && task.retryDelay() < kShortestRetryDelay) {
      findings.addError(
          fmt::format("a retry can fail within a second of the failure, which ends the daemon: "
                      "set its delay to {} s or more",
                      kShortestRetryDelay),
          task.id);
    }
    if (task.isNextBeyondLimit) {
      findings.addError("the next run is due after 2036: a run that ends earlier ends the daemon",
                        task.id);
    }
  }

  void lookAtPlugin(const Task& task) {
    if (const auto reason = reasonFor(task.path)) {
      findings.addError(fmt::format("plugin {} cannot be run: {}", task.path, *reason), task.id);
      return;
    }
    if (!isGuarded(task)) {
      findings.addWarning("no time limit: a run that hangs occupies its worker (see koduguard)",
                          task.id);
      return;
    }
    const std::string inner = guardedPlugin(task);
    if (const auto reason = reasonFor(inner)) {
      findings.addError(fmt::format("plugin {} cannot be run: {}", inner, *reason), task.id);
    }
  }

  std::optional<std::string> reasonFor(const std::string& path) {
    const auto known = plugins.find(path);
    if (known != plugins.end()) {
      return known->second;
    }
    constexpr std::size_t kMostPlugins = 10000;
    if (plugins.size() >= kMostPlugins) {
      plugins.clear();
    }
    return plugins[path] = whyNotExecutable(path, daemon.directory);
  }

  void lookAtOutput(const Task& task) {
    if (task.fileName.empty()) {
      findings.addError("cron_log_file is empty: the output has no file, which ends the daemon",
                        task.id);
      return;
    }
    if (task.fileName.find("$DATE") == std::string::npos) {
      findings.addError("the file name lacks $DATE: the second failed run ends the daemon",
                        task.id);
    }
    if (task.fileName.find('/') != std::string::npos) {
      findings.addError(
          "the file name contains a /, but the archive has no such folder: a failed run or the "
          "purge ends the daemon",
          task.id);
    }
    const std::string path = task.outputPath();
    if (const auto reason = whyNotWritable(path)) {
      findings.addError("output file cannot be written: " + *reason, task.id);
    }
    if (const auto other = shared.find(path); other != shared.end()) {
      lookAtShared(task, path, other->second);
    }
  }

  void lookAtShared(const Task& task, const std::string& path, std::optional<int>& first) {
    if (first) {
      findings.addWarning(fmt::format("writes the same output file as task {}: {}", *first, path),
                          task.id);
    } else {
      first = task.id;
    }
  }

  static constexpr long kShortestRetryDelay = 2;  // seconds

  const DaemonIdentity& daemon;
  Findings& findings;
  std::map<std::string, std::optional<std::string>> plugins;  // path, why it cannot be run
  SharedFiles shared;
};
