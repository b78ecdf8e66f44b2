// koductl add, set, pause, resume, run, delete: each is one call of a function in the database,
// which tells the daemon.

#include <fmt/format.h>
#include <unistd.h>

#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "ctl/arguments.h"
#include "ctl/call.h"
#include "ctl/commands.h"
#include "ctl/daemonProcess.h"
#include "ctl/failure.h"
#include "ctl/fileCheck.h"
#include "ctl/guarded.h"
#include "ctl/options.h"
#include "ctl/print.h"
#include "ctl/session.h"
#include "ctl/task.h"
#include "ctl/terminal.h"
#include "ctl/text.h"

namespace {

std::string nextText(const Task& task) {
  if (task.isPaused() || !task.next) {
    return "";
  }
  if (task.isRunning && !task.afterRun) {
    return "; a run is in progress";
  }
  const long next = task.afterRun.value_or(*task.next);
  const long wait = next - task.now;
  return fmt::format("; next due at {} UTC ({})", timeText(next),
                     wait < 0 ? durationText(-wait) + " ago" : "in " + durationText(wait));
}

/// Prints what is so now: "task 7 (load) added; next due at ...".
void report(Session& session, const Options& options, int id, const std::string& done) {
  const Task task = readTask(session, id);
  if (options.asJson) {
    printJson(toJson(task));
  } else {
    print("task {} ({}) {}{}\n", id, oneLine(task.name), done, nextText(task));
  }
}

/// What is said of a file that cannot be run; nothing of one that can.
std::optional<std::string> whyNotRun(const std::string& path, const DaemonIdentity& daemon) try {
  const AsDaemon rights(daemon);
  const auto reason = whyNotExecutable(path, daemon.directory);
  return reason ? std::optional(fmt::format("user {} cannot run {} here: {}", daemon.userName(),
                                            path, *reason))
                : std::nullopt;
} catch (const Failure& e) {  // of a root without all rights; the task is changed already
  return e.what();
}

/// Warns of each file that the task starts and that cannot be run on this machine, which need not
/// be the daemon's: so the task is changed nevertheless.
void warnOfPlugin(Session& session, int id) try {
  const Task task = readTask(session, id);
  DaemonIdentity daemon = findDaemon(session.config);
  if (!daemon.canBeTaken()) {
    daemon.uid = geteuid();  // whose rights these are
  }
  std::vector<std::string> paths = {task.path};
  if (isGuarded(task)) {
    paths.push_back(guardedPlugin(task));
  }
  for (const std::string& path : paths) {
    if (const auto warning = whyNotRun(path, daemon)) {
      printError("koductl: warning: {}\n", oneLine(*warning));
    }
  }
} catch (const Failure& e) {  // of finding the daemon
  printError("koductl: warning: {}\n", oneLine(e.what()));
}

std::optional<std::string> parametersOf(const Options& options) {
  return options.pluginArguments ? std::optional(parameterString(*options.pluginArguments))
                                 : std::nullopt;
}

/// The arguments that add and set share, but for the plugin's own.
void giveDefinition(Call& call, const Options& options) {
  call.with("every", "interval", options.every)
      .with("retries", options.retries)
      .with("retry_after", "interval", options.retryAfter)
      .with("file_name", "text", options.fileName)
      .with("name", "text", options.name);
}

/// A command that calls a function with nothing but the task's id.
int callWithTask(const Options& options, const char* function, const std::string& done) {
  Session session(options);
  readTask(session, options.id);  // says it in koductl's own words when there is none
  Call(function).with("task", options.id).run(session);
  report(session, options, options.id, done);
  return kDone;
}

void askBeforeDeletion(const Task& task) {
  if (isatty(STDIN_FILENO) == 0) {
    throw Failure(kWrongUsage, "nobody can be asked here: say --yes to delete without a question");
  }
  printError("Delete task {} ({}), its output, archive and history? [y/N] ", task.id,
             oneLine(task.name));
  std::string answer;
  std::getline(std::cin, answer);
  if (answer != "y" && answer != "yes") {
    throw Failure(kRefused, "nothing is deleted");
  }
}

}  // namespace

int runAdd(const Options& options) {
  Call call("kodu_task_add");
  call.with("plugin", "text", options.plugin)
      .with("first_run", "timestamptz", options.next)
      .with("timeout", "interval", options.timeout)
      .with("parameters", "text", parametersOf(options));
  giveDefinition(call, options);
  Session session(options);
  const Rows added = call.run(session);
  const auto id = static_cast<int>(added.number(0, "result"));
  report(session, options, id, "added");
  warnOfPlugin(session, id);
  return kDone;
}

int runSet(const Options& options) {
  Session session(options);
  readTask(session, options.id);
  Call call("kodu_task_set");
  call.with("task", options.id)
      .with("plugin", "text", options.plugin)
      .with("next_run", "timestamptz", options.next)
      .with("parameters", "text", parametersOf(options));
  giveDefinition(call, options);
  call.run(session);
  report(session, options, options.id, "changed");
  if (options.plugin) {
    warnOfPlugin(session, options.id);
  }
  return kDone;
}

int runPause(const Options& options) {
  Session session(options);
  readTask(session, options.id);
  Call("kodu_task_pause")
      .with("task", options.id)
      .with("reason", "text", options.reason)
      .run(session);
  report(session, options, options.id, "paused");
  return kDone;
}

int runResume(const Options& options) {
  return callWithTask(options, "kodu_task_resume", "resumed");
}

int runRun(const Options& options) {
  return callWithTask(options, "kodu_task_run_now", "will run");
}

int runDelete(const Options& options) {
  Session session(options);
  const Task task = readTask(session, options.id);
  if (!options.isConfirmed) {
    askBeforeDeletion(task);
  }
  Call("kodu_task_delete").with("task", options.id).run(session);
  if (options.asJson) {
    printJson(toJson(readTask(session, options.id)));
  } else {
    print("task {} ({}) will be gone, with its files, within two minutes{}\n", task.id,
          oneLine(task.name), task.isRunning ? " of the end of its run" : "");
  }
  return kDone;
}
