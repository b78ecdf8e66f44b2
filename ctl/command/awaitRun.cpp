#include "ctl/command/awaitRun.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

#include "ctl/daemon/daemonProcess.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/call.h"
#include "ctl/session/session.h"
#include "ctl/task/archive.h"
#include "ctl/task/outputs.h"
#include "ctl/task/task.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/printable.h"
#include "ctl/terminal/text.h"

namespace {

using std::chrono::milliseconds;

enum RunExit { kOk = 0, kFailed = 1 };

/// The time without a daemon after which waiting ends: a restart takes less.
constexpr long kPatience = 10;  // seconds

/// Of one row by its primary key: what tells that the run that was due then has ended, or that
/// there will be none. A run in progress may be an earlier one.
constexpr const char* kLook = R"(
SELECT coalesce(status, '') AS status,
       coalesce(status IN ('OK', 'FAILED')
                AND last_due >= to_timestamp($2::bigint) AT TIME ZONE 'UTC', false) AS ended,
       paused AND NOT running AS paused, deleting AND NOT running AS deleting,
       daemon_connected AS connected
FROM kodu_task_state WHERE id = $1::int)";

void requireProgress(const Rows& row, int id, long secondsAlone) {
  if (row.count() == 0 || row.isTrue(0, "deleting")) {
    throw Failure(kRefused,
                  fmt::format("task {} is being deleted: its run did not take place", id));
  }
  if (row.isTrue(0, "paused")) {
    throw Failure(kRefused, fmt::format("task {} was paused: its run did not take place", id));
  }
  if (!row.isTrue(0, "connected") && secondsAlone > kPatience) {
    throw Failure(
        kNoDatabase,
        fmt::format("no daemon is connected to the database: task {} runs when one is", id));
  }
}

/// Waits for the end of the run that is due at `due`; its status.
std::string statusAtEnd(Session& session, int id, long due) {
  using Clock = std::chrono::steady_clock;
  auto lastConnected = Clock::now();
  // Short runs are seen at once, and long ones cost the server little.
  for (milliseconds pause(100);; pause = std::min(pause * 5 / 4, milliseconds(1000))) {
    std::this_thread::sleep_for(pause);
    const Rows row = session.query(kLook, {std::to_string(id), std::to_string(due)});
    if (row.count() > 0 && row.isTrue(0, "ended")) {
      return row.text(0, "status");
    }
    if (row.count() > 0 && row.isTrue(0, "connected")) {
      lastConnected = Clock::now();
    }
    const auto alone = Clock::now() - lastConnected;
    requireProgress(row, id, std::chrono::duration_cast<std::chrono::seconds>(alone).count());
  }
}

void printEnd(const Options& options, const Task& task, const std::string& status) {
  const std::string path = task.outputPath();
  if (options.asJson) {
    Json::Value json = toJson(KeptOutput{task.id, task.name, *task.lastDue, status != "OK", path});
    json["status"] = status;
    json["due"] = jsonTime(task.lastDue);
    json.removeMember("time");
    printJson(json);
    return;
  }
  try {
    printBytes(readOutput(path));
  } catch (const Failure& e) {  // the exit status is the run's all the same
    printError("koductl: {}\n", e.what());
  }
}

}  // namespace

int runAndWait(const Options& options) {
  if (options.selection.ids.size() != 1) {
    throw Failure(kWrongUsage, "--wait waits for one task: name it by its id");
  }
  const int id = options.selection.ids.front();
  Session session(options);
  if (const Task task = readTask(session, id); task.type != "cron") {
    throw Failure(kRefused, fmt::format("task {} is of type {}, which the daemon does not run", id,
                                        oneLine(task.type)));
  }
  const Rows moved = Call("kodu_task_run_now").with("task", id).run(session);
  const long due = session
                       .query("SELECT EXTRACT(EPOCH FROM $1::timestamp)::bigint AS due",
                              {moved.text(0, "result")})
                       .number(0, "due");
  printError("koductl: task {} is due at {}\n", id, zonedTime(due));
  const std::string status = statusAtEnd(session, id, due);
  const Task task = readTask(session, id);
  printError("koductl: task {} ended {}\n", id, status);
  {
    const AsDaemon rights(findDaemon(session.config));
    printEnd(options, task, status);
  }
  return status == "OK" ? kOk : kFailed;
}
