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
  TaskChange change{call, "pause", "paused"};
  if (!options.until) {  // a pause can get another end
    change.unaffected = "paused AND NOT deleting";
    change.already = "paused already";
  }
  return changeTasks(session, options, change);
}
