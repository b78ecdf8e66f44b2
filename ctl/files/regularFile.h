#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

/// The kind of a file that cannot be opened without waiting for another process: "it is a FIFO" or
/// "it is a socket"; nothing for other kinds. `mode` is st_mode.
std::optional<std::string> waitingKind(mode_t mode);

/// The content of a regular file, cut at `most` bytes. Never waits: what is not a regular file or a
/// link to one is refused. Throws Failure, kNotPermitted or kNotFound.
std::string readRegularFile(const std::string& path, std::size_t most = SIZE_MAX);
