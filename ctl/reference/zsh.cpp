// The generated parts of the completion for zsh.

#include <fmt/format.h>

#include <algorithm>

#include "ctl/description.h"
#include "ctl/reference/sections.h"
#include "ctl/reference/words.h"

namespace {

std::string quoted(const std::string& text) {
  return fmt::format("'{}'", replaceEach(text, "'", "'\\''"));
}

/// Text within the brackets, or between the colons, of an _arguments entry.
std::string escaped(const std::string& text) {
  std::string result = replaceEach(text, "\\", "\\\\");
  for (const char* special : {"[", "]", ":"}) {
    result = replaceEach(result, special, std::string("\\") + special);
  }
  return result;
}

/// How a value is completed.
std::string actionFor(const std::string& value) {
  if (value == "FILE" || value == "PATH" || value == "PLUGIN") {
    return "_files";
  }
  return value == "ID" ? "_koductl_ids" : "";
}

std::string valueText(const OptionDescription& option) {
  return option.value.empty()
             ? ""
             : fmt::format(":{}:{}", escaped(option.value), actionFor(option.value));
}

/// The options that one rules out: all others for --help and --version, its other name, itself.
std::string excludedBy(const OptionDescription& option) {
  if (option.longName == "--help" || option.longName == "--version") {
    return "(- *)";
  }
  if (option.isRepeatable) {
    return "*";
  }
  return option.shortName.empty() || option.longName.empty()
             ? ""
             : fmt::format("({} {})", option.shortName, option.longName);
}

std::string optionLines(const std::vector<OptionDescription>& options, const char* indent) {
  std::string lines;
  for (const OptionDescription& option : options) {
    for (const std::string& name : {option.shortName, option.longName}) {
      const std::string text = fmt::format("{}{}[{}]{}", excludedBy(option), name,
                                           escaped(option.meaning), valueText(option));
      lines += name.empty() ? "" : fmt::format("{}{}", indent, quoted(text));
    }
  }
  return lines;
}

std::string argumentLines(const std::vector<OptionDescription>& arguments, const char* indent) {
  std::string lines;
  int number = 0;
  for (const OptionDescription& argument : arguments) {
    if (!argument.isForPlugin) {
      const std::string place = argument.isRepeatable ? "*" : std::to_string(++number);
      const bool isOptional = !argument.isRequired && !argument.isRepeatable;
      const std::string text =
          fmt::format("{}{}{}", place, isOptional ? ":" : "", valueText(argument));
      lines += fmt::format("{}{}", indent, quoted(text));
    }
  }
  return lines;
}

/// The commands of a command as its first argument, and all of their options.
std::string subcommandLines(const Commands& commands, const char* indent) {
  std::string names;
  std::string options;
  for (const CommandDescription& command : commands) {
    appendWord(names, lastWord(command.name));
    options += optionLines(command.options, indent);
  }
  return names.empty() ? "" : fmt::format("{}'1:command:({})'{}", indent, names, options);
}

/// Makes the names that a command has for options of its own unknown as common ones: the first
/// entry of a name counts.
std::string redefinitions(const CommandDescription& program, const CommandDescription& command) {
  std::string names;
  for (const OptionDescription& own : command.options) {
    const bool isCommon = std::any_of(
        program.options.begin(), program.options.end(), [&](const OptionDescription& common) {
          return !own.shortName.empty() && own.shortName == common.shortName;
        });
    names += isCommon ? fmt::format("_koductl_redefine {}; ", own.shortName) : "";
  }
  return names;
}

}  // namespace

std::string zshArrays(const CommandDescription& program) {
  std::string commands;
  for (const CommandDescription& command : program.commands) {
    commands += fmt::format("\n    {}",
                            quoted(fmt::format("{}:{}", command.name, escaped(command.meaning))));
  }
  return fmt::format("  common=({}\n  )\n  commands=({}\n  )\n",
                     optionLines(program.options, "\n    "), commands);
}

std::string zshCases(const CommandDescription& program) {
  constexpr const char* kIndent = " \\\n          ";
  std::string text;
  for (const CommandDescription& command : program.commands) {
    text += fmt::format("        {}) {}_arguments $common{}{}{} ;;\n", command.name,
                        redefinitions(program, command), argumentLines(command.arguments, kIndent),
                        optionLines(command.options, kIndent),
                        subcommandLines(command.commands, kIndent));
  }
  return text;
}
