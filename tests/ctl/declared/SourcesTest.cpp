#include "ctl/declared/sources.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/failure.h"
#include "tests/support/Files.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class SourcesTest : public testing::Test {
 protected:
  std::vector<std::string> namesIn(const std::string& path) const {
    std::vector<std::string> names;
    for (const Source& source : readSources(path)) {
      names.push_back(source.name.substr(folder.path().size() + 1) + "=" + source.content);
    }
    return names;
  }
  static ExitCode statusFor(const std::string& path, const std::string& reason) {
    try {
      readSources(path);
    } catch (const Failure& e) {
      EXPECT_THAT(e.what(), HasSubstr(reason));
      return e.exitCode;
    }
    return kDone;
  }

  TempDir folder;
};

TEST_F(SourcesTest, ReadsAFileOfAnyName) {
  writeFile(folder / "tasks", "x");
  EXPECT_THAT(namesIn(folder / "tasks"), ElementsAre("tasks=x"));
  writeFile(folder / "empty", "");
  EXPECT_THAT(namesIn(folder / "empty"), ElementsAre("empty="));
}

TEST_F(SourcesTest, ReadsTheDeclarationsOfADirectoryByName) {
  for (const char* name : {"b.yaml", "a.yml", "c.YAML", "d.json", ".e.yaml", "yaml", "f.yaml~"}) {
    writeFile(folder / name, name);
  }
  std::filesystem::create_directory(folder / "sub");
  writeFile(folder / "sub/g.yaml", "not read");
  EXPECT_THAT(namesIn(folder.path()), ElementsAre("a.yml=a.yml", "b.yaml=b.yaml"));
}

TEST_F(SourcesTest, FollowsLinksToFilesAndDirectories) {
  std::filesystem::create_directory(folder / "real");
  writeFile(folder / "real/a.yaml", "x");
  std::filesystem::create_symlink("a.yaml", folder / "real/b.yaml");
  std::filesystem::create_symlink("real", folder / "link");
  EXPECT_THAT(namesIn(folder / "link"), ElementsAre("link/a.yaml=x", "link/b.yaml=x"));
}

TEST_F(SourcesTest, RefusesADirectoryWithoutDeclarations) {
  EXPECT_EQ(statusFor(folder.path(), "has no files *.yaml or *.yml"), kNotFound);
}

TEST_F(SourcesTest, RefusesADirectoryThatHoldsAnythingElseUnderSuchAName) {
  writeFile(folder / "a.yaml", "");
  ASSERT_EQ(mkfifo((folder / "b.yaml").c_str(), 0600), 0);
  EXPECT_EQ(statusFor(folder.path(), "b.yaml: it is a FIFO"), kNotFound);
  std::filesystem::remove(folder / "b.yaml");
  std::filesystem::create_directory(folder / "b.yaml");
  EXPECT_EQ(statusFor(folder.path(), "b.yaml: it is not a regular file"), kNotFound);
  std::filesystem::remove(folder / "b.yaml");
  std::filesystem::create_symlink("b.yaml", folder / "b.yaml");
  EXPECT_EQ(statusFor(folder.path(), "b.yaml: Too many levels of symbolic links"), kNotFound);
}

TEST_F(SourcesTest, RefusesWhatIsNotThere) {
  EXPECT_EQ(statusFor(folder / "none", "none: No such file or directory"), kNotFound);
  writeFile(folder / "file", "");
  EXPECT_EQ(statusFor(folder / "file/none", "Not a directory"), kNotFound);
  EXPECT_EQ(statusFor("", "No such file or directory"), kNotFound);
}

TEST_F(SourcesTest, LimitsTheBytesOfAllFilesTogether) {
  for (const char* name : {"a.yaml", "b.yaml"}) {
    writeFile(folder / name, "");
    std::filesystem::resize_file(folder / name, 8UL << 20);
  }
  EXPECT_EQ(readSources(folder.path()).size(), 2U);
  writeFile(folder / "c.yaml", "x");
  EXPECT_EQ(statusFor(folder.path(), "more than 16 MB in all"), kRefused);
}

}  // namespace
