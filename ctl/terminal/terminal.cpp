#include "ctl/terminal/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

#include "ctl/terminal/printable.h"

namespace {

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
