#pragma once

/// Purges every task whose row is flagged for deletion: takes it out of cronTaskMap, marks it so
/// that the worker that meets it drops it, removes its output file, its archive directory, its
/// history rows and its row, in this order. A purge that is cut short leaves the row flagged, and
/// the next one repeats the steps; what is already absent is not an error. A flagged id that is not
/// loaded loses its archive directory and rows all the same.
///
/// What it throws, and what has happened by then to the task of that row (those before it are
/// purged, those behind it untouched):
///   PostgresqlException of the query for flagged rows: nothing, to any task;
///   std::invalid_argument, std::out_of_range for an id that is not a number: nothing;
///   std::filesystem::filesystem_error for its output file: out of the map, marked;
///   the same for its archive: also without its output file, perhaps without a part of the archive;
///   PostgresqlException of a delete: also without its files, and without its history when it was
///   the row's own delete.
/// Called by the admin thread; takes mutexTaskMap for the map's step alone, and the record's lock
/// for a file name with "$SERVICEID": it waits for the end of that task's run then.
void DeleteTask();
