#pragma once

#include <optional>
#include <string>

// Whether the daemon could use a file: asked with the rights that this process has just now, see
// AsDaemon. Each returns the reason why not, or nothing.

/// For a plugin, by its path; a relative one counts from `directory`. Looks at the interpreter that
/// a script names, too.
std::optional<std::string> whyNotExecutable(const std::string& path, const std::string& directory);

/// For a file that is there, or could be made.
std::optional<std::string> whyNotWritable(const std::string& path);

/// For a directory in which files are made.
std::optional<std::string> whyNoFilesIn(const std::string& directory);
