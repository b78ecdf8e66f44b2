// koductl delete: has the daemon purge a task.

#include <unistd.h>

#include <iostream>
#include <string>

#include "ctl/command/commands.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/call.h"
#include "ctl/session/session.h"
#include "ctl/task/task.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/terminal.h"
#include "ctl/terminal/text.h"

namespace {

void askBeforeDeletion(const Task& task) {
  if (isatty(STDIN_FILENO) == 0) {
    throw Failure(kWrongUsage, "cannot ask for confirmation without a terminal: use --yes");
  }
  printError("Delete task {} ({}), its output, archive and history? [y/N] ", task.id,
             oneLine(task.name));
  std::string answer;
  std::getline(std::cin, answer);
  if (answer != "y" && answer != "yes") {
    throw Failure(kRefused, "nothing was deleted");
  }
}

}  // namespace

int runDelete(const Options& options) {
  Session session(options);
  const Task task = readTask(session, options.id);
  if (!options.isConfirmed) {
    askBeforeDeletion(task);
  }
  Call("kodu_task_delete").with("task", options.id).run(session);
  if (options.asJson) {
    printJson(toJson(readTask(session, options.id)));
  } else {
    print("the daemon deletes task {} ({}) and its files within four minutes{}\n", task.id,
          oneLine(task.name), task.isRunning ? " of the end of its run" : "");
  }
  return kDone;
}
