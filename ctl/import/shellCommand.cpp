#include "ctl/import/shellCommand.h"

#include <fmt/format.h>

#include <algorithm>

#include "common/plainText.h"

namespace {

// Without quotes: an empty IFS and -f keep the shell from splitting and expanding the two
// substitutions. Neither reaches the second shell.
constexpr const char* kDecoder = "IFS=; set -f; exec {} -c $(printf %b $1)";

bool isSafeInWord(char c) {
  constexpr std::string_view kSafe = "_./:=,@%+-";
  const auto byte = static_cast<unsigned char>(c);
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
         byte >= 0x80 || kSafe.find(c) != std::string_view::npos;
}

bool isUtf8(std::string_view text) {
  while (!text.empty()) {
    const Utf8Character next = firstUtf8Character(text);
    if (next.code == kNoCharacter) {
      return false;
    }
    text.remove_prefix(next.bytes);
  }
  return true;
}

/// As printf's %b reads it.
std::string encoded(std::string_view script) {
  std::string text;
  while (!script.empty()) {
    const Utf8Character next = firstUtf8Character(script);
    const char c = script.front();
    if (c == '"' || c == '\'' || next.code == kNoCharacter) {
      text += fmt::format("\\0{:03o}", static_cast<unsigned char>(c));
    } else if (c == '\\') {
      text += "\\\\";
    } else {
      text += script.substr(0, next.bytes);
    }
    script.remove_prefix(next.bytes);
  }
  return text;
}

bool fitsTask(const std::string& argument) {
  return !argument.empty() &&
         argument.find_first_of(std::string_view("\"'\0", 3)) == argument.npos &&
         argument.size() <= kLongestArgument && isUtf8(argument);
}

/// In single quotes unless it needs none.
std::string quotedWord(const std::string& text) {
  if (!text.empty() && std::all_of(text.begin(), text.end(), isSafeInWord)) {
    return text;
  }
  std::string word = "'";
  for (const char c : text) {
    if (c == '\'') {
      word += "'\\''";
    } else {
      word += c;
    }
  }
  word += '\'';
  return word;
}

/// Splits a command line in which a shell would do nothing but remove quotes.
class WordSplitter {
 public:
  explicit WordSplitter(std::string_view line) : rest(line) {}

  /// Nothing where a shell would do more.
  std::optional<std::vector<std::string>> split() {
    std::vector<std::string> words;
    while (skipBlanks()) {
      const auto word = takeWord();
      if (!word) {
        return std::nullopt;
      }
      words.push_back(*word);
    }
    return words;
  }

 private:
  bool skipBlanks() {
    rest.remove_prefix(std::min(rest.find_first_not_of(" \t"), rest.size()));
    return !rest.empty();
  }

  std::optional<std::string> takeWord() {
    constexpr std::string_view kSpecial = "|&;<>()$`*?[\n";
    std::string word;
    if (rest.front() == '~' || rest.front() == '#') {
      return std::nullopt;
    }
    while (!rest.empty() && rest.front() != ' ' && rest.front() != '\t') {
      const char c = take();
      if (c == '"' || c == '\'') {
        if (!takeQuoted(c, word)) {
          return std::nullopt;
        }
      } else if (c == '\\' ? rest.empty() : kSpecial.find(c) != std::string_view::npos) {
        return std::nullopt;
      } else {
        word += c == '\\' ? take() : c;
      }
    }
    return word;
  }

  /// Appends what stands before the closing quote.
  bool takeQuoted(char quote, std::string& word) {
    while (!rest.empty()) {
      const char c = take();
      if (c == quote) {
        return true;
      }
      // In double quotes, these are more than characters.
      if (quote == '"' && (c == '$' || c == '`' || c == '\\')) {
        return false;
      }
      word += c;
    }
    return false;
  }

  char take() {
    const char c = rest.front();
    rest.remove_prefix(1);
    return c;
  }

  std::string_view rest;
};

/// A word that is no line of the text.
std::string delimiterFor(const std::string& text) {
  std::string word = "END";
  while (("\n" + text + "\n").find("\n" + word + "\n") != std::string::npos) {
    word += "D";
  }
  return word;
}

}  // namespace

std::string shellWord(std::string_view text) {
  std::string word;
  for (const char c : text) {
    word += isSafeInWord(c) ? "" : "\\";
    word += c;
  }
  return word;
}

bool isPlainShell(std::string_view path) {
  const std::string_view name = path.substr(path.rfind('/') + 1);
  constexpr std::size_t kLongestPath = 4095;
  return path.starts_with('/') && path.size() <= kLongestPath &&
         std::all_of(path.begin(), path.end(), isSafeInWord) && isUtf8(path) &&
         (name == "sh" || name == "dash" || name == "bash");
}

std::optional<std::vector<std::string>> shellArguments(const std::string& script,
                                                       const std::string& shell) {
  const bool isPlain = script.find_first_of("\"'") == std::string::npos && isUtf8(script);
  std::vector<std::string> arguments =
      isPlain ? std::vector<std::string>{"-c", script}
              : std::vector<std::string>{"-c", fmt::format(kDecoder, shellWord(shell)), "sh",
                                         encoded(script)};
  const bool isPossible = !script.empty() && script.find('\0') == std::string::npos &&
                          arguments.back().size() <= kLongestArgument;
  return isPossible ? std::optional(std::move(arguments)) : std::nullopt;
}

std::string recordedScript(const std::string& before, const std::string& command,
                           const std::optional<std::string>& input) {
  std::string redirection = "exec 2>&1; ";
  if (input) {
    const std::string delimiter = delimiterFor(*input);
    redirection = fmt::format("exec 2>&1 <<\\{}\n{}\n{}\n", delimiter, *input, delimiter);
  }
  // A subshell: the command may end it by exit or exec. On a line of its own, since it may end in a
  // comment.
  return fmt::format("{}{}( {}\n); s=$?; echo exit status $s; exit $s", before, redirection,
                     command);
}

std::optional<Execution> executionOf(const std::vector<std::string>& words) {
  constexpr std::size_t kLongestPath = 4095;
  if (words.front().size() > kLongestPath) {
    return std::nullopt;
  }
  if (std::all_of(words.begin(), words.end(), fitsTask)) {
    return Execution{words.front(), {words.begin() + 1, words.end()}};
  }
  std::string script = "exec";
  for (const std::string& word : words) {
    script += ' ';
    script += quotedWord(word);
  }
  const auto arguments = shellArguments(script);
  return arguments ? std::optional(Execution{kShell, *arguments}) : std::nullopt;
}

std::optional<Execution> executionOf(const std::string& commandLine) {
  const auto words = WordSplitter(commandLine).split();
  if (words && !words->empty() && words->front().starts_with('/')) {
    return executionOf(*words);
  }
  const auto arguments = shellArguments("export PATH=/usr/bin:/bin; " + commandLine);
  return arguments ? std::optional(Execution{kShell, *arguments}) : std::nullopt;
}
