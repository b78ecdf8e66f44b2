#include <fmt/format.h>

#include <string>

#include "core/iniConfig.h"
#include "ctl/check/checks.h"
#include "ctl/check/findings.h"
#include "ctl/daemon/daemonProcess.h"
#include "ctl/session/schemaVersion.h"
#include "ctl/session/session.h"

namespace {

// The rights that the daemon's statements need and the role of the INI file lacks. A missing table
// counts as a missing right.
constexpr const char* kMissingRights = R"(
SELECT format('%s on %s', need.privilege, need.object) AS missing
FROM (VALUES ('SELECT', 'kodu_plugins'), ('SELECT', 'kodu_cron_plugin'),
             ('DELETE', 'kodu_cron_plugin'), ('SELECT', 'kodu_cron_error'),
             ('INSERT', 'kodu_cron_error'), ('DELETE', 'kodu_cron_error')) AS need (privilege, object)
WHERE to_regclass(need.object) IS NULL
   OR NOT CASE need.privilege
              WHEN 'DELETE' THEN has_table_privilege($1, to_regclass(need.object), 'DELETE')
              ELSE has_any_column_privilege($1, to_regclass(need.object), need.privilege) END
UNION ALL
SELECT format('UPDATE (%s) on kodu_cron_plugin', changed)
FROM unnest(ARRAY['cron_status', 'cron_last_exec', 'cron_next_exec']) AS changed
WHERE to_regclass('kodu_cron_plugin') IS NOT NULL
  AND NOT has_column_privilege($1, to_regclass('kodu_cron_plugin'), changed, 'UPDATE')
UNION ALL
SELECT format('USAGE on sequence %s', counter)
FROM pg_get_serial_sequence(to_regclass('kodu_cron_error')::text, 'cron_error_id') AS counter
WHERE NOT has_sequence_privilege($1, counter, 'USAGE'))";

// The zone that a session of this role has before koductl sets its own.
constexpr const char* kZone = R"(
SELECT reset_val AS zone, current_database() AS database,
       now() AT TIME ZONE reset_val = now() AT TIME ZONE 'UTC' AS is_utc
FROM pg_settings WHERE name = 'TimeZone')";

void checkRights(Session& session, const std::string& role, Findings& findings) {
  const Rows missing = session.query(kMissingRights, {role});
  for (int row = 0; row < missing.count(); ++row) {
    findings.addError(fmt::format("role {} lacks {}: load sql/schema.sql as the database's owner",
                                  role, missing.text(row, "missing")));
  }
}

void checkZone(Session& session, Findings& findings) {
  const Rows zone = session.query(kZone);
  if (!zone.isTrue(0, "is_utc")) {
    findings.addError(
        fmt::format("sessions have the time zone {}, but the daemon's times are UTC: "
                    "ALTER DATABASE {} SET timezone = 'UTC'",
                    zone.text(0, "zone"), zone.text(0, "database")));
  }
}

void checkDaemons(Session& session, const DaemonIdentity& daemon, Findings& findings) {
  if (!isDaemonConnected(session)) {
    findings.addWarning(daemon.pid ? "the daemon is running, but has no session in this database"
                                   : "the daemon has no session in this database: nothing runs");
  } else if (const long count = countDaemons(session); count > 1) {
    findings.addWarning(
        fmt::format("{} daemons are connected to this database: each of them runs every task, and "
                    "they can end each other; stop all but one",
                    count));
  }
}

}  // namespace

void checkDatabase(Session& session, const DaemonIdentity& daemon, Findings& findings) {
  const std::string role = trim(session.config.user);
  if (const SchemaState state = readSchemaState(session); state.isBehind()) {
    findings.addWarning(upgradeAdvice(state));
  }
  checkRights(session, role, findings);
  checkZone(session, findings);
  checkDaemons(session, daemon, findings);
}
