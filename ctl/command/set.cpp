// koductl set: changes the given settings of tasks.

#include "ctl/command/change.h"
#include "ctl/command/commands.h"
#include "ctl/command/definition.h"
#include "ctl/options.h"
#include "ctl/session/call.h"
#include "ctl/session/moment.h"
#include "ctl/session/session.h"

int runSet(const Options& options) {
  Session session(options);
  Call call("kodu_task_set");
  call.with("plugin", "text", options.plugin)
      .with("next_run", "timestamptz", momentOf(session, options.next))
      .with("timeout", "interval",
            options.isUnlimited ? std::optional<std::string>("0") : options.timeout)
      .with("parameters", "text", parametersOf(options));
  giveDefinition(call, options);
  if (options.isWithoutCalendar) {
    call.with("at", "text", "");
  }
  TaskChange change{call, "set", "changed"};
  if (options.isMarked || options.isUnmarked) {
    Call mark("kodu_metric_mark");
    mark.with("marked", "boolean", options.isMarked ? "true" : "false");
    if (call.hasArguments()) {
      change.further = mark;
    } else {
      change.call = mark;
    }
  }
  if (options.plugin || options.timeout) {  // all of them have the same
    change.afterwards = [&](int id) { warnOfPlugin(session, id); };
  }
  return changeTasks(session, options, change);
}
