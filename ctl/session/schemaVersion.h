#pragma once

#include <string>

class Session;

/// The version of the tables that this koductl was built for.
int knownSchemaVersion();

/// The state of a database's tables.
struct SchemaState {
  bool tablesExist = false;
  bool isReadable = true;  // false: the role may not read the version, which counts as known
  int version = 0;         // 0: the first release, which recorded none

  bool isBehind() const { return tablesExist && isReadable && version < knownSchemaVersion(); }
  bool isNewer() const { return isReadable && version > knownSchemaVersion(); }
};

SchemaState readSchemaState(Session& session);

/// Throws Failure (kRefused) when the tables are of a later release than this koductl.
void refuseNewerSchema(const SchemaState& state);

/// The advice for tables of an earlier release.
std::string upgradeAdvice(const SchemaState& state);
