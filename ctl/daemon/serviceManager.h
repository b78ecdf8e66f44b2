#pragma once

#include <sys/types.h>

#include <optional>

/// The process that the service manager has started as the daemon, by its unit koducron.service;
/// nothing where no service manager runs, or while the unit does not.
std::optional<pid_t> daemonOfServiceManager();
