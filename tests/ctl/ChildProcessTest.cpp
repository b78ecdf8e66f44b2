#include "ctl/daemon/childProcess.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include <gtest/gtest.h>

#include "ctl/daemon/process.h"
#include "tests/support/Files.h"

namespace {

/// A program that the tests write.
class ChildProcessTest : public testing::Test {
 protected:
  std::string program(const std::string& body) const {
    return writePlugin(directory / "program", body);
  }

  TempDir directory;
};

TEST_F(ChildProcessTest, ReturnsOutputAndStatus) {
  const ChildResult result = runProgram({program("echo \"$1 $2\"; exit 3"), "a", "b c"});
  EXPECT_EQ(result.output, "a b c\n");
  EXPECT_EQ(result.status, 3);
  EXPECT_FALSE(result.isDone());
  EXPECT_TRUE(runProgram({program("exit 0")}).isDone());
}

TEST_F(ChildProcessTest, GivesItTheInputWhateverItsSize) {
  const std::string large(300000, 'x');
  EXPECT_EQ(runProgram({program("/bin/cat")}, large).output, large);
  EXPECT_EQ(runProgram({program("exit 0")}, large).status, 0) << "it need not read";
  EXPECT_EQ(runProgram({program("/bin/cat")}).output, "");
}

TEST_F(ChildProcessTest, GivesItNoEnvironment) {
  setenv("KODU_SECRET", "1", 1);  // NOLINT(concurrency-mt-unsafe)
  EXPECT_EQ(runProgram({program("/usr/bin/env | /bin/grep -c KODU_SECRET")}).output, "0\n");
  unsetenv("KODU_SECRET");  // NOLINT(concurrency-mt-unsafe)
}

TEST_F(ChildProcessTest, DiscardsItsErrors) {
  EXPECT_EQ(runProgram({program("echo bad >&2; echo good")}).output, "good\n");
}

TEST_F(ChildProcessTest, SaysThatItCouldNotBeStarted) {
  EXPECT_EQ(runProgram({directory / "none"}).status, -1);
  EXPECT_EQ(runProgram({program("kill -9 $$")}).status, -1);
}

TEST(StartOfTest, IsTheTimeAtWhichAProcessWasStarted) {
  const auto start = startOf(getpid());
  ASSERT_TRUE(start.has_value());
  EXPECT_LE(*start, std::time(nullptr) + 1);
  EXPECT_GE(*start, std::time(nullptr) - 300);
}

TEST(StartOfTest, IsNotKnownOfAProcessThatHasEnded) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(0);
  }
  waitpid(child, nullptr, 0);
  EXPECT_FALSE(startOf(child).has_value());
}

}  // namespace
