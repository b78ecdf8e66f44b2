#pragma once

#include <sys/types.h>

#include <optional>

/// The main process of the service manager's unit koducron.service; nothing without a service
/// manager or while the unit is not running.
std::optional<pid_t> daemonOfServiceManager();
