#pragma once

/// Purges every task whose row is flagged for deletion: takes it out of cronTaskMap, marks it so
/// that the worker that meets it drops it, removes its output file, its archive directory, its
/// history rows and its row, in this order. A purge that is cut short leaves the row flagged, and
/// the next one repeats the steps; what is absent already is no error. A flagged id that is not
/// loaded loses its archive directory and rows all the same.
///
/// Throws PostgresqlException, std::invalid_argument or std::out_of_range for an id that is no
/// number, std::filesystem::filesystem_error for a file that cannot be removed; the task is out of
/// the map and its rows are there by then. Called by the admin thread; takes mutexTaskMap for the
/// map's step alone.
void DeleteTask();
