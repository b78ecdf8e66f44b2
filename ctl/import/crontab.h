#pragma once

#include <string>

class Import;
struct Source;

/// How a crontab is read.
struct CrontabStyle {
  bool hasUsers = false;  // a line names the user before the command
  std::string zone;       // of the times
  std::string prefix;     // of the keys
};

/// True for /etc/crontab and the files of a directory cron.d, whose lines name users.
bool isSystemCrontab(const std::string& path);

/// Adds a task for each line of a crontab: /bin/sh executes the command in the environment that
/// cron gives it, as far as the file tells. What has no equivalent is reported. The key of a task
/// depends on its command alone, so that it outlives other times and other lines.
void importCrontab(const Source& source, const CrontabStyle& style, Import& import);
