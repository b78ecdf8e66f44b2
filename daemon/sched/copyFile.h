#pragma once

#include <string>

/// Copies the regular file `from`, its mode included, to `to`, which must not exist. Throws
/// std::filesystem::filesystem_error when that fails; a partial copy may remain then. Both files
/// are opened close-on-exec, so that plugins started by other workers do not inherit them. Any
/// thread may call it.
void copyToNewFile(const std::string& from, const std::string& to);
