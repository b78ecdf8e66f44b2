#include "ctl/help.h"

#include <fmt/format.h>

#include <sstream>
#include <vector>

#include "ctl/description.h"

namespace {

constexpr std::size_t kWidth = 80;
constexpr std::size_t kMeaningColumn = 26;

/// "  HEADING    text", the text on lines of its own below a long heading.
std::string entry(const std::string& heading, const std::string& text) {
  const bool isLong = heading.size() + 4 > kMeaningColumn;
  return fmt::format("  {}{}{:{}}", heading, isLong ? "\n" : "", "",
                     kMeaningColumn - (isLong ? 0 : heading.size() + 2)) +
         wrapped(text, kMeaningColumn);
}

/// The members of `group` under `heading`; nothing without one.
std::string listOf(const std::string& heading, const std::string& group,
                   const std::vector<OptionDescription>& options) {
  std::string entries;
  for (const OptionDescription& option : options) {
    entries += option.group == group ? entry(option.heading(), option.meaningAndDefault()) : "";
  }
  return entries.empty() ? "" : fmt::format("\n{}:\n{}", heading, entries);
}

/// The command's own options, then those that it shares with others.
std::string listOf(const std::string& heading, const std::vector<OptionDescription>& options) {
  std::string text = listOf(heading, "", options);
  for (const std::string& group : groupsOf(options)) {
    text += group.empty() ? "" : listOf(group, group, options);
  }
  return text;
}

std::string listOf(const std::vector<CommandDescription>& commands) {
  std::string text;
  for (const std::string& group : groupsOf(commands)) {
    text += fmt::format("\n{}:\n", group);
    for (const CommandDescription& command : commands) {
      text += command.group == group ? entry(command.name, command.meaning) : "";
    }
  }
  return text;
}

}  // namespace

std::string wrapped(const std::string& text, std::size_t indent) {
  std::string lines;
  std::size_t column = indent;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    if (column > indent && column + 1 + word.size() >= kWidth) {
      lines += fmt::format("\n{:{}}", "", indent);
      column = indent;
    } else if (column > indent) {
      lines += ' ';
      ++column;
    }
    lines += word;
    column += word.size();
  }
  return lines + "\n";
}

std::string helpText(const CommandDescription& command) {
  const std::string usage = "Usage: koductl ";
  std::string text = usage + wrapped(command.synopsis(), usage.size());
  text += fmt::format("\n{}", wrapped(command.sentences(), 0));
  text += listOf(command.commands);
  text += listOf("Arguments", command.arguments);
  text += listOf(command.name.empty() ? "Options, before or after the command" : "Options",
                 command.options);
  if (!command.name.empty()) {
    text += "\nThe options that koductl --help lists can be given too.\n";
  }
  return text;
}
