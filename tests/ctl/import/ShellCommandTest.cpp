#include "ctl/import/shellCommand.h"

#include <optional>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/task/arguments.h"
#include "task/serviceSafe.h"

namespace {

/// What a script prints when the daemon runs it, from its arguments as they are stored.
std::string outputOf(const std::string& script, const std::string& shell = kShell) {
  const auto arguments = shellArguments(script, shell);
  if (!arguments) {
    return "none";
  }
  serviceSafe task;
  task.Setpath(shell);
  task.Setparameter(parameterString(*arguments));
  task.execute();
  return task.GetStdout();
}

std::string recorded(const std::string& command, const std::optional<std::string>& input = {}) {
  return outputOf(recordedScript("export A=1; ", command, input));
}

TEST(ShellCommandTest, PassesAPlainScriptAsItIs) {
  EXPECT_EQ(shellArguments("echo a  b; exit 2"),
            (std::vector<std::string>{"-c", "echo a  b; exit 2"}));
  EXPECT_EQ(outputOf("echo a\\ \\ b"), "a  b\n");
}

TEST(ShellCommandTest, CarriesQuotesBackslashesAndOtherBytes) {
  EXPECT_EQ(outputOf("echo \"a  b\" 'c  d'; printf '%s\\n' '\\' '*' '$1' \"$1\""),
            "a  b c  d\n\\\n*\n$1\n\n");
  EXPECT_EQ(outputOf("x='a b'; for w in $x; do echo $w; done"), "a\nb\n");
  EXPECT_EQ(outputOf("cd /; echo '' /us*"), " /usr\n");
  EXPECT_EQ(outputOf("test $(printf \xff | od -An -tx1) = ff && echo right"), "right\n");
}

TEST(ShellCommandTest, RunsTheScriptInTheShellThatIsGiven) {
  EXPECT_EQ(outputOf("echo ${BASH_VERSION:+bash}", "/bin/bash"), "bash\n");
  EXPECT_EQ(outputOf("x='a'; [[ $x == \"a\" ]] && echo ${BASH_VERSION:+bash}", "/bin/bash"),
            "bash\n");
  EXPECT_TRUE(isPlainShell("/bin/bash"));
  EXPECT_TRUE(isPlainShell("/usr/local/bin/dash"));
  EXPECT_FALSE(isPlainShell("/bin/zsh"));
  EXPECT_FALSE(isPlainShell("/a b/sh"));
  EXPECT_FALSE(isPlainShell("/it's/sh"));
  EXPECT_FALSE(isPlainShell("sh"));
}

TEST(ShellCommandTest, MakesOneWordOfAnyText) {
  EXPECT_EQ(shellWord("/usr/bin:/bin"), "/usr/bin:/bin");
  EXPECT_EQ(shellWord("a b"), "a\\ b");
  std::mt19937 engine{1};
  std::uniform_int_distribution<int> character(1, 126);
  for (int i = 0; i < 50; ++i) {
    std::string text;
    for (int length = 0; length < 20; ++length) {
      const auto c = static_cast<char>(character(engine));
      text += c == '\n' ? ' ' : c;
    }
    EXPECT_EQ(outputOf("printf %s " + shellWord(text) + "."), text + ".")
        << testing::PrintToString(text);
  }
}

TEST(ShellCommandTest, RefusesWhatNoArgumentCanHold) {
  EXPECT_FALSE(shellArguments(""));
  EXPECT_FALSE(shellArguments(std::string("a\0b", 3)));
  const std::string longest = "echo " + std::string(kLongestArgument - 5, 'x');
  EXPECT_EQ(outputOf(longest).size(), kLongestArgument - 4);
  EXPECT_FALSE(shellArguments(longest + "x"));
  EXPECT_FALSE(shellArguments("echo '" + std::string(kLongestArgument - 6, 'x')));
}

TEST(RecordedScriptTest, PrintsErrorsAndTheExitStatus) {
  EXPECT_EQ(recorded("echo $A; echo wrong >&2; exit 3"), "1\nwrong\nexit status 3\n");
  EXPECT_EQ(recorded("exec /bin/echo a # comment"), "a\nexit status 0\n");
  EXPECT_EQ(recorded("(true)"), "exit status 0\n");
}

TEST(RecordedScriptTest, EndsWithTheExitStatusOfTheCommand) {
  serviceSafe task;
  task.Setpath(kShell);
  task.Setparameter(parameterString(
      shellArguments(recordedScript("", "exit 2", {})).value_or(std::vector<std::string>{})));
  EXPECT_EQ(task.execute(), 2);
}

TEST(RecordedScriptTest, PassesInput) {
  EXPECT_EQ(recorded("/bin/cat", "a 'b' $A\n\\c"), "a 'b' $A\n\\c\nexit status 0\n");
  EXPECT_EQ(recorded("/bin/cat", "END\nENDD\n"), "END\nENDD\n\nexit status 0\n");
  EXPECT_EQ(recorded("/bin/cat", ""), "\nexit status 0\n");
}

}  // namespace
