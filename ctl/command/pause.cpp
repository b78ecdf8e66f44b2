// koductl pause: keeps tasks from running.

#include "ctl/command/change.h"
#include "ctl/command/commands.h"
#include "ctl/options.h"
#include "ctl/session/call.h"
#include "ctl/session/moment.h"
#include "ctl/session/session.h"

int runPause(const Options& options) {
  Session session(options);
  Call call("kodu_task_pause");
  call.with("reason", "text", options.reason)
      .with("until", "timestamptz", momentOf(session, options.until, MomentRule::kNextOrDuration));
  return changeTasks(session, options, {call, "pause", "paused"});
}
