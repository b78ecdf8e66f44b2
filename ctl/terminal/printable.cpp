#include "ctl/terminal/printable.h"

#include <algorithm>
#include <cwchar>

#include "common/plainText.h"

namespace {

/// `text` with `forUnsafe(character)` in the place of each character that is unsafe.
template <typename Substitute>
std::string withoutUnsafe(std::string_view text, const Substitute& forUnsafe) {
  std::string safe;
  safe.reserve(text.size());
  while (!text.empty()) {
    const Utf8Character first = firstUtf8Character(text);
    if (isUnsafe(first.code)) {
      safe += forUnsafe(text.front());
    } else {
      safe += text.substr(0, first.bytes);
    }
    text.remove_prefix(first.bytes);
  }
  return safe;
}

bool isOneOf(std::string_view characters, char c) {
  return characters.find(c) != std::string_view::npos;
}

/// The columns that a character takes. A byte of invalid UTF-8 takes one.
int columnsOf(char32_t code) {
  return code == kNoCharacter ? 1 : std::max(0, wcwidth(static_cast<wchar_t>(code)));
}

}  // namespace

std::string printable(std::string_view text) {
  return withoutUnsafe(text, [](char c) { return isOneOf("\n\t", c) ? c : '?'; });
}

std::string oneLine(std::string_view text) {
  return withoutUnsafe(text, [](char c) { return isOneOf("\t\n\v\f\r", c) ? ' ' : '?'; });
}

int widthOf(std::string_view text) {
  int width = 0;
  while (!text.empty()) {
    const Utf8Character first = firstUtf8Character(text);
    width += columnsOf(first.code);
    text.remove_prefix(first.bytes);
  }
  return width;
}

std::string cutTo(std::string_view text, int columns) {
  std::size_t end = 0;
  for (int width = 0; end < text.size();) {
    const Utf8Character next = firstUtf8Character(text.substr(end));
    width += columnsOf(next.code);
    if (width > columns) {
      break;
    }
    end += next.bytes;
  }
  return std::string(text.substr(0, end));
}
