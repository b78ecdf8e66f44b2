#pragma once

#include <string>
#include <vector>

/// The lines that turn `before` into `after`, in order: "-" and a removed line, "+" and an added
/// line. Empty when the texts have the same lines.
std::vector<std::string> diffLines(const std::string& before, const std::string& after);
