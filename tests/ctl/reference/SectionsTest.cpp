#include "ctl/reference/sections.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/description.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;

const OptionDescription kId = {"", "", "ID", "Id of the task", "", true};
const OptionDescription kConfig = {"-f", "--config", "FILE", "Read it's [file]: now", "/etc/x"};

CommandDescription commandNamed(const std::string& name) {
  CommandDescription command;
  command.name = name;
  command.group = "Show tasks";
  command.meaning = "Do it";
  command.arguments = {kId};
  return command;
}

/// A program with two commands about tasks; the second one has a command of its own.
CommandDescription programWithCommands() {
  CommandDescription program;
  program.options = {kConfig};
  program.commands = {commandNamed("show"), commandNamed("set")};
  program.commands[1].commands = {commandNamed("set all")};
  program.commands[1].commands[0].options = {{"", "--took", "S", "Take it", "", false, true}};
  return program;
}

TEST(SectionsTest, WritesOptionsForTheManual) {
  EXPECT_EQ(manualOptions(programWithCommands()),
            ".TP\n\\fB\\-f\\fR, \\fB\\-\\-config\\fR \\fIFILE\\fR\n"
            "Read it's [file]: now (default: \\fB/etc/x\\fR).\n");
}

TEST(SectionsTest, DescribesAnArgumentOnceInTheManual) {
  EXPECT_EQ(manualCommands(programWithCommands().commands),
            ".SS Show tasks\n"
            ".TP\n\\fBshow\\fR \\fIID\\fR\nDo it.\n"
            ".RS\n.TP\n\\fIID\\fR\nId of the task.\n.RE\n"
            ".TP\n\\fBset\\fR \\fIID\\fR\nDo it.\n");
}

TEST(SectionsTest, DescribesSharedOptionsOnceInTheManual) {
  CommandDescription one = commandNamed("one");
  one.options = {{"", "--late", "", "Only late ones", ""}};
  one.options[0].group = "Choosing tasks";
  CommandDescription two = one;
  two.name = "two";
  EXPECT_EQ(manualShared({one, two}, "Choosing tasks"),
            ".TP\n\\fB\\-\\-late\\fR\nOnly late ones.\n");
  const std::string commands = manualCommands({one, two});
  EXPECT_THAT(commands,
              HasSubstr("Do it.\nThe options under \"Choosing tasks\" can be given too.\n"));
  EXPECT_THAT(commands, testing::Not(HasSubstr("Only late ones")));
}

TEST(SectionsTest, KeepsALineOfTheManualFromBeingAMacro) {
  CommandDescription command = commandNamed("show");
  command.meaning = ".TH is a macro";
  command.details = "'tis one too. C:\\n is none.";
  EXPECT_THAT(manualCommands({command}),
              HasSubstr("\n\\&.TH is a macro.\n\\&'tis one too.\nC:\\en is none.\n"));
}

TEST(SectionsTest, ListsCommandsOnThePage) {
  CommandDescription piped = commandNamed("pipe");
  piped.meaning = "Match a* | b with --took";
  piped.details = "The manual has the details.";
  EXPECT_EQ(pageCommands({commandNamed("show"), piped}),
            "\n| command | meaning |\n| --- | --- |\n"
            "| `show ID` | Do it |\n"
            "| `pipe ID` | Match a\\* \\| b with `--took` |\n\n");
}

TEST(SectionsTest, GivesBashTheWordsAfterEachCommand) {
  EXPECT_THAT(bashVariables(programWithCommands()),
              AllOf(HasSubstr("local commands='show set'\n"),
                    HasSubstr("local common='-f --config'\n"), HasSubstr("['show']=''\n"),
                    HasSubstr("['set']='all'\n"), HasSubstr("['set all']='--took'\n"),
                    HasSubstr("['-f']='FILE'\n"), HasSubstr("['show']='ID'\n")));
}

TEST(SectionsTest, QuotesCharactersThatZshInterprets) {
  EXPECT_THAT(zshArrays(programWithCommands()),
              HasSubstr("\n    '(-f --config)-f[Read it'\\''s \\[file\\]\\: now]:FILE:_files'\n"));
}

TEST(SectionsTest, TellsZshOfAnOptionThatHasTheNameOfACommonOne) {
  CommandDescription program = programWithCommands();
  program.commands[0].options = {{"-f", "--follow", "", "Follow", ""}};
  EXPECT_THAT(zshCases(program),
              HasSubstr("        show) _koductl_redefine -f; _arguments $common \\\n"));
  EXPECT_THAT(zshCases(program), HasSubstr("        set) _arguments $common \\\n"));
}

TEST(SectionsTest, GivesZshTheArgumentsOfACommand) {
  EXPECT_EQ(zshCases(programWithCommands()),
            "        show) _arguments $common \\\n"
            "          '1:ID:_koductl_ids' ;;\n"
            "        set) _arguments $common \\\n"
            "          '1:ID:_koductl_ids' \\\n"
            "          '1:command:(all)' \\\n"
            "          '*--took[Take it]:S:' ;;\n");
}

}  // namespace
