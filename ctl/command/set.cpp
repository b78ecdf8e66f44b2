// koductl set: changes the given settings of a task.

#include "ctl/command/commands.h"
#include "ctl/command/definition.h"
#include "ctl/command/report.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/call.h"
#include "ctl/session/moment.h"
#include "ctl/session/session.h"
#include "ctl/task/task.h"

int runSet(const Options& options) {
  Session session(options);
  readTask(session, options.id);
  Call call("kodu_task_set");
  call.with("task", options.id)
      .with("plugin", "text", options.plugin)
      .with("next_run", "timestamptz", momentOf(session, options.next))
      .with("timeout", "interval",
            options.isUnlimited ? std::optional<std::string>("0") : options.timeout)
      .with("parameters", "text", parametersOf(options));
  giveDefinition(call, options);
  call.run(session);
  reportChange(session, options, options.id, "changed");
  if (options.plugin || options.timeout) {
    warnOfPlugin(session, options.id);
  }
  return kDone;
}
