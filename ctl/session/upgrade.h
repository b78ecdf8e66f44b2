#pragma once

#include <chrono>

class Session;

/// How an upgrade is run.
struct UpgradeMode {
  bool isDryRun = false;            // all of it, then back
  std::chrono::seconds patience{};  // how long to try for the tables' locks
};

/// Brings the database's tables to this koductl's version and defines views, functions and triggers
/// anew, in one transaction, while the daemon may run. Returns the version that was there. Throws
/// Failure and leaves everything as it was: no tables, a newer version, another upgrade, no lock
/// within `patience`, a statement that fails.
int upgradeSchema(Session& session, const UpgradeMode& mode);
