#include "ctl/task/pages.h"

#include <fmt/format.h>

#include <algorithm>

#include "ctl/options.h"
#include "ctl/terminal/printable.h"
#include "ctl/terminal/terminal.h"
#include "ctl/terminal/text.h"

namespace {

/// The head of the table, the totals, the rest, and the shell's next line.
constexpr int kOtherLines = 4;

/// A text that a terminal must not get as it is, in the form that bash and zsh read.
std::string escapedWord(const std::string& text) {
  std::string word = "$'";
  for (const char c : text) {
    if (c < ' ' || c > '~') {
      word += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
    } else {
      word += c == '\'' || c == '\\' ? "\\" : "";
      word += c;
    }
  }
  return word + "'";
}

/// A word of a shell: a name may be anything.
std::string shellWord(const std::string& text) {
  constexpr const char* kPlain =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789,._/:-";
  if (text.find_first_not_of(kPlain) == std::string::npos) {
    return text;
  }
  if (printable(text) != text) {
    return escapedWord(text);
  }
  std::string word = "'";
  for (const char c : text) {
    word += c == '\'' ? "'\\''" : std::string(1, c);
  }
  return word + "'";
}

}  // namespace

Selection pageOf(const Options& options) {
  Selection selection = options.selection;
  if (!selection.limit && !options.isAll && isTerminal()) {
    selection.limit = std::max(1, terminalSize().rows - kOtherLines);
  }
  return selection;
}

std::string restText(Session& session, const Selection& selection, const Page& page,
                     const Totals& totals) {
  // A page that does not begin at the beginning has left out those before it as well.
  const bool isFull = selection.limit && page.tasks == *selection.limit;
  if (!isFull || page.tasks >= totals.tasks) {
    return "";
  }
  const std::string key = shellWord(pageKeyOf(session, selection, page.lastId));
  if (!selection.after.empty()) {
    return fmt::format("… and more: --after {}", key);
  }
  return fmt::format("… and {} more: --all, or --after {}", grouped(totals.tasks - page.tasks),
                     key);
}
