#pragma once

#include <string>

/// Brings a task's next time out of the past: returns `nextExecText` (seconds since the epoch, in
/// decimal) when it is not before now; else skips whole intervals in the database, by one
/// statement, and returns what the database holds then, in seconds since the epoch. A gap of more
/// than some 194 days may come out one interval short, in the past still.
///
/// `interval` is the task's period in seconds, not 0; `taskId` its id. Throws
/// std::invalid_argument or std::out_of_range for a text that is no number, PostgresqlException
/// when the statement fails, std::logic_error when the task's row is gone. Any thread may call it.
long long getNextTimeToExec(std::string nextExecText, unsigned int interval, std::string taskId);
