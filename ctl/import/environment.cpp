#include "ctl/import/environment.h"

#include <fmt/format.h>

#include <algorithm>

#include "ctl/import/import.h"
#include "ctl/import/lines.h"
#include "ctl/import/names.h"
#include "ctl/import/shellCommand.h"

namespace {

bool isQuote(char c) {
  return c == '"' || c == '\'';
}

/// What a shell takes for the name of a variable.
bool isVariable(std::string_view name) {
  const auto isPart = [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
  };
  return !name.empty() && !(name.front() >= '0' && name.front() <= '9') &&
         std::all_of(name.begin(), name.end(), isPart);
}

bool isZone(std::string_view name) {
  return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
    return isVariable(std::string_view(&c, 1)) || (c >= '0' && c <= '9') || c == '/' || c == '+' ||
           c == '-';
  });
}

/// Takes a quoted or plain name off the line; "" when it begins otherwise.
std::string takeName(std::string_view& line) {
  const bool isQuoted = !line.empty() && isQuote(line.front());
  const std::size_t end = isQuoted ? line.find(line.front(), 1) : line.find_first_of(" \t=");
  if (end == std::string_view::npos) {
    return "";
  }
  std::string name(line.substr(isQuoted ? 1 : 0, end - (isQuoted ? 1 : 0)));
  line.remove_prefix(end + (isQuoted ? 1 : 0));
  return name;
}

std::string unquoted(std::string_view value) {
  const bool isQuoted = value.size() > 1 && isQuote(value.front()) && value.back() == value.front();
  return std::string(isQuoted ? value.substr(1, value.size() - 2) : value);
}

}  // namespace

std::optional<Assignment> assignmentIn(std::string_view line) {
  const std::string name = takeName(line);
  line = trimmed(line);
  if (name.empty() || !line.starts_with('=')) {
    return std::nullopt;
  }
  return Assignment{name, unquoted(trimmed(line.substr(1)))};
}

void CrontabEnvironment::set(const Assignment& assignment, const Place& place, Import& import) {
  const auto& [name, value] = assignment;
  if (name == "MAILTO" || name == "MAILFROM" || name.starts_with("CONTENT_")) {
    import.note(place, fmt::format("{} has no effect: outputs are stored, not sent", name));
  } else if (name == "CRON_TZ" && isZone(value)) {
    timeZone = value;
  } else if (name == "LOGNAME" || name == "RANDOM_DELAY" || name == "CRON_TZ") {
    import.leaveOut(place, fmt::format("{}={} has no equivalent", name, excerpt(value)));
  } else if ((name == "SHELL" || name == "HOME") && !value.starts_with('/')) {
    import.leaveOut(place, fmt::format("{} is not an absolute path", name));
  } else if (!isVariable(name)) {
    import.leaveOut(place, fmt::format("no shell has a variable with the name {}", excerpt(name)));
  } else {
    assign(name, value);
  }
}

void CrontabEnvironment::assign(const std::string& name, const std::string& value) {
  if (name == "SHELL") {
    shellPath = value;
  } else if (name == "HOME") {
    homePath = value;
  }
  const auto known = std::find_if(variables.begin(), variables.end(),
                                  [&name = name](const auto& one) { return one.first == name; });
  if (known != variables.end()) {
    known->second = value;
  } else {
    variables.emplace_back(name, value);
  }
}

std::string CrontabEnvironment::exports() const {
  std::string command = "export";
  for (const auto& [name, value] : variables) {
    command += fmt::format(" {}={}", name, shellWord(value));
  }
  return command + "; ";
}
