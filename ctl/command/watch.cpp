#include "ctl/command/watch.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <csignal>
#include <string>
#include <string_view>
#include <vector>

#include "ctl/command/status.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/task/selection.h"
#include "ctl/task/task.h"
#include "ctl/task/taskTable.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/printable.h"
#include "ctl/terminal/terminal.h"
#include "ctl/terminal/text.h"
#include "ctl/terminal/zone.h"

namespace {

using Clock = std::chrono::steady_clock;

/// Does something again and again, and rests for a multiple of the time that it took.
class Rhythm {
 public:
  explicit Rhythm(int multiple) : rest(multiple) {}

  /// Calls `work` unless it rests.
  template <typename Work>
  void perform(const Work& work) {
    const auto begin = Clock::now();
    if (begin < next) {
      return;
    }
    work();
    last = Clock::now();
    next = last + (last - begin) * rest;
  }

  /// Seconds since the work was done.
  long age() const {
    return std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - last).count();
  }

 private:
  const int rest;
  Clock::time_point next{}, last{};
};

/// What a terminal shows of the tasks, at most a screen of them.
class Screen {
 public:
  explicit Screen(const Options& given) : options(given) {}

  /// Reads what is due to be read again. Throws Failure.
  void look(Session& session) {
    find.perform([&] {
      Selection page = options.selection;
      page.limit = std::min(page.limit.value_or(INT_MAX), static_cast<long>(height()));
      ids = readIds(session, page);
    });
    count.perform([&] { totals = readTotals(session, options.selection); });
    tasks.clear();
    if (!ids.empty()) {
      Selection shown = options.selection;  // one that meets it no longer is left out at once
      shown.ids = ids;
      tasks = readTasks(session, shown);
    }
  }

  /// Draws over the previous screen line by line to avoid flicker.
  void draw() const {
    const TerminalSize size = terminalSize();
    TaskTable table(options, totals.paused > 0);
    for (const Task& task : tasks) {
      table.add(task);
    }
    std::string screen = "\x1b[H" + cutTo(headline(), size.columns) + "\x1b[K\n\x1b[K\n";
    for (const std::string& line : table.render(size.columns)) {
      screen += line + "\x1b[K\n";
    }
    if (totals.tasks > static_cast<long>(tasks.size())) {
      screen += fmt::format("… and {} more\x1b[K",
                            grouped(totals.tasks - static_cast<long>(tasks.size())));
    }
    print("{}\x1b[J", Styled(screen));
  }

 private:
  /// The tasks that fit below the totals, an empty line and the head, above the rest.
  static int height() { return std::max(terminalSize().rows - 4, 1); }

  std::string headline() const {
    const long age = count.age();
    return fmt::format("{}. {}{}", totalsText(totals), zoneSentence(),
                       age > 2 ? fmt::format(" Counted {} ago.", durationText(age)) : "");
  }

  // Together a twentieth of a core: each second's few tasks take less than a hundredth.
  Rhythm find{40}, count{80};
  const Options& options;
  std::vector<int> ids;
  std::vector<Task> tasks;
  Totals totals;
};

/// Whether the screen is drawn over, and the cursor hidden: else one list follows another.
volatile std::sig_atomic_t isDrawn = 0;

/// Ctrl-C ends a watch: it restores the cursor, and the exit status is 0.
void endWatch(int) {
  constexpr std::string_view kShowCursor = "\x1b[?25h\n";
  if (isDrawn != 0) {
    [[maybe_unused]] const auto written =
        write(STDOUT_FILENO, kShowCursor.data(), kShowCursor.size());
  }
  _exit(0);
}

/// Reads and shows once, in a new session when the previous one was lost.
template <typename Show>
void attempt(std::optional<Session>& session, const Options& options, const Show& show) try {
  if (!session) {
    session.emplace(options);
    session->makeReadOnly();
    session->query("SET max_parallel_workers_per_gather = 0");
  }
  show();
  flushOutput();
} catch (const Failure& e) {
  session.reset();
  if (isDrawn != 0) {
    print("\x1b[H{}\x1b[K\n\x1b[J", oneLine(e.what()));
  } else {
    printError("koductl: {}\n", e.what());
  }
  flushOutput();
}

}  // namespace

void watchTasks(std::optional<Session>& session, const Options& options) {
  std::signal(SIGINT, endWatch);
  std::signal(SIGTERM, endWatch);
  isDrawn = isTerminal() && hasSequences() && !options.asJson ? 1 : 0;
  if (isDrawn != 0) {
    print("\x1b[?25l\x1b[2J");
  }
  Screen screen(options);
  Rhythm list(20);
  session.reset();
  for (;;) {
    attempt(session, options, [&] {
      if (isDrawn != 0) {
        screen.look(*session);
        screen.draw();
      } else {
        list.perform([&] { printStatus(*session, options); });
      }
    });
    sleep(1);
  }
}
