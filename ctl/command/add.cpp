// koductl add: a task, by a function of the database, which tells the daemon.

#include <fmt/format.h>

#include <optional>
#include <string>

#include "ctl/command/commands.h"
#include "ctl/command/definition.h"
#include "ctl/command/report.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/call.h"
#include "ctl/session/moment.h"
#include "ctl/session/session.h"

namespace {

/// With --if-missing the id of the task that has the key; nothing when there is none.
std::optional<int> presentTask(Session& session, const Options& options) {
  if (!options.ifMissing) {
    return std::nullopt;
  }
  const Rows rows = Call("kodu_task_with_key").with("key", "text", options.key).run(session);
  const auto id = rows.optionalNumber(0, "result");
  return id ? std::optional(static_cast<int>(*id)) : std::nullopt;
}

/// True when a task has the key of --if-missing, which is then said.
bool isPresent(Session& session, const Options& options) {
  const auto present = presentTask(session, options);
  if (present) {
    reportChange(session, options, *present, "has this key already; nothing was changed");
  }
  return present.has_value();
}

/// Chooses the host of the tasks that this session adds.
void chooseHost(Session& session, const std::string& host) {
  if (!session.query("SELECT to_regclass('public.kodu_host') IS NOT NULL AS has_hosts")
           .isTrue(0, "has_hosts")) {
    throw Failure(kRefused, "the database has no hosts: add the task without --host");
  }
  if (session.query("SELECT FROM kodu_host WHERE host = $1", {host}).count() == 0) {
    throw Failure(kNotFound,
                  fmt::format("there is no host {}; koductl host list lists the hosts", host));
  }
  session.query("SELECT set_config('kodu.host', $1, FALSE)", {host});
}

int addTask(Session& session, const Options& options) {
  if (options.host) {
    chooseHost(session, *options.host);
  }
  Call call("kodu_task_add");
  call.with("plugin", "text", options.plugin)
      .with("first_run", "timestamptz", momentOf(session, options.next))
      .with("timeout", "interval", options.timeout)
      .with("parameters", "text", parametersOf(options));
  giveDefinition(call, options);
  const Rows added = call.run(session);
  return static_cast<int>(added.number(0, "result"));
}

}  // namespace

int runAdd(const Options& options) {
  if (!options.every && !options.calendar) {
    throw Failure(kWrongUsage, "--every or --at is required; see koductl add --help");
  }
  Session session(options);
  if (isPresent(session, options)) {
    return kDone;
  }
  int id = 0;
  try {
    id = addTask(session, options);
  } catch (const Failure& e) {
    // Another session may have added it meanwhile.
    if (e.exitCode == kRefused && isPresent(session, options)) {
      return kDone;
    }
    throw;
  }
  reportChange(session, options, id, "added");
  warnOfPlugin(session, id);
  return kDone;
}
