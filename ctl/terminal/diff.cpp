#include "ctl/terminal/diff.h"

#include <algorithm>
#include <cstdint>
#include <sstream>

namespace {

using Lines = std::vector<std::string>;

/// With more pairs of lines than this, the whole differing part is shown as replaced.
constexpr std::size_t kMostPairs = 4'000'000;

Lines split(const std::string& text) {
  Lines lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

/// Drops the lines that both begin with, and those that both end in.
void dropCommonEnds(Lines& before, Lines& after) {
  const auto [front, otherFront] =
      std::mismatch(before.begin(), before.end(), after.begin(), after.end());
  before.erase(before.begin(), front);
  after.erase(after.begin(), otherFront);
  const auto [back, otherBack] =
      std::mismatch(before.rbegin(), before.rend(), after.rbegin(), after.rend());
  before.erase(back.base(), before.end());
  after.erase(otherBack.base(), after.end());
}

/// The length of the longest common subsequence of the rest of both from each pair of lines on.
class CommonLengths {
 public:
  CommonLengths(const Lines& before, const Lines& after)
      : width(after.size() + 1), lengths((before.size() + 1) * width) {
    for (std::size_t i = before.size(); i-- > 0;) {
      for (std::size_t j = after.size(); j-- > 0;) {
        lengths[i * width + j] =
            before[i] == after[j] ? at(i + 1, j + 1) + 1 : std::max(at(i + 1, j), at(i, j + 1));
      }
    }
  }

  std::uint32_t at(std::size_t i, std::size_t j) const { return lengths[i * width + j]; }

 private:
  std::size_t width;
  std::vector<std::uint32_t> lengths;
};

Lines compare(const Lines& before, const Lines& after) {
  const CommonLengths lengths(before, after);
  Lines result;
  std::size_t i = 0;
  std::size_t j = 0;
  while (i < before.size() || j < after.size()) {
    if (i < before.size() && j < after.size() && before[i] == after[j]) {
      ++i;
      ++j;
    } else if (j == after.size() ||
               (i < before.size() && lengths.at(i + 1, j) >= lengths.at(i, j + 1))) {
      result.push_back("-" + before[i++]);
    } else {
      result.push_back("+" + after[j++]);
    }
  }
  return result;
}

Lines replaced(const Lines& before, const Lines& after) {
  Lines result;
  for (const std::string& line : before) {
    result.push_back("-" + line);
  }
  for (const std::string& line : after) {
    result.push_back("+" + line);
  }
  return result;
}

}  // namespace

std::vector<std::string> diffLines(const std::string& before, const std::string& after) {
  Lines old = split(before);
  Lines young = split(after);
  dropCommonEnds(old, young);
  return old.size() * young.size() > kMostPairs ? replaced(old, young) : compare(old, young);
}
