// koductl check: finds what prevents the daemon or its tasks from working.

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "ctl/check/checks.h"
#include "ctl/check/findings.h"
#include "ctl/command/commands.h"
#include "ctl/daemon/daemonProcess.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/config.h"
#include "ctl/session/session.h"
#include "ctl/task/task.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/table.h"
#include "ctl/terminal/text.h"
#include "ctl/terminal/zone.h"

namespace {

constexpr std::size_t kShownTasks = 10;

/// The tasks that the daemon will begin next, the earliest first.
std::vector<Task> dueNext(std::vector<Task> tasks) {
  std::erase_if(tasks, [](const Task& task) {
    return task.type != "cron" || task.isRunning || task.isPaused() || task.isFlagged || !task.next;
  });
  std::sort(tasks.begin(), tasks.end(),
            [](const Task& a, const Task& b) { return *a.next < *b.next; });
  tasks.resize(std::min(tasks.size(), kShownTasks));
  return tasks;
}

void printForPeople(const Findings& findings, const std::vector<Task>& next) {
  findings.print();
  if (next.empty()) {
    return;
  }
  Table table({{fmt::format("DUE NEXT ({})", zoneName())},
               {"IN", Table::Align::kRight},
               {"ID", Table::Align::kRight},
               {"NAME"}});
  for (const Task& task : next) {
    const long wait = *task.next - task.now;
    table.add({timeText(*task.next), wait < 0 ? "now" : durationText(wait), std::to_string(task.id),
               task.name});
  }
  print("\n");
  table.print();
}

void printAsJson(const Findings& findings, const std::vector<Task>& next) {
  Json::Value json;
  json["exit_code"] = findings.exitCode();
  json["findings"] = findings.toJson();
  json["due_next"] = Json::Value(Json::arrayValue);
  for (const Task& task : next) {
    json["due_next"].append(toJson(task));
  }
  printJson(json);
}

/// Checks everything that can be reached; an unreachable file or database is itself a finding.
std::vector<Task> lookAtAll(const Options& options, Findings& findings) {
  try {
    const DaemonConfig config = readConfig(options.configFile, options.user);
    const DaemonIdentity daemon = findDaemon(config);
    if (!daemon.canBeTaken()) {
      findings.addWarning(
          fmt::format("the files are checked with your rights, not with those of "
                      "the daemon's user {}: run koductl as root",
                      daemon.userName()));
    }
    checkConfig(config, daemon, findings);
    Session session(options);
    session.makeReadOnly();
    checkDatabase(session, daemon, findings);
    if (options.isQuick) {
      return {};
    }
    std::vector<Task> tasks = readTasks(session);
    checkTasks(tasks, daemon, findings);
    return tasks;
  } catch (const Failure& e) {
    findings.addError(e.what());
    return {};
  }
}

}  // namespace

int runCheck(const Options& options) {
  Findings findings;
  const std::vector<Task> next = dueNext(lookAtAll(options, findings));
  if (options.asJson) {
    printAsJson(findings, next);
  } else {
    printForPeople(findings, next);
  }
  return findings.exitCode();
}
