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

/// Writes the pieces to standard output, one behind the other, each in full; to a terminal with a
/// "?" in the place of what common/plainText.h calls unsafe, but for newlines and tabs. Gives up
/// without a word when nobody can read them: there is no other place to say so.
void say(std::initializer_list<std::string_view> pieces);
