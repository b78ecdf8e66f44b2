// koductl pause: keeps a task from running.

#include "ctl/command/commands.h"
#include "ctl/command/report.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/call.h"
#include "ctl/session/moment.h"
#include "ctl/session/session.h"
#include "ctl/task/task.h"

int runPause(const Options& options) {
  Session session(options);
  readTask(session, options.id);
  Call("kodu_task_pause")
      .with("task", options.id)
      .with("reason", "text", options.reason)
      .with("until", "timestamptz", momentOf(session, options.until, true))
      .run(session);
  reportChange(session, options, options.id, "paused");
  return kDone;
}
