// koductl resume: lets paused tasks run again.

#include "ctl/command/change.h"
#include "ctl/command/commands.h"
#include "ctl/options.h"
#include "ctl/session/call.h"
#include "ctl/session/session.h"

int runResume(const Options& options) {
  Session session(options);
  TaskChange change{Call("kodu_task_resume"), "resume", "resumed"};
  change.unaffected = "NOT paused AND NOT deleting";
  change.already = "not paused";
  return changeTasks(session, options, change);
}
