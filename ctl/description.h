#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

/// The description of an option or an argument of a command.
struct OptionDescription {
  std::string shortName, longName;  // "-n", "--count"; an argument has neither
  std::string value;                // "COUNT"; "" for a flag
  std::string meaning;              // a sentence without its full stop
  std::string standard;             // the default in words; "" where there is none
  bool isRequired = false;
  bool isRepeatable = false;
  bool isForPlugin = false;  // an argument that follows "--"
  std::string group{};       // the heading of options that several commands share, or ""

  bool operator==(const OptionDescription&) const = default;

  /// "-n, --count COUNT" or "ID".
  std::string heading() const;
  /// "--count COUNT" or "ID", in brackets unless it is required.
  std::string usage() const;
  /// The meaning with the default in brackets.
  std::string meaningAndDefault() const;
};

/// The description of a command, or of koductl itself.
struct CommandDescription {
  std::string name;     // "status", "parent child" for a command of a command; "" for koductl
  std::string group;    // the heading of the commands that it belongs to
  std::string meaning;  // a sentence without its full stop
  std::string details;  // whole sentences, or ""
  std::vector<OptionDescription> arguments, options;  // without the common options
  std::vector<CommandDescription> commands;           // its subcommands
  bool needsCommand = false;                          // does nothing without a subcommand

  /// "add PLUGIN --every INTERVAL [OPTION...] [-- ARGUMENT...]".
  std::string synopsis() const;
  /// The meaning and the details, as sentences.
  std::string sentences() const;
};

/// Reads a parser's definitions. The text of an option is "VALUE (DEFAULT)", the footer of a
/// command holds its details, and an argument that takes no words is the plugin's.
CommandDescription describe(const CLI::App& app);

/// All commands that can be run, subcommands included, in the order of their definitions.
std::vector<CommandDescription> allCommands(const CommandDescription& program);

/// The groups of commands or options, in the order of their definitions.
std::vector<std::string> groupsOf(const std::vector<CommandDescription>& commands);
std::vector<std::string> groupsOf(const std::vector<OptionDescription>& options);
