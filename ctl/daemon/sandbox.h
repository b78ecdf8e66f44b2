#pragma once

#include <string>
#include <vector>

struct DaemonIdentity;

/// The settings that make another unit's sandbox equal to that of the daemon's unit, as arguments
/// of systemd-run's --property: "ProtectSystem=full". `properties` is the list of unitProperties().
std::vector<std::string> sandboxSettings(const std::string& properties);

/// Runs this program with the argument `mode` in the sandbox of the daemon's unit, as the daemon's
/// user and in its directory, with `input` on its standard input; its standard error is this
/// process's. Returns its standard output. SIGINT and SIGTERM end it and this process. Throws
/// Failure (kNotPermitted) when it does not end with the exit status 0. Only root can do it.
std::string runInSandbox(const DaemonIdentity& daemon, const std::string& mode,
                         const std::string& input);
