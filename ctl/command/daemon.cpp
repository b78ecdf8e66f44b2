// koductl daemon: the state of the daemon.

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string>

#include "ctl/command/commands.h"
#include "ctl/daemon/condition.h"
#include "ctl/daemon/serviceManager.h"
#include "ctl/options.h"
#include "ctl/session/schemaVersion.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/printable.h"
#include "ctl/terminal/terminal.h"
#include "ctl/terminal/text.h"

namespace {

void printField(const char* name, const std::string& value, Colour colour = Colour::kNone) {
  print("{:<10}{}\n", name, coloured(oneLine(value), colour));
}

std::string processText(const DaemonCondition& condition) {
  if (!condition.process.pid) {
    return "not running on this machine";
  }
  return fmt::format("pid {}, user {}, {}", *condition.process.pid, condition.process.userName(),
                     condition.process.isService ? kServiceUnit : "not a unit");
}

std::string versionText(const DaemonCondition& condition) {
  if (!condition.process.pid) {
    return "unknown";
  }
  return condition.isReplaced ? "another one than " KODU_VERSION ", which is installed"
                              : KODU_VERSION;
}

std::string sinceText(const DaemonCondition& condition) {
  return condition.since ? fmt::format("{} ({} ago)", zonedTime(*condition.since),
                                       durationText(condition.now - *condition.since))
                         : "unknown";
}

std::string oldestText(const DaemonCondition& condition) {
  if (!condition.oldestId) {
    return "no task waits";
  }
  const long wait = condition.oldestDue - condition.databaseNow;
  return fmt::format("task {} ({}), at {} ({})", *condition.oldestId, condition.oldestName,
                     zonedTime(condition.oldestDue),
                     wait > 0 ? "in " + durationText(wait) : durationText(-wait) + " ago");
}

void printDatabase(const DaemonCondition& condition) {
  if (!condition.databaseFailure.empty()) {
    return;  // the verdict says it
  }
  const long busy = std::min<long>(condition.busy, condition.workers);
  printField("workers", fmt::format("{}: {} busy, {} idle", condition.workers, busy,
                                    condition.workers - busy));
  printField("tasks", fmt::format("{} loaded, {} late", condition.tasks, condition.late));
  printField("first due", oldestText(condition));
  printField("schema",
             fmt::format("version {}{}", condition.schemaVersion,
                         condition.isSchemaKnown ? ""
                                                 : fmt::format("; this koductl knows version {}",
                                                               knownSchemaVersion())));
}

void printForPeople(const DaemonCondition& condition, const Verdict& verdict) {
  printField("daemon", processText(condition));
  printField("version", versionText(condition));
  printField("since", sinceText(condition));
  printField(condition.isByJournal ? "restarts" : "starts",
             fmt::format("{} in the last hour, by {}", condition.starts.size(),
                         condition.isByJournal ? "the journal" : "its log"));
  printDatabase(condition);
  constexpr std::array kColours = {Colour::kGreen, Colour::kYellow, Colour::kRed};
  printField("verdict", verdict.sentence, kColours.at(static_cast<std::size_t>(verdict.exitCode)));
}

}  // namespace

int runDaemon(const Options& options) {
  const DaemonCondition condition = examineDaemon(options);
  const Verdict verdict = judge(condition);
  if (options.asJson) {
    printJson(toJson(condition));
  } else {
    printForPeople(condition, verdict);
  }
  return verdict.exitCode;
}
