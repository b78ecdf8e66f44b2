#pragma once

#include <string>
#include <vector>

/// Reads task definitions from the database: all of them when `ids` is null, else those that it
/// lists (an empty list reads all as well). `mode` "ADD" enters each task into cronTaskMap, in
/// place of one with its id, and into serviceQueue. "UPDATE" replaces or updates the tasks that are
/// loaded and adds none. Any other mode reads the tasks and drops them. Overdue tasks are moved
/// past the present in the database in every mode.
///
/// A row that cannot be made into a task is logged and skipped; what was done for it stays. Throws
/// PostgresqlException when the query fails; nothing has been changed then. Called by `main` before
/// the threads start and by the listener after; takes mutexTaskMap itself, and
/// in "UPDATE" waits with it for the end of a run of the task that it replaces or updates.
void load_cron_task(std::string mode, std::vector<int>* ids);
