#include "notify/fill.h"

#include <algorithm>
#include <cctype>
#include <functional>

namespace {

/// Replaces each "{word}" by what `replace` returns for the word; "{other words}" stay.
std::string replaceEach(const std::string& text,
                        const std::function<std::string(const std::string&)>& replace) {
  std::string result;
  for (std::size_t at = 0; at < text.size();) {
    std::size_t end = at + 1;
    while (text[at] == '{' && end < text.size() &&
           (std::islower(static_cast<unsigned char>(text[end])) != 0 || text[end] == '_')) {
      ++end;
    }
    if (text[at] == '{' && end > at + 1 && end < text.size() && text[end] == '}') {
      result += replace(text.substr(at + 1, end - at - 1));
      at = end + 1;
    } else {
      result += text[at++];
    }
  }
  return result;
}

/// The content of a JSON string.
std::string jsonContent(const std::string& text) {
  const std::string quoted = Json::valueToQuotedString(text.c_str());
  return quoted.substr(1, quoted.size() - 2);
}

}  // namespace

const std::vector<std::string>& placeholders() {
  static const std::vector<std::string> names = {
      "key",  "event",  "at",  "database", "task",    "task_key", "name",
      "host", "plugin", "due", "started",  "attempt", "reason",   "periods"};
  return names;
}

std::string unknownPlaceholder(const std::string& text) {
  std::string unknown;
  replaceEach(text, [&](const std::string& name) {
    const auto& known = placeholders();
    if (unknown.empty() && std::find(known.begin(), known.end(), name) == known.end()) {
      unknown = name;
    }
    return "";
  });
  return unknown;
}

std::string filled(const std::string& text, const Event& event) {
  return replaceEach(text, [&](const std::string& name) { return event.field(name); });
}

std::string filledAsJson(const std::string& text, const Event& event) {
  return replaceEach(text, [&](const std::string& name) { return jsonContent(event.field(name)); });
}
