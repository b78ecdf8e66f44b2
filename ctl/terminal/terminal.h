#pragma once

#include <string>
#include <string_view>
#include <utility>

/// True when standard output is a terminal.
bool isTerminal();

enum class Colour { kNone, kGreen, kRed, kYellow, kBold };

/// Text that goes to the terminal as it is: sequences of koductl's own around text that is
/// printable already.
struct Styled {
  explicit Styled(std::string content) : text(std::move(content)) {}

  std::string text;
};

/// `text` in a colour, and printable; without the colour where standard output is no terminal, TERM
/// is "dumb" or NO_COLOR is set to anything.
Styled coloured(const std::string& text, Colour colour);

/// Green, red and yellow for OK, FAILED and PROCESS.
Colour colourOf(const std::string& status);

struct TerminalSize {
  int rows = 0;
  int columns = 0;
};

/// The size of the terminal; 24 rows and 80 columns when it does not say.
TerminalSize terminalSize();

/// `text` as a terminal may safely show it: a "?" takes the place of each character that is unsafe
/// by common/plainText.h, but for newlines and tabs.
std::string printable(std::string_view text);

/// The same in one line: blanks take the place of newlines, tabs and their like.
std::string oneLine(std::string_view text);

/// The number of columns that UTF-8 text takes on a terminal: two for a wide character, none for an
/// accent that stands on the one before it. Asks the C locale, which main sets.
int widthOf(std::string_view text);

/// As much of the begin of UTF-8 text as fits into `columns`, in whole characters. Asks it, too.
std::string cutTo(std::string_view text, int columns);
