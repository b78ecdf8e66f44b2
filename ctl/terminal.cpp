#include "ctl/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cwchar>

namespace {

bool isControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

/// The bytes of the control character that `text` begins with; 0 for another one. Those from U+0080
/// to U+009F are some too: terminals take U+009B for an escape and a bracket.
std::size_t controlLength(std::string_view text) {
  if (isControl(text.front())) {
    return 1;
  }
  const bool isHigh = text.size() > 1 && text[0] == '\xc2' &&
                      static_cast<unsigned char>(text[1]) >= 0x80 &&
                      static_cast<unsigned char>(text[1]) < 0xa0;
  return isHigh ? 2 : 0;
}

/// With `substitute` for each control character that is not among `allowed`.
std::string withoutControls(std::string_view text, char substitute, std::string_view allowed) {
  std::string safe;
  safe.reserve(text.size());
  while (!text.empty()) {
    const bool isAllowed = allowed.find(text.front()) != std::string_view::npos;
    const std::size_t length = isAllowed ? 0 : controlLength(text);
    safe += length > 0 ? substitute : text.front();
    text.remove_prefix(length > 0 ? length : 1);
  }
  return safe;
}

struct Character {
  std::size_t bytes;
  int columns;
};

/// The one that `text` begins with. A byte that is no UTF-8 is shown as one column.
Character firstCharacter(std::string_view text) {
  std::mbstate_t state{};
  wchar_t character = 0;
  const std::size_t length = std::mbrtowc(&character, text.data(), text.size(), &state);
  const bool isValid = length > 0 && length <= text.size();
  return isValid ? Character{length, std::max(0, wcwidth(character))} : Character{1, 1};
}

bool isColourWanted() {
  const char* noColour = std::getenv("NO_COLOR");
  const char* terminal = std::getenv("TERM");
  return isTerminal() && (noColour == nullptr || *noColour == '\0') && terminal != nullptr &&
         std::string_view(terminal) != "dumb";
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

std::string coloured(const std::string& text, Colour colour) {
  if (colour == Colour::kNone || !isColourWanted()) {
    return text;
  }
  return sequenceOf(colour) + text + "\x1b[0m";
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

std::string printable(const std::string& text) {
  return isTerminal() ? withoutControls(text, '?', "\n\t") : text;
}

std::string oneLine(std::string_view text) {
  return withoutControls(text, ' ', "");
}

int widthOf(std::string_view text) {
  int width = 0;
  while (!text.empty()) {
    const Character first = firstCharacter(text);
    width += first.columns;
    text.remove_prefix(first.bytes);
  }
  return width;
}

std::string cutTo(std::string_view text, int columns) {
  std::size_t end = 0;
  for (int width = 0; end < text.size();) {
    const Character next = firstCharacter(text.substr(end));
    width += next.columns;
    if (width > columns) {
      break;
    }
    end += next.bytes;
  }
  return std::string(text.substr(0, end));
}
