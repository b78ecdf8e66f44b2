// koductl run: has the daemon run tasks in a few seconds, and can wait for the end of a run.

#include "ctl/command/awaitRun.h"
#include "ctl/command/change.h"
#include "ctl/command/commands.h"
#include "ctl/options.h"
#include "ctl/session/call.h"
#include "ctl/session/session.h"

int runNow(const Options& options) {
  if (options.isAwaited) {
    return runAndWait(options);
  }
  Session session(options);
  return changeTasks(session, options, {Call("kodu_task_run_now"), "run", "will run"});
}
