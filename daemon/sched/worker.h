#pragma once

/// Worker thread `number`: takes due tasks off queueExecTask, runs each one's plugin, writes its
/// output file, records the outcome in the database, archives the output of a failed run, and puts
/// the task back on serviceQueue with its next time. Never joined; returns when it finds the stop
/// flag set, after a wake-up or between tasks.
///
/// Exceptions that it does not catch end the process, which is then restarted and resumes from the
/// database: PostgresqlException from a statement, std::filesystem::filesystem_error from the
/// archive (a copy that exists already among them), std::logic_error when the task's row was
/// deleted during its run.
void th_executeCronTaks(int number);
