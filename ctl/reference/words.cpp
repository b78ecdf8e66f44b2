#include "ctl/reference/words.h"

#include <sstream>

namespace {

bool isLiteral(const std::string& word) {
  return word.starts_with("--") || (word.size() == 2 && word[0] == '-') ||
         word.find_first_of("$/~_") != std::string::npos;
}

std::string rewriteWord(const std::string& word, const Rewrite& literal, const Rewrite& plain) {
  const auto begin = word.find_first_not_of('(');
  const auto last = word.find_last_not_of(".,;:)");
  if (begin == std::string::npos || last == std::string::npos || last < begin) {
    return plain(word);
  }
  const std::string core = word.substr(begin, last + 1 - begin);
  return isLiteral(core)
             ? plain(word.substr(0, begin)) + literal(core) + plain(word.substr(last + 1))
             : plain(word);
}

}  // namespace

std::string rewriteWords(const std::string& text, const Rewrite& literal, const Rewrite& plain) {
  std::string result;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    appendWord(result, rewriteWord(word, literal, plain));
  }
  return result;
}

void appendWord(std::string& words, const std::string& word) {
  if (!word.empty()) {
    words += words.empty() ? "" : " ";
    words += word;
  }
}

std::string lastWord(const std::string& words) {
  return words.substr(words.rfind(' ') + 1);
}

std::string replaceEach(std::string text, const std::string& from, const std::string& to) {
  for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}
