#pragma once

#include <string>
#include <vector>

/// "; did you mean retry-after?" for a word that is much like one of `known`; else the list of
/// them.
std::string suggestion(const std::string& word, const std::vector<std::string>& known);
