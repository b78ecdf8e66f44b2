#pragma once

#include <cstddef>
#include <string>

struct CommandDescription;

/// What --help prints for a command, or for koductl itself, in lines of 80 columns at most.
std::string helpText(const CommandDescription& command);

/// Breaks `text` into lines that end before column 80; a newline follows the last one. Every line
/// begins at column `indent`; the caller has written the text before the first line.
std::string wrapped(const std::string& text, std::size_t indent);
