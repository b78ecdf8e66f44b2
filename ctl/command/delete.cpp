// koductl delete: has the daemon purge tasks.

#include "ctl/command/change.h"
#include "ctl/command/commands.h"
#include "ctl/options.h"
#include "ctl/session/call.h"
#include "ctl/session/session.h"
#include "ctl/task/task.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/printable.h"

int runDelete(const Options& options) {
  Session session(options);
  TaskChange change{Call("kodu_task_delete"), "delete",
                    "will be deleted within four minutes, with files and history"};
  change.takesDeleted = true;
  change.unaffected = "deleting";
  change.already = "being deleted already";
  change.loss = "its output, archive and history";
  change.report = [](const Task& task) {
    print("the daemon deletes task {} ({}) and its files within four minutes{}\n", task.id,
          oneLine(task.name), task.isRunning ? " of the end of its run" : "");
  };
  return changeTasks(session, options, change);
}
