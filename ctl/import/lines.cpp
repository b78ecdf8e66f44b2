#include "ctl/import/lines.h"

#include <fmt/format.h>

#include "ctl/declared/sources.h"
#include "ctl/import/import.h"
#include "ctl/import/shellCommand.h"

namespace {

/// "" for a line that can be read.
std::string whyNot(std::string_view line) {
  if (line.find('\0') != std::string_view::npos) {
    return "the line contains a zero byte";
  }
  if (line.size() > kLongestArgument) {
    return fmt::format("the line has {} bytes, and an argument has at most {}", line.size(),
                       kLongestArgument);
  }
  return "";
}

}  // namespace

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kBlanks);
  const std::size_t last = text.find_last_not_of(kBlanks);
  return first == std::string_view::npos ? "" : text.substr(first, last - first + 1);
}

std::string_view takeWord(std::string_view& text) {
  text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
  const std::string_view word = text.substr(0, text.find_first_of(kBlanks));
  text.remove_prefix(word.size());
  text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
  return word;
}

void forEachLine(const Source& source, Import& import,
                 const std::function<void(const Place&, std::string_view)>& use) {
  std::string_view rest = source.content;
  bool hasReturns = false;
  for (int number = 1; !rest.empty(); ++number) {
    const std::size_t end = rest.find('\n');
    std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    if (line.ends_with('\r')) {
      line.remove_suffix(1);
      hasReturns = true;
    }
    const Place place = {source.name, number};
    if (const std::string reason = whyNot(line); !reason.empty()) {
      import.leaveOut(place, reason);
    } else {
      use(place, line);
    }
  }
  if (hasReturns) {
    import.note({source.name, 0}, "the carriage returns at the ends of lines were removed");
  }
}
