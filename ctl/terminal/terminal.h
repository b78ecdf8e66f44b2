#pragma once

#include <string>
#include <string_view>
#include <utility>

/// True when standard output is a terminal.
bool isTerminal();

/// True when TERM names a terminal that understands escape sequences: it is set, and not "dumb".
bool hasSequences();

enum class Colour { kNone, kGreen, kRed, kYellow, kBold };

/// Text that is printed unchanged: koductl's own escape sequences around text that is already
/// printable.
struct Styled {
  explicit Styled(std::string content) : text(std::move(content)) {}

  std::string text;
};

/// `text` in a colour, and printable; without the colour when standard output is not a terminal,
/// TERM is "dumb" or NO_COLOR is set.
Styled coloured(const std::string& text, Colour colour);

/// False when standard output is not a terminal, TERM is "dumb" or NO_COLOR is set.
bool isColourWanted();

/// Green, red and yellow for OK, FAILED and PROCESS.
Colour colourOf(const std::string& status);

struct TerminalSize {
  int rows = 0;
  int columns = 0;
};

/// The size of the terminal; 24 rows and 80 columns when it is unknown.
TerminalSize terminalSize();
