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

std::vector<std::string> explainTask(Session& session, const Task& task) {
  TaskContext context;
  context.daemon = findDaemon(session.config);
  context.isConnected = isDaemonConnected(session);
  context.workers = stringToInt(session.config.threadNumber);
  context.workload = countRunning(session);
  context.lastSkip = readLastSkip(session, task.id);
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
