// koductl add: a task, by a function of the database, which tells the daemon.

#include "ctl/command/commands.h"
#include "ctl/command/definition.h"
#include "ctl/command/report.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/call.h"
#include "ctl/session/moment.h"
#include "ctl/session/session.h"

int runAdd(const Options& options) {
  Session session(options);
  Call call("kodu_task_add");
  call.with("plugin", "text", options.plugin)
      .with("first_run", "timestamptz", momentOf(session, options.next))
      .with("timeout", "interval", options.timeout)
      .with("parameters", "text", parametersOf(options));
  giveDefinition(call, options);
  const Rows added = call.run(session);
  const auto id = static_cast<int>(added.number(0, "result"));
  reportChange(session, options, id, "added");
  warnOfPlugin(session, id);
  return kDone;
}
