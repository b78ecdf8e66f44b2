#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ctl/declared/mistakes.h"

class Import;

/// NAME=VALUE in a crontab. Blanks around "=" do not count; each side may be quoted.
struct Assignment {
  std::string name, value;
};

/// Nothing for a line that is none. `line` has no blanks at its ends.
std::optional<Assignment> assignmentIn(std::string_view line);

/// What the lines of a crontab set for those that follow. Owned by one thread.
class CrontabEnvironment {
 public:
  /// `zone` is that of the times until CRON_TZ names another.
  explicit CrontabEnvironment(std::string zone) : timeZone(std::move(zone)) {}

  /// Follows a line, or reports why not.
  void set(const Assignment& assignment, const Place& place, Import& import);

  /// The program that executes commands.
  const std::string& shell() const { return shellPath; }
  /// The working directory; "": none is set.
  const std::string& home() const { return homePath; }
  const std::string& zone() const { return timeZone; }
  /// A command of /bin/sh that sets all variables: "export SHELL=/bin/sh PATH=/usr/bin:/bin; ".
  std::string exports() const;

 private:
  void assign(const std::string& name, const std::string& value);

  std::string timeZone, homePath;
  std::string shellPath = "/bin/sh";
  // In the order in which they came first; with those that cron gives every command.
  std::vector<std::pair<std::string, std::string>> variables = {{"SHELL", "/bin/sh"},
                                                                {"PATH", "/usr/bin:/bin"}};
};
