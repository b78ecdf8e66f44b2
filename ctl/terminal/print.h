#pragma once

#include <fmt/core.h>

#include <cstdio>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>

#include "ctl/terminal/printable.h"
#include "ctl/terminal/terminal.h"

// All output of koductl is printed by these functions, so that no text from the database, a file, a
// plugin or the command line can control the terminal. A format is trusted, its arguments are not.
// Tested by PrintTest.IsTheOnlyWayOut.

/// The form in which print() shows an argument: texts by printable(), everything else unchanged.
template <typename Argument>
decltype(auto) shown(const Argument& argument) {
  if constexpr (std::is_same_v<Argument, Styled>) {
    return static_cast<const std::string&>(argument.text);
  } else if constexpr (std::is_convertible_v<const Argument&, std::string_view>) {
    return printable(argument);
  } else {
    return argument;
  }
}

template <typename... Arguments>
using Format = fmt::format_string<decltype(shown(std::declval<const Arguments&>()))...>;

/// Prints to standard output. Throws std::system_error when that fails.
template <typename... Arguments>
void print(Format<Arguments...> format, const Arguments&... arguments) {
  fmt::print(stdout, format, shown(arguments)...);
}

/// Prints to standard error; where that takes nothing, no other place is left to say so.
template <typename... Arguments>
void printError(Format<Arguments...> format, const Arguments&... arguments) {
  try {
    fmt::print(stderr, format, shown(arguments)...);
  } catch (const std::system_error&) {
    std::clearerr(stderr);
  }
}

/// Writes what stands in the buffer of standard output. Throws as print().
void flushOutput();

/// Prints what a plugin has printed: to a terminal as print() does, elsewhere byte for byte.
void printOutput(const std::string& bytes);
