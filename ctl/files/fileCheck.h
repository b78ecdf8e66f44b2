#pragma once

#include <optional>
#include <string>

// Checks whether the daemon can use a file, with the present rights of this process (see AsDaemon).
// Each returns the reason why it cannot, or nothing.

/// For a plugin, by its path; a relative one counts from `directory`. Also checks the interpreter
/// that a script names.
std::optional<std::string> whyNotExecutable(const std::string& path, const std::string& directory);

/// For a file that exists or can be created.
std::optional<std::string> whyNotWritable(const std::string& path);

/// For a directory in which files are created.
std::optional<std::string> whyNoFilesIn(const std::string& directory);
