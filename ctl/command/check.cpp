// koductl check: finds what prevents the daemon or its tasks from working.

#include <fmt/format.h>

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
#include "ctl/task/selection.h"
#include "ctl/task/task.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/table.h"
#include "ctl/terminal/text.h"
#include "ctl/terminal/zone.h"

namespace {

/// The tasks that the daemon will begin next, the earliest first.
std::vector<Task> dueNext(Session& session) {
  const Rows next = session.query(
      "SELECT id FROM kodu_task_state WHERE plugin_type = 'cron' AND NOT running AND NOT paused "
      "AND NOT deleting AND due IS NOT NULL ORDER BY due, id LIMIT 10");
  Selection selection;
  selection.sort = "next";
  for (int row = 0; row < next.count(); ++row) {
    selection.ids.push_back(static_cast<int>(next.number(row, "id")));
  }
  return selection.ids.empty() ? std::vector<Task>() : readTasks(session, selection);
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
/// Returns the tasks that are due next.
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
    checkTasks(session, daemon, findings);
    return dueNext(session);
  } catch (const Failure& e) {
    findings.addError(e.what());
    return {};
  }
}

}  // namespace

int runCheck(const Options& options) {
  Findings findings;
  const std::vector<Task> next = lookAtAll(options, findings);
  if (options.asJson) {
    printAsJson(findings, next);
  } else {
    printForPeople(findings, next);
  }
  return findings.exitCode();
}
