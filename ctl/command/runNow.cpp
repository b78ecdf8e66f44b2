// koductl run: has the daemon run a task in a few seconds, and waits for its end if asked to.

#include "ctl/command/awaitRun.h"
#include "ctl/command/commands.h"
#include "ctl/command/report.h"
#include "ctl/options.h"

int runNow(const Options& options) {
  if (options.isAwaited) {
    return runAndWait(options);
  }
  return callWithTask(options, "kodu_task_run_now", "will run");
}
