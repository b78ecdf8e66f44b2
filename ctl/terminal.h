#pragma once

#include <string>
#include <string_view>

/// True when standard output is a terminal.
bool isTerminal();

enum class Colour { kNone, kGreen, kRed, kYellow, kBold };

/// `text` in a colour; as it is where standard output is no terminal, TERM is "dumb" or NO_COLOR is
/// set to anything.
std::string coloured(const std::string& text, Colour colour);

/// Green, red and yellow for OK, FAILED and PROCESS.
Colour colourOf(const std::string& status);

struct TerminalSize {
  int rows = 0;
  int columns = 0;
};

/// The size of the terminal; 24 rows and 80 columns when it does not say.
TerminalSize terminalSize();

/// `text` as a terminal may safely show it: control characters but newline and tab become "?", as
/// a plugin's output may hold sequences that command the terminal. Elsewhere as it is.
std::string printable(const std::string& text);

/// `text` in one line: control characters become blanks.
std::string oneLine(std::string_view text);

/// The number of columns that UTF-8 text takes on a terminal: two for a wide character, none for an
/// accent that stands on the one before it. Asks the C locale, which main sets.
int widthOf(std::string_view text);

/// As much of the begin of UTF-8 text as fits into `columns`, in whole characters. Asks it, too.
std::string cutTo(std::string_view text, int columns);
