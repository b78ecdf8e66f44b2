#pragma once

#include <chrono>

class Session;

/// The options of an upgrade.
struct UpgradeMode {
  bool isDryRun = false;            // all of it, then a rollback
  std::chrono::seconds patience{};  // how long to try for the tables' locks
};

/// Brings the database's tables to this koductl's version and redefines views, functions and
/// triggers, in one transaction. The daemon may keep running. Returns the previous version. Throws
/// Failure and changes nothing when it cannot: no tables, a newer version, another upgrade, no lock
/// within `patience`, a statement that fails.
int upgradeSchema(Session& session, const UpgradeMode& mode);
