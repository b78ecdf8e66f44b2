#pragma once

#include <string>

class Import;
struct Source;

/// Adds a task for each row of the table cron.job: psql executes the statement. The source is the
/// output of one of these commands, with the columns of the table in any order:
///
///     psql --csv -c 'SELECT * FROM cron.job'
///     psql -c 'COPY cron.job TO STDOUT'        without names: in the order of the table
///     psql -c "COPY cron.job TO STDOUT (HEADER)"
///
/// The times are those of `zone`. The keys begin with `prefix` and end in the name of the job or,
/// when it has none, in its id.
void importPgCron(const Source& source, const std::string& zone, const std::string& prefix,
                  Import& import);
