#include "ctl/import/nagios.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>
#include <optional>
#include <set>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "ctl/declared/sources.h"
#include "ctl/import/import.h"
#include "ctl/import/nagiosGroups.h"
#include "ctl/import/nagiosMacros.h"
#include "ctl/import/nagiosObjects.h"
#include "ctl/import/nagiosPeriod.h"
#include "ctl/import/names.h"
#include "ctl/import/shellCommand.h"
#include "ctl/task/arguments.h"

namespace {

/// The first of these directives that is there, by its present and former names.
const Directive* directiveOf(const NagiosObject& object, std::initializer_list<const char*> names) {
  for (const char* name : names) {
    if (const auto found = object.directives.find(name); found != object.directives.end()) {
      return &found->second;
    }
  }
  return nullptr;
}

/// The number of a directive, `standard` without it; nothing for another text.
std::optional<double> numberOf(const Directive* directive, double standard) {
  if (directive == nullptr) {
    return standard;
  }
  char* end = nullptr;
  const double number = std::strtod(directive->value.c_str(), &end);
  const bool isNumber = !directive->value.empty() && *end == '\0' && number >= 0 && number < 1e6;
  return isNumber ? std::optional(number) : std::nullopt;
}

/// How often a check runs, in seconds.
struct Rhythm {
  long every = 0, retryAfter = 0;
  long retries = 0;
};

/// Turns checks into tasks.
class CheckReader {
 public:
  CheckReader(NagiosObjects& read, std::string timeZone, std::string keyPrefix, Import& collected)
      : objects(read), zone(std::move(timeZone)), prefix(std::move(keyPrefix)), import(collected) {
    for (NagiosObject& command : objects.registered("command")) {
      commands[valueOf(command, "command_name")] = valueOf(command, "command_line");
    }
    for (const NagiosObject& period : objects.registered("timeperiod")) {
      periods[valueOf(period, "timeperiod_name")] = weeklyPeriod(period, import);
    }
    hosts = objects.registered("host");
    groups = HostGroups(hosts, objects.registered("hostgroup"), import);
  }

  void readAll() {
    for (const NagiosObject& host : hosts) {
      if (valueOf(host, "host_name").empty()) {
        import.leaveOut(host.place, "the host has no host_name");
      } else if (host.directives.count("check_command") > 0) {
        readCheck(host, host, nullptr);
      }
    }
    for (const NagiosObject& service : objects.registered("service")) {
      if (valueOf(service, "service_description").empty()) {
        import.leaveOut(service.place, "the service has no service_description");
        continue;
      }
      for (const std::size_t host : groups.hostsOf(service, import)) {
        readCheck(service, hosts[host], &service);
      }
    }
  }

 private:
  /// `check` is the service or, of the check of the host itself, the host.
  void readCheck(const NagiosObject& check, const NagiosObject& host, const NagiosObject* service) {
    const std::string hostName = valueOf(host, "host_name");
    const std::string serviceName =
        service == nullptr ? "" : valueOf(*service, "service_description");
    const std::string title =
        service == nullptr ? hostName : fmt::format("{} {}", hostName, serviceName);
    if (!known.insert(hostName + "\n" + serviceName).second) {
      return import.leaveOut(check.place, excerpt(title) + " is defined already");
    }
    const auto execution = executionFor(check, host, service, title);
    const auto rhythm = rhythmFor(check, title);
    if (!execution || !rhythm) {
      return;
    }
    std::string key = distinctKeyPart(hostName);
    if (service != nullptr) {
      key += '/';
      key += distinctKeyPart(serviceName);
    }
    Definition definition = {{"plugin", execution->plugin},
                             {"name", excerpt(title)},
                             {"retries", std::to_string(rhythm->retries)}};
    if (!execution->arguments.empty()) {
      definition["arguments"] = parameterString(execution->arguments);
    }
    if (rhythm->retries > 0) {
      definition["retry-after"] = periodText(std::to_string(rhythm->retryAfter));
    }
    setTimes(check, title, rhythm->every, definition);
    import.add(prefix, key, std::move(definition));
    reportHandlers(check, title);
  }

  std::optional<Execution> executionFor(const NagiosObject& check, const NagiosObject& host,
                                        const NagiosObject* service, const std::string& title) {
    const Directive* directive = directiveOf(check, {"check_command"});
    const auto refuse = [&](const std::string& reason) {
      import.leaveOut(directive == nullptr ? check.place : directive->place,
                      fmt::format("{}: {}", excerpt(title), reason));
      return std::nullopt;
    };
    if (directive == nullptr) {
      return refuse("there is no check_command");
    }
    if (valueOf(check, "active_checks_enabled") == "0") {
      return refuse("active checks are disabled");
    }
    const std::vector<std::string> parts = splitCheckCommand(directive->value);
    const auto command = commands.find(parts.front());
    if (command == commands.end()) {
      return refuse(fmt::format("the command {} is not defined", excerpt(parts.front())));
    }
    const ExpandedText line = expand(command->second, parts, host, service);
    if (!line.reason.empty()) {
      return refuse(line.reason);
    }
    auto execution = executionOf(line.text);
    if (!execution) {
      return refuse("the command is empty, or longer than an argument of a task can be");
    }
    return execution;
  }

  /// The macros of arguments are replaced first; what they come to is not searched for more.
  ExpandedText expand(const std::string& text, const std::vector<std::string>& parts,
                      const NagiosObject& host, const NagiosObject* service) const {
    std::string reason;
    const MacroValue plain = [&](const std::string& name) { return macroOf(name, host, service); };
    const MacroValue all = [&](const std::string& name) -> std::optional<std::string> {
      constexpr std::size_t kMostArguments = 32;
      const std::size_t number =
          name.starts_with("ARG") ? std::strtoul(name.c_str() + 3, nullptr, 10) : 0;
      if (number == 0 || number > kMostArguments) {
        return plain(name);
      }
      if (number >= parts.size()) {
        return "";
      }
      const ExpandedText argument = expandMacros(parts[number], plain);
      reason = argument.reason.empty() ? reason : argument.reason;
      return argument.text;
    };
    ExpandedText result = expandMacros(text, all);
    result.reason = result.reason.empty() ? reason : result.reason;
    return result;
  }

  std::optional<std::string> macroOf(const std::string& name, const NagiosObject& host,
                                     const NagiosObject* service) const {
    const auto first = [](const NagiosObject& object, std::initializer_list<const char*> names) {
      const Directive* directive = directiveOf(object, names);
      return directive == nullptr ? std::nullopt : std::optional(directive->value);
    };
    if (const auto value = objects.macros().find(name); value != objects.macros().end()) {
      return value->second;
    }
    if (name == "HOSTNAME") {
      return first(host, {"host_name"});
    }
    if (name == "HOSTADDRESS") {
      return first(host, {"address", "host_name"});
    }
    if (name == "HOSTALIAS") {
      return first(host, {"alias", "host_name"});
    }
    if (name == "HOSTDISPLAYNAME") {
      return first(host, {"display_name", "host_name"});
    }
    if (name.starts_with("_HOST")) {
      return customOf(name.substr(5), host);
    }
    if (service == nullptr) {
      return std::nullopt;
    }
    if (name == "SERVICEDESC") {
      return first(*service, {"service_description"});
    }
    if (name == "SERVICEDISPLAYNAME") {
      return first(*service, {"display_name", "service_description"});
    }
    return name.starts_with("_SERVICE") ? customOf(name.substr(8), *service) : std::nullopt;
  }

  /// A variable of the object's own, "_NAME", whatever its case.
  static std::optional<std::string> customOf(const std::string& name, const NagiosObject& object) {
    for (const auto& [directive, value] : object.directives) {
      const auto isSame = [](char one, char other) {
        return one == (other >= 'a' && other <= 'z' ? static_cast<char>(other - 'a' + 'A') : other);
      };
      if (directive.starts_with('_') &&
          std::equal(name.begin(), name.end(), directive.begin() + 1, directive.end(), isSame)) {
        return value.value;
      }
    }
    return std::nullopt;
  }

  /// By the defaults of the format: every five minutes, retries after one.
  std::optional<Rhythm> rhythmFor(const NagiosObject& check, const std::string& title) {
    const Directive* interval = directiveOf(check, {"check_interval", "normal_check_interval"});
    const auto every = numberOf(interval, 5);
    const auto retry = numberOf(directiveOf(check, {"retry_interval", "retry_check_interval"}), 1);
    const auto attempts = numberOf(directiveOf(check, {"max_check_attempts"}), 1);
    constexpr long kShortestRetry = 2;  // seconds
    constexpr long kLongest = 366 * 86400L;
    const Rhythm rhythm = {std::lround(every.value_or(0) * 60),
                           std::max(kShortestRetry, std::lround(retry.value_or(0) * 60)),
                           std::max(0L, static_cast<long>(attempts.value_or(0)) - 1)};
    const bool isGood = every && retry && attempts && rhythm.every > 0 &&
                        rhythm.every <= kLongest && rhythm.retryAfter <= kLongest;
    if (!isGood) {
      import.leaveOut(interval == nullptr ? check.place : interval->place,
                      fmt::format("{}: check_interval, retry_interval and max_check_attempts do "
                                  "not make an interval from 1 second to 366 days",
                                  excerpt(title)));
    }
    return isGood ? std::optional(rhythm) : std::nullopt;
  }

  /// An interval or, within a time period, a calendar.
  void setTimes(const NagiosObject& check, const std::string& title, long every,
                Definition& definition) {
    definition["every"] = periodText(std::to_string(every));
    const Directive* name = directiveOf(check, {"check_period"});
    if (name == nullptr) {
      return;
    }
    const auto period = periods.find(name->value);
    if (period != periods.end() && period->second.isAlways()) {
      return;
    }
    const auto seed = static_cast<unsigned>(std::stoul(digest(title), nullptr, 16));
    const auto calendar = period == periods.end() || every % 60 != 0
                              ? std::nullopt
                              : calendarWithin(period->second, static_cast<int>(every / 60), seed);
    if (!calendar) {
      return import.leaveOut(
          name->place, fmt::format("{}: no calendar says every {} within the time period {}; the "
                                   "task runs at all times",
                                   excerpt(title), definition["every"], excerpt(name->value)));
    }
    definition["at"] = *calendar;
    definition["zone"] = zone;
  }

  void reportHandlers(const NagiosObject& check, const std::string& title) {
    if (const Directive* handler = directiveOf(check, {"event_handler"})) {
      import.leaveOut(handler->place,
                      fmt::format("{}: an event_handler has no equivalent; kodunotify can run "
                                  "commands after events",
                                  excerpt(title)));
    }
  }

  NagiosObjects& objects;
  const std::string zone, prefix;
  Import& import;
  std::unordered_map<std::string, std::string> commands;  // command lines by their names
  std::unordered_map<std::string, WeeklyPeriod> periods;
  std::vector<NagiosObject> hosts;
  HostGroups groups;
  std::unordered_set<std::string> known;  // hosts and services
};

}  // namespace

void importNagios(const std::vector<Source>& sources, const std::string& zone,
                  const std::string& prefix, Import& import) {
  NagiosObjects objects(import);
  for (const Source& source : sources) {
    objects.read(source);
  }
  CheckReader(objects, zone, prefix, import).readAll();
  objects.reportOthers();
  if (!import.tasks().empty()) {
    const Place place = {sources.front().name, 0};
    import.note(place,
                "intervals are in units of 60 seconds; a retry is counted from the time at which "
                "the run was due; plugins get no environment");
    import.note(place,
                "run koductl stagger after koductl apply, to spread runs over the intervals");
  }
}
