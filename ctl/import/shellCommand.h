#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Commands of a shell as arguments of a task.

constexpr const char* kShell = "/bin/sh";

/// The longest argument that the kernel passes to a program, in bytes.
constexpr std::size_t kLongestArgument = 131071;

/// The text as one word of a shell's command, with backslashes instead of quotes.
std::string shellWord(std::string_view text);

/// True for the path of a shell that reads what the functions below write.
bool isPlainShell(std::string_view path);

/// The arguments of the shell at `shell` with which it executes the script. A script with quotes,
/// which no argument of a task can contain, or with bytes that are not UTF-8, is passed with \0ooo
/// in place of these bytes and \\ in place of a backslash; the shell's printf turns it back.
/// Nothing for a script that no argument can hold.
std::optional<std::vector<std::string>> shellArguments(const std::string& script,
                                                       const std::string& shell = kShell);

/// A script that executes `command` with standard error in its output and ends with the same exit
/// status. At the end, it prints the exit status: the daemon would repeat a run without output.
/// `before` are commands that come first, each followed by "; " or a newline.
std::string recordedScript(const std::string& before, const std::string& command,
                           const std::optional<std::string>& input);

/// A program and its arguments as a task has them.
struct Execution {
  std::string plugin;
  std::vector<std::string> arguments;
};

/// Of a program with an absolute path and its arguments; by /bin/sh when a task cannot have one of
/// them, since it is empty, has quotes, or is not UTF-8. Nothing for what no argument can hold.
std::optional<Execution> executionOf(const std::vector<std::string>& words);

/// The same for the command line of a shell: without a shell where only its quoting is used.
std::optional<Execution> executionOf(const std::string& commandLine);
