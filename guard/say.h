#pragma once

#include <array>
#include <cstddef>
#include <initializer_list>
#include <string_view>

/// A number as decimal digits, for say().
class Digits {
 public:
  explicit Digits(long number);
  operator std::string_view() const { return {text.data(), length}; }

 private:
  std::array<char, 20> text{};
  std::size_t length;
};

/// Writes the pieces to standard output, one after the other, each in full. On a terminal, a "?"
/// replaces what common/plainText.h calls unsafe, except newlines and tabs. Gives up silently when
/// the output cannot be written, because there is no other place to report it.
void say(std::initializer_list<std::string_view> pieces);
