#pragma once

#include <string>
#include <vector>

/// The text that the daemon splits into just these arguments. Throws Failure (kRefused) when none
/// is: quotes only switch quoting on and off there, so no argument can hold one, and empty
/// arguments are dropped.
std::string parameterString(const std::vector<std::string>& arguments);
