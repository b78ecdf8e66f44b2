#pragma once

#include <string>
#include <vector>

/// Texts as the value of a parameter of type text[] or, for numbers, int[].
std::string sqlArray(const std::vector<std::string>& texts);

/// An SQL expression for the seconds of an interval, as periodText() takes them. An interval with
/// months has no such number and stands for itself.
std::string sqlPeriod(const std::string& interval);
