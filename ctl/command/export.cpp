// koductl export: writes tasks as koductl apply reads them.

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <string>
#include <vector>

#include "ctl/command/commands.h"
#include "ctl/declared/declarationWriter.h"
#include "ctl/declared/plan.h"
#include "ctl/declared/stored.h"
#include "ctl/declared/yamlText.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/task/selection.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/text.h"

namespace {

/// "" for a task that a file can declare.
std::string whyNot(const StoredTask& task) {
  for (const auto& [name, value] : task.definition) {
    if (!quotedText(value)) {
      return name + " is not valid UTF-8";
    }
  }
  return settingOf(task.definition, "plugin").starts_with('/')
             ? ""
             : "the path of its plugin is not absolute";
}

/// The definition with what is no part of the task's row.
Definition declarationOf(const StoredTask& task) {
  Definition definition = task.definition;
  // A calendar needs no first time.
  if (const auto first = rhythmOf(task); first && definition.count("at") == 0) {
    definition["first"] = *first;
  }
  if (task.isPaused) {
    definition["paused"] = "true";
    if (!task.pauseReason.empty()) {
      definition["reason"] = task.pauseReason;
    }
    if (task.pausedUntil) {
      definition["until"] = declaredTime(*task.pausedUntil);
    }
  }
  return definition;
}

/// Writes the tasks that can be declared, and warns of the others.
class Exporter {
 public:
  explicit Exporter(const Options& options) : writer(options.set, options.asJson) {}

  void write(const StoredTask& task) {
    if (const std::string reason = whyNot(task); !reason.empty()) {
      leaveOut(task.id, reason);
    } else {
      writer.write(task.key, declarationOf(task));
    }
  }

  void leaveOut(int id, const std::string& reason) {
    constexpr long kNamed = 10;
    if (++leftOut <= kNamed) {
      printError("koductl: warning: task {} is left out: {}\n", id, reason);
    }
  }

  void end() const { writer.end(); }

  /// How many could not be written.
  long countLeftOut() const { return leftOut; }

 private:
  DeclarationWriter writer;
  long leftOut = 0;
};

/// Of the tasks that were named, those that forEachStored() passes over.
void sayWhichArePassedOver(Session& session, const std::vector<int>& ids, Exporter& exporter) {
  session.forEachRow(
      "SELECT id, deleting, plugin_type FROM kodu_task_state"
      " WHERE id = ANY ($1::int[]) AND (deleting OR plugin_type <> 'cron') ORDER BY id",
      {fmt::format("{{{}}}", fmt::join(ids, ","))}, [&](Fields& fields) {
        const auto id = static_cast<int>(fields.number());
        const bool isDeleting = fields.isTrue();
        exporter.leaveOut(id, isDeleting
                                  ? "it is being deleted"
                                  : fmt::format("its plugin is of type '{}', which the daemon "
                                                "does not run",
                                                fields.text()));
      });
}

}  // namespace

int runExport(const Options& options) {
  requireValid(options.selection);
  Session session(options);
  requireIds(session, options.selection);  // before anything is written
  const std::string guard = readGuard(session);
  Exporter exporter(options);
  forEachStored(session, options.selection, options.set, guard,
                [&exporter](const StoredTask& task) { exporter.write(task); });
  sayWhichArePassedOver(session, options.selection.ids, exporter);
  exporter.end();
  if (exporter.countLeftOut() > 0 && !options.isPartial) {
    flushOutput();
    throw Failure(kRefused, fmt::format("the export lacks {}; --partial accepts that",
                                        counted(exporter.countLeftOut(), "task")));
  }
  return kDone;
}
