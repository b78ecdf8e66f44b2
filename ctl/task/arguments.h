#pragma once

#include <string>
#include <vector>

/// The text that the daemon splits into exactly these arguments. Throws Failure (kRefused) when
/// there is none: no argument can contain a quote, which only switches quoting on and off, and the
/// daemon drops empty arguments.
std::string parameterString(const std::vector<std::string>& arguments);
