#include "ctl/files/regularFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/failure.h"
#include "tests/support/Files.h"
#include "tests/support/OtherUser.h"

namespace {

namespace fs = std::filesystem;
using testing::Eq;
using testing::Optional;

TEST(WaitingKindTest, NamesTheKindsThatWaitForAnotherProcess) {
  EXPECT_THAT(waitingKind(S_IFIFO | 0644), Optional(Eq("it is a FIFO")));
  EXPECT_THAT(waitingKind(S_IFSOCK | 0644), Optional(Eq("it is a socket")));
  for (const mode_t kind :
       std::initializer_list<mode_t>{S_IFREG, S_IFDIR, S_IFLNK, S_IFCHR, S_IFBLK}) {
    EXPECT_EQ(waitingKind(kind | 0777), std::nullopt) << std::oct << kind;
  }
}

class RegularFileTest : public testing::Test {
 protected:
  std::string path(const std::string& name) const { return directory / name; }

  static void expectRefusal(const std::string& file, const std::string& reason,
                            ExitCode code = kNotFound) {
    try {
      readRegularFile(file);
      ADD_FAILURE() << file << " was read";
    } catch (const Failure& e) {
      EXPECT_EQ(e.what(), "cannot read " + file + ": " + reason);
      EXPECT_EQ(e.exitCode, code) << file;
    }
  }

  TempDir directory;
};

TEST_F(RegularFileTest, ReadsEveryByte) {
  const std::string bytes = std::string("a\0b\r\n\xff", 6);
  writeFile(path("bytes"), bytes);
  writeFile(path("empty"), "");
  EXPECT_EQ(readRegularFile(path("bytes")), bytes);
  EXPECT_EQ(readRegularFile(path("empty")), "");
}

TEST_F(RegularFileTest, ReadsAsManyBytesAsRequested) {
  const std::string content = std::string(200000, 'a') + "b";
  writeFile(path("file"), content);
  EXPECT_EQ(readRegularFile(path("file")), content);
  for (const std::size_t most : {0U, 1U, 65535U, 65536U, 65537U, 70000U, 200000U, 200001U}) {
    EXPECT_EQ(readRegularFile(path("file"), most), content.substr(0, most)) << most;
  }
  EXPECT_EQ(readRegularFile(path("file"), 300000), content);
}

TEST_F(RegularFileTest, FollowsLinksToRegularFiles) {
  writeFile(path("file"), "text");
  fs::create_symlink("file", path("link"));
  fs::create_symlink("link", path("link to the link"));
  EXPECT_EQ(readRegularFile(path("link")), "text");
  EXPECT_EQ(readRegularFile(path("link to the link")), "text");
}

TEST_F(RegularFileTest, RefusesAFifoWithoutWaiting) {
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0666), 0);
  fs::create_symlink("fifo", path("link"));
  expectRefusal(path("fifo"), "it is a FIFO");
  expectRefusal(path("link"), "it is a FIFO");
}

TEST_F(RegularFileTest, DoesNotOpenAFifo) {
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0666), 0);
  // A writer that does not wait gets an error while the FIFO has no reader.
  expectRefusal(path("fifo"), "it is a FIFO");
  EXPECT_EQ(open(path("fifo").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC), -1);
}

TEST_F(RegularFileTest, RefusesOtherKinds) {
  fs::create_symlink("/dev/zero", path("link"));
  expectRefusal(directory.path(), "it is not a regular file");
  expectRefusal("/dev/zero", "it is not a regular file");
  expectRefusal("/dev/tty", "it is not a regular file");
  expectRefusal(path("link"), "it is not a regular file");
}

TEST_F(RegularFileTest, ReportsWhyAFileCannotBeOpened) {
  writeFile(path("file"), "");
  fs::create_symlink("missing", path("dangling"));
  fs::create_symlink("loop", path("loop"));
  expectRefusal(path("missing"), "No such file or directory");
  expectRefusal(path("dangling"), "No such file or directory");
  expectRefusal(path("file") + "/below", "Not a directory");
  expectRefusal(path("loop"), "Too many levels of symbolic links");
  expectRefusal("/" + std::string(300, 'x'), "File name too long");
  expectRefusal("", "No such file or directory");
}

TEST_F(RegularFileTest, ReportsAMissingRightAsSuch) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can become another user";
  }
  writeFile(path("file"), "");
  chmod(path("file").c_str(), 0600);
  chmod(directory.path().c_str(), 0755);
  {
    const OtherUser nobody("nobody");
    expectRefusal(path("file"), "Permission denied", kNotPermitted);
  }
  chmod(directory.path().c_str(), 0700);
  const OtherUser nobody("nobody");
  expectRefusal(path("file"), "Permission denied", kNotPermitted);
  expectRefusal(path("missing"), "Permission denied", kNotPermitted);
}

TEST_F(RegularFileTest, LeavesNoDescriptorOpen) {
  writeFile(path("file"), "text");
  const std::size_t before = filesIn("/proc/self/fd").size();
  readRegularFile(path("file"));
  EXPECT_THROW(readRegularFile(directory.path()), Failure);
  EXPECT_THROW(readRegularFile(path("missing")), Failure);
  EXPECT_EQ(filesIn("/proc/self/fd").size(), before);
}

}  // namespace
