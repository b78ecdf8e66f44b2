// The generated tables of the documentation, in Markdown.

#include <fmt/format.h>

#include <algorithm>

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

std::string prose(const std::string& text) {
  return rewriteWords(text, code, escaped);
}

/// "`-n`, `--count COUNT`".
std::string headingCell(const OptionDescription& option) {
  return code(replaceEach(option.heading(), ", ", "`, `"));
}

/// An option and the commands that have it.
struct SharedOption {
  OptionDescription option;
  std::string commands;  // "`add`, `set`"
};

/// Whether a command requires an option shows in its synopsis.
bool isSame(OptionDescription one, const OptionDescription& other) {
  one.isRequired = other.isRequired;
  return one == other;
}

void share(std::vector<SharedOption>& shared, const std::string& command,
           const std::vector<OptionDescription>& options) {
  for (const OptionDescription& option : options) {
    const auto known = std::find_if(shared.begin(), shared.end(), [&](const SharedOption& line) {
      return isSame(line.option, option);
    });
    if (known == shared.end()) {
      shared.push_back({option, code(command)});
    } else {
      known->commands += fmt::format(", {}", code(command));
    }
  }
}

std::string optionTable(const Commands& commands) {
  std::vector<SharedOption> shared;
  for (const CommandDescription& command : commands) {
    share(shared, command.name, command.arguments);
    share(shared, command.name, command.options);
  }
  std::string table = "| option | of | meaning | default |\n| --- | --- | --- | --- |\n";
  for (const SharedOption& line : shared) {
    table += fmt::format("| {} | {} | {} | {} |\n", headingCell(line.option), line.commands,
                         prose(line.option.meaning), prose(line.option.standard));
  }
  return shared.empty() ? "" : fmt::format("\n{}", table);
}

}  // namespace

std::string pageOptions(const CommandDescription& program) {
  std::string table = "| option | meaning | default |\n| --- | --- | --- |\n";
  for (const OptionDescription& option : program.options) {
    table += fmt::format("| {} | {} | {} |\n", headingCell(option), prose(option.meaning),
                         prose(option.standard));
  }
  return fmt::format("\n{}\n", table);
}

std::string pageCommands(const Commands& commands) {
  std::string table = "| command | meaning |\n| --- | --- |\n";
  for (const CommandDescription& command : commands) {
    table += fmt::format("| {} | {} |\n", code(command.synopsis()), prose(command.sentences()));
  }
  return fmt::format("\n{}{}\n", table, optionTable(commands));
}
