// The generated parts of the manual, in the man macros of troff.

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <sstream>

#include "ctl/description.h"
#include "ctl/help.h"
#include "ctl/reference/sections.h"
#include "ctl/reference/words.h"

namespace {

std::string plain(const std::string& text) {
  return replaceEach(text, "\\", "\\e");
}

/// What is typed has hyphens that can be copied.
std::string typed(const std::string& text) {
  return replaceEach(plain(text), "-", "\\-");
}

std::string bold(const std::string& text) {
  return fmt::format("\\fB{}\\fR", typed(text));
}

std::string italic(const std::string& text) {
  return fmt::format("\\fI{}\\fR", typed(text));
}

/// A full stop or an apostrophe at the begin of a line would make it a macro.
std::string protectedLines(const std::string& lines) {
  const std::string noFullStop = replaceEach(fmt::format("\n{}", lines), "\n.", "\n\\&.");
  return replaceEach(noFullStop, "\n'", "\n\\&'").substr(1);
}

/// Each sentence begins a line.
std::string paragraph(const std::string& text) {
  std::istringstream sentences(replaceEach(rewriteWords(text, bold, plain), ". ", ".\n"));
  std::string lines;
  for (std::string sentence; std::getline(sentences, sentence);) {
    lines += wrapped(sentence, 0);
  }
  return protectedLines(lines);
}

/// The characters from `at` on that are among `characters`.
std::string startingAt(const std::string& text, std::size_t at, const char* characters) {
  return text.substr(at, text.find_first_not_of(characters, at) - at);
}

/// "[--count COUNT]": names are bold, values italic, brackets as they are.
std::string synopsisMarkup(const std::string& text) {
  std::string result;
  for (std::size_t at = 0; at < text.size();) {
    const std::string name = startingAt(text, at, "abcdefghijklmnopqrstuvwxyz-");
    const std::string value = startingAt(text, at, "ABCDEFGHIJKLMNOPQRSTUVWXYZ");
    if (name.empty() && value.empty()) {
      result += text[at++];
    } else {
      result += name.empty() ? italic(value) : bold(name);
      at += name.size() + value.size();
    }
  }
  return result;
}

std::string tagged(const std::string& heading, const std::string& text) {
  return fmt::format(".TP\n{}\n{}", synopsisMarkup(heading), paragraph(text));
}

std::string listOf(const std::vector<OptionDescription>& options) {
  std::string text;
  for (const OptionDescription& option : options) {
    text += tagged(option.heading(), option.meaningAndDefault() + ".");
  }
  return text;
}

using Options = std::vector<OptionDescription>;

/// The arguments that no command before describes: most commands take the id of a task.
Options newArguments(const CommandDescription& command, Options& described) {
  Options fresh;
  for (const OptionDescription& argument : command.arguments) {
    if (std::find(described.begin(), described.end(), argument) == described.end()) {
      fresh.push_back(argument);
      described.push_back(argument);
    }
  }
  return fresh;
}

Options optionsIn(const std::string& group, const Options& options) {
  Options members;
  std::copy_if(options.begin(), options.end(), std::back_inserter(members),
               [&](const OptionDescription& option) { return option.group == group; });
  return members;
}

/// Where the options are that the command shares with others.
std::string referencesOf(const CommandDescription& command) {
  std::string sentences;
  for (const std::string& group : groupsOf(command.options)) {
    sentences +=
        group.empty() ? "" : fmt::format(" The options under \"{}\" can be given too.", group);
  }
  return sentences;
}

/// Its own options are indented below a command.
std::string commandEntry(const CommandDescription& command, Options& described) {
  const std::string options =
      listOf(newArguments(command, described)) + listOf(optionsIn("", command.options));
  return tagged(command.synopsis(), command.sentences() + referencesOf(command)) +
         (options.empty() ? "" : fmt::format(".RS\n{}.RE\n", options));
}

}  // namespace

std::string manualOptions(const CommandDescription& program) {
  return listOf(program.options);
}

std::string manualCommands(const Commands& commands) {
  std::string text;
  Options described;
  for (const std::string& group : groupsOf(commands)) {
    text += fmt::format(".SS {}\n", group);
    for (const CommandDescription& command : commands) {
      text += command.group == group ? commandEntry(command, described) : "";
    }
  }
  return text;
}

std::string manualShared(const Commands& commands, const std::string& group) {
  Options shared;
  for (const CommandDescription& command : commands) {
    for (const OptionDescription& option : optionsIn(group, command.options)) {
      if (std::find(shared.begin(), shared.end(), option) == shared.end()) {
        shared.push_back(option);
      }
    }
  }
  return listOf(shared);
}
