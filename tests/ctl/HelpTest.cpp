#include "ctl/help.h"

#include <sstream>
#include <string>

#include "ctl/commandLine.h"
#include "ctl/description.h"
#include "tests/ctl/CtlTest.h"

namespace {

using testing::HasSubstr;

CommandDescription exampleCommand() {
  CommandDescription command;
  command.name = "example";
  command.meaning = "Show what help looks like";
  command.details = "It says more in whole sentences, which are broken into lines of 80 columns.";
  command.arguments = {{"", "", "ID", "Id of the task", "", true}};
  command.options = {{"-n", "--count", "COUNT", "List at most COUNT runs", "20"},
                     {"", "--a-rather-long-name", "VALUE", "Takes two lines", ""}};
  return command;
}

TEST(HelpTextTest, ShowsUsageMeaningAndOptions) {
  EXPECT_EQ(helpText(exampleCommand()),
            "Usage: koductl example ID [--count COUNT] [--a-rather-long-name VALUE]\n"
            "\n"
            "Show what help looks like. It says more in whole sentences, which are broken\n"
            "into lines of 80 columns.\n"
            "\n"
            "Arguments:\n"
            "  ID                      Id of the task\n"
            "\n"
            "Options:\n"
            "  -n, --count COUNT       List at most COUNT runs (default: 20)\n"
            "  --a-rather-long-name VALUE\n"
            "                          Takes two lines\n"
            "\n"
            "The options that koductl --help lists can be given too.\n");
}

TEST(HelpTextTest, ListsCommandsUnderTheirGroups) {
  CommandDescription program;
  program.commands = {exampleCommand(), exampleCommand()};
  program.commands[0].group = "First";
  program.commands[1].group = "Second";
  EXPECT_THAT(helpText(program), HasSubstr("\nFirst:\n  example                 Show what help "
                                           "looks like\n\nSecond:\n  example  "));
}

TEST(HelpTextTest, ListsSharedOptionsUnderTheirOwnHeading) {
  CommandDescription command = exampleCommand();
  command.options[0].group = "Choosing tasks";
  EXPECT_THAT(helpText(command),
              HasSubstr("\nOptions:\n"
                        "  --a-rather-long-name VALUE\n"
                        "                          Takes two lines\n"
                        "\nChoosing tasks:\n"
                        "  -n, --count COUNT       List at most COUNT runs (default: 20)\n"));
}

TEST(HelpTextTest, BreaksLinesBeforeColumn80) {
  const std::string word(10, 'x');
  EXPECT_EQ(wrapped(word + " " + word, 58), word + " " + word + "\n");
  EXPECT_EQ(wrapped(word + " " + word, 59), word + "\n" + std::string(59, ' ') + word + "\n");
  EXPECT_EQ(wrapped(std::string(90, 'x'), 4), std::string(90, 'x') + "\n");
}

/// What the program prints for --help.
class HelpTest : public CtlTest {};

/// Without a configuration or a database.
TEST_F(HelpTest, IsPrintedForEachCommand) {
  for (const CommandDescription& command : allCommands(describeCommandLine())) {
    std::vector<std::string> arguments = {"--help"};
    std::istringstream words(command.name);
    arguments.insert(arguments.begin(), std::istream_iterator<std::string>(words), {});
    const CtlResult help = runWith(arguments);
    EXPECT_EQ(help.exitCode, 0) << command.name;
    EXPECT_EQ(help.out, helpText(command));
    EXPECT_EQ(help.err, "");
  }
}

TEST_F(HelpTest, FitsOnATerminal) {
  const std::string help = runWith({"--help"}).out;
  EXPECT_EQ(help, helpText(describeCommandLine()));
  std::istringstream lines(help);
  for (std::string line; std::getline(lines, line);) {
    EXPECT_LT(line.size(), 80U) << line;
  }
}

}  // namespace
