#include "ctl/task/explanation.h"

#include <fmt/format.h>

#include <algorithm>

#include "ctl/files/fileCheck.h"
#include "ctl/task/guarded.h"
#include "ctl/terminal/text.h"
#include "task/serviceCron.h"

namespace {

/// "2024-05-01 13:02:09 UTC (5m ago)" or "... (in 5m)".
std::string moment(long time, long now) {
  std::string distance = "now";
  if (time != now) {
    distance = time > now ? "in " + durationText(time - now) : durationText(now - time) + " ago";
  }
  return fmt::format("{} UTC ({})", timeText(time), distance);
}

std::string everyText(const Task& task) {
  return task.every ? durationText(*task.every) : "(no interval)";
}

std::string definition(const Task& task) {
  const auto count = static_cast<long>(task.record()->GetVectorParam().size());
  return fmt::format("Task {} ({}) runs {} with {} every {}.", task.id, task.name, task.path,
                     counted(count, "argument"), everyText(task));
}

std::string lastRun(const Task& task) {
  if (!task.lastDue) {
    return task.status ? "No run of it has been completed yet." : "It has not run yet.";
  }
  if (task.status == "PROCESS") {
    return fmt::format("Its last completed run was due at {}.", moment(*task.lastDue, task.now));
  }
  const std::string retries = task.status == "FAILED" && task.maxRetries() > 0
                                  ? fmt::format(" after {} {}", task.maxRetries(),
                                                task.maxRetries() == 1 ? "retry" : "retries")
                                  : "";
  return fmt::format("Its last run was due at {}, and ended {}{}.", moment(*task.lastDue, task.now),
                     task.status.value_or("without a status"), retries);
}

/// For a run that has failed before.
std::string retryWait(const Task& task) {
  const long used = task.failedAttempts;
  const std::string failed = fmt::format("The run that was due at {} has failed {}",
                                         moment(*task.next, task.now), counted(used, "time"));
  if (!task.retryDue) {
    return failed + ", no retry is left, and the daemon is about to write FAILED.";
  }
  const std::string retry = fmt::format("{}; retry {} of {}", failed, used, task.maxRetries());
  const std::string due = moment(*task.retryDue, task.now);
  return task.awaitsRetry
             ? fmt::format("{} is due at {}.", retry, due)
             : fmt::format("{} was due at {} and is running or waiting for a free worker.", retry,
                           due);
}

/// What was set meanwhile, and takes effect when the run has ended.
std::string afterRun(const Task& task) {
  if (task.isFlagged) {
    return " After it the daemon removes the task, its files and its history.";
  }
  if (task.pause) {
    return fmt::format(" After it the task is {}; koductl resume {} ends that.",
                       pauseText(*task.pause, task.now), task.id);
  }
  return task.afterRun
             ? fmt::format(" The next one has been set to {}.", moment(*task.afterRun, task.now))
             : "";
}

std::string runningWait(const Task& task, const TaskContext& context) {
  if (!context.isConnected) {
    return "Its row says PROCESS, but no daemon is connected: that run was left behind, and the "
           "next start of the daemon takes the task up again.";
  }
  if (task.failedAttempts > 0) {
    return retryWait(task) + afterRun(task);
  }
  return fmt::format("The run due at {} is in progress: it waits for the plugin to end.{}",
                     moment(*task.next, task.now), afterRun(task));
}

/// Why a task that is due has not begun.
std::string lateReason(const Task& task, const TaskContext& context) {
  const std::string late =
      fmt::format("It should have begun by now: due at {}.", moment(*task.next, task.now));
  if (!context.isConnected) {
    return late + " No daemon is connected to the database, so nothing runs.";
  }
  if (context.workload.busy >= context.workers) {
    return fmt::format("{} There are {}, and {} in progress: it waits for a free one.", late,
                       counted(context.workers, "worker"), counted(context.workload.busy, "run"));
  }
  return late +
         " The daemon is connected and has workers to spare: either it was never told of the task, "
         "or "
         "it dropped it because the output could not be written. A restart of the daemon loads it.";
}

std::string waitingFor(const Task& task, const TaskContext& context) {
  if (task.isFlagged && !task.isRunning) {
    return "It is marked for deletion: the daemon removes it, its files and its history within two "
           "minutes.";
  }
  if (task.type != "cron") {
    return fmt::format("Its plugin has the type '{}', and the daemon runs only 'cron' ones.",
                       task.type);
  }
  if (task.pause && !task.isRunning) {
    return fmt::format("It is {}. koductl resume {} ends that.", pauseText(*task.pause, task.now),
                       task.id);
  }
  if (!task.next || !task.every || *task.every < 1) {
    return "The daemon refuses the row: interval or next time is missing.";
  }
  if (task.isRunning) {
    return runningWait(task, context);
  }
  if (task.isLate) {
    return lateReason(task, context);
  }
  return fmt::format("It waits for its time: {}.", moment(*task.next, task.now));
}

/// Which rule has set the next time.
std::string nextTimeRule(const Task& task) {
  if (task.isRunning) {
    return "The due time stays until the run is completed; then one interval is added, and more "
           "until it lies ahead, unless another time has been set.";
  }
  if (task.isPaused()) {
    return "The pause put its next time off; a resumed task goes on in its old rhythm.";
  }
  if (!task.lastDue) {
    return "Whoever added the task chose that time; a start of the daemon after it moves it on by "
           "whole intervals.";
  }
  const long distance = *task.next - *task.lastDue;
  if (distance == *task.every) {
    return fmt::format("That is one interval, {}, after the due time of the last run.",
                       everyText(task));
  }
  if (distance > 0 && distance % *task.every == 0) {
    const long count = distance / *task.every;
    return fmt::format(
        "That is {} intervals after the due time of the last run: {} been skipped, "
        "since the run had not ended or no daemon ran at their time.",
        count, count == 2 ? "one has" : fmt::format("{} have", count - 1));
  }
  return "That is no whole number of intervals after the last run: the time was set by hand, by "
         "run, "
         "set, resume or stagger, or the interval was changed.";
}

/// What the latest failed run printed, as the end of a line.
std::string said(const TaskContext& context) {
  if (context.isFailureSilent) {
    return " It printed nothing, which counts as failed.";
  }
  return context.failureText.empty() ? "" : fmt::format(" It said: {}", context.failureText);
}

std::string failing(const Task& task, const TaskContext& context) {
  const std::string counts = fmt::format("{} in the last hour and {} in the last day",
                                         counted(task.failuresHour, "run"), task.failuresDay);
  if (task.failingSince) {
    return fmt::format("It fails since {}: {} failed, see koductl history {}.{}",
                       moment(*task.failingSince, task.now), counts, task.id, said(context));
  }
  if (task.isFailing) {
    return "It fails; since when is not in the history any more.";
  }
  return task.failuresDay > 0 ? fmt::format("It does not fail now; {} failed.", counts)
                              : "No run has failed in the last day.";
}

std::string pluginFile(const Task& task, const TaskContext& context, const std::string& path) {
  const std::string user = context.daemon.userName();
  if (const auto reason = whyNotExecutable(path, context.daemon.directory)) {
    return fmt::format("User {} cannot run {}: {}.", user, path, *reason);
  }
  const std::string limit = isGuarded(task) ? "" : " Its runs have no time limit.";
  return fmt::format("User {} can run {}.{}", user, path, limit);
}

std::string outputFile(const Task& task, const TaskContext& context) {
  const std::string path = task.outputPath();
  if (const auto reason = whyNotWritable(path)) {
    return fmt::format("User {} cannot write its output to {}: {}. The daemon ends over this.",
                       context.daemon.userName(), path, *reason);
  }
  const std::string date = task.fileName.find("$DATE") == std::string::npos
                               ? " Without $DATE in its name the second failed run ends the daemon."
                               : "";
  return fmt::format("User {} can write its output to {}.{}", context.daemon.userName(), path,
                     date);
}

}  // namespace

std::vector<std::string> explain(const Task& task, const TaskContext& context) {
  std::vector<std::string> sentences = {definition(task), lastRun(task), waitingFor(task, context)};
  if ((task.next || task.isPaused()) && task.every && *task.every > 0 && !task.isFlagged) {
    sentences.push_back(nextTimeRule(task));
  }
  sentences.push_back(failing(task, context));
  if (!context.daemon.canBeTaken()) {
    sentences.push_back(
        fmt::format("What follows is seen with your rights, not with those of user {}.",
                    context.daemon.userName()));
  }
  const AsDaemon rights(context.daemon);
  sentences.push_back(pluginFile(task, context, task.path));
  if (isGuarded(task)) {
    sentences.push_back(pluginFile(task, context, guardedPlugin(task)));
  }
  sentences.push_back(outputFile(task, context));
  return sentences;
}
