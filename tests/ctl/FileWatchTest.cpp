#include "ctl/files/fileWatch.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "ctl/failure.h"
#include "tests/support/Files.h"

namespace {

class FileWatchTest : public testing::Test {
 protected:
  TempDir directory;
};

TEST_F(FileWatchTest, NamesEachFileThatIsWritten) {
  FileWatch watch(directory.path());
  writeFile(directory / "one", "1");
  writeFile(directory / "two", "2");
  EXPECT_EQ(watch.next(), "one");
  EXPECT_EQ(watch.next(), "two");
}

TEST_F(FileWatchTest, NamesAFileThatIsWrittenAgain) {
  writeFile(directory / "one", "1");
  FileWatch watch(directory.path());
  writeFile(directory / "one", "2");
  EXPECT_EQ(watch.next(), "one");
}

TEST_F(FileWatchTest, PassesOverReadersAndOtherFolders) {
  writeFile(directory / "one", "1");
  std::filesystem::create_directory(directory / "below");
  FileWatch watch(directory.path());
  EXPECT_EQ(readFile(directory / "one"), "1");
  writeFile(directory / "below/other", "1");
  writeFile(directory / "two", "2");
  EXPECT_EQ(watch.next(), "two");
}

TEST_F(FileWatchTest, TakesManyEventsAtOnce) {
  FileWatch watch(directory.path());
  constexpr int kFiles = 2000;
  for (int i = 0; i < kFiles; ++i) {
    writeFile(directory / (std::string(100, 'x') + std::to_string(i)), "1");
  }
  std::string last;
  for (int i = 0; i < kFiles; ++i) {
    last = watch.next();
  }
  EXPECT_EQ(last, std::string(100, 'x') + std::to_string(kFiles - 1));
}

TEST_F(FileWatchTest, RefusesWhatIsNoFolder) {
  writeFile(directory / "one", "1");
  for (const char* name : {"one", "none"}) {
    try {
      const FileWatch watch(directory / name);
      ADD_FAILURE() << name;
    } catch (const Failure& e) {
      EXPECT_EQ(e.exitCode, kNotFound);
      EXPECT_TRUE(std::string(e.what()).starts_with("cannot watch the directory ")) << e.what();
    }
  }
}

TEST_F(FileWatchTest, EndsWhenTheFolderIsRemoved) {
  const std::string folder = directory / "below";
  std::filesystem::create_directory(folder);
  FileWatch watch(folder);
  std::filesystem::remove(folder);
  EXPECT_THROW(watch.next(), Failure);
}

}  // namespace
