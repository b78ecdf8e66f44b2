#include "ctl/files/fileCheck.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/Files.h"
#include "tests/support/OtherUser.h"

namespace {

namespace fs = std::filesystem;
using testing::Eq;
using testing::Optional;

const std::string kMissing = "No such file or directory";
const std::string kDenied = "Permission denied";

/// Files in a folder that every user may enter.
class FileCheckTest : public testing::Test {
 protected:
  FileCheckTest() { chmod(directory.path().c_str(), 0755); }

  std::string path(const std::string& name) const { return directory / name; }
  std::string file(const std::string& name, const std::string& content, mode_t mode) const {
    writeFile(path(name), content);
    chmod(path(name).c_str(), mode);
    return path(name);
  }
  std::string fifo(const std::string& name) const {
    EXPECT_EQ(mkfifo(path(name).c_str(), 0666), 0);
    return path(name);
  }
  std::string link(const std::string& name, const std::string& target) const {
    fs::create_symlink(target, path(name));
    return path(name);
  }
  std::string folder(const std::string& name, mode_t mode) const {
    fs::create_directory(path(name));
    chmod(path(name).c_str(), mode);
    return path(name);
  }
  std::optional<std::string> whyNotRun(const std::string& plugin) const {
    return whyNotExecutable(plugin, directory.path());
  }

  TempDir directory;
};

TEST_F(FileCheckTest, AcceptsProgramsAndScripts) {
  for (const std::string& plugin :
       {std::string("/bin/true"), file("script", "#!/bin/sh\n", 0755),
        file("blanks", "#! \t/bin/sh\n", 0755), file("argument", "#!/bin/sh -e\n", 0755),
        file("only a first line", "#!/bin/sh", 0755), link("link", "/bin/true"),
        link("link to a script", path("script")), file("for others", "#!/bin/sh\n", 0705)}) {
    EXPECT_EQ(whyNotRun(plugin), std::nullopt) << plugin;
  }
}

TEST_F(FileCheckTest, ReportsWhyAPluginCannotBeRun) {
  const std::string neither = "it is neither a program nor a script that begins with #!";
  const std::string irregular = "it is not a regular file";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {path("missing"), kMissing},
      {path("missing/below"), kMissing},
      {file("locked", "#!/bin/sh\n", 0644), kDenied},
      {path("locked/below"), "Not a directory"},
      {file("empty", "", 0755), "it is empty"},
      {file("text", "echo text\n", 0755), neither},
      {file("newline", "\n#!/bin/sh\n", 0755), neither},
      {file("blank first", " #!/bin/sh\n", 0755), neither},
      {file("half a mark", "#/bin/sh\n", 0755), neither},
      {file("no interpreter", "#!\n", 0755), "its interpreter '': " + kMissing},
      {file("blank interpreter", "#!  \n", 0755), "its interpreter '': " + kMissing},
      {file("wrong interpreter", "#!/nowhere/sh -e\n", 0755),
       "its interpreter '/nowhere/sh': " + kMissing},
      {file("carriage return", "#!/bin/sh\r\n", 0755), "its interpreter '/bin/sh\r': " + kMissing},
      {folder("folder", 0755), irregular},
      {fifo("fifo"), irregular},
      {"/dev/null", irregular},
      {link("dangling", path("missing")), kMissing},
      {link("loop", path("loop")), "Too many levels of symbolic links"},
      {link("link to a folder", directory.path()), irregular},
      {"/" + std::string(300, 'x'), "File name too long"},
  };
  for (const auto& [plugin, reason] : cases) {
    EXPECT_THAT(whyNotRun(plugin), Optional(Eq(reason))) << plugin;
  }
}

TEST_F(FileCheckTest, CountsARelativePluginFromTheDirectory) {
  file("script", "#!/bin/sh\n", 0755);
  folder("folder", 0755);
  EXPECT_EQ(whyNotRun("script"), std::nullopt);
  EXPECT_EQ(whyNotRun("./folder/../script"), std::nullopt);
  EXPECT_EQ(whyNotExecutable("../script", path("folder")), std::nullopt);
  EXPECT_THAT(whyNotExecutable("script", path("folder")), Optional(kMissing));
  EXPECT_THAT(whyNotRun("true"), Optional(kMissing)) << "PATH is not searched";
}

TEST_F(FileCheckTest, ReportsAnEmptyPluginPath) {
  EXPECT_THAT(whyNotRun(""), Optional(Eq("it is not a regular file")));
}

TEST_F(FileCheckTest, AcceptsFilesThatCanBeWrittenOrCreated) {
  for (const std::string& output :
       {path("new"), file("old", "x", 0644), link("link", path("old")), std::string("/dev/null")}) {
    EXPECT_EQ(whyNotWritable(output), std::nullopt) << output;
  }
  EXPECT_FALSE(fs::exists(path("new"))) << "a check creates nothing";
}

TEST_F(FileCheckTest, ReportsWhyAFileCannotBeWritten) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {path("missing/new"), "directory " + path("missing") + ": " + kMissing},
      {directory.path(), "it is a directory"},
      {file("file", "", 0644) + "/new", path("file") + " is not a directory"},
      {fifo("fifo"), "it is a FIFO, and its writer waits for a reader"},
      {link("link to a fifo", path("fifo")), "it is a FIFO, and its writer waits for a reader"},
  };
  for (const auto& [output, reason] : cases) {
    EXPECT_THAT(whyNotWritable(output), Optional(Eq(reason))) << output;
  }
}

TEST_F(FileCheckTest, ReportsASocket) {
  const int server = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{AF_UNIX, {}};
  path("s").copy(&address.sun_path[0], sizeof address.sun_path - 1);
  ASSERT_EQ(bind(server, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  close(server);
  EXPECT_THAT(whyNotWritable(path("s")),
              Optional(Eq("it is a socket, and its writer waits for a reader")));
  EXPECT_THAT(whyNotRun("s"), Optional(Eq("it is not a regular file")));
}

TEST_F(FileCheckTest, AcceptsAFolderForFiles) {
  EXPECT_EQ(whyNoFilesIn(directory.path()), std::nullopt);
  EXPECT_EQ(whyNoFilesIn(directory.path() + "/"), std::nullopt);
  EXPECT_EQ(whyNoFilesIn(link("link", directory.path())), std::nullopt);
}

TEST_F(FileCheckTest, ReportsWhyAFolderTakesNoFiles) {
  EXPECT_THAT(whyNoFilesIn(path("missing")),
              Optional("directory " + path("missing") + ": " + kMissing));
  EXPECT_THAT(whyNoFilesIn(file("file", "", 0644)), Optional(path("file") + " is not a directory"));
  EXPECT_THAT(whyNoFilesIn(file("file", "", 0644) + "/below"),
              Optional("directory " + path("file") + "/below: Not a directory"));
}

/// The same as a user who owns none of the files.
class OtherUsersFileCheckTest : public FileCheckTest {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "only root can become another user";
    }
  }
};

TEST_F(OtherUsersFileCheckTest, ChecksTheRightToExecute) {
  file("root's", "#!/bin/sh\n", 0744);
  file("for all", "#!/bin/sh\n", 0755);
  file("not readable", "#!/bin/sh\n", 0711);
  file("hidden interpreter", "#!" + path("root's") + "\n", 0755);
  folder("closed", 0700);
  const OtherUser nobody("nobody");
  EXPECT_THAT(whyNotRun("root's"), Optional(kDenied));
  EXPECT_EQ(whyNotRun("for all"), std::nullopt);
  EXPECT_EQ(whyNotRun("not readable"), std::nullopt) << "its content cannot be checked";
  EXPECT_THAT(whyNotRun("hidden interpreter"),
              Optional("its interpreter '" + path("root's") + "': " + kDenied));
  EXPECT_THAT(whyNotRun("closed/plugin"), Optional(kDenied));
}

TEST_F(OtherUsersFileCheckTest, ChecksTheRightToWrite) {
  file("root's", "", 0644);
  file("for all", "", 0666);
  folder("closed", 0755);
  folder("open", 0777);
  const OtherUser nobody("nobody");
  EXPECT_THAT(whyNotWritable(path("root's")), Optional(kDenied));
  EXPECT_EQ(whyNotWritable(path("for all")), std::nullopt);
  EXPECT_THAT(whyNotWritable(path("closed/new")),
              Optional("directory " + path("closed") + ": " + kDenied));
  EXPECT_EQ(whyNotWritable(path("open/new")), std::nullopt);
}

TEST_F(OtherUsersFileCheckTest, ChecksBothRightsOnAFolder) {
  folder("read only", 0755);
  folder("write only", 0772);
  folder("enter only", 0771);
  folder("both", 0773);
  const OtherUser nobody("nobody");
  for (const char* name : {"read only", "write only", "enter only"}) {
    EXPECT_THAT(whyNoFilesIn(path(name)), Optional("directory " + path(name) + ": " + kDenied))
        << name;
  }
  EXPECT_EQ(whyNoFilesIn(path("both")), std::nullopt);
}

}  // namespace
