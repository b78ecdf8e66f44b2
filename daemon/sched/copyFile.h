#pragma once

#include <string>

/// Copies the regular file `from`, its mode included, to `to`, which must not exist; into `to` when
/// that is a directory. Throws std::filesystem::filesystem_error when that fails; a part of the
/// copy may stay then. Both files are open close-on-exec meanwhile: no plugin that another worker
/// starts inherits them. Any thread may call it.
void copyToNewFile(const std::string& from, const std::string& to);
