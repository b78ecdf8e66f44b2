#include "ctl/import/crontab.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "ctl/declared/sources.h"
#include "ctl/import/environment.h"
#include "ctl/import/import.h"
#include "ctl/import/lines.h"
#include "ctl/import/names.h"
#include "ctl/import/schedule.h"
#include "ctl/import/shellCommand.h"
#include "ctl/task/arguments.h"

namespace {

/// What stands behind the schedule and the user.
struct Command {
  std::string text;
  std::optional<std::string> input;  // behind the first "%"
};

/// In a command, "%" ends it, further ones are newlines of its input, and "\%" is a percent sign.
Command commandIn(std::string_view text) {
  Command command;
  std::string* part = &command.text;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size() && text[i + 1] == '%') {
      *part += text[++i];
    } else if (text[i] != '%') {
      *part += text[i];
    } else if (!command.input) {
      part = &command.input.emplace();
    } else {
      *part += '\n';
    }
  }
  return command;
}

/// Reads the lines of one crontab.
class CrontabReader {
 public:
  CrontabReader(CrontabStyle given, Import& collected)
      : style(std::move(given)), import(collected), environment(style.zone) {}

  void read(const Place& place, std::string_view line) {
    line = trimmed(line);
    if (line.empty() || line.front() == '#') {
      return;
    }
    if (const auto assignment = assignmentIn(line)) {
      environment.set(*assignment, place, import);
    } else {
      readEntry(place, line);
    }
  }

 private:
  void readEntry(const Place& place, std::string_view line) {
    const Schedule schedule = takeSchedule(line);
    const std::string user(style.hasUsers ? takeWord(line) : "");
    if (!schedule.reason.empty()) {
      import.leaveOut(place, schedule.reason);
    } else if (line.empty()) {
      import.leaveOut(place, "there is no command");
    } else if (!style.hasUsers && line.starts_with("root ")) {
      import.leaveOut(place, "the command begins with root, as in a system crontab; use --system");
    } else {
      addTask(place, schedule.calendar, user, line);
    }
  }

  static Schedule takeSchedule(std::string_view& line) {
    if (line.front() == '@') {
      return scheduleOf(std::string(takeWord(line)));
    }
    constexpr std::size_t kFields = 5;
    std::vector<std::string> fields;
    while (!line.empty() && fields.size() < kFields) {
      fields.emplace_back(takeWord(line));
    }
    return scheduleOf(fields);
  }

  void addTask(const Place& place, const std::string& calendar, const std::string& user,
               std::string_view line) {
    const std::string shell = isPlainShell(environment.shell()) ? environment.shell() : kShell;
    const auto arguments = shellArguments(scriptOf(commandIn(line)), shell);
    if (!arguments) {
      return import.leaveOut(place, "the command is longer than an argument of a task can be");
    }
    const std::string key = import.add(style.prefix, wordOf(user, line),
                                       {{"plugin", shell},
                                        {"name", excerpt(line)},
                                        {"at", calendar},
                                        {"zone", environment.zone()},
                                        {"retries", "0"},
                                        {"arguments", parameterString(*arguments)}});
    if (!user.empty()) {
      import.note(place, fmt::format("{}: runs as the daemon's user, not as {}", key, user));
    }
  }

  /// The user counts: two users may have the same command.
  static std::string wordOf(const std::string& user, std::string_view line) {
    std::string_view rest = line;
    const std::string program = std::filesystem::path(takeWord(rest)).filename();
    const std::string part = keyPart(program);
    return fmt::format("{}-{}", part.empty() ? "job" : part,
                       digest(user + "\n" + std::string(line)));
  }

  std::string scriptOf(const Command& command) const {
    std::string text = command.text;
    if (!isPlainShell(environment.shell())) {
      text = fmt::format("exec {} -c {}", shellWord(environment.shell()), shellWord(text));
    }
    if (!environment.home().empty()) {
      text = fmt::format("cd {} || exit 1; {}", shellWord(environment.home()), text);
    }
    return recordedScript(environment.exports(), text, command.input);
  }

  const CrontabStyle style;
  Import& import;
  CrontabEnvironment environment;
};

}  // namespace

bool isSystemCrontab(const std::string& path) {
  const std::filesystem::path file = path;
  return file == "/etc/crontab" || file.parent_path().filename() == "cron.d";
}

void importCrontab(const Source& source, const CrontabStyle& style, Import& import) {
  const std::size_t before = import.tasks().size();
  CrontabReader reader(style, import);
  forEachLine(source, import,
              [&reader](const Place& place, std::string_view line) { reader.read(place, line); });
  if (import.tasks().size() == before) {
    return;
  }
  const Place place = {source.name, 0};
  import.note(place,
              "each line runs as /bin/sh -c (or the shell of a line SHELL=) with its environment "
              "spelled out; standard error and "
              "the exit status are part of the output, and nothing is sent by mail");
  import.note(place,
              "HOME and LOGNAME are not set, and the working directory is /, unless a line HOME= "
              "precedes; a failed run is not repeated");
  import.note(place, fmt::format("the times are those of {}; --zone chooses another time zone",
                                 style.zone));
}
