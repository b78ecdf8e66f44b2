// koductl apply: brings the tasks to what files declare.

#include <fmt/format.h>
#include <unistd.h>

#include <iostream>
#include <set>
#include <string>
#include <vector>

#include "ctl/command/commands.h"
#include "ctl/declared/carryOut.h"
#include "ctl/declared/declaration.h"
#include "ctl/declared/plan.h"
#include "ctl/declared/planOutput.h"
#include "ctl/declared/sources.h"
#include "ctl/declared/stored.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/call.h"
#include "ctl/session/session.h"
#include "ctl/session/transaction.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/text.h"

namespace {

// One apply at a time: the second one sees what the first has done. The number is only this lock's.
constexpr const char* kTakeTurn = "SELECT pg_advisory_xact_lock(6420241123)";

/// What the files say and the database knows about it.
class Application {
 public:
  Application(const Options& given, Declaration read, Session& owner)
      : options(given), declaration(std::move(read)), session(owner), guard(readGuard(session)) {
    Mistakes mistakes;
    normalize(declaration, session, guard, mistakes);
    mistakes.throwIfAny();
    for (const DeclaredTask& task : declaration.tasks) {
      keys.push_back(task.key);
    }
  }

  Plan plan() {
    Mistakes mistakes;
    const auto stored = readStored(session, keys, declaration.set, guard);
    Plan plan = makePlan(declaration, stored, options.isPruning, mistakes);
    mistakes.throwIfAny();
    return plan;
  }

  /// Makes the plan again, since other sessions may have changed tasks, and carries it out. With
  /// --dry-run takes it back.
  Plan carryOutNow(const Plan& agreed) {
    Transaction transaction(session, kEndWithoutKoductl);
    session.query(kTakeTurn);
    Plan current = plan();
    requireAgreed(agreed, current);
    Mistakes mistakes;
    carryOut(session, current, mistakes);
    mistakes.throwIfAny();
    if (options.isDryRun) {
      forgetNewIds(current);
    } else {
      transaction.commit();
    }
    return current;
  }

 private:
  static void forgetNewIds(Plan& plan) {
    for (Change& change : plan.changes) {
      change.id = change.kind == Change::Kind::kAdd ? 0 : change.id;
    }
  }

  static void requireAgreed(const Plan& agreed, const Plan& current) {
    std::set<int> ids;
    for (const Change& change : agreed.changes) {
      ids.insert(change.id);
    }
    for (const Change& change : current.changes) {
      if (change.kind == Change::Kind::kDelete && ids.count(change.id) == 0) {
        throw Failure(kRefused, fmt::format("task {} has joined the set {} meanwhile; nothing was "
                                            "changed. Look at a new plan",
                                            change.id, current.set));
      }
    }
  }

  const Options& options;
  Declaration declaration;
  Session& session;
  const std::string guard;
  std::vector<std::string> keys;
};

Declaration readDeclared(const Options& options) {
  Mistakes mistakes;
  Declaration declaration = readDeclaration(readSources(options.source), mistakes);
  mistakes.throwIfAny();
  if (options.isPruning && declaration.set.empty()) {
    throw Failure(kRefused, fmt::format("{} names no set, so it is unknown which tasks --prune may "
                                        "delete: begin it with a line such as set: web",
                                        options.source));
  }
  return declaration;
}

/// Asks before tasks are deleted; true when the plan has been printed for that.
bool confirmDeletions(const Plan& plan, const Options& options) {
  const long deletions = plan.count(Change::Kind::kDelete);
  if (deletions == 0 || options.isConfirmed || options.isDryRun) {
    return false;
  }
  if (isatty(STDIN_FILENO) == 0) {
    throw Failure(kWrongUsage,
                  fmt::format("cannot ask without a terminal whether to delete {}: use --yes, or "
                              "--dry-run to see which",
                              counted(deletions, "task")));
  }
  if (!options.asJson) {
    printChanges(plan);
    flushOutput();
  }
  printError("Delete {}, their outputs, archives and histories? [y/N] ",
             counted(deletions, "task"));
  std::string answer;
  std::getline(std::cin, answer);
  if (answer != "y" && answer != "yes") {
    throw Failure(kRefused, "nothing was changed");
  }
  return !options.asJson;
}

}  // namespace

int runApply(const Options& options) {
  Declaration declaration = readDeclared(options);
  Session session(options);
  Call("kodu_task_define").requireRight(session);
  Application application(options, std::move(declaration), session);
  Plan plan = application.plan();
  const bool isPrinted = confirmDeletions(plan, options);
  if (!plan.changes.empty()) {
    plan = application.carryOutNow(plan);
  }
  const bool isApplied = !options.isDryRun;
  if (options.asJson) {
    printJson(toJson(plan, isApplied));
    return kDone;
  }
  if (!isPrinted) {
    printChanges(plan);
  }
  printSummary(plan, isApplied);
  return kDone;
}
