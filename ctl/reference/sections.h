#pragma once

#include <string>
#include <vector>

struct CommandDescription;

// The generated parts of the files that describe koductl. Each ends in a newline.

using Commands = std::vector<CommandDescription>;

/// The common options, for the manual.
std::string manualOptions(const CommandDescription& program);
/// The commands with their own options under the headings of their groups, for the manual.
std::string manualCommands(const Commands& commands);
/// The options of a group that several commands share, each once, for the manual.
std::string manualShared(const Commands& commands, const std::string& group);

/// A table of commands in Markdown, between empty lines.
std::string pageCommands(const Commands& commands);

/// Local variables of the function that completes in bash.
std::string bashVariables(const CommandDescription& program);

/// Values of the arrays `common` and `commands` of the function that completes in zsh.
std::string zshArrays(const CommandDescription& program);
/// The cases that complete what follows a command.
std::string zshCases(const CommandDescription& program);
