#pragma once

#include <optional>
#include <string>

/// The beginning of an output file, in at most `most` bytes. `path` lies in the daemon's output
/// directory. Plugins can write there, so no link is followed, and none of another program's files
/// is shown: nothing for such a path, and for a file that cannot be read.
std::optional<std::string> readOutputFile(const std::string& directory, const std::string& path,
                                          std::size_t most);
