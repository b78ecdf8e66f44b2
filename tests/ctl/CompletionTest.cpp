#include <cstdio>
#include <string>

#include "ctl/commandLine.h"
#include "ctl/description.h"
#include "tests/ctl/CtlTest.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

/// The completions of the shells.
class CompletionTest : public CtlTest {
 protected:
  /// What bash proposes for the last of these words.
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

TEST_F(CompletionTest, KnowsEveryCommandAndOption) {
  const std::string bash = readFile(projectFile("ctl/completion/koductl.bash"));
  const std::string zsh = readFile(projectFile("ctl/completion/_koductl"));
  for (const CommandDescription& command : allCommands(describeCommandLine())) {
    EXPECT_THAT(bash, HasSubstr(command.name));
    EXPECT_THAT(zsh, HasSubstr(command.name));
    for (const OptionDescription& option : command.options) {
      EXPECT_THAT(bash, HasSubstr(option.longName)) << command.name;
      EXPECT_THAT(zsh, HasSubstr(option.longName)) << command.name;
    }
  }
}

TEST_F(CompletionTest, ProposesCommandsAndTheirOptions) {
  EXPECT_EQ(complete("koductl st"), "status stagger\n");
  EXPECT_EQ(complete("koductl status --w"), "--watch\n");
  EXPECT_THAT(complete("koductl -f x prune --"),
              AllOf(HasSubstr("--older-than"), Not(HasSubstr("--yes"))));
  EXPECT_EQ(complete("koductl add x -- --"), "\n");
}

TEST_F(CompletionTest, ProposesTheIdsOfTheTasks) {
  for (const int id : {1, 12, 23}) {
    database.insertTask(quietTask(id));
  }
  EXPECT_EQ(complete(program() + " -f " + daemon.mainConfig() + " show 1"), "1 12\n");
  EXPECT_EQ(complete(program() + " --config " + daemon.mainConfig() + " show 1"), "1 12\n");
}

}  // namespace
