// koductl show: everything that is known of one task.

#include <fmt/format.h>

#include <string>
#include <vector>

#include "ctl/command/commands.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/task/task.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/printable.h"
#include "ctl/terminal/terminal.h"
#include "ctl/terminal/text.h"
#include "task/serviceCron.h"

namespace {

std::string timeOrNever(std::optional<long> time) {
  return time ? zonedTime(*time) : "never";
}

std::string dueText(const Task& task) {
  const std::string late =
      task.isLate ? fmt::format(" ({} late)", durationText(task.lateSeconds)) : "";
  const std::string after = task.afterRun ? ", and then " + zonedTime(*task.afterRun) : "";
  return timeOrNever(task.next) + late + after;
}

std::string argumentsText(const Task& task) {
  std::string text;
  for (const std::string& argument : task.record()->GetVectorParam()) {
    text += fmt::format("{}[{}]", text.empty() ? "" : " ", argument);
  }
  return text.empty() ? "none" : text;
}

std::string flagsText(const Task& task) {
  if (task.isFlagged) {
    return " (to be deleted)";
  }
  if (task.isParked) {
    return " (its calendar has no coming time)";
  }
  if (task.heldFrom) {
    return fmt::format(" (held by a maintenance window since {})", zonedTime(*task.heldFrom));
  }
  return task.pause ? " (" + oneLine(pauseText(*task.pause, task.now)) + ")" : "";
}

std::string everyText(const Task& task) {
  const std::string every = task.every ? durationText(*task.every) : "no interval";
  return task.calendar.empty() ? every : calendarText(task) + ", else every " + every;
}

struct Field {
  const char* name;
  std::string value;
  Colour colour = Colour::kNone;
};

void printForPeople(const Task& task) {
  const std::string status = task.status.value_or("not run yet");
  const std::vector<Field> fields = {
      {"task", fmt::format("{}  {}", task.id, task.name)},
      {"plugin", task.path},
      {"arguments", argumentsText(task)},
      {task.calendar.empty() ? "every" : "at", everyText(task)},
      {"status", status + flagsText(task), colourOf(status)},
      {"last due", timeOrNever(task.lastDue)},
      {"next due", dueText(task)},
      {"retries", fmt::format("{} of {} used, {} apart", task.failedAttempts, task.maxRetries(),
                              durationText(task.retryDelay()))},
      {"failures",
       fmt::format("{} in the last hour, {} in the last day", task.failuresHour, task.failuresDay)},
      {"failing", task.failingSince ? "since " + zonedTime(*task.failingSince) : "no"},
      {"output", task.outputPath()},
      {"archive", task.archivePath()},
  };
  for (const Field& field : fields) {
    print("{:<10}{}\n", field.name, coloured(oneLine(field.value), field.colour));
  }
}

}  // namespace

int runShow(const Options& options) {
  Session session(options);
  session.makeReadOnly();
  const Task task = readTask(session, options.id);
  if (!options.asJson) {
    printForPeople(task);
    return 0;
  }
  Json::Value json = toJson(task);
  json["arguments"] = Json::Value(Json::arrayValue);
  for (const std::string& argument : task.record()->GetVectorParam()) {
    json["arguments"].append(argument);
  }
  printJson(json);
  return 0;
}
