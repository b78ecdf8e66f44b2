#include "sched/copyFile.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Files.h"

namespace {

namespace fs = std::filesystem;

class CopyFileTest : public testing::Test {
 protected:
  /// The text of the exception that the copy throws; "" when it throws none.
  std::string failure() const {
    try {
      copyToNewFile(from, to);
    } catch (const fs::filesystem_error& e) {
      return e.what();
    }
    return "";
  }
  std::string failureText(int error) const {
    return std::string("filesystem error: cannot copy: ") + std::strerror(error) + " [" + from +
           "] [" + to + "]";
  }

  TempDir directory;
  const std::string from = directory / "from";
  const std::string to = directory / "to";
};

TEST_F(CopyFileTest, CopiesEveryByte) {
  for (const std::size_t size : {0UL, 1UL, 65535UL, 65536UL, 65537UL, 1'000'000UL}) {
    std::string content(size, '\0');
    std::generate(content.begin(), content.end(),
                  [n = 0]() mutable { return static_cast<char>(n++ % 251); });
    writeFile(from, content);

    copyToNewFile(from, to);

    EXPECT_EQ(readFile(to), content) << size;
    fs::remove(to);
  }
}

TEST_F(CopyFileTest, CopiesIntoAnExistingDirectory) {
  writeFile(from, "text");
  fs::create_directory(to);

  copyToNewFile(from, to);

  EXPECT_EQ(readFile(to + "/from"), "text");
}

TEST_F(CopyFileTest, CopiesTheMode) {
  writeFile(from, "text");
  const mode_t previous = umask(077);
  for (const mode_t mode : {0600U, 0644U, 0640U}) {
    chmod(from.c_str(), mode);

    copyToNewFile(from, to);

    struct stat status {};
    stat(to.c_str(), &status);
    EXPECT_EQ(status.st_mode & 07777U, mode);
    fs::remove(to);
  }
  umask(previous);
}

TEST_F(CopyFileTest, NeverOverwrites) {
  writeFile(from, "new");
  writeFile(to, "old");

  EXPECT_EQ(failure(), failureText(EEXIST));

  EXPECT_EQ(readFile(to), "old");
}

TEST_F(CopyFileTest, DoesNotFollowALinkAtTheTarget) {
  writeFile(from, "new");
  fs::create_symlink(directory / "elsewhere", to);

  EXPECT_EQ(failure(), failureText(EEXIST));

  EXPECT_FALSE(fs::exists(directory / "elsewhere"));
}

TEST_F(CopyFileTest, ReportsTheSystemsReason) {
  EXPECT_EQ(failure(), failureText(ENOENT));
  writeFile(from, "text");
  EXPECT_THROW(copyToNewFile(from, directory / "missing/to"), fs::filesystem_error);
}

TEST_F(CopyFileTest, RefusesAFifoWithoutWaiting) {
  fs::create_directory(from);
  EXPECT_EQ(failure(), failureText(ENOTSUP));
  fs::remove(from);
  ASSERT_EQ(mkfifo(from.c_str(), 0600), 0);
  EXPECT_EQ(failure(), failureText(ENOTSUP));

  EXPECT_FALSE(fs::exists(to));
}

TEST_F(CopyFileTest, FailsOnAFullDisk) {
  writeFile(from, std::string(100'000, 'x'));
  const auto previous = std::signal(SIGXFSZ, SIG_IGN);
  rlimit saved{};
  getrlimit(RLIMIT_FSIZE, &saved);
  const rlimit small = {70'000, saved.rlim_max};
  setrlimit(RLIMIT_FSIZE, &small);

  const std::string text = failure();

  setrlimit(RLIMIT_FSIZE, &saved);
  std::signal(SIGXFSZ, previous);
  EXPECT_EQ(text, failureText(EFBIG));
}

TEST_F(CopyFileTest, OpensBothFilesCloseOnExec) {
  writeFile(from, std::string(1'000'000, 'x'));
  std::atomic<bool> isDone = false;
  std::thread copier([&] {
    while (!isDone) {
      copyToNewFile(from, to);
      fs::remove(to);
    }
  });

  // Between two calls a descriptor can be closed and reused. It counts only if it belonged to the
  // copy before and after.
  int seen = 0;
  while (seen < 200) {
    for (int file = 3; file < 16; ++file) {
      const std::string entry = "/proc/self/fd/" + std::to_string(file);
      std::error_code ignored;
      const fs::path before = fs::read_symlink(entry, ignored);
      const int flags = fcntl(file, F_GETFD);
      if (flags >= 0 && (before == from || before == to) &&
          fs::read_symlink(entry, ignored) == before) {
        EXPECT_EQ(flags, FD_CLOEXEC) << before;
        ++seen;
      }
    }
  }
  isDone = true;
  copier.join();
}

}  // namespace
