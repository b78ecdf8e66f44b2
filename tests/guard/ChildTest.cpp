#include "guard/child.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "guard/capture.h"
#include "tests/support/Files.h"
#include "tests/support/waitUntil.h"

namespace {

/// A plugin with both streams captured.
class ChildTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(output.open(65536), 0);
    ASSERT_EQ(errors.open(65536), 0);
  }
  Child start(std::vector<std::string> words, SignalSet mask = 0) {
    std::vector<char*> pointers;
    for (std::string& word : words) {
      pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    return startPlugin(pointers.data(), output, errors, mask);
  }
  /// Waits for the end of the plugin and of both streams; returns its status.
  int finish(const Child& child) {
    waitUntil([&] {
      output.drain();
      errors.drain();
      return !output.isOpen() && !errors.isOpen();
    });
    int status = 0;
    waitpid(child.pid, &status, 0);
    return status;
  }

  TempDir directory;
  Capture output, errors;
};

TEST_F(ChildTest, CapturesBothStreams) {
  const Child child = start({"/bin/sh", "-c", "echo \"$1\"; echo err >&2; exit 4", "x", "a b"});
  ASSERT_GT(child.pid, 0);
  EXPECT_EQ(child.cloneError, 0);
  EXPECT_EQ(child.execError, 0);
  const int status = finish(child);
  EXPECT_EQ(output.kept(), "a b\n");
  EXPECT_EQ(errors.kept(), "err\n");
  EXPECT_EQ(WEXITSTATUS(status), 4);
}

TEST_F(ChildTest, StartsAGroupWithTheNumberOfThePlugin) {
  const Child child = start({"/bin/sleep", "60"});
  EXPECT_EQ(getpgid(child.pid), child.pid);
  kill(-child.pid, SIGKILL);
  EXPECT_EQ(WTERMSIG(finish(child)), SIGKILL);
}

TEST_F(ChildTest, ClosesItsOwnWriteEnds) {
  const Child child = start({"/bin/true"});
  EXPECT_EQ(output.writeEnd(), -1);
  EXPECT_EQ(errors.writeEnd(), -1);
  EXPECT_EQ(WEXITSTATUS(finish(child)), 0);
}

TEST_F(ChildTest, SetsTheGivenSignalMask) {
  finish(
      start({"/bin/grep", "SigBlk", "/proc/self/status"}, signalBit(SIGHUP) | signalBit(SIGTERM)));
  EXPECT_EQ(output.kept(), "SigBlk:\t0000000000004001\n");
}

TEST_F(ChildTest, ReturnsTheErrorOfTheExecution) {
  writeFile(directory / "text", "no program");
  for (const auto& [path, error] : {std::pair<std::string, int>{directory / "missing", ENOENT},
                                    {directory / "text", EACCES},
                                    {directory.path(), EACCES},
                                    {directory / "text/below", ENOTDIR},
                                    {"", ENOENT},
                                    {"/" + std::string(300, 'x'), ENAMETOOLONG}}) {
    Capture unused;
    ASSERT_EQ(unused.open(8), 0);
    std::string word = path;
    std::array<char*, 2> plugin = {word.data(), nullptr};
    const Child child = startPlugin(plugin.data(), unused, errors, 0);
    EXPECT_EQ(child.pid, -1) << path;
    EXPECT_EQ(child.execError, error) << path;
    EXPECT_EQ(child.cloneError, 0) << path;
  }
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a process was left";
}

TEST_F(ChildTest, SignalsEveryChild) {
  const pid_t first = fork();
  if (first == 0) {
    pause();
    _exit(0);
  }
  const Child second = start({"/bin/sleep", "60"});
  signalChildren(SIGTERM);
  int status = 0;
  ASSERT_EQ(waitpid(first, &status, 0), first);
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
  EXPECT_EQ(WTERMSIG(finish(second)), SIGTERM);
}

TEST_F(ChildTest, SignalsNothingWithoutChildren) {
  signalChildren(SIGKILL);  // this process goes on
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

TEST(LendMemoryTest, RunsACallInAProcessWithTheSameMemory) {
  struct Shared {
    pid_t pid = 0;
    int value = 0;
  } shared;
  const pid_t pid = lendMemory(
      [](void* argument) {
        auto& inner = *static_cast<Shared*>(argument);
        inner.pid = static_cast<pid_t>(kernel(SYS_getpid));
        inner.value = 42;
        endProcess(7);
      },
      &shared);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_EQ(WEXITSTATUS(status), 7);
  EXPECT_EQ(shared.pid, pid);
  EXPECT_EQ(shared.value, 42);
}

TEST(KernelTest, ReturnsANegatedErrno) {
  EXPECT_EQ(kernel(SYS_close, -1), -EBADF);
  EXPECT_EQ(kernel(SYS_getpid), getpid());
  EXPECT_EQ(kernel(SYS_kill, getpid(), 0), 0);
}

TEST(SignalBitTest, CountsFromOne) {
  EXPECT_EQ(signalBit(1), 1UL);
  EXPECT_EQ(signalBit(SIGTERM), 0x4000UL);
  EXPECT_EQ(signalBit(64), 1UL << 63U);
}

}  // namespace
