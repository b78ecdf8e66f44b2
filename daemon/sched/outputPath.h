#pragma once

#include <memory>
#include <string>

class serviceCron;

// Where a task's output goes. A file name can contain two placeholders: "$DATE", which is "last"
// for the current output and the time for an archive copy, and "$SERVICEID", the task's id. Any
// thread may call these; they wait while the task's plugin runs, because they read the task's id.

/// `text` with its first "$DATE" replaced by the local time as "2024-05-01_13-02-09" and then its
/// first "$SERVICEID" by the task's id. Later ones are not replaced; the clock is read only for a
/// "$DATE".
std::string replaceParameter(std::string text, std::shared_ptr<serviceCron> task);

/// The path of the task's current output file below `directory`, whose own placeholders count
/// first.
std::string currentOutputPath(const std::string& directory,
                              const std::shared_ptr<serviceCron>& task);

/// The directory of the archive copies of the task with this id below `directory`, with a trailing
/// slash.
std::string archiveDirectory(const std::string& directory, const std::string& taskId);
