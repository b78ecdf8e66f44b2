#include <cstdio>
#include <string>

#include "ctl/commandLine.h"
#include "ctl/description.h"
#include "ctl/reference/words.h"
#include "tests/ctl/CtlTest.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

/// The completions of the shells.
class CompletionTest : public CtlTest {
 protected:
  /// The proposals of bash for the last of these words.
  std::string complete(const std::string& words) const {
    const std::string command = "bash -c 'source \"" + projectFile("ctl/completion/koductl.bash") +
                                "\"; COMP_WORDS=(" + words +
                                "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _koductl; "
                                "echo \"${COMPREPLY[@]}\"'";
    FILE* pipe = popen(command.c_str(), "r");
    std::string output;
    for (int c = 0; (c = std::fgetc(pipe)) != EOF;) {
      output += static_cast<char>(c);
    }
    pclose(pipe);
    return output;
  }
};

TEST_F(CompletionTest, ProposesEveryCommandAndOption) {
  const CommandDescription program = describeCommandLine();
  for (const CommandDescription& command : allCommands(program)) {
    EXPECT_THAT(complete("koductl " + command.name), HasSubstr(lastWord(command.name)));
    const std::string proposed = complete("koductl --json " + command.name + " --");
    for (const auto& options : {program.options, command.options}) {
      for (const OptionDescription& option : options) {
        EXPECT_THAT(proposed, HasSubstr(option.longName)) << command.name;
      }
    }
  }
}

TEST_F(CompletionTest, ProposesCommandsAndTheirOptions) {
  EXPECT_EQ(complete("koductl st"), "status stagger\n");
  EXPECT_EQ(complete("koductl status --w"), "--watch\n");
  EXPECT_THAT(complete("koductl -f x prune --"),
              AllOf(HasSubstr("--older-than"), Not(HasSubstr("--watch"))));
  EXPECT_EQ(complete("koductl add x -- --"), "\n");
}

TEST_F(CompletionTest, ProposesPathsWhereTheHelpSaysFileOrPlugin) {
  const std::string path = daemon.mainConfig().substr(0, daemon.mainConfig().size() - 1);
  for (const std::string line : {"koductl -f ", "koductl status --config ", "koductl add ",
                                 "koductl add --name x ", "koductl set 1 --plugin "}) {
    EXPECT_EQ(complete(line + path), daemon.mainConfig() + "\n") << line;
  }
}

TEST_F(CompletionTest, ProposesNothingForOtherValues) {
  for (const std::string line : {"history 1 -n", "set 1 --every", "forecast --took", "--user"}) {
    EXPECT_EQ(complete("koductl " + line + " \"\""), "\n") << line;
  }
}

TEST_F(CompletionTest, ProposesTheIdsOfTheTasks) {
  for (const int id : {1, 12, 23}) {
    database.insertTask(quietTask(id));
  }
  EXPECT_EQ(complete(program() + " -f " + daemon.mainConfig() + " show 1"), "1 12\n");
  EXPECT_EQ(complete(program() + " --config " + daemon.mainConfig() + " show 1"), "1 12\n");
  EXPECT_EQ(complete(program() + " set -f " + daemon.mainConfig() + " --name x 1"), "1 12\n");
  EXPECT_EQ(complete(program() + " -f " + daemon.mainConfig() + " show 1 1"), "\n");
  EXPECT_EQ(complete(program() + " -f " + daemon.mainConfig() + " pause 23 1"), "1 12\n");
  EXPECT_EQ(complete(program() + " -f " + daemon.mainConfig() + " show 3"), "\n");
  EXPECT_EQ(complete(program() + " -f " + daemon.mainConfig() + " show 2x"), "\n");
}

/// A name that has a value after one command can be a flag of another one.
TEST_F(CompletionTest, TellsAFlagFromAnOptionOfTheSameName) {
  for (const int id : {1, 12}) {
    database.insertTask(quietTask(id));
  }
  const std::string koductl = program() + " -f " + daemon.mainConfig();
  EXPECT_EQ(complete(koductl + " logs -f 1"), "1 12\n");
  EXPECT_EQ(complete(koductl + " logs -n 5 -f 1"), "1 12\n");
  EXPECT_EQ(complete(koductl + " run --wait 1"), "1 12\n");
  EXPECT_EQ(complete(koductl + " schema --wait 1"), "\n");
  EXPECT_EQ(complete(program() + " logs --config " + daemon.mainConfig() + " 1"), "1 12\n");
}

TEST_F(CompletionTest, ProposesNoOptionAsTheValueOfOne) {
  EXPECT_EQ(complete("koductl history 1 --count --"), "\n");
  EXPECT_THAT(complete("koductl logs --follow --"), HasSubstr("--failed"));
  EXPECT_THAT(complete("koductl history --count 3 --"), HasSubstr("--count"));
}

}  // namespace
