#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

/// The daemon's unit.
constexpr const char* kServiceUnit = "koducron.service";

/// True when a service manager runs on this machine.
bool hasServiceManager();

/// The main process of the service manager's unit koducron.service; nothing without a service
/// manager or while the unit is not running.
std::optional<pid_t> daemonOfServiceManager();

/// The lines "NAME=VALUE" of the unit's properties with these names; "" without a service manager.
std::string unitProperties(const std::vector<std::string>& names);

/// The times, in seconds since the epoch and in order, at which the service manager restarted the
/// unit by itself since then, as its journal has them. Nothing when the journal cannot be read.
std::optional<std::vector<long>> restartsSince(long time);
