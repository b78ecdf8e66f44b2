// koductl top: late, running, failing and recently run tasks, live.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <optional>
#include <string>

#include "ctl/command/commands.h"
#include "ctl/command/explain.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/call.h"
#include "ctl/session/session.h"
#include "ctl/task/task.h"
#include "ctl/terminal/capturedErrors.h"
#include "ctl/terminal/terminal.h"
#include "ctl/terminal/text.h"
#include "ctl/top/feed.h"
#include "ctl/top/model.h"
#include "ctl/top/screen.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kPeriod{1000};
constexpr int kCountsEvery = 5;  // refreshes
/// How many times longer than the database works there is rest: a tenth of a core is the limit.
constexpr int kRest = 9;

volatile std::sig_atomic_t isStopped = 0;
volatile std::sig_atomic_t isAsking = 0;  // the database, which may take its time to answer

/// Lets SIGINT and SIGTERM end the loop, so that the terminal is restored.
void catchSignals() {
  struct sigaction action {};
  action.sa_handler = [](int) {
    isStopped = 1;
    if (isAsking != 0) {
      Screen::leave();
      _exit(kDone);
    }
  };
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

/// From here to the end of its life, the database is asked.
struct Asking {
  Asking() { isAsking = 1; }
  ~Asking() { isAsking = 0; }
  Asking(const Asking&) = delete;
  Asking& operator=(const Asking&) = delete;
};

/// The live table with its sessions: one that reads, and one that changes tasks once it is needed.
class Top {
 public:
  explicit Top(const Options& given) : options(given) { connect(); }

  void run() {
    screen.emplace();
    while (isStopped == 0) {
      refresh();
      if (!waitAndTakeKeys()) {
        return;
      }
    }
  }

 private:
  void connect() {
    reader.emplace(options);
    reader->makeReadOnly();
    // A second process for a scan of some milliseconds would cost more than it saves.
    reader->query("SET max_parallel_workers_per_gather = 0");
  }

  /// Reads and draws. A session that is lost is replaced at a later refresh.
  void refresh() {
    model.setHeight(screen->height());
    const auto begin = Clock::now();
    attempt([&] {
      if (!reader) {
        connect();
      }
      if (refreshes++ % kCountsEvery == 0) {
        model.setCounts(readTopCounts(*reader));
      }
      model.setRows(readTop(*reader, model.query()), serverTime(*reader));
    });
    took = std::chrono::duration_cast<milliseconds>(Clock::now() - begin);
    draw();
  }

  void draw() { screen->draw(model.lines(screen->width(), screen->height())); }

  /// Runs something that may fail, and shows why it did, or what the server said to it.
  template <typename Step>
  void attempt(const Step& step) {
    CapturedErrors notices;  // they would stand in the middle of the screen
    const Asking asking;
    try {
      step();
      if (const std::string said = notices.take(); !said.empty()) {
        model.setMessage(said);
      }
    } catch (const Failure& e) {
      notices.take();
      model.setMessage(e.what());
      if (e.exitCode == kNoDatabase) {
        reader.reset();
        writer.reset();
      }
    }
  }

  /// Until the next refresh; false to end.
  bool waitAndTakeKeys() {
    const auto end = Clock::now() + std::max(kPeriod - took, took * kRest);
    while (isStopped == 0) {
      const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now()).count();
      const int key = left > 0 ? screen->key(static_cast<int>(left)) : 0;
      if (key == 0) {
        return true;
      }
      const TopAction action = model.press(key);
      if (action == TopAction::kQuit) {
        return false;
      }
      if (action == TopAction::kRefresh) {
        return true;
      }
      perform(action);
      draw();
    }
    return true;
  }

  void perform(TopAction action) {
    const auto row = model.selected();
    if (!row || action == TopAction::kNone) {
      return;
    }
    attempt([&] {
      if (action == TopAction::kExplain) {
        explain(row->id);
      } else {
        change(action, row->id);
      }
    });
  }

  void explain(int id) {
    if (!reader) {
      connect();
    }
    model.showText(explainTask(*reader, readTask(*reader, id)));
  }

  void change(TopAction action, int id) {
    if (!writer) {
      writer.emplace(options);
    }
    const char* function = action == TopAction::kPause    ? "kodu_task_pause"
                           : action == TopAction::kResume ? "kodu_task_resume"
                                                          : "kodu_task_run_now";
    Call(function).with("task", id).run(*writer);
    model.setMessage("task " + std::to_string(id) +
                     (action == TopAction::kPause    ? " paused"
                      : action == TopAction::kResume ? " resumed"
                                                     : " will run in 3 seconds"));
  }

  const Options& options;
  std::optional<Session> reader, writer;
  std::optional<Screen> screen;  // from run() on
  TopModel model;
  int refreshes = 0;
  milliseconds took{0};  // of the last refresh
};

int printOnce(const Options& options) {
  Session session(options);
  session.makeReadOnly();
  printJson(toJson(readTopCounts(session), readTop(session, {})));
  return kDone;
}

}  // namespace

int runTop(const Options& options) {
  if (options.asJson) {
    return printOnce(options);
  }
  if (!isTerminal() || isatty(STDIN_FILENO) != 1) {
    throw Failure(kWrongUsage, "top needs a terminal: use status, or top --json");
  }
  catchSignals();
  Top(options).run();
  return kDone;
}
