#include "ctl/task/guarded.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/task/task.h"

namespace {

using testing::ElementsAreArray;

using Words = std::vector<std::string>;

Task taskOf(const std::string& path, const std::string& parameter = "") {
  Task task;
  task.path = path;
  task.parameter = parameter;
  return task;
}

TEST(IsGuardedTest, DependsOnTheNameOfTheProgram) {
  for (const char* path : {"/usr/bin/koduguard", "koduguard", "./koduguard", "/koduguard"}) {
    EXPECT_TRUE(isGuarded(taskOf(path))) << path;
  }
  for (const char* path :
       {"", "/bin/true", "/usr/bin/koduguard2", "/usr/bin/mykoduguard", "/usr/bin/koduguard/",
        "/usr/bin/koduguard/plugin", "/usr/bin/Koduguard", "/usr/bin/koduguard.sh"}) {
    EXPECT_FALSE(isGuarded(taskOf(path))) << path;
  }
}

struct GuardedCase {
  std::string name;
  std::string parameter;
  Words arguments;
  std::string plugin;
};

TEST(GuardedPluginTest, FollowsTheFirstSeparator) {
  const std::vector<GuardedCase> cases = {
      {"options and arguments", "-t 5 -e -- /p a b", {"-t", "5", "-e", "--", "/p"}, "/p"},
      {"no option", "-- /p", {"--", "/p"}, "/p"},
      {"no argument", "-t 5 -- /p", {"-t", "5", "--", "/p"}, "/p"},
      {"a separator for the plugin", "-- /p -- x", {"--", "/p"}, "/p"},
      {"a separator as the plugin", "-- -- x", {"--", "--"}, "--"},
      {"a path with a space", "-- \"/my plugin\" x", {"--", "/my plugin"}, "/my plugin"},
      {"further spaces", "  -t  5   --   /p  ", {"-t", "5", "--", "/p"}, "/p"},
      {"a separator in quotes", "\"--\" /p", {"--", "/p"}, "/p"},
      {"no parameters", "", {}, ""},
      {"options only", "-t 5", {"-t", "5"}, ""},
      {"a separator without a plugin", "-t 5 --", {"-t", "5", "--"}, ""},
      {"a separator only", "--", {"--"}, ""},
      {"no separator", "/p x", {"/p", "x"}, ""},
      {"three dashes", "--- /p", {"---", "/p"}, ""},
  };
  for (const GuardedCase& test : cases) {
    const Task task = taskOf("/usr/bin/koduguard", test.parameter);
    EXPECT_THAT(guardArguments(task), ElementsAreArray(test.arguments)) << test.name;
    EXPECT_EQ(guardedPlugin(task), test.plugin) << test.name;
  }
}

}  // namespace
