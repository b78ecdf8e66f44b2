// koductl run: has the daemon run a task in a few seconds.

#include "ctl/command/commands.h"
#include "ctl/command/report.h"

int runNow(const Options& options) {
  return callWithTask(options, "kodu_task_run_now", "will run");
}
