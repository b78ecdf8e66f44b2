// koductl undelete: keeps tasks that the daemon has not purged yet.

#include "ctl/command/change.h"
#include "ctl/command/commands.h"
#include "ctl/options.h"
#include "ctl/session/call.h"
#include "ctl/session/session.h"

int runUndelete(const Options& options) {
  Session session(options);
  TaskChange change{Call("kodu_task_undelete"), "undelete", "kept", true};
  change.unaffected = "NOT deleting";
  change.already = "not being deleted";
  return changeTasks(session, options, change);
}
