#pragma once

#include <string>
#include <vector>

/// The lines that turn `before` into `after`, in order: "-" and a line that goes, "+" and one that
/// comes. Empty when the texts are the same, line for line.
std::vector<std::string> diffLines(const std::string& before, const std::string& after);
