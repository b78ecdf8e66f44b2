#include "ctl/import/nagiosMacros.h"

#include <fmt/format.h>

#include "ctl/import/names.h"
#include "ctl/import/shellCommand.h"

ExpandedText expandMacros(const std::string& text, const MacroValue& valueOf) {
  ExpandedText result;
  for (std::size_t at = 0; at < text.size() && result.text.size() <= kLongestArgument;) {
    const std::size_t begin = text.find('$', at);
    const std::size_t end = begin == std::string::npos ? begin : text.find('$', begin + 1);
    result.text += text.substr(at, begin - at);
    if (end == std::string::npos) {
      result.text += begin == std::string::npos ? "" : text.substr(begin);
      break;
    }
    const std::string name = text.substr(begin + 1, end - begin - 1);
    const auto value = name.empty() ? std::optional<std::string>("$") : valueOf(name);
    if (!value) {
      return {"",
              fmt::format("the macro ${}$ has no value that is known before a run", excerpt(name))};
    }
    result.text += *value;
    at = end + 1;
  }
  if (result.text.size() > kLongestArgument) {
    return {"", "the command is longer than an argument of a task can be"};
  }
  return result;
}

std::vector<std::string> splitCheckCommand(const std::string& text) {
  std::vector<std::string> parts(1);
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool isEscape = text[i] == '\\' && i + 1 < text.size() && text[i + 1] == '!';
    if (text[i] == '!') {
      parts.emplace_back();
    } else {
      parts.back() += isEscape ? text[++i] : text[i];
    }
  }
  return parts;
}
