#include "ctl/terminal/chart.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "ctl/terminal/terminal.h"

namespace {

constexpr long kSteps = 8;  // of a block
constexpr std::array<const char*, kSteps + 1> kBlocks = {" ", "▁", "▂", "▃", "▄",
                                                         "▅", "▆", "▇", "█"};

/// The width of the numbers before a chart.
std::size_t labelWidth(long top) {
  return std::to_string(top).size() + 1;
}

/// The eighths of a line that a value fills; what is more than nothing can be seen.
long eighthsOf(long value, int rows, long top) {
  const long all = rows * kSteps;
  const long filled = top > 0 ? std::min(value, top) * all / top : 0;
  return value > 0 ? std::max(1L, filled) : 0;
}

}  // namespace

std::vector<long> compressed(const std::vector<long>& values, std::size_t columns) {
  if (values.size() <= columns) {
    return values;
  }
  std::vector<long> result(columns, 0);
  for (std::size_t i = 0; i < values.size(); ++i) {
    long& column = result[i * columns / values.size()];
    column = std::max(column, values[i]);
  }
  return result;
}

std::vector<std::string> chartLines(const std::vector<long>& values, int rows, long top) {
  std::vector<std::string> lines;
  for (int row = 0; row < rows; ++row) {
    const std::string label = row == 0 ? std::to_string(top) : row == rows - 1 ? "0" : "";
    std::string line = fmt::format("{:>{}} ", label, labelWidth(top) - 1);
    const long below = (rows - 1 - row) * kSteps;  // eighths of the lines below this one
    for (const long value : values) {
      const long filled = std::clamp(eighthsOf(value, rows, top) - below, 0L, kSteps);
      line += kBlocks.at(static_cast<std::size_t>(filled));
    }
    line.erase(line.find_last_not_of(' ') + 1);
    lines.push_back(line);
  }
  return lines;
}

std::string chartScale(const std::string& left, const std::string& right, std::size_t columns,
                       long top) {
  const std::size_t least = right.empty() ? 0 : 1;
  const std::size_t gap =
      left.size() + right.size() < columns ? columns - left.size() - right.size() : least;
  return std::string(labelWidth(top), ' ') + left + std::string(gap, ' ') + right;
}

std::size_t chartColumns(long top) {
  constexpr std::size_t kLeast = 20;
  const auto width = static_cast<std::size_t>(terminalSize().columns);
  return std::max(kLeast, width - std::min(width, labelWidth(top)));
}
