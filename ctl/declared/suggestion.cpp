#include "ctl/declared/suggestion.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>

namespace {

/// How many characters have to be inserted, removed or replaced to turn one word into the other.
std::size_t distance(const std::string& one, const std::string& other) {
  std::vector<std::size_t> row(other.size() + 1);
  std::iota(row.begin(), row.end(), 0U);
  for (const char letter : one) {
    std::size_t corner = row[0]++;
    for (std::size_t j = 0; j < other.size(); ++j) {
      const std::size_t replaced = corner + (letter == other[j] ? 0 : 1);
      corner = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
    }
  }
  return row.back();
}

}  // namespace

std::string suggestion(const std::string& word, const std::vector<std::string>& known) {
  constexpr std::size_t kLongest = 40;  // of a word that could be meant
  constexpr std::size_t kMostChanges = 2;
  if (word.size() <= kLongest) {
    const auto nearest = std::min_element(
        known.begin(), known.end(), [&word](const std::string& one, const std::string& other) {
          return distance(word, one) < distance(word, other);
        });
    if (nearest != known.end() && distance(word, *nearest) <= kMostChanges) {
      return fmt::format("; did you mean {}?", *nearest);
    }
  }
  std::string list;
  for (const std::string& name : known) {
    list += (list.empty() ? "" : ", ") + name;
  }
  return fmt::format("; there are {}", list);
}
