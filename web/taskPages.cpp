#include "web/taskPages.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <vector>

#include "core/helpers.h"
#include "ctl/failure.h"
#include "ctl/session/moment.h"
#include "ctl/session/session.h"
#include "ctl/task/archive.h"
#include "ctl/task/explanation.h"
#include "ctl/task/outputs.h"
#include "ctl/task/runs.h"
#include "ctl/task/selection.h"
#include "ctl/task/task.h"
#include "ctl/terminal/text.h"
#include "web/outputFile.h"
#include "web/request.h"

namespace {

constexpr int kRuns = 200;
constexpr int kOutputs = 10;
constexpr std::size_t kOutputBytes = 131072;  // of each
constexpr int kComing = 10;

bool isSet(const QueryValues& values, const char* name) {
  const auto found = values.find(name);
  return found != values.end() && found->second == "1";
}

std::optional<std::string> textOf(const QueryValues& values, const char* name) {
  const auto found = values.find(name);
  return found == values.end() || found->second.empty() ? std::nullopt
                                                        : std::optional(found->second);
}

long limitOf(const QueryValues& values) {
  constexpr long kUsual = 100, kMost = 500;
  const auto text = textOf(values, "limit");
  if (!text) {
    return kUsual;
  }
  long limit = 0;
  const auto parsed = std::from_chars(text->data(), text->data() + text->size(), limit);
  if (parsed.ec != std::errc() || parsed.ptr != text->data() + text->size() || limit < 1 ||
      limit > kMost) {
    throw Refusal(400, "limit must be a number from 1 to 500.");
  }
  return limit;
}

/// Without a limit.
Selection selectionOf(const QueryValues& values) {
  Selection selection;
  selection.name = textOf(values, "name");
  selection.plugin = textOf(values, "plugin");
  selection.search = textOf(values, "search").value_or("");
  selection.isFailed = isSet(values, "failed");
  selection.isLate = isSet(values, "late");
  selection.isRunning = isSet(values, "running");
  selection.isPaused = isSet(values, "paused");
  selection.isDeleting = isSet(values, "deleting");
  selection.isNeverRun = isSet(values, "never_ran");
  selection.hasFailedToday = isSet(values, "failed_today");
  selection.sort = textOf(values, "sort").value_or("");
  selection.after = textOf(values, "after").value_or("");
  requireValid(selection);
  return selection;
}

/// What the latest failed run printed first.
void takeFailure(Session& session, const Task& task, TaskContext& context) {
  constexpr std::size_t kFirstLineBytes = 240;
  const std::vector<FailedRun> runs = readFailedRuns(session, task, 1);
  if (runs.empty()) {
    return;
  }
  const auto begin =
      readOutputFile(session.config.outputDirectory, runs.front().path, kFirstLineBytes);
  context.isFailureSilent = begin && begin->empty();
  context.failureText = begin ? begin->substr(0, begin->find('\n')) : "";
}

TaskContext contextOf(Session& session, const Task& task) {
  TaskContext context;
  context.isConnected = isDaemonConnected(session);
  context.workers = stringToInt(session.config.threadNumber);
  if (task.isLate) {  // only then it matters, and all tasks are read
    context.workload = countRunning(session);
  }
  context.lastSkip = readLastSkip(session, task.id);
  takeFailure(session, task, context);
  return context;
}

}  // namespace

std::string tasksPage(Session& session, const QueryValues& values) {
  Selection selection = selectionOf(values);
  const long limit = limitOf(values);
  selection.limit = limit + 1;  // one more tells whether another page follows
  std::vector<Task> tasks = readTasks(session, selection);
  const bool isLast = tasks.size() <= static_cast<std::size_t>(limit);
  if (!isLast) {
    tasks.pop_back();
  }
  std::string text = "{\"tasks\":[";
  for (const Task& task : tasks) {
    text.append(&task == tasks.data() ? "" : ",").append(toJsonText(task));
  }
  const Json::Value next =
      isLast ? Json::Value() : Json::Value(pageKeyOf(session, selection, tasks.back().id));
  return text.append("],\"next\":").append(compactJson(next)).append("}\n");
}

std::string countPage(Session& session, const QueryValues& values) {
  Json::Value json;
  json["tasks"] = Json::Int64{countTasks(session, selectionOf(values))};
  return compactJson(json);
}

std::string taskPage(Session& session, int id) {
  const Task task = readTask(session, id);
  Json::Value json = toJson(task);
  json["explanation"] = Json::Value(Json::arrayValue);
  for (const std::string& sentence : explainState(task, contextOf(session, task))) {
    json["explanation"].append(sentence);
  }
  return compactJson(json);
}

std::string historyPage(Session& session, int id, const QueryValues& values) {
  const Task task = readTask(session, id);
  std::vector<RunEntry> entries =
      mergeRuns(readLedger(session, id, kRuns), readFailedRuns(session, task, kRuns), kRuns);
  if (const auto since = momentOf(session, textOf(values, "since"), MomentRule::kLastOrDuration)) {
    const Rows moment = session.query(
        "SELECT floor(EXTRACT(EPOCH FROM $1::timestamptz))::bigint AS moment", {*since});
    const long begin = moment.number(0, "moment");
    std::erase_if(entries, [&](const RunEntry& entry) { return entry.time() < begin; });
  }
  return compactJson(toJson(entries));
}

std::string logsPage(Session& session, int id, const QueryValues& values) {
  const Task task = readTask(session, id);
  Json::Value list(Json::arrayValue);
  for (const KeptOutput& output : readOutputs(session, task, kOutputs, isSet(values, "failed"))) {
    auto content = readOutputFile(session.config.outputDirectory, output.path, kOutputBytes + 1);
    const bool isCut = content && content->size() > kOutputBytes;
    if (isCut) {
      content->resize(kOutputBytes);
    }
    Json::Value json = toJson(output, content);
    json["cut"] = isCut;
    list.append(json);
  }
  return compactJson(list);
}

std::string nextPage(Session& session, int id) {
  const Task task = readTask(session, id);
  Json::Value list(Json::arrayValue);
  for (const long due : readComingRuns(session, task.isFlagged ? -1 : id, kComing)) {
    list.append(jsonTime(due));
  }
  return compactJson(list);
}
