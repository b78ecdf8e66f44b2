#pragma once

class Findings;
class Session;
struct DaemonConfig;
struct DaemonIdentity;

// The parts of koductl check. Each adds its findings and continues.

/// Both INI files, the log and the directories that they name.
void checkConfig(const DaemonConfig& config, const DaemonIdentity& daemon, Findings& findings);

/// The role's rights, the session's time zone, whether one daemon is connected.
void checkDatabase(Session& session, const DaemonIdentity& daemon, Findings& findings);

/// Every task's row, plugin and output file. Memory does not depend on the number of tasks.
void checkTasks(Session& session, const DaemonIdentity& daemon, Findings& findings);
