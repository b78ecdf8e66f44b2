#include "core/logFile.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <ctime>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/FileException.h"
#include "tests/support/Files.h"
#include "tests/support/FixedClock.h"
#include "tests/support/Mount.h"
#include "tests/support/ZoneFile.h"

namespace {

using testing::ElementsAre;

class LogFileTest : public testing::Test {
 protected:
  TempDir directory;
  std::string path = directory / "cron.log";
};

/// Makes a named pipe and returns its reading end.
int makePipe(const std::string& path) {
  EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
  return open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
}

TEST_F(LogFileTest, WritesEachLevelsWord) {
  logFile log(-1, path);

  for (const int level : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, -1}) {
    log.write(static_cast<char>(level), "x");
  }

  EXPECT_THAT(readLog(path),
              ElementsAre("DEBUG#x", "INFO#x", "NOTICE#x", "WARNING#x", "ERRORS#x", "CRITICAL#x",
                          "ALERT#x", "ERMERGENCY#x", "INFO#x", "INFO#x", "INFO#x"));
}

TEST_F(LogFileTest, DropsLinesBelowTheThreshold) {
  logFile log(2, path);

  log.write(0, "debug");
  log.write(1, "info");
  log.write(2, "notice");
  log.write(static_cast<char>(-1), "negative");

  EXPECT_THAT(readLog(path), ElementsAre("NOTICE#notice"));
}

TEST_F(LogFileTest, FormatsOnlyLinesThatAreWritten) {
  logFile log(2, path);
  int calls = 0;
  const auto message = [&calls] { return "call " + std::to_string(++calls); };

  log.write(1, message);
  log.write(2, message);

  EXPECT_THAT(readLog(path), ElementsAre("NOTICE#call 1"));
}

TEST_F(LogFileTest, HasThresholdOneByDefault) {
  logFile log(path);
  const char* const text = path.c_str();
  logFile same(text);

  log.write(0, "debug");
  log.write(1, "info");
  same.write(0, "debug");
  same.write(1, "info too");

  EXPECT_THAT(readLog(path), ElementsAre("INFO#info", "INFO#info too"));
}

TEST_F(LogFileTest, BeginsALineWithTheLocalTime) {
  setenv("TZ", "XYZ-5", 1);
  tzset();
  const std::time_t before = std::time(nullptr);
  logFile(0, path).write(2, "Load cron task");
  const std::time_t after = std::time(nullptr);

  bool matches = false;
  for (std::time_t second = before; second <= after; ++second) {
    std::tm local{};
    localtime_r(&second, &local);
    std::array<char, 64> text{};
    std::strftime(text.data(), text.size(), "%a %b %e %H:%M:%S %Y", &local);
    matches |= readFile(path) == std::string(text.data()) + "#NOTICE#Load cron task\n";
  }
  EXPECT_TRUE(matches) << readFile(path);
}

TEST_F(LogFileTest, WritesATagInPlaceOfTheLevelWhateverTheThreshold) {
  logFile log(7, path);

  log.write("TAG", "message");

  EXPECT_THAT(readLog(path), ElementsAre("TAG#message"));
}

TEST_F(LogFileTest, WritesAMessageAloneWithoutATime) {
  logFile log(7, path);

  log.write("just this");

  EXPECT_EQ(readFile(path), "just this\n");
}

TEST_F(LogFileTest, AppendsToAnExistingFile) {
  writeFile(path, "old\n");

  logFile(0, path).write("new");

  EXPECT_EQ(readFile(path), "old\nnew\n");
}

TEST_F(LogFileTest, KeepsWritingToADeletedFile) {
  logFile log(0, path);
  const std::string kept = directory / "kept";
  std::filesystem::create_hard_link(path, kept);
  std::filesystem::remove(path);

  log.write("still here");

  EXPECT_EQ(readFile(kept), "still here\n");
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(LogFileTest, CompletesALineThatAnEarlierProcessCutShort) {
  writeFile(path, "Sun Nov 15 12:16:44 2026#NOT");

  logFile(0, path).write("new");

  EXPECT_EQ(readFile(path), "Sun Nov 15 12:16:44 2026#NOT\nnew\n");
}

TEST_F(LogFileTest, WritesToAPipe) {
  const int pipe = makePipe(path);
  logFile log(0, path);

  log.write("one");
  log.write("two");

  std::array<char, 64> text{};
  EXPECT_EQ(read(pipe, text.data(), text.size()), 8);
  EXPECT_STREQ(text.data(), "one\ntwo\n");
  close(pipe);
}

TEST_F(LogFileTest, IsClosedInProgramsThatAreExecuted) {
  const logFile log(0, path);

  int found = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry.path(), gone) == path) {
      ++found;
      EXPECT_EQ(fcntl(std::stoi(entry.path().filename()), F_GETFD), FD_CLOEXEC);
    }
  }
  EXPECT_EQ(found, 1);
}

TEST_F(LogFileTest, OpensItsFileAgainWhenItWasClosed) {
  logFile log(0, path);
  log.write("before");
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry.path(), gone) == path) {
      close(std::stoi(entry.path().filename()));
      break;
    }
  }

  log.write("after");

  EXPECT_EQ(readFile(path), "before\nafter\n");
}

/// Files may grow up to a limit, and a write beyond it fails or is cut short, as on a full disk.
class FullLogFileTest : public LogFileTest {
 protected:
  void SetUp() override { std::signal(SIGXFSZ, SIG_IGN); }
  void TearDown() override { limitFiles(RLIM_INFINITY); }

  static void limitFiles(rlim_t bytes) {
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = bytes;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  }
};

TEST_F(FullLogFileTest, WritesAgainAfterLinesThatDidNotFit) {
  logFile log(0, path);
  log.write("before");
  limitFiles(log.size());
  log.write("lost");
  log.write("lost too");
  EXPECT_EQ(readFile(path), "before\n");
  limitFiles(RLIM_INFINITY);

  log.write("after");

  EXPECT_EQ(readFile(path), "before\nafter\n");
}

TEST_F(FullLogFileTest, BeginsANewLineAfterOneThatWasCutShort) {
  logFile log(0, path);
  log.write("before");
  limitFiles(log.size() + 4);
  log.write("cut short");
  log.write("lost");
  EXPECT_EQ(readFile(path), "before\ncut ");
  limitFiles(RLIM_INFINITY);

  log.write("after");
  log.write("and on");

  EXPECT_EQ(readFile(path), "before\ncut \nafter\nand on\n");
}

TEST_F(FullLogFileTest, BeginsNoNewLineAfterACompleteOne) {
  logFile log(0, path);
  log.write("before");
  limitFiles(log.size() + 4);
  log.write("cut short");
  limitFiles(log.size() + 1);
  log.write("lost but for the line end before it");
  limitFiles(RLIM_INFINITY);

  log.write("after");

  EXPECT_EQ(readFile(path), "before\ncut \nafter\n");
}

TEST_F(FullLogFileTest, BeginsAFileThatWasTruncatedWithALine) {
  logFile log(0, path);
  limitFiles(4);
  log.write("cut short");
  std::filesystem::resize_file(path, 0);
  limitFiles(RLIM_INFINITY);

  log.write("after");

  EXPECT_EQ(readFile(path), "after\n");
}

TEST_F(FullLogFileTest, WritesWholeLinesAgainAfterAFullDisk) {
  const std::string disk = directory / "disk";
  std::filesystem::create_directory(disk);
  const Mount mount = Mount::memory(disk, "64k");
  if (!mount.isMounted()) {
    GTEST_SKIP() << "only an administrator can mount file systems";
  }
  writeFile(disk + "/filler", std::string(32'768, 'x'));
  const std::string message(99, 'm');
  logFile log(0, disk + "/cron.log");
  for (int line = 0; line < 1000; ++line) {
    log.write(message);
  }
  const std::string full = readFile(disk + "/cron.log");
  ASSERT_LT(full.size(), 100'000U);
  ASSERT_THAT(full, testing::Not(testing::EndsWith("\n"))) << "no line is cut short";
  std::filesystem::remove(disk + "/filler");

  log.write("after");

  EXPECT_EQ(readFile(disk + "/cron.log"), full + "\nafter\n");
}

/// The machine's time zone, as this process sees it, is a file that belongs to the test.
class ZoneLogFileTest : public LogFileTest {
 protected:
  void SetUp() override {
    unsetenv("TZ");
    if (!mount.isMounted()) {
      GTEST_SKIP() << "only an administrator can replace /etc/localtime";
    }
  }

  ZoneFile zone{directory / "zone", 5};
  const Mount mount = Mount::file(zone.name(), "/etc/localtime");
};

TEST_F(ZoneLogFileTest, FollowsAChangeOfTheTimeZoneInTheNextSecond) {
  FixedClock clock(kMayDay);
  logFile log(0, path);
  log.write(2, "before");

  zone.set(-3);
  clock.set(kMayDay + 1);
  log.write(2, "after");

  EXPECT_EQ(readFile(path),
            "Wed May  1 18:02:09 2024#NOTICE#before\nWed May  1 10:02:10 2024#NOTICE#after\n");
}

TEST_F(LogFileTest, KeepsLinesOfDifferentThreadsApart) {
  constexpr int kThreads = 8;
  constexpr int kLines = 200;
  logFile log(0, path);
  const std::string message(300, 'm');
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int line = 0; line < kLines; ++line) {
        log.write(2, message);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }

  EXPECT_THAT(readLog(path), testing::Each("NOTICE#" + message));
  EXPECT_EQ(readLog(path).size(), kThreads * kLines);
}

TEST_F(LogFileTest, ReturnsTheFilesSize) {
  logFile log(0, path);
  EXPECT_EQ(log.size(), 0U);

  log.write("12345");

  EXPECT_EQ(log.size(), 6U);
}

TEST_F(LogFileTest, ThrowsForTheSizeOfAMissingFile) {
  logFile log(0, path);
  std::filesystem::remove(path);

  EXPECT_THROW(log.size(), std::filesystem::filesystem_error);
}

TEST_F(LogFileTest, SplitsItsPathAtTheLastSlash) {
  logFile log(0, path);

  EXPECT_EQ(log.getFileName(), "/cron.log");
  EXPECT_EQ(log.getDirectory(), directory.path());
}

TEST_F(LogFileTest, AcceptsAPathWithoutASlash) {
  std::filesystem::current_path(directory.path());
  logFile log(0, "plain.log");

  EXPECT_THROW(log.getFileName(), std::out_of_range);
  EXPECT_EQ(log.getDirectory(), "plain.log");
}

TEST_F(LogFileTest, ThrowsWhenTheFileCannotBeOpened) {
  const std::string missing = directory / "no/such/directory.log";
  const auto failureOf = [](auto open) -> std::string {
    try {
      open();
    } catch (const FileException& e) {
      return e.what();
    }
    return "nothing was thrown";
  };

  EXPECT_EQ(failureOf([&] { logFile log(missing); }), "error open file: " + missing);
  EXPECT_EQ(failureOf([&] { logFile log(2, missing); }), "error open file: " + missing);
  EXPECT_EQ(failureOf([&] { logFile log(2, ""); }), "error open file: ");
}

}  // namespace
