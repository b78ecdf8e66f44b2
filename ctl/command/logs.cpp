// koductl logs: what the runs of a task printed, or those of all tasks as they end.

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ctl/command/commands.h"
#include "ctl/daemon/daemonProcess.h"
#include "ctl/failure.h"
#include "ctl/files/fileWatch.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/task/archive.h"
#include "ctl/task/outputs.h"
#include "ctl/task/placement.h"
#include "ctl/task/task.h"
#include "ctl/terminal/jsonList.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/printable.h"
#include "ctl/terminal/text.h"
#include "sched/outputPath.h"

namespace {

// By the expression of the index that keeps output files apart.
constexpr const char* kTaskOfFile = R"(
SELECT cron_id AS id, plugin_name AS name
FROM kodu_cron_plugin JOIN kodu_plugins ON plugin_id = cron_plugin_id
WHERE regexp_replace(regexp_replace(cron_log_file, '\$DATE', 'last'), '\$SERVICEID', cron_id::text) = $1
  AND NOT cron_shares_output)";

// By the primary key: the rows after the last one that was shown. $2: of this task alone.
constexpr const char* kNewFailures = R"(
SELECT cron_error_id AS number, error.cron_id AS id, coalesce(plugin_name, '') AS name,
       cron_logfile AS file, floor(EXTRACT(EPOCH FROM cron_date))::bigint AS time
FROM kodu_cron_error AS error
LEFT JOIN kodu_cron_plugin AS task ON task.cron_id = error.cron_id
LEFT JOIN kodu_plugins ON plugin_id = cron_plugin_id
WHERE cron_error_id > $1::bigint AND isfinite(cron_date)
  AND ($2 = '' OR error.cron_id = nullif($2, '')::int)
ORDER BY cron_error_id LIMIT 1000)";

/// A session that comes back after the server was away.
class LastingSession {
 public:
  explicit LastingSession(const Options& given) : options(given) {}

  /// The rows of a statement; nothing while the database does not answer, which is said once.
  std::unique_ptr<Rows> query(const std::string& sql, const std::vector<std::string>& parameters) {
    try {
      if (!session) {
        session = std::make_unique<Session>(options);
        session->makeReadOnly();
      }
      auto rows = std::make_unique<Rows>(session->query(sql, parameters));
      isSaid = false;
      return rows;
    } catch (const Failure& e) {
      if (!isSaid) {
        printError("koductl: {}\n", e.what());
      }
      isSaid = true;
      session.reset();
      return nullptr;
    }
  }

 private:
  const Options& options;
  std::unique_ptr<Session> session;
  bool isSaid = false;
};

/// When the file was written; now for one that is gone already.
long timeOf(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_mtim.tv_sec : std::time(nullptr);
}

/// Shows what the daemon writes after the construction: of one task, or of all. SIGINT and SIGTERM
/// end it, with the exit status 0.
class Follower {
 public:
  /// Throws Failure when the files cannot be watched.
  Follower(const Options& options, std::optional<Task> onlyTask)
      : config(readConfig(options.configFile, options.user)),
        daemon(findDaemon(config)),
        task(std::move(onlyTask)),
        asJson(options.asJson),
        session(options) {
    std::signal(SIGINT, [](int) { _exit(0); });
    std::signal(SIGTERM, [](int) { _exit(0); });
    if (options.onlyFailed) {
      const auto latest = session.query(
          "SELECT coalesce(max(cron_error_id), 0) AS number FROM kodu_cron_error", {});
      shownFailure = latest ? latest->number(0, "number") : 0;
    } else {
      const AsDaemon rights(daemon);
      watch.emplace(config.outputDirectory);
    }
  }

  [[noreturn]] void run() {
    for (;;) {
      if (watch) {
        showNextFile();
      } else {
        showFailures();
        sleep(1);
      }
    }
  }

 private:
  void showNextFile() {
    const std::string name = watch->next();
    if (name.empty()) {
      printError("koductl: more outputs were written than could be shown; some are missing\n");
    } else if (const auto output = outputIn(name)) {
      show(*output);
    }
  }

  /// The output in a file of the output directory; nothing for a file that no task writes, or not
  /// this one.
  std::optional<KeptOutput> outputIn(const std::string& name) {
    KeptOutput output;
    output.path = config.outputDirectory + "/" + name;
    if (task) {
      output.taskId = task->id;
      output.taskName = task->name;
    }
    if (task && output.path != task->outputPath()) {
      return std::nullopt;
    }
    if (!task) {
      const auto rows = session.query(kTaskOfFile, {name});
      if (!rows || rows->count() == 0) {
        return std::nullopt;
      }
      output.taskId = static_cast<int>(rows->number(0, "id"));
      output.taskName = rows->text(0, "name");
    }
    output.time = timeOf(output.path);
    return output;
  }

  void showFailures() {
    const std::string only = task ? std::to_string(task->id) : "";
    const auto rows = session.query(kNewFailures, {std::to_string(shownFailure), only});
    for (int row = 0; rows && row < rows->count(); ++row) {
      const std::string id = rows->text(row, "id");
      shownFailure = rows->number(row, "number");
      show({std::stoi(id), rows->text(row, "name"), rows->number(row, "time"), true,
            archiveDirectory(config.outputDirectory, id) + rows->text(row, "file")});
    }
  }

  void show(const KeptOutput& output) const {
    // Writers of rows and outputs choose which file is read: with root's rights, it could be any
    // file.
    const AsDaemon rights(daemon);
    printKept(output, !task, asJson);
    flushOutput();
  }

  const DaemonConfig config;
  const DaemonIdentity daemon;
  const std::optional<Task> task;  // nothing: all
  const bool asJson;
  LastingSession session;
  std::optional<FileWatch> watch;  // nothing: failed runs alone, by their rows
  long shownFailure = 0;           // the number of the last row that was shown
};

void printOutputs(const std::vector<KeptOutput>& outputs, const Options& options) {
  if (options.asJson && !options.follow) {
    JsonList list;
    for (const KeptOutput& output : outputs) {
      list.addValue(toJson(output));
    }
    list.end();
  } else if (options.outputs == 1 && !outputs.empty() && !options.follow) {
    printBytes(readOutput(outputs.front().path));
  } else {
    for (const KeptOutput& output : outputs) {
      printKept(output, false, options.asJson);
    }
  }
}

/// Where else to look, in a database with hosts; each sentence is a line.
std::string placeText(Session& session, const Task& task) {
  const auto place = readPlacement(session, task.id);
  return place ? fmt::format("\n{}", fmt::join(place->sentences(), "\n")) : "";
}

void sayThatThereIsNone(const Task& task, bool onlyFailed, const std::string& place) {
  if (onlyFailed) {
    print("No failed run of task {} ({}) is recorded.\n", task.id, oneLine(task.name));
    return;
  }
  const std::string due = task.next ? "; it is due at " + zonedTime(*task.next) : "";
  throw Failure(kNotFound, task.status ? fmt::format("task {} has no output in {}{}", task.id,
                                                     task.outputPath(), place)
                                       : fmt::format("task {} has not run yet{}", task.id, due));
}

void showKept(Session& session, const Task& task, const Options& options) {
  const AsDaemon rights(findDaemon(session.config));
  const std::vector<KeptOutput> outputs =
      readOutputs(session, task, options.outputs, options.onlyFailed);
  if (outputs.empty() && !options.asJson && !options.follow) {
    sayThatThereIsNone(task, options.onlyFailed, placeText(session, task));
  }
  printOutputs(outputs, options);
  flushOutput();
}

}  // namespace

int runLogs(const Options& options) {
  if (!options.onlyTask && !options.follow) {
    throw Failure(kWrongUsage, "name a task, or follow all tasks with --follow");
  }
  std::optional<Task> task;
  std::optional<Follower> follower;
  if (options.onlyTask) {
    Session session(options);
    session.makeReadOnly();
    task = readTask(session, *options.onlyTask);
    if (options.follow) {
      follower.emplace(options, task);  // before what is there is shown, so that nothing is missed
    }
    showKept(session, *task, options);
  } else {
    follower.emplace(options, std::nullopt);
  }
  if (follower) {
    follower->run();
  }
  return kDone;
}
