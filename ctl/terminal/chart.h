#pragma once

#include <string>
#include <vector>

/// The largest value of each of at most `columns` parts of equal length; the values themselves
/// where they are fewer.
std::vector<long> compressed(const std::vector<long>& values, std::size_t columns);

/// Values from 0 on as columns of blocks, in `rows` lines of text. `top` is the value of a full
/// column; it stands before the first line, and 0 before the last.
std::vector<std::string> chartLines(const std::vector<long>& values, int rows, long top);

/// A line below a chart with that top: a text at its left and one at its right end.
std::string chartScale(const std::string& left, const std::string& right, std::size_t columns,
                       long top);

/// How many columns a chart with that top has on the present terminal.
std::size_t chartColumns(long top);
