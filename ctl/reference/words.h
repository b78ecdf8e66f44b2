#pragma once

#include <functional>
#include <string>

using Rewrite = std::function<std::string(const std::string&)>;

/// `text` word by word: what a user would type, such as --user, $DATE or ~/.pgpass, is passed to
/// `literal`, the rest to `plain`. Punctuation around a word is not part of it.
std::string rewriteWords(const std::string& text, const Rewrite& literal, const Rewrite& plain);

/// Adds a word to words with a blank between them; nothing for an empty word.
void appendWord(std::string& words, const std::string& word);

/// The text after the last space.
std::string lastWord(const std::string& words);

/// `text` with each `from` replaced.
std::string replaceEach(std::string text, const std::string& from, const std::string& to);
