#include "ctl/daemon/process.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/Files.h"
#include "tests/support/waitUntil.h"

namespace {

namespace fs = std::filesystem;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

/// The number of a process that has ended.
pid_t endedProcess() {
  const pid_t process = fork();
  if (process == 0) {
    _exit(0);
  }
  waitpid(process, nullptr, 0);
  return process;
}

/// A child process that waits, made by a test.
class ProcessTest : public testing::Test {
 protected:
  ~ProcessTest() override {
    if (child > 0) {
      kill(child, SIGKILL);
      waitpid(child, nullptr, 0);
    }
  }

  /// Starts a copy of a program, with `prepare` called in the child before.
  void start(
      const std::string& program, std::vector<std::string> arguments,
      const std::function<void()>& prepare = [] {}) {
    arguments.insert(arguments.begin(), program);
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
      pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    child = fork();
    if (child == 0) {
      prepare();
      execv(program.c_str(), pointers.data());
      _exit(127);
    }
    ASSERT_TRUE(waitUntil([&] { return executableOf(child) == fs::canonical(program); }));
  }
  std::string copyOfSleep() const {
    std::string copy = directory / "program";
    fs::copy_file("/bin/sleep", copy, fs::copy_options::overwrite_existing);
    return copy;
  }

  TempDir directory;
  pid_t child = -1;
};

TEST_F(ProcessTest, ListsProcesses) {
  start("/bin/sleep", {"60"});
  EXPECT_THAT(processes(), Contains(getpid()));
  EXPECT_THAT(processes(), Contains(child));
  EXPECT_THAT(processes(), testing::Not(Contains(endedProcess())));
}

TEST_F(ProcessTest, ReadsItsOwnStatus) {
  const mode_t before = umask(027);
  const ProcessStatus status = statusOf(getpid());
  umask(before);
  EXPECT_EQ(status.parent, getppid());
  EXPECT_THAT(status.uids, ElementsAre(getuid(), geteuid(), geteuid(), geteuid()));
  EXPECT_THAT(status.gids, ElementsAre(getgid(), getegid(), getegid(), getegid()));
  EXPECT_EQ(status.umask, 027U);
  EXPECT_TRUE(status.isOneUser());
}

TEST_F(ProcessTest, ReadsTheUsersOfAnotherProcess) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can become another user";
  }
  start("/bin/sleep", {"60"}, [] {
    const std::array<gid_t, 2> groups = {41, 42};
    if (setgroups(groups.size(), groups.data()) != 0 || setresgid(11, 12, 13) != 0 ||
        setresuid(0, 22, 23) != 0) {
      _exit(126);
    }
    umask(0);
  });
  const ProcessStatus status = statusOf(child);
  EXPECT_EQ(status.parent, getpid());
  EXPECT_THAT(status.uids, ElementsAre(0U, 22U, 22U, 22U));
  EXPECT_THAT(status.gids, ElementsAre(11U, 12U, 12U, 12U));
  EXPECT_THAT(status.groups, ElementsAre(41U, 42U));
  EXPECT_EQ(status.umask, 0U);
  EXPECT_FALSE(status.isOneUser());
}

TEST_F(ProcessTest, HasTheDefaultsForAProcessThatHasEnded) {
  const pid_t ended = endedProcess();
  const ProcessStatus status = statusOf(ended);
  EXPECT_FALSE(status.isThere);
  EXPECT_TRUE(statusOf(getpid()).isThere);
  EXPECT_EQ(status.parent, 0);
  EXPECT_EQ(status.umask, 022U);
  EXPECT_THAT(status.groups, IsEmpty());
  EXPECT_THAT(argumentsOf(ended), IsEmpty());
  EXPECT_EQ(directoryOf(ended), "/");
  EXPECT_EQ(executableOf(ended), "");
  EXPECT_FALSE(isRunning(ended, "/bin/sleep"));
  EXPECT_FALSE(holdsForWriting(ended, "/dev/null"));
}

TEST(ProcessStatusTest, IsOneUserWhenAllIdsAreEqual) {
  const std::vector<std::tuple<std::array<uid_t, 4>, std::array<gid_t, 4>, bool>> cases = {
      {{0, 0, 0, 0}, {0, 0, 0, 0}, true},  {{7, 7, 7, 7}, {8, 8, 8, 8}, true},
      {{1, 0, 0, 0}, {0, 0, 0, 0}, false}, {{0, 1, 0, 0}, {0, 0, 0, 0}, false},
      {{0, 0, 1, 0}, {0, 0, 0, 0}, false}, {{0, 0, 0, 1}, {0, 0, 0, 0}, false},
      {{0, 0, 0, 0}, {1, 0, 0, 0}, false}, {{0, 0, 0, 0}, {0, 0, 0, 1}, false},
  };
  for (const auto& [uids, gids, isOne] : cases) {
    ProcessStatus status;
    status.uids = uids;
    status.gids = gids;
    EXPECT_EQ(status.isOneUser(), isOne)
        << testing::PrintToString(uids) << testing::PrintToString(gids);
  }
}

TEST_F(ProcessTest, ReadsArgumentsOfAnyText) {
  const std::string script = "kill -STOP $$";
  start("/bin/sh", {"-c", script, "name", "", "two words", "new\nline", "\xff", ""});
  EXPECT_THAT(argumentsOf(child), ElementsAre("/bin/sh", "-c", script, "name", "", "two words",
                                              "new\nline", "\xff", ""));
}

TEST_F(ProcessTest, ReadsTheWorkingDirectory) {
  const std::string place = directory.path();
  start("/bin/sleep", {"60"}, [&] { EXPECT_EQ(chdir(place.c_str()), 0); });
  EXPECT_EQ(directoryOf(child), fs::canonical(place));
  EXPECT_EQ(directoryOf(getpid()), fs::current_path());
}

TEST_F(ProcessTest, ReadsTheWorkingDirectoryInAnotherRoot) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can change the root directory";
  }
  fs::create_directory(directory / "inner");
  const std::string root = directory.path();
  child = fork();
  if (child == 0) {
    if (chroot(root.c_str()) != 0 || chdir("/inner") != 0) {
      _exit(126);
    }
    pause();
    _exit(0);
  }
  EXPECT_TRUE(waitUntil([&] { return directoryOf(child) == "/inner"; })) << directoryOf(child);
}

TEST_F(ProcessTest, KnowsAProgramByItsFile) {
  const std::string program = copyOfSleep();
  start(program, {"60"});
  fs::create_hard_link(program, directory / "hard");
  fs::create_symlink(program, directory / "link");
  fs::copy_file(program, directory / "copy");
  EXPECT_TRUE(isRunning(child, program));
  EXPECT_TRUE(isRunning(child, directory / "hard"));
  EXPECT_TRUE(isRunning(child, directory / "link"));
  EXPECT_FALSE(isRunning(child, directory / "copy"));
  EXPECT_FALSE(isRunning(child, directory / "missing"));
  EXPECT_FALSE(isRunning(getpid(), program));
}

TEST_F(ProcessTest, KnowsAProgramThatAnUpgradeHasReplaced) {
  const std::string program = copyOfSleep();
  start(program, {"60"});
  fs::rename(program, directory / "old name");
  EXPECT_FALSE(isRunning(child, program)) << "a renamed file is another program's";
  EXPECT_EQ(executableOf(child), directory / "old name");

  fs::remove(directory / "old name");
  EXPECT_EQ(executableOf(child), directory / "old name" + " (deleted)");
  EXPECT_TRUE(isRunning(child, directory / "old name"));
  fs::copy_file("/bin/true", directory / "old name");
  EXPECT_TRUE(isRunning(child, directory / "old name"));
  EXPECT_FALSE(isRunning(child, program));
}

TEST_F(ProcessTest, FindsFilesThatAreOpenForWriting) {
  const std::vector<std::pair<int, bool>> cases = {{O_RDONLY, false},
                                                   {O_WRONLY, true},
                                                   {O_RDWR, true},
                                                   {O_WRONLY | O_APPEND, true},
                                                   {O_RDONLY | O_NONBLOCK, false}};
  const std::string log = directory / "log";
  writeFile(log, "");
  for (const auto& [flags, isHeld] : cases) {
    const int file = open(log.c_str(), flags | O_CLOEXEC);
    EXPECT_EQ(holdsForWriting(getpid(), log), isHeld) << std::oct << flags;
    close(file);
    EXPECT_FALSE(holdsForWriting(getpid(), log)) << "closed";
  }
}

TEST_F(ProcessTest, FindsAnOpenFileByAnyOfItsNames) {
  const std::string log = directory / "log";
  writeFile(log, "");
  fs::create_hard_link(log, directory / "hard");
  fs::create_symlink("log", directory / "link");
  writeFile(directory / "other", "");
  const std::string place = directory.path();
  start("/bin/sleep", {"60"}, [&] {
    EXPECT_EQ(chdir(place.c_str()), 0);
    open("log", O_WRONLY | O_APPEND);  // stays open in the program
  });
  for (const char* name : {"log", "hard", "link", "./log"}) {
    EXPECT_TRUE(holdsForWriting(child, directory / name)) << name;
    EXPECT_TRUE(holdsForWriting(child, name)) << name << ", from its working directory";
  }
  EXPECT_FALSE(holdsForWriting(child, directory / "other"));
  EXPECT_FALSE(holdsForWriting(child, directory / "missing"));
  EXPECT_FALSE(holdsForWriting(getpid(), "log")) << "this process has another directory";
}

TEST_F(ProcessTest, FindsNothingInAFileThatWasReplaced) {
  const std::string log = directory / "log";
  const int file = open(log.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  EXPECT_TRUE(holdsForWriting(getpid(), log));
  fs::rename(log, log + ".1");
  writeFile(log, "");
  EXPECT_FALSE(holdsForWriting(getpid(), log));
  EXPECT_TRUE(holdsForWriting(getpid(), log + ".1"));
  close(file);
}

}  // namespace
