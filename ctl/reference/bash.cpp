// The generated part of the completion for bash.

#include <fmt/format.h>

#include <map>

#include "ctl/description.h"
#include "ctl/reference/sections.h"
#include "ctl/reference/words.h"

namespace {

std::string namesOf(const std::vector<OptionDescription>& options) {
  std::string names;
  for (const OptionDescription& option : options) {
    appendWord(names, option.shortName);
    appendWord(names, option.longName);
  }
  return names;
}

std::string namesOf(const Commands& commands) {
  std::string names;
  for (const CommandDescription& command : commands) {
    appendWord(names, lastWord(command.name));
  }
  return names;
}

/// What can follow a command: its commands, its options and "--".
std::string wordsOf(const CommandDescription& command) {
  std::string words = namesOf(command.commands);
  appendWord(words, namesOf(command.options));
  for (const OptionDescription& argument : command.arguments) {
    appendWord(words, argument.isForPlugin ? "--" : "");
  }
  return words;
}

std::string argumentsOf(const CommandDescription& command) {
  std::string names;
  for (const OptionDescription& argument : command.arguments) {
    appendWord(names,
               argument.isForPlugin ? "" : argument.value + (argument.isRepeatable ? "..." : ""));
  }
  return names;
}

using Array = std::map<std::string, std::string>;

/// The options that a value follows, by their names.
void collectValues(Array& values, const std::vector<OptionDescription>& options) {
  for (const OptionDescription& option : options) {
    for (const std::string& name : {option.shortName, option.longName}) {
      if (!name.empty() && !option.value.empty()) {
        values[name] = option.value;
      }
    }
  }
}

/// Descends into the commands of `parent`, whose own words are known.
void collectCommands(Array& words, Array& arguments, Array& values,
                     const CommandDescription& parent) {
  for (const CommandDescription& command : parent.commands) {
    words[command.name] = wordsOf(command);
    arguments[command.name] = argumentsOf(command);
    collectValues(values, command.options);
    collectCommands(words, arguments, values, command);
  }
}

/// The flags whose names have a value elsewhere, each after its command and without one.
void collectFlags(Array& values, const CommandDescription& parent) {
  for (const CommandDescription& command : parent.commands) {
    for (const OptionDescription& option : command.options) {
      for (const std::string& name : {option.shortName, option.longName}) {
        if (option.value.empty() && values.count(name) > 0) {
          values[fmt::format("{} {}", command.name, name)] = "";
        }
      }
    }
    collectFlags(values, command);
  }
}

std::string arrayText(const char* name, const Array& array) {
  std::string lines;
  for (const auto& [key, value] : array) {
    lines += fmt::format("    ['{}']='{}'\n", key, value);
  }
  return fmt::format("  local -A {}=(\n{}  )\n", name, lines);
}

}  // namespace

std::string bashVariables(const CommandDescription& program) {
  Array words;
  Array arguments;
  Array values;
  collectValues(values, program.options);
  collectCommands(words, arguments, values, program);
  collectFlags(values, program);
  return fmt::format("  local commands='{}'\n  local common='{}'\n", namesOf(program.commands),
                     namesOf(program.options)) +
         arrayText("words", words) + arrayText("arguments", arguments) +
         arrayText("values", values);
}
