#pragma once

#include <vector>

// The files below sql/ as of the build of koductl, so that version and tool cannot disagree.

/// One of sql/migrations/NNNN-TITLE.sql.
struct Migration {
  int version;
  const char* title;
  const char* sql;
};

/// All migrations in order; the version of the first is 1.
const std::vector<Migration>& migrations();

// Without BEGIN and COMMIT.

extern const char* const schemaSql;
extern const char* const functionsSql;
extern const char* const ledgerSql;
extern const char* const eventsSql;
extern const char* const metricsSql;
// These three are loaded again only where they were loaded before.
extern const char* const calendarSql;
extern const char* const windowsSql;
extern const char* const consoleSql;
extern const char* const hostsSql;
/// One statement: ends the runs that no daemon ends.
extern const char* const repairSql;
/// sql/migrations/before.sql and after.sql, run around the first five above.
extern const char* const beforeSql;
extern const char* const afterSql;
