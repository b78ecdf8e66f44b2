// koductl status: the tasks as a table, once or until Ctrl-C.

#include "ctl/command/status.h"

#include <optional>
#include <string>
#include <utility>

#include "ctl/command/commands.h"
#include "ctl/command/watch.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/task/pages.h"
#include "ctl/task/selection.h"
#include "ctl/task/task.h"
#include "ctl/task/taskTable.h"
#include "ctl/terminal/jsonList.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/zone.h"

namespace {

void printAsJson(Session& session, const Selection& selection) {
  JsonList list;
  forEachTask(session, selection, [&](const Task& task) { list.add(toJsonText(task)); });
  list.end();
}

void printForPeople(Session& session, const Options& options, const Selection& selection) {
  constexpr long kLinesAtOnce = 1000;
  const Totals totals = readTotals(session, selection);
  TaskTable table(options, totals.paused > 0);
  Page page;
  forEachTask(session, selection, [&](const Task& task) {
    table.add(task);
    page.lastId = task.id;
    if (++page.tasks % kLinesAtOnce == 0) {
      table.print();
    }
  });
  table.print();
  print("{}. {}\n", totalsText(totals), zoneSentence());
  if (const std::string rest = restText(session, selection, page, totals); !rest.empty()) {
    print("{}\n", rest);
  }
}

}  // namespace

void printStatus(Session& session, const Options& options) {
  if (options.asJson) {
    printAsJson(session, options.selection);
  } else {
    printForPeople(session, options, pageOf(options));
  }
}

int runStatus(const Options& options) {
  requireValid(options.selection);
  // A watch ends at a failure here too: a wrong configuration does not become right by waiting.
  std::optional<Session> session(std::in_place, options);
  session->makeReadOnly();
  requireIds(*session, options.selection);
  if (options.watch) {
    watchTasks(session, options);
  }
  printStatus(*session, options);
  return kDone;
}
