#include "core/logFile.h"

#include <sys/resource.h>

#include <csignal>
#include <ctime>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/FileException.h"
#include "tests/support/Files.h"

namespace {

using testing::ElementsAre;

class LogFileTest : public testing::Test {
 protected:
  TempDir directory;
  std::string path = directory / "cron.log";
};

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

TEST_F(LogFileTest, PutsTogetherOnlyWhatIsWritten) {
  logFile log(2, path);
  int calls = 0;
  const auto message = [&calls] { return "call " + std::to_string(++calls); };

  log.write(1, message);
  log.write(2, message);

  EXPECT_THAT(readLog(path), ElementsAre("NOTICE#call 1"));
}

TEST_F(LogFileTest, HasThresholdOneUnlessTold) {
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

TEST_F(LogFileTest, GoesOnWritingToADeletedFile) {
  logFile log(0, path);
  const std::string kept = directory / "kept";
  std::filesystem::create_hard_link(path, kept);
  std::filesystem::remove(path);

  log.write("still here");

  EXPECT_EQ(readFile(kept), "still here\n");
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(LogFileTest, WritesAgainAfterALineThatFoundNoRoom) {
  const auto limitFiles = [](rlim_t bytes) {
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = bytes;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  };
  std::signal(SIGXFSZ, SIG_IGN);
  logFile log(0, path);
  log.write("before");
  limitFiles(log.size());
  log.write("lost");
  EXPECT_EQ(readFile(path), "before\n");
  limitFiles(RLIM_INFINITY);

  log.write("after");

  EXPECT_THAT(readFile(path), testing::EndsWith("\nafter\n"));
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

TEST_F(LogFileTest, TellsTheFilesSize) {
  logFile log(0, path);
  EXPECT_EQ(log.size(), 0U);

  log.write("12345");

  EXPECT_EQ(log.size(), 6U);
}

TEST_F(LogFileTest, ThrowsWhenTheSizeOfAMissingFileIsAsked) {
  logFile log(0, path);
  std::filesystem::remove(path);

  EXPECT_THROW(log.size(), std::filesystem::filesystem_error);
}

TEST_F(LogFileTest, SplitsItsPathAtTheLastSlash) {
  logFile log(0, path);

  EXPECT_EQ(log.getFileName(), "/cron.log");
  EXPECT_EQ(log.getDirectory(), directory.path());
}

TEST_F(LogFileTest, BearsAPathWithoutASlash) {
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
