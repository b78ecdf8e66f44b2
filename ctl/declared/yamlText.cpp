#include "ctl/declared/yamlText.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "common/plainText.h"

namespace {

std::string escaped(char32_t code) {
  switch (code) {
    case '"':
      return "\\\"";
    case '\\':
      return "\\\\";
    case '\n':
      return "\\n";
    case '\t':
      return "\\t";
    default:
      return fmt::format("\\u{:04x}", static_cast<unsigned>(code));
  }
}

/// Unsafe on a terminal, or special to YAML or JSON. All have four digits.
bool isEscaped(char32_t code) {
  constexpr char32_t kByteOrderMark = 0xfeff;
  constexpr char32_t kFirstNonCharacter = 0xfffe;
  constexpr char32_t kSecondNonCharacter = 0xffff;
  return code == '"' || code == '\\' || code == kByteOrderMark || code == kFirstNonCharacter ||
         code == kSecondNonCharacter || isUnsafe(code);
}

bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isPlain(std::string_view text) {
  // What YAML 1.1 takes for a boolean or nothing.
  constexpr std::array<std::string_view, 9> kOther = {"y",   "n",    "yes",   "no",  "on",
                                                      "off", "true", "false", "null"};
  constexpr std::string_view kFirst = "/$_";
  constexpr std::string_view kFurther = "/$_.@+-";
  std::string lower;
  for (const char c : text) {
    const bool isDigit = c >= '0' && c <= '9';
    if (!isLetter(c) && !isDigit && kFurther.find(c) == std::string_view::npos) {
      return false;
    }
    lower += static_cast<char>(isLetter(c) ? c | 0x20 : c);
  }
  return !text.empty() && (isLetter(text.front()) || kFirst.find(text.front()) != kFirst.npos) &&
         std::find(kOther.begin(), kOther.end(), lower) == kOther.end();
}

}  // namespace

std::optional<std::string> quotedText(const std::string& text) {
  std::string quoted = "\"";
  for (std::string_view rest = text; !rest.empty();) {
    const Utf8Character next = firstUtf8Character(rest);
    if (next.code == kNoCharacter) {
      return std::nullopt;
    }
    if (isEscaped(next.code)) {
      quoted += escaped(next.code);
    } else {
      quoted += rest.substr(0, next.bytes);
    }
    rest.remove_prefix(next.bytes);
  }
  return quoted + '"';
}

std::string plainOrQuoted(const std::string& text) {
  return isPlain(text) ? text : quotedText(text).value_or("\"\"");
}
