// koductl ids: the ids of tasks, for scripts and the completions of the shells.

#include "ctl/command/commands.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/task/selection.h"
#include "ctl/terminal/jsonList.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/printable.h"

int runIds(const Options& options) {
  requireValid(options.selection);
  Session session(options);
  session.makeReadOnly();
  requireIds(session, options.selection);
  JsonList list;
  forEachId(session, options.selection, options.withNames, [&](int id, const std::string& name) {
    if (options.asJson) {
      list.add(std::to_string(id));
    } else if (options.withNames) {
      print("{}\t{}\n", id, oneLine(name));
    } else {
      print("{}\n", id);
    }
  });
  if (options.asJson) {
    list.end();
  }
  return kDone;
}
