#include "ctl/command/definition.h"

#include <fmt/format.h>
#include <unistd.h>

#include <vector>

#include "ctl/daemon/daemonProcess.h"
#include "ctl/failure.h"
#include "ctl/files/fileCheck.h"
#include "ctl/options.h"
#include "ctl/session/call.h"
#include "ctl/session/session.h"
#include "ctl/task/arguments.h"
#include "ctl/task/guarded.h"
#include "ctl/task/task.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/printable.h"
#include "ctl/terminal/text.h"
#include "ctl/terminal/zone.h"

namespace {

/// The warning about a file that cannot be run; nothing for one that can.
std::optional<std::string> whyNotRun(const std::string& path, const DaemonIdentity& daemon) try {
  const AsDaemon rights(daemon);
  const auto reason = whyNotExecutable(path, daemon.directory);
  return reason ? std::optional(fmt::format("user {} cannot run {} here: {}", daemon.userName(),
                                            path, *reason))
                : std::nullopt;
} catch (const Failure& e) {  // for a root user without all rights; the task is already changed
  return e.what();
}

}  // namespace

void giveDefinition(Call& call, const Options& options) {
  call.with("every", "interval", options.every)
      .with("retries", options.retries)
      .with("retry_after", "interval", options.retryAfter)
      .with("file_name", "text", options.fileName)
      .with("name", "text", options.name)
      .with("key", "text", options.key);
  if (options.calendar) {
    if (options.calendar->empty()) {  // to the function, that is none
      throw Failure(kWrongUsage, "--at needs a calendar, such as '0 3 * * mon-fri'");
    }
    call.with("at", "text", options.calendar).with("zone", "text", zoneName());
  }
}

std::optional<std::string> parametersOf(const Options& options) {
  return options.pluginArguments ? std::optional(parameterString(*options.pluginArguments))
                                 : std::nullopt;
}

void warnOfPlugin(Session& session, int id) try {
  const Task task = readTask(session, id);
  DaemonIdentity daemon = findDaemon(session.config);
  if (!daemon.canBeTaken()) {
    daemon.uid = geteuid();  // whose rights these are
  }
  std::vector<std::string> paths = {task.path};
  if (isGuarded(task)) {
    paths.push_back(guardedPlugin(task));
  }
  for (const std::string& path : paths) {
    if (const auto warning = whyNotRun(path, daemon)) {
      printError("koductl: warning: {}\n", oneLine(*warning));
    }
  }
} catch (const Failure& e) {  // of finding the daemon
  printError("koductl: warning: {}\n", oneLine(e.what()));
}
