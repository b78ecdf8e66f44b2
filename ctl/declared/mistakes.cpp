#include "ctl/declared/mistakes.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

#include "ctl/failure.h"
#include "ctl/terminal/printable.h"

namespace {

/// More than these are counted only.
constexpr std::size_t kMostShown = 20;

}  // namespace

void Mistakes::add(const Place& place, const std::string& key, const std::string& text) {
  const std::string line = place.line > 0 ? fmt::format(":{}", place.line) : "";
  std::string sentences = text;
  constexpr std::string_view kHint = "\nhint: ";  // of the database
  if (const auto hint = sentences.find(kHint); hint != std::string::npos) {
    sentences.replace(hint, kHint.size(), ". ");
  }
  // In one line, so that no text of a file can look like another mistake.
  lines.push_back(oneLine(
      fmt::format("{}{}: {}{}{}", place.file, line, key, key.empty() ? "" : ": ", sentences)));
}

void Mistakes::throwIfAny() const {
  if (lines.empty()) {
    return;
  }
  const std::size_t shown = std::min(lines.size(), kMostShown);
  std::string text;
  for (std::size_t i = 0; i < shown; ++i) {
    text += lines[i] + "\n";
  }
  if (lines.size() > shown) {
    text += fmt::format("and {} more\n", lines.size() - shown);
  }
  throw Failure(kRefused, text + "nothing was changed");
}
