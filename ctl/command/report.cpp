#include "ctl/command/report.h"

#include <fmt/format.h>

#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/task/task.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/printable.h"
#include "ctl/terminal/text.h"

namespace {

std::string nextText(const Task& task) {
  if (!task.next || (task.isPaused() && !task.pause->until)) {
    return "";
  }
  if (task.isRunning && !task.afterRun) {
    return "; a run is in progress";
  }
  const long next = task.afterRun.value_or(*task.next);
  const long wait = next - task.now;
  return fmt::format("; next due at {} ({})", zonedTime(next),
                     wait < 0 ? durationText(-wait) + " ago" : "in " + durationText(wait));
}

}  // namespace

void reportChange(Session& session, const Options& options, int id, const std::string& done) {
  const Task task = readTask(session, id);
  if (options.asJson) {
    printJson(toJson(task));
  } else {
    print("task {} ({}) {}{}\n", id, oneLine(task.name), done, nextText(task));
  }
}
