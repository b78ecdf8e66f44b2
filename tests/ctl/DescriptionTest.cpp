#include "ctl/description.h"

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/commandLine.h"

namespace {

using testing::ElementsAre;

/// A parser with every kind of option that koductl has.
class DescriptionTest : public testing::Test {
 protected:
  DescriptionTest() {
    app.require_subcommand(1);
    app.set_help_flag("-h,--help", "Print help");
    app.footer("Of the program.");
    CLI::App* parent = app.add_subcommand("parent", "Be a parent");
    parent->group("Group");
    parent->footer("Of the parent.");
    parent->add_option("-n,--count", number, "Count so far")->option_text("COUNT (20)");
    parent->add_flag("--flag", isSet, "Set it");
    CLI::App* child = parent->add_subcommand("child", "Be a child");
    child->add_option("NAME", text, "Its name")->required();
    child->add_option("PLACE", place, "Its place");
    child->add_option("ARGUMENT")->description("For the plugin")->expected(0);
    child->add_option("--every", every, "Its interval")->option_text("INTERVAL")->required();
    child->add_option("--took", took, "Repeat it")->option_text("ID=S")->take_all();
    program = describe(app);
    parentCommand = program.commands.at(0);
    childCommand = parentCommand.commands.at(0);
  }

  int number = 0;
  bool isSet = false;
  std::string text, place, every;
  std::vector<std::string> took;
  CLI::App app{"Do something", "program"};
  CommandDescription program, parentCommand, childCommand;
};

std::vector<std::string> headings(const std::vector<OptionDescription>& options) {
  std::vector<std::string> result;
  for (const OptionDescription& option : options) {
    result.push_back(option.heading());
  }
  return result;
}

TEST_F(DescriptionTest, NamesTheOptionsWithTheirValues) {
  EXPECT_THAT(headings(program.options), ElementsAre("-h, --help"));
  EXPECT_THAT(headings(parentCommand.options), ElementsAre("-n, --count COUNT", "--flag"));
  EXPECT_THAT(headings(childCommand.arguments), ElementsAre("NAME", "PLACE", "ARGUMENT"));
}

TEST_F(DescriptionTest, TakesTheDefaultFromTheBrackets) {
  const OptionDescription& count = parentCommand.options.at(0);
  EXPECT_EQ(count.standard, "20");
  EXPECT_EQ(count.meaningAndDefault(), "Count so far (default: 20)");
  EXPECT_EQ(parentCommand.options.at(1).meaningAndDefault(), "Set it");
}

TEST_F(DescriptionTest, NamesAValueAfterItsTypeByDefault) {
  app.add_option("--limit", number, "At most")->check(CLI::Range(0, 9));
  EXPECT_EQ(describe(app).options.at(1).heading(), "--limit INT");
}

TEST_F(DescriptionTest, KeepsTheGroupOfASharedOption) {
  app.add_flag("--own");
  app.add_flag("--shared")->group("Choosing");
  const auto options = describe(app).options;
  EXPECT_EQ(options.at(1).group, "");
  EXPECT_EQ(options.at(2).group, "Choosing");
  EXPECT_THAT(groupsOf(options), ElementsAre("", "Choosing"));
}

TEST_F(DescriptionTest, AttachesDetailsToTheirCommandOnly) {
  EXPECT_EQ(program.sentences(), "Do something. Of the program.");
  EXPECT_EQ(parentCommand.sentences(), "Be a parent. Of the parent.");
  EXPECT_EQ(childCommand.sentences(), "Be a child.");
}

TEST_F(DescriptionTest, WritesASynopsis) {
  EXPECT_EQ(program.synopsis(), "[--help] COMMAND [ARGUMENT...]");
  EXPECT_EQ(parentCommand.synopsis(), "parent [--count COUNT] [--flag]");
  EXPECT_EQ(childCommand.synopsis(),
            "parent child NAME [PLACE] --every INTERVAL [--took ID=S]... [-- ARGUMENT...]");
}

TEST_F(DescriptionTest, AbbreviatesMoreThanFourOptionalOptions) {
  CLI::App* command = app.add_subcommand("many");
  for (const char* name : {"--a", "--b", "--c", "--d"}) {
    command->add_flag(name);
  }
  EXPECT_EQ(describe(*command).synopsis(), "many [--a] [--b] [--c] [--d]");
  command->add_flag("--e");
  EXPECT_EQ(describe(*command).synopsis(), "many [OPTION...]");
}

TEST_F(DescriptionTest, ListsEveryCommandThatCanBeRun) {
  app.get_subcommand("parent")->require_subcommand(1);
  const auto commands = allCommands(describe(app));
  ASSERT_EQ(commands.size(), 1U);
  EXPECT_EQ(commands[0].name, "parent child");
  EXPECT_EQ(allCommands(program).size(), 2U);
}

TEST_F(DescriptionTest, ListsEachGroupOnce) {
  EXPECT_THAT(groupsOf({parentCommand, childCommand, parentCommand}), ElementsAre("Group"));
}

/// Help and reference add the full stop.
void expectASentence(const std::string& text, const std::string& where) {
  EXPECT_THAT(text, testing::MatchesRegex("[A-Z].*[^.]")) << where;
}

TEST(KoductlDescriptionTest, DescribesEveryCommandAndOption) {
  const CommandDescription program = describeCommandLine();
  EXPECT_GE(allCommands(program).size(), 16U);
  for (CommandDescription command : allCommands(program)) {
    expectASentence(command.meaning, command.name);
    command.options.insert(command.options.end(), command.arguments.begin(),
                           command.arguments.end());
    for (const OptionDescription& option : command.options) {
      expectASentence(option.meaning, command.name + " " + option.heading());
    }
  }
}

}  // namespace
