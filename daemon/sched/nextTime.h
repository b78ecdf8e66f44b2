#pragma once

#include <string>

/// Moves a task's next time out of the past. Returns `nextExecText` (seconds since the epoch, in
/// decimal) unless it is before now. Otherwise skips whole intervals in the database, by one
/// statement, and returns the new value in seconds since the epoch. After a gap of more than about
/// 194 days the result can be one interval short, which is still in the past.
///
/// `interval` is the task's period in seconds, not 0; `taskId` its id. Throws std::invalid_argument
/// or std::out_of_range for a text that is not a number, PostgresqlException when the statement
/// fails, std::logic_error when the task's row is gone. Any thread may call it.
long long getNextTimeToExec(std::string nextExecText, unsigned int interval, std::string taskId);
