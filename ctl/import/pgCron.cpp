#include "ctl/import/pgCron.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <map>
#include <optional>
#include <string_view>
#include <vector>

#include "ctl/declared/sources.h"
#include "ctl/import/import.h"
#include "ctl/import/lines.h"
#include "ctl/import/names.h"
#include "ctl/import/records.h"
#include "ctl/import/schedule.h"
#include "ctl/import/shellCommand.h"
#include "ctl/task/arguments.h"

namespace {

constexpr const char* kPsql = "/usr/bin/psql";

using Columns = std::vector<std::string>;

/// Those of the table, in its order.
const Columns& tableColumns() {
  static const Columns columns = {"jobid",    "schedule", "command", "nodename", "nodeport",
                                  "database", "username", "active",  "jobname"};
  return columns;
}

bool isHeader(const Columns& names) {
  return std::find(names.begin(), names.end(), "schedule") != names.end() &&
         std::find(names.begin(), names.end(), "command") != names.end();
}

/// A job by the names of its columns.
using Job = std::map<std::string, std::string>;

/// "30 seconds" as an interval; nothing for another schedule.
std::optional<std::string> intervalOf(const std::string& schedule) {
  std::string_view rest = schedule;
  const std::string number(takeWord(rest));
  const bool isNumber = !number.empty() && number.size() < 3 && number.front() != '0' &&
                        number.find_first_not_of("0123456789") == std::string::npos;
  return isNumber && (rest == "second" || rest == "seconds") ? std::optional(number + "s")
                                                             : std::nullopt;
}

/// A calendar, in which "$" was the last day of the month.
Schedule calendarOf(const std::string& schedule) {
  std::string_view rest = trimmed(schedule);
  if (rest.starts_with('@')) {
    return scheduleOf(std::string(rest));
  }
  constexpr std::size_t kDay = 2;
  std::vector<std::string> fields;
  while (!rest.empty()) {
    fields.emplace_back(takeWord(rest));
  }
  const bool isLastDay = fields.size() > kDay && fields[kDay] == "$";
  if (isLastDay) {
    fields[kDay] = std::string("28");
  }
  Schedule result = scheduleOf(fields);
  if (isLastDay && result.reason.empty()) {
    fields[kDay] = std::string("L");
    result.calendar = fmt::format("{}", fmt::join(fields, " "));
  }
  return result;
}

/// Reads the rows of one file.
class JobReader {
 public:
  JobReader(std::string file, std::string zone, std::string keyPrefix, Import& collected)
      : name(std::move(file)),
        timeZone(std::move(zone)),
        prefix(std::move(keyPrefix)),
        import(collected) {}

  void read(const std::vector<TableRow>& rows) {
    for (const TableRow& row : rows) {
      const Place place = {name, row.line};
      if (!row.mistake.empty()) {
        import.leaveOut(place, row.mistake);
      } else if (isHeader(row.values)) {
        columns = row.values;
      } else if (row.values.size() == columns.size()) {
        addTask(place, jobOf(row));
      } else if (row.values != Columns{""}) {
        import.leaveOut(place, fmt::format("the row has {} values, and not {}", row.values.size(),
                                           columns.size()));
      }
    }
  }

 private:
  Job jobOf(const TableRow& row) const {
    Job job;
    for (std::size_t i = 0; i < columns.size(); ++i) {
      job[columns[i]] = row.values[i];
    }
    return job;
  }

  void addTask(const Place& place, const Job& job) {
    Definition definition = {{"retries", "0"}};
    if (const auto interval = intervalOf(textOf(job, "schedule"))) {
      definition["every"] = *interval;
    } else {
      const Schedule schedule = calendarOf(textOf(job, "schedule"));
      if (!schedule.reason.empty()) {
        return import.leaveOut(place, schedule.reason);
      }
      definition["at"] = schedule.calendar;
      definition["zone"] = timeZone;
    }
    if (!setCommand(job, definition)) {
      return import.leaveOut(place,
                             "the statement is empty, has a zero byte, or is longer than an "
                             "argument of a task can be");
    }
    if (const std::string active = textOf(job, "active"); active == "f" || active == "false") {
      definition["paused"] = "true";
      definition["reason"] = "not active in cron.job";
    }
    const std::string jobName = textOf(job, "jobname");
    definition["name"] = excerpt(jobName.empty() ? textOf(job, "command") : jobName);
    import.add(prefix,
               jobName.empty() ? fmt::format("job-{}", keyPart(textOf(job, "jobid")))
                               : distinctKeyPart(jobName),
               std::move(definition));
  }

  static std::string textOf(const Job& job, const std::string& column) {
    const auto found = job.find(column);
    return found == job.end() ? "" : found->second;
  }

  /// False when no argument can hold the statement.
  static bool setCommand(const Job& job, Definition& definition) {
    const std::string statement = textOf(job, "command");
    std::vector<std::string> arguments = {kPsql, "-X", "-v", "ON_ERROR_STOP=1"};
    const auto add = [&](const char* option, const char* column) {
      if (const std::string value = textOf(job, column); !value.empty()) {
        arguments.insert(arguments.end(), {option, value});
      }
    };
    add("-h", "nodename");
    add("-p", "nodeport");
    add("-U", "username");
    add("-d", "database");
    arguments.insert(arguments.end(), {"-c", statement});
    const auto execution = executionOf(arguments);
    if (statement.empty() || !execution) {
      return false;
    }
    definition["plugin"] = execution->plugin;
    definition["arguments"] = parameterString(execution->arguments);
    return true;
  }

  const std::string name, timeZone, prefix;
  Import& import;
  Columns columns = tableColumns();
};

}  // namespace

void importPgCron(const Source& source, const std::string& zone, const std::string& prefix,
                  Import& import) {
  const std::size_t before = import.tasks().size();
  const std::string firstLine = source.content.substr(0, source.content.find('\n'));
  const bool isCsv = firstLine.find('\t') == std::string::npos;
  JobReader(source.name, zone, prefix, import)
      .read(isCsv ? readCsv(source.content) : readCopyText(source.content));
  if (import.tasks().size() == before) {
    return;
  }
  const Place place = {source.name, 0};
  import.note(place,
              fmt::format("{} executes each statement; the daemon's user needs a password in "
                          "~/.pgpass or another way to connect",
                          kPsql));
  import.note(place,
              fmt::format("the times are those of {}; --zone chooses another time zone", zone));
}
