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

}  // namespace

void checkTasks(Session& session, const DaemonIdentity& daemon, Findings& findings) {
  TaskRules rules(daemon, readSharedFiles(session), findings);
  const AsDaemon rights(daemon);
  forEachDefinition(session, [&](const Task& task) { rules.look(task); });
}
