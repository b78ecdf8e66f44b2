#include "ctl/terminal/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
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

const char* sequenceOf(Colour colour) {
  switch (colour) {
    case Colour::kGreen:
      return "\x1b[32m";
    case Colour::kRed:
      return "\x1b[31m";
    case Colour::kYellow:
      return "\x1b[33m";
    case Colour::kBold:
      return "\x1b[1m";
    case Colour::kNone:
      break;
  }
  return "";
}

}  // namespace

bool isTerminal() {
  return isatty(STDOUT_FILENO) == 1;
}

bool hasSequences() {
  const char* terminal = std::getenv("TERM");
  return terminal != nullptr && *terminal != '\0' && std::string_view(terminal) != "dumb";
}

bool isColourWanted() {
  const char* noColour = std::getenv("NO_COLOR");
  return isTerminal() && hasSequences() && (noColour == nullptr || *noColour == '\0');
}

Styled coloured(const std::string& text, Colour colour) {
  const std::string safe = printable(text);
  if (colour == Colour::kNone || !isColourWanted()) {
    return Styled(safe);
  }
  return Styled(sequenceOf(colour) + safe + "\x1b[0m");
}

Colour colourOf(const std::string& status) {
  if (status == "OK") {
    return Colour::kGreen;
  }
  if (status == "FAILED") {
    return Colour::kRed;
  }
  return status == "PROCESS" ? Colour::kYellow : Colour::kNone;
}

TerminalSize terminalSize() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) {
    return {24, 80};
  }
  return {size.ws_row, size.ws_col};
}

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
