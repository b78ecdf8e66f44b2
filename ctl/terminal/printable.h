#pragma once

#include <string>
#include <string_view>

// No data may control a terminal: output that holds data goes through these functions, most of it
// by way of ctl/terminal/print.h.

/// `text` with a "?" in place of each character that is unsafe by common/plainText.h, except
/// newlines and tabs.
std::string printable(std::string_view text);

/// The same in one line: spaces replace newlines, tabs and similar characters.
std::string oneLine(std::string_view text);

/// The number of columns of UTF-8 text on a terminal: two for a wide character, none for a
/// combining one. Uses the C locale, which main sets.
int widthOf(std::string_view text);

/// The beginning of UTF-8 text that fits into `columns`, in whole characters. Uses the locale too.
std::string cutTo(std::string_view text, int columns);
