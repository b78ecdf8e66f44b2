#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/Files.h"
#include "tests/support/Process.h"
#include "tests/support/waitUntil.h"

namespace {

TEST(SuperviseTest, ShowsNoControlCharacterOfTheCommandBefore) {
  const TempDir directory;
  const std::string errors = directory / "errors";
  const std::string script = projectFile("ops/supervise");
  const pid_t pid = fork();
  if (pid == 0) {
    std::freopen(errors.c_str(), "w", stderr);
    execl(script.c_str(), script.c_str(), "--before",
          R"(printf 'a\033[31m\302\23331m\342\200\256\377 b\n')", "/bin/sleep", "600", nullptr);
    _exit(127);
  }
  const bool isSaid = waitUntil([&] { return !readFile(errors).empty(); });
  kill(pid, SIGTERM);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(isSaid);
  EXPECT_EQ(exitStatusOf(status), 0);
  EXPECT_THAT(readFile(errors), testing::StartsWith("a?[31m?31m? b\n"));
}

}  // namespace
