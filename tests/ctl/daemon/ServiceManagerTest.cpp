#include "ctl/daemon/serviceManager.h"

#include <sys/wait.h>

#include <filesystem>
#include <optional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/Files.h"
#include "tests/support/Mount.h"
#include "tests/support/Variable.h"

namespace {

namespace fs = std::filesystem;

/// A systemd with a systemctl of the test's own, in this process's mount namespace alone.
class ServiceManagerTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!run.isMounted()) {
      GTEST_SKIP() << "needs the right to mount";
    }
    fs::create_directories("/run/systemd/system");
  }
  /// The answer when systemctl is a script with this body.
  std::optional<pid_t> answerTo(const std::string& body) const {
    writePlugin(directory / "systemctl", body);
    const Mount systemctl = Mount::file(directory / "systemctl", "/usr/bin/systemctl");
    EXPECT_TRUE(systemctl.isMounted()) << "is systemctl installed?";
    return daemonOfServiceManager();
  }

  TempDir directory;
  const Mount run = Mount::memory("/run", "64k");
};

TEST_F(ServiceManagerTest, FindsTheProcessOfTheUnit) {
  EXPECT_EQ(answerTo("echo 4711"), 4711);
  EXPECT_EQ(answerTo("printf 4711"), 4711) << "without a newline";
}

TEST_F(ServiceManagerTest, AsksForTheMainProcessOfTheService) {
  const std::string arguments = directory / "arguments";
  answerTo("echo \"$@\" >" + arguments + "; echo 1");
  EXPECT_EQ(readFile(arguments), "show --property=MainPID --value koducron.service\n");
}

TEST_F(ServiceManagerTest, FindsNothingWhileTheUnitDoesNotRun) {
  for (const char* body : {"echo 0", "echo", "exit 0", "echo no unit", "echo -5"}) {
    EXPECT_EQ(answerTo(body), std::nullopt) << body;
  }
}

TEST_F(ServiceManagerTest, FindsNothingWhenSystemctlFails) {
  for (const char* body : {"echo 4711; exit 1", "echo 4711; kill -KILL $$", "exit 127"}) {
    EXPECT_EQ(answerTo(body), std::nullopt) << body;
  }
}

TEST_F(ServiceManagerTest, PassesNeitherEnvironmentNorStandardFiles) {
  const Variable variable("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/tmp/other");
  const std::string report = directory / "report";
  answerTo("exec 3>" + report +
           "\n[ -z \"$DBUS_SYSTEM_BUS_ADDRESS\" ] && echo clean >&3\n"
           "/usr/bin/readlink /proc/self/fd/0 /proc/self/fd/2 >&3\necho 1");
  EXPECT_EQ(readFile(report), "clean\n/memfd:input (deleted)\n/dev/null\n")
      << "an input of its own";
}

TEST_F(ServiceManagerTest, LeavesNoProcessAndNoDescriptor) {
  const std::size_t before = filesIn("/proc/self/fd").size();
  answerTo("echo 4711");
  EXPECT_EQ(filesIn("/proc/self/fd").size(), before);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

TEST_F(ServiceManagerTest, AsksNothingWithoutSystemd) {
  fs::remove_all("/run/systemd");
  EXPECT_EQ(answerTo("echo 4711"), std::nullopt);
}

}  // namespace
