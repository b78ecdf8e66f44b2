// The generated tables of the documentation, in Markdown. They list the commands; their options are
// in the manual and in --help.

#include <fmt/format.h>

#include "ctl/description.h"
#include "ctl/reference/sections.h"
#include "ctl/reference/words.h"

namespace {

std::string escaped(const std::string& text) {
  return replaceEach(replaceEach(replaceEach(text, "|", "\\|"), "<", "&lt;"), "*", "\\*");
}

std::string code(const std::string& text) {
  return fmt::format("`{}`", text);
}

}  // namespace

std::string pageCommands(const Commands& commands) {
  std::string table = "\n| command | meaning |\n| --- | --- |\n";
  for (const CommandDescription& command : commands) {
    table += fmt::format("| {} | {} |\n", code(command.synopsis()),
                         rewriteWords(command.meaning, code, escaped));
  }
  return table + "\n";
}
