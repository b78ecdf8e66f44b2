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
  return fmt::format("{} ({})", zonedTime(time), distance);
}

std::string everyText(const Task& task) {
  return task.every ? durationText(*task.every) : "(no interval)";
}

std::string definition(const Task& task) {
  const auto count = static_cast<long>(task.record()->GetVectorParam().size());
  return fmt::format(
      "Task {} ({}) runs {} with {} {}.", task.id, task.name, task.path, counted(count, "argument"),
      task.calendar.empty() ? "every " + everyText(task) : "at the times of " + calendarText(task));
}

std::string lastRun(const Task& task) {
  if (!task.lastDue) {
    return task.status ? "No run has been completed yet." : "It has not run yet.";
  }
  if (task.status == "PROCESS") {
    return fmt::format("Its last completed run was due at {}.", moment(*task.lastDue, task.now));
  }
  const std::string retries = task.status == "FAILED" && task.maxRetries() > 0
                                  ? fmt::format(" after {} {}", task.maxRetries(),
                                                task.maxRetries() == 1 ? "retry" : "retries")
                                  : "";
  return fmt::format("Its last run was due at {} and ended {}{}.", moment(*task.lastDue, task.now),
                     task.status ? "with status " + *task.status : "without a status", retries);
}

/// For a run that has failed before.
std::string retryWait(const Task& task) {
  const long used = task.failedAttempts;
  const std::string failed = fmt::format("The run due at {} has failed {}",
                                         moment(*task.next, task.now), counted(used, "time"));
  if (!task.retryDue) {
    return failed + ". No retry is left; the daemon is about to write FAILED.";
  }
  const std::string retry = fmt::format("{}; retry {} of {}", failed, used, task.maxRetries());
  const std::string due = moment(*task.retryDue, task.now);
  return task.awaitsRetry
             ? fmt::format("{} is due at {}.", retry, due)
             : fmt::format("{} was due at {} and is running or waiting for a free worker.", retry,
                           due);
}

/// "has been paused since 2024-05-01 13:02:09 UTC (5m ago) by alice: new disks".
std::string pausedSince(const Pause& pause, long now) {
  return (pause.since ? "has been " : "is ") + pauseText(pause, now);
}

/// What was set meanwhile, and takes effect when the run has ended.
std::string afterRun(const Task& task) {
  if (task.isFlagged) {
    return " When it has ended, the daemon removes the task, its files and its history.";
  }
  if (task.pause) {
    return fmt::format(" No run follows it: the task {}. Run koductl resume {} to resume it.",
                       pausedSince(*task.pause, task.now), task.id);
  }
  return task.afterRun
             ? fmt::format(" The next run has been set to {}.", moment(*task.afterRun, task.now))
             : "";
}

std::string runningWait(const Task& task, const TaskContext& context) {
  if (!context.isConnected) {
    return "Its status is PROCESS, but no daemon is connected: that run was abandoned. The daemon "
           "loads the task again at its next start.";
  }
  if (task.failedAttempts > 0) {
    return retryWait(task) + afterRun(task);
  }
  return fmt::format("The run due at {} is in progress: its plugin has not ended yet.{}",
                     moment(*task.next, task.now), afterRun(task));
}

/// Why a task that is due has not begun.
std::string lateReason(const Task& task, const TaskContext& context) {
  const std::string late =
      fmt::format("It is overdue: it was due at {}.", moment(*task.next, task.now));
  if (!context.isConnected) {
    return late + " No daemon is connected to the database, so nothing runs.";
  }
  if (context.workload.busy >= context.workers) {
    return fmt::format("{} It waits for a free worker ({}, {} in progress).", late,
                       counted(context.workers, "worker"), counted(context.workload.busy, "run"));
  }
  return late +
         " The daemon is connected and has free workers. Either it was not notified of the task, "
         "or it dropped the task because its output could not be written. A restart of the daemon "
         "loads the task.";
}

std::string waitingFor(const Task& task, const TaskContext& context) {
  if (task.isFlagged && !task.isRunning) {
    return "It is marked for deletion: the daemon removes it, its files and its history within "
           "four "
           "minutes.";
  }
  if (task.type != "cron") {
    return fmt::format("Its plugin is of type '{}'; the daemon runs only plugins of type 'cron'.",
                       task.type);
  }
  if (task.isParked && !task.isRunning) {
    return fmt::format(
        "Its calendar has no time from now to 2035, so it is paused. Run koductl set {} --at "
        "CALENDAR to give it another one.",
        task.id);
  }
  if (task.pause && !task.isRunning) {
    return fmt::format(
        "It {}. {}Run koductl resume {} to resume it{}.", pausedSince(*task.pause, task.now),
        task.pause->until && task.next
            ? fmt::format("Then its next run is due at {}. ", moment(*task.next, task.now))
            : "",
        task.id, task.pause->until ? " earlier" : "");
  }
  if (!task.next || !task.every || *task.every < 1) {
    return "The daemon refuses the task: its interval or next time is missing.";
  }
  if (task.isRunning) {
    return runningWait(task, context);
  }
  if (task.isLate) {
    return lateReason(task, context);
  }
  if (task.heldFrom) {
    return fmt::format("{} holds its run that was due at {} until {}.",
                       context.window.empty() ? "A maintenance window that has been ended"
                                              : "Maintenance window " + context.window,
                       moment(*task.heldFrom, task.now), moment(*task.next, task.now));
  }
  return fmt::format("Its next run is due at {}.", moment(*task.next, task.now));
}

/// Which rule has set the next time. The ledger knows better why periods were skipped.
std::string nextTimeRule(const Task& task, bool hasSkip) {
  if (task.heldFrom) {
    return fmt::format(
        "That time is after the window's end and within its spread. Then the task "
        "returns to its own times. Run koductl run {} to run it in the window.",
        task.id);
  }
  if (!task.calendar.empty()) {
    return task.isRunning
               ? "The due time does not change until the run is completed. Then the next time of "
                 "the calendar follows, unless another time has been set."
               : "The calendar sets that time, unless it was set by hand.";
  }
  if (task.isRunning) {
    return "The due time does not change until the run is completed. Then the daemon adds "
           "intervals "
           "until the time lies in the future, unless another time has been set.";
  }
  if (task.isPaused()) {
    return "The pause has postponed its next run. A resumed task keeps its previous schedule.";
  }
  if (!task.lastDue) {
    return "That time was set when the task was added. If the daemon starts later than that, it "
           "postpones the run by whole intervals.";
  }
  const long distance = *task.next - *task.lastDue;
  if (distance == *task.every) {
    return fmt::format("That is one interval, {}, after the due time of the last run.",
                       everyText(task));
  }
  if (distance > 0 && distance % *task.every == 0) {
    const long count = distance / *task.every;
    return fmt::format(
        "That is {} intervals after the due time of the last run: {} been skipped{}.", count,
        count == 2 ? "one has" : fmt::format("{} have", count - 1),
        hasSkip ? "" : ", because a run was in progress or no daemon was running");
  }
  return "That is not a whole number of intervals after the last run. Either the time was set by "
         "hand, run, set, resume or stagger, or the interval was changed.";
}

std::string lastSkip(const LedgerRow& skip, long now) {
  const std::string why = whySkipped(skip.reason);
  return skip.periods == 1
             ? fmt::format("The period due at {} was skipped: {}.", moment(skip.due, now), why)
             : fmt::format("{} periods due from {} on were skipped: {}.", skip.periods,
                           moment(skip.due, now), why);
}

/// What the latest failed run printed, as the end of a line.
std::string said(const TaskContext& context) {
  if (context.isFailureSilent) {
    return " It printed nothing, which counts as a failure.";
  }
  return context.failureText.empty() ? "" : fmt::format(" Its output: {}", context.failureText);
}

std::string failing(const Task& task, const TaskContext& context) {
  const std::string counts = fmt::format("{} in the last hour and {} in the last day",
                                         counted(task.failuresHour, "run"), task.failuresDay);
  if (task.failingSince) {
    return fmt::format("It has been failing since {}: {} failed; see koductl history {}.{}",
                       moment(*task.failingSince, task.now), counts, task.id, said(context));
  }
  if (task.isFailing) {
    return "It is failing; the history no longer shows since when.";
  }
  return task.failuresDay > 0 ? fmt::format("It is not failing now; {} failed.", counts)
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
    return fmt::format("User {} cannot write its output to {}: {}. This ends the daemon.",
                       context.daemon.userName(), path, *reason);
  }
  const std::string date = task.fileName.find("$DATE") == std::string::npos
                               ? " Its name lacks $DATE: the second failed run ends the daemon."
                               : "";
  return fmt::format("User {} can write its output to {}.{}", context.daemon.userName(), path,
                     date);
}

}  // namespace

std::vector<std::string> explainState(const Task& task, const TaskContext& context) {
  std::vector<std::string> sentences = {definition(task), lastRun(task), waitingFor(task, context)};
  if ((task.next || task.isPaused()) && task.every && *task.every > 0 && !task.isFlagged) {
    sentences.push_back(nextTimeRule(task, context.lastSkip.has_value()));
  }
  if (context.lastSkip) {
    sentences.push_back(lastSkip(*context.lastSkip, task.now));
  }
  sentences.push_back(failing(task, context));
  return sentences;
}

std::vector<std::string> explain(const Task& task, const TaskContext& context) {
  std::vector<std::string> sentences = explainState(task, context);
  if (!context.daemon.canBeTaken()) {
    sentences.push_back(
        fmt::format("The following was checked with your rights, not with those of user {}.",
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
