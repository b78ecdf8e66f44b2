#pragma once

#include <cstddef>
#include <string_view>

// What of a text may be shown on a terminal. No function here allocates or calls a library, so that
// koduguard, which has none, shares them.

/// One character of UTF-8 text: its length and its code point.
struct Utf8Character {
  std::size_t bytes = 1;
  char32_t code = 0;
};

/// The code of a byte that belongs to no valid UTF-8 character.
constexpr char32_t kNoCharacter = 0xffffffff;

/// The character that `text`, which is not empty, begins with. A byte that is no valid UTF-8 counts
/// as one of its own, with the code kNoCharacter.
Utf8Character firstUtf8Character(std::string_view text);

/// True for what may command a terminal or mislead its reader: control characters (C0, DEL and C1,
/// newline and tab among them), line and paragraph separators, marks and overrides of the direction
/// of writing, and kNoCharacter.
bool isUnsafe(char32_t code);
