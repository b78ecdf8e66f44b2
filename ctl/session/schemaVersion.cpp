#include "ctl/session/schemaVersion.h"

#include <fmt/format.h>

#include "ctl/failure.h"
#include "ctl/session/schemaSql.h"
#include "ctl/session/session.h"

namespace {

constexpr const char* kTables = R"(
SELECT to_regclass('public.kodu_cron_plugin') IS NOT NULL AS has_tables, version IS NOT NULL AS has_version,
       coalesce(has_table_privilege(version, 'SELECT'), true) AS is_readable
FROM to_regclass('public.kodu_schema_version') AS version)";

}  // namespace

int knownSchemaVersion() {
  return migrations().back().version;
}

SchemaState readSchemaState(Session& session) {
  const Rows tables = session.query(kTables);
  SchemaState state;
  state.tablesExist = tables.isTrue(0, "has_tables");
  state.isReadable = tables.isTrue(0, "is_readable");
  if (tables.isTrue(0, "has_version") && state.isReadable) {
    const Rows latest = session.query("SELECT max(version) AS version FROM kodu_schema_version");
    state.version = static_cast<int>(latest.number(0, "version"));
  }
  return state;
}

void refuseNewerSchema(const SchemaState& state) {
  if (state.isNewer()) {
    throw Failure(kRefused,
                  fmt::format("the database's tables have version {}, but this koductl knows "
                              "only version {}: install the koductl of the newer release",
                              state.version, knownSchemaVersion()));
  }
}

std::string upgradeAdvice(const SchemaState& state) {
  return fmt::format(
      "the database's tables have version {}, but this koductl requires version {}: "
      "run koductl --user OWNER schema upgrade",
      state.version, knownSchemaVersion());
}
