#include <cstdio>
#include <sstream>
#include <string>

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

  /// The names that a --help lists: commands, or options that begin with "--".
  std::vector<std::string> namesIn(const std::string& help) const {
    std::vector<std::string> names;
    std::istringstream lines(help);
    bool isList = false;
    for (std::string line; std::getline(lines, line);) {
      isList = line == "Subcommands:" || line == "Options:" || (isList && !line.empty());
      std::istringstream words(line);
      std::string word;
      if (isList && line.starts_with("  ") && line[2] != ' ' && words >> word) {
        names.push_back(word.substr(word.find("--") == std::string::npos ? 0 : word.find("--")));
      }
    }
    return names;
  }
};

TEST_F(CompletionTest, KnowsEveryCommandAndOption) {
  const std::string bash = readFile(projectFile("ctl/completion/koductl.bash"));
  const std::string zsh = readFile(projectFile("ctl/completion/_koductl"));
  const auto commands = namesIn(runWith({"--help"}).out);
  EXPECT_THAT(commands, testing::IsSupersetOf({"status", "prune", "--json"}));
  for (const std::string& command : commands) {
    EXPECT_THAT(bash, HasSubstr(command));
    EXPECT_THAT(zsh, HasSubstr(command));
    if (!command.starts_with("--")) {
      for (const std::string& option : namesIn(runWith({command, "--help"}).out)) {
        EXPECT_THAT(bash, HasSubstr(option)) << command;
        EXPECT_THAT(zsh, HasSubstr(option)) << command;
      }
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
