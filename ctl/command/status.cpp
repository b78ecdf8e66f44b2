// koductl status: the tasks as a table, once or each second.

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ctl/command/commands.h"
#include "ctl/daemon/daemonProcess.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/config.h"
#include "ctl/session/session.h"
#include "ctl/task/archive.h"
#include "ctl/task/task.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/table.h"
#include "ctl/terminal/terminal.h"
#include "ctl/terminal/text.h"
#include "ctl/terminal/zone.h"

namespace {

/// The tasks that the options ask for.
std::vector<Task> selectTasks(Session& session, const Options& options) {
  std::vector<Task> tasks = readTasks(session);
  std::erase_if(tasks, [&](const Task& task) {
    return (options.onlyFailed && !task.isFailing) || (options.onlyLate && !task.isLate);
  });
  return tasks;
}

/// A pause or a deletion takes effect at the end of a run in progress.
std::string statusWord(const Task& task) {
  if (task.isRunning) {
    return *task.status;
  }
  if (task.isFlagged) {
    return "deleted";
  }
  if (task.isPaused()) {
    return "paused";
  }
  return task.status.value_or("-");
}

std::string lateText(const Task& task) {
  return task.isLate ? durationText(task.lateSeconds) : "-";
}

constexpr auto kRight = Table::Align::kRight;

using Columns = std::vector<Table::Column>;
using Cells = std::vector<Table::Cell>;

/// The columns of every table of tasks: the state of a task.
const Columns kStateColumns = {{"ID", kRight},   {"NAME"},     {"STATUS"},
                               {"LATE", kRight}, {"LAST DUE"}, {"NEXT DUE"}};
void addState(Cells& line, const Task& task) {
  line.emplace_back(std::to_string(task.id));
  line.emplace_back(cutTo(oneLine(task.name), 30));
  line.emplace_back(statusWord(task), colourOf(statusWord(task)));
  line.emplace_back(lateText(task), task.isLate ? Colour::kYellow : Colour::kNone);
  line.emplace_back(shortTime(task.lastDue, task.now));
  line.emplace_back(shortTime(task.next, task.now));
}

const Columns kHistoryColumns = {{"EVERY", kRight},
                                 {"RETRIES", kRight},
                                 {"FAILED 1H", kRight},
                                 {"24H", kRight},
                                 {"FAILING SINCE"}};
void addHistory(Cells& line, const Task& task) {
  line.emplace_back(task.every ? durationText(*task.every) : "-");
  line.emplace_back(fmt::format("{}/{}", task.failedAttempts, task.maxRetries()));
  line.emplace_back(std::to_string(task.failuresHour));
  line.emplace_back(std::to_string(task.failuresDay));
  line.emplace_back(shortTime(task.failingSince, task.now));
}

/// "since 10:31:01 by alice: new disks".
std::string pauseCell(const Pause& pause, long now) {
  return fmt::format("since {}{}{}{}", shortTime(pause.since, now),
                     pause.by.empty() ? "" : " by " + pause.by,
                     pause.until ? " until " + shortTime(pause.until, now) : "",
                     pause.reason.empty() ? "" : ": " + pause.reason);
}

const Columns kOutputColumns = {{"FAILED 24H", kRight}, {"OUTPUT"}};
/// A file that exists before the task's first run belonged to another task.
void addOutput(Cells& line, const Task& task) {
  line.emplace_back(std::to_string(task.failuresDay));
  line.emplace_back(task.status ? firstLineOf(task.outputPath()) : "");
}

/// The last column exists only when a task is paused.
bool hasPause(const std::vector<Task>& tasks) {
  return std::any_of(tasks.begin(), tasks.end(), [](const Task& task) { return task.isPaused(); });
}

Table tableOf(const std::vector<Task>& tasks, const Options& options) {
  Columns columns = kStateColumns;
  const Columns& further = options.withOutput ? kOutputColumns : kHistoryColumns;
  columns.insert(columns.end(), further.begin(), further.end());
  const bool withPause = hasPause(tasks);
  if (withPause) {
    columns.push_back({"PAUSED"});
  }
  Table table(std::move(columns));
  std::optional<AsDaemon> rights;  // with root's rights, a writer of rows could have any file shown
  if (options.withOutput) {
    rights.emplace(findDaemon(readConfig(options.configFile, options.user)));
  }
  for (const Task& task : tasks) {
    Cells line;
    addState(line, task);
    (options.withOutput ? addOutput : addHistory)(line, task);
    if (withPause) {
      line.emplace_back(task.pause ? pauseCell(*task.pause, task.now) : "");
    }
    table.add(std::move(line));
  }
  return table;
}

/// "3 tasks: 2 OK, 1 FAILED; 1 late. Times are UTC."
std::string headline(const std::vector<Task>& tasks) {
  std::string states;
  for (const char* word : {"OK", "FAILED", "PROCESS", "-", "paused", "deleted"}) {
    const auto count = std::count_if(tasks.begin(), tasks.end(),
                                     [&](const Task& task) { return statusWord(task) == word; });
    if (count > 0) {
      states += fmt::format("{}{} {}", states.empty() ? ": " : ", ", count,
                            std::string(word) == "-" ? "not run yet" : word);
    }
  }
  const auto late =
      std::count_if(tasks.begin(), tasks.end(), [](const Task& task) { return task.isLate; });
  return fmt::format("{}{}; {} late. {}", counted(static_cast<long>(tasks.size()), "task"), states,
                     late, zoneSentence());
}

void printTasks(const std::vector<Task>& tasks, const Options& options) {
  if (options.asJson) {
    Json::Value list(Json::arrayValue);
    for (const Task& task : tasks) {
      list.append(toJson(task));
    }
    printJson(list);
    return;
  }
  tableOf(tasks, options).print();
  print("{}\n", headline(tasks));
}

/// Draws over the previous screen line by line to avoid flicker. Lines that do not fit the
/// terminal's height are counted instead of shown.
void draw(const std::vector<Task>& tasks, const Options& options) {
  const TerminalSize size = terminalSize();
  const std::vector<std::string> lines = tableOf(tasks, options).render(size.columns);
  const auto height = static_cast<std::size_t>(std::max(size.rows - 3, 1));
  std::string screen = "\x1b[H" + cutTo(headline(tasks), size.columns) + "\x1b[K\n\x1b[K\n";
  for (std::size_t i = 0; i < std::min(lines.size(), height); ++i) {
    screen += lines[i] + "\x1b[K\n";
  }
  if (lines.size() > height) {
    screen += fmt::format("... and {} more\x1b[K", lines.size() - height);
  }
  print("{}\x1b[J", Styled(screen));
}

/// Ctrl-C ends a watch: it restores the cursor, and the exit status is 0.
void endWatch(int) {
  constexpr std::string_view kShowCursor = "\x1b[?25h\n";
  if (isatty(STDOUT_FILENO) == 1) {
    [[maybe_unused]] const auto written =
        write(STDOUT_FILENO, kShowCursor.data(), kShowCursor.size());
  }
  _exit(0);
}

/// The tasks, read in a new session when the previous one was lost; nothing when there is none,
/// with the reason in `failure`.
std::optional<std::vector<Task>> look(std::optional<Session>& session, const Options& options,
                                      std::string& failure) {
  try {
    if (!session) {
      session.emplace(options);
      session->makeReadOnly();
    }
    return selectTasks(*session, options);
  } catch (const Failure& e) {
    failure = e.what();
    session.reset();
    return std::nullopt;
  }
}

void showFailure(const std::string& failure, bool isDrawn) {
  if (isDrawn) {
    print("\x1b[H{}\x1b[K\n\x1b[J", oneLine(failure));
  } else {
    printError("koductl: {}\n", failure);
  }
}

[[noreturn]] void watch(std::optional<Session>& session, const Options& options) {
  std::signal(SIGINT, endWatch);
  std::signal(SIGTERM, endWatch);
  const bool isDrawn = isTerminal() && !options.asJson;
  if (isDrawn) {
    print("\x1b[?25l\x1b[2J");
  }
  for (;;) {
    std::string failure;
    const auto tasks = look(session, options, failure);
    if (!tasks) {
      showFailure(failure, isDrawn);
    } else if (isDrawn) {
      draw(*tasks, options);
    } else {
      printTasks(*tasks, options);
    }
    flushOutput();
    sleep(1);
  }
}

}  // namespace

int runStatus(const Options& options) {
  // A watch ends at a failure here too: a wrong configuration does not become right by waiting.
  std::optional<Session> session(std::in_place, options);
  session->makeReadOnly();
  if (options.watch) {
    watch(session, options);
  }
  printTasks(selectTasks(*session, options), options);
  return 0;
}
