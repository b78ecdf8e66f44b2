// koductl explain: describes the state of one task in sentences.

#include "ctl/command/explain.h"

#include <string>
#include <vector>

#include "core/helpers.h"
#include "ctl/command/commands.h"
#include "ctl/daemon/daemonProcess.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/task/archive.h"
#include "ctl/task/explanation.h"
#include "ctl/task/placement.h"
#include "ctl/task/task.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/printable.h"
#include "ctl/terminal/text.h"

namespace {

constexpr const char* kWindow = R"(
SELECT window_id || ' (' || reason || ')' AS window
FROM kodu_window AS present, kodu_window_ends(present, timestamp '1970-01-01'
                                                       + make_interval(secs => $2::bigint)) AS ends
WHERE window_id = ANY ((SELECT cron_windows FROM kodu_cron_plugin WHERE cron_id = $1::int)::int[])
  AND ends IS NOT NULL
ORDER BY ends DESC LIMIT 1)";

/// The maintenance window that the task's own time is in; "" for a task that none holds.
std::string windowOf(Session& session, const Task& task) {
  if (!task.heldFrom) {
    return "";
  }
  const Rows found =
      session.query(kWindow, {std::to_string(task.id), std::to_string(*task.heldFrom)});
  return found.count() == 1 ? found.text(0, "window") : "";
}

}  // namespace

std::vector<std::string> explainTask(Session& session, const Task& task) {
  TaskContext context;
  context.daemon = findDaemon(session.config);
  context.isConnected = isDaemonConnected(session);
  context.workers = stringToInt(session.config.threadNumber);
  context.workload = countRunning(session);
  context.lastSkip = readLastSkip(session, task.id);
  context.window = windowOf(session, task);
  {
    // Writers of rows and outputs choose which file is read: with root's rights, it could be any
    // file.
    const AsDaemon rights(context.daemon);
    if (const auto runs = readFailedRuns(session, task, 1); !runs.empty()) {
      context.failureText = firstLineOf(runs.front().path);
      context.isFailureSilent = runs.front().size == 0U;
    }
  }
  std::vector<std::string> sentences = explain(task, context);
  if (const auto placement = readPlacement(session, task.id)) {
    const std::vector<std::string> place = placement->sentences();
    sentences.insert(sentences.begin() + 1, place.begin(), place.end());
  }
  return sentences;
}

int runExplain(const Options& options) {
  Session session(options);
  session.makeReadOnly();
  const Task task = readTask(session, options.id);
  const std::vector<std::string> sentences = explainTask(session, task);
  if (options.asJson) {
    Json::Value json = toJson(task);
    json["explanation"] = Json::Value(Json::arrayValue);
    for (const std::string& sentence : sentences) {
      json["explanation"].append(sentence);
    }
    printJson(json);
    return kDone;
  }
  for (const std::string& sentence : sentences) {
    print("{}\n", oneLine(sentence));
  }
  return kDone;
}
