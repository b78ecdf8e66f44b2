// koductl export: writes tasks as koductl apply reads them.

#include <fmt/format.h>

#include <array>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ctl/command/commands.h"
#include "ctl/declared/plan.h"
#include "ctl/declared/stored.h"
#include "ctl/declared/yamlText.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/task/arguments.h"
#include "ctl/task/selection.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/text.h"
#include "task/serviceSafe.h"

namespace {

/// Names of settings and their values as they are written.
using Lines = std::vector<std::pair<std::string, std::string>>;

/// The parameters as the list of arguments that means exactly them; nothing where there is none.
std::optional<std::vector<std::string>> argumentsOf(const std::string& parameters) {
  serviceSafe record;
  try {
    record.Setparameter(parameters);
    std::vector<std::string> arguments = record.GetVectorParam();
    return parameterString(arguments) == parameters ? std::optional(arguments) : std::nullopt;
  } catch (const Failure&) {
    return std::nullopt;
  }
}

std::string listText(const std::vector<std::string>& texts) {
  std::string list;
  for (const std::string& text : texts) {
    list += (list.empty() ? "" : ", ") + quotedText(text).value_or("");
  }
  return "[" + list + "]";
}

/// Writes tasks one by one: as YAML, or as JSON, which is YAML with more brackets.
class Writer {
 public:
  Writer(const std::string& set, bool isJson) : asJson(isJson) {
    if (asJson) {
      const std::string name = quotedText(set).value_or("");
      print("{{\n  {}\"tasks\": {{",
            Styled(set.empty() ? "" : fmt::format("\"set\": {},\n  ", name)));
    } else if (!set.empty()) {
      print("set: {}\n", Styled(plainOrQuoted(set)));
    }
  }

  void write(const StoredTask& task) {
    if (const std::string reason = whyNot(task); !reason.empty()) {
      leaveOut(task.id, reason);
      return;
    }
    if (asJson) {
      writeJson(task);
    } else {
      print("{}{}:\n", Styled(count == 0 ? "tasks:\n  " : "  "), Styled(plainOrQuoted(task.key)));
      for (const auto& [name, value] : linesOf(task)) {
        print("    {}: {}\n", name, Styled(value));
      }
    }
    ++count;
  }

  void leaveOut(int id, const std::string& reason) {
    constexpr long kNamed = 10;
    if (++leftOut <= kNamed) {
      printError("koductl: warning: task {} is left out: {}\n", id, reason);
    }
  }

  /// How many could not be written.
  long countLeftOut() const { return leftOut; }

  void end() const {
    if (asJson) {
      print("{}}}\n}}\n", Styled(count == 0 ? "" : "\n  "));
    } else if (count == 0) {
      print("tasks: {{}}\n");
    }
  }

 private:
  static std::string whyNot(const StoredTask& task) {
    for (const auto& [name, value] : task.definition) {
      if (!quotedText(value)) {
        return name + " is not valid UTF-8";
      }
    }
    return settingOf(task.definition, "plugin").starts_with('/')
               ? ""
               : "the path of its plugin is not absolute";
  }

  void writeJson(const StoredTask& task) const {
    print("{}\n    {}: {{", Styled(count == 0 ? "" : ","),
          Styled(quotedText(task.key).value_or("")));
    const char* separator = "";
    for (const auto& [name, value] : linesOf(task)) {
      print("{}\n      \"{}\": {}", Styled(separator), name, Styled(value));
      separator = ",";
    }
    print("\n    }}");
  }

  std::string textOf(const std::string& text) const {
    return asJson ? quotedText(text).value_or("") : plainOrQuoted(text);
  }

  Lines linesOf(const StoredTask& task) const {
    Lines lines;
    for (const char* name : kSettings) {
      const auto found = task.definition.find(name);
      if (found == task.definition.end()) {
        continue;
      }
      if (std::string_view(name) == "arguments") {
        addArguments(found->second, lines);
      } else {
        lines.emplace_back(name,
                           isBare(name, found->second) ? found->second : textOf(found->second));
      }
    }
    // A calendar needs no first time.
    if (const auto first = rhythmOf(task); first && task.definition.count("at") == 0) {
      lines.emplace_back("first", asJson ? textOf(*first) : *first);
    }
    if (task.isPaused) {
      lines.emplace_back("paused", "true");
      if (!task.pauseReason.empty()) {
        lines.emplace_back("reason", textOf(task.pauseReason));
      }
      if (task.pausedUntil) {
        const std::string until = declaredTime(*task.pausedUntil);
        lines.emplace_back("until", asJson ? textOf(until) : until);
      }
    }
    return lines;
  }

  /// Numbers, and in YAML the periods, which no reader takes for a number.
  bool isBare(std::string_view name, const std::string& value) const {
    return name == "retries" ||
           (!asJson && (name == "every" || name == "timeout" || name == "retry-after") &&
            value.find_first_not_of("0123456789.dhms") == std::string::npos);
  }

  static void addArguments(const std::string& parameters, Lines& lines) {
    if (const auto arguments = argumentsOf(parameters)) {
      lines.emplace_back("arguments", listText(*arguments));
    } else {
      lines.emplace_back("parameters", quotedText(parameters).value_or(""));
    }
  }

  const bool asJson;
  long count = 0;
  long leftOut = 0;
};

/// Of the tasks that were named, those that forEachStored() passes over.
void sayWhichArePassedOver(Session& session, const std::vector<int>& ids, Writer& writer) {
  session.forEachRow(
      "SELECT id, deleting, plugin_type FROM kodu_task_state"
      " WHERE id = ANY ($1::int[]) AND (deleting OR plugin_type <> 'cron') ORDER BY id",
      {fmt::format("{{{}}}", fmt::join(ids, ","))}, [&](Fields& fields) {
        const auto id = static_cast<int>(fields.number());
        const bool isDeleting = fields.isTrue();
        writer.leaveOut(id, isDeleting ? "it is being deleted"
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
  Writer writer(options.set, options.asJson);
  forEachStored(session, options.selection, options.set, guard,
                [&writer](const StoredTask& task) { writer.write(task); });
  sayWhichArePassedOver(session, options.selection.ids, writer);
  writer.end();
  if (writer.countLeftOut() > 0 && !options.isPartial) {
    flushOutput();
    throw Failure(kRefused, fmt::format("the export lacks {}; --partial accepts that",
                                        counted(writer.countLeftOut(), "task")));
  }
  return kDone;
}
