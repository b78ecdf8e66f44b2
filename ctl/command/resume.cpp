// koductl resume: lets paused tasks run again.

#include "ctl/command/change.h"
#include "ctl/command/commands.h"
#include "ctl/options.h"
#include "ctl/session/call.h"
#include "ctl/session/session.h"

int runResume(const Options& options) {
  Session session(options);
  return changeTasks(session, options, {Call("kodu_task_resume"), "resume", "resumed"});
}
