#include <optional>
#include <string>
#include <utility>

#include "ctl/check/checks.h"
#include "ctl/check/taskRules.h"
#include "ctl/daemon/daemonProcess.h"
#include "ctl/session/session.h"
#include "ctl/task/selection.h"
#include "ctl/task/task.h"

namespace {

/// A unique index sees to it that every other file belongs to one task. Without it, any may not.
SharedFiles readSharedFiles(Session& session) {
  SharedFiles files;
  session.forEachRow(
      "SELECT cron_id, cron_log_file FROM kodu_cron_plugin WHERE cron_shares_output OR "
      "to_regclass('cron_log_file_of_one_task') IS NULL",
      {}, [&](Fields& fields) {
        Task task;
        task.outputDirectory = session.config.outputDirectory;
        task.id = static_cast<int>(fields.number());
        task.fileName = fields.text();
        files.emplace(task.outputPath(), std::nullopt);
      });
  return files;
}

void lookAtCalendars(Session& session, Findings& findings) {
  if (!session.query("SELECT to_regclass('kodu_calendar_fault') IS NOT NULL AS is_there")
           .isTrue(0, "is_there")) {
    return;  // without sql/functions.sql, nothing follows calendars
  }
  session.forEachRow("SELECT id, problem FROM kodu_calendar_fault ORDER BY id", {},
                     [&](Fields& fields) {
                       const auto id = static_cast<int>(fields.number());
                       findings.addError("the calendar sets no time: " + fields.text(), id);
                     });
}

void lookAtWindows(Session& session, Findings& findings) {
  if (!session.query("SELECT to_regclass('kodu_window_fault') IS NOT NULL AS is_there")
           .isTrue(0, "is_there")) {
    return;
  }
  session.forEachRow(
      "SELECT id, problem FROM kodu_window_fault ORDER BY id", {}, [&](Fields& fields) {
        const std::string id = fields.text();
        findings.addError("maintenance window " + id +
                          " holds no task, because its calendar sets no time: " + fields.text());
      });
}

}  // namespace

void checkTasks(Session& session, const DaemonIdentity& daemon, Findings& findings) {
  TaskRules rules(daemon, readSharedFiles(session), findings);
  const AsDaemon rights(daemon);
  forEachDefinition(session, [&](const Task& task) { rules.look(task); });
  lookAtCalendars(session, findings);
  lookAtWindows(session, findings);
}
