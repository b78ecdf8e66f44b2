// koductl resume: lets a paused task run again.

#include "ctl/command/commands.h"
#include "ctl/command/report.h"

int runResume(const Options& options) {
  return callWithTask(options, "kodu_task_resume", "resumed");
}
