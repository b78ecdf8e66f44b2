#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

/// What stands in the place of a file and cannot be opened without waiting for another process:
/// "it is a FIFO" or "it is a socket"; nothing for all else. `mode` is st_mode.
std::optional<std::string> waitingKind(mode_t mode);

/// The content of a regular file, cut at `most` bytes. Never waits: what is no regular file, or a
/// link to none, is refused. Throws Failure, kNotPermitted or kNotFound.
std::string readRegularFile(const std::string& path, std::size_t most = SIZE_MAX);
