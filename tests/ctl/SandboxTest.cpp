#include "ctl/daemon/sandbox.h"

#include <csignal>
#include <cstdlib>
#include <string>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

TEST(SandboxSettingsTest, KeepsWhatTheUnitSets) {
  EXPECT_THAT(sandboxSettings("ProtectSystem=full\nUser=koducron\nUMask=0022\n"),
              ElementsAre("ProtectSystem=full", "User=koducron", "UMask=0022"));
}

TEST(SandboxSettingsTest, LeavesOutWhatIsNotSet) {
  EXPECT_THAT(sandboxSettings("PrivateTmp=no\nReadWritePaths=\nProtectProc=default\n"
                              "MemoryMax=infinity\nSystemCallErrorNumber=2147483646\n"),
              IsEmpty());
}

TEST(SandboxSettingsTest, KeepsAnEmptySetOfCapabilities) {
  EXPECT_THAT(sandboxSettings("CapabilityBoundingSet=\n"), ElementsAre("CapabilityBoundingSet="));
}

TEST(SandboxSettingsTest, JoinsTheTwoLimits) {
  EXPECT_THAT(sandboxSettings("LimitNOFILE=524288\nLimitNOFILESoft=8192\nLimitAS=infinity\n"
                              "LimitASSoft=infinity\n"),
              ElementsAre("LimitNOFILE=8192:524288"));
}

TEST(SandboxSettingsTest, KeepsAValueWithASign) {
  EXPECT_THAT(sandboxSettings("BindPaths=/a=b:/c\n"), ElementsAre("BindPaths=/a=b:/c"));
}

/// koductl test on a system whose service manager runs the daemon. Its programs are scripts.
class SandboxTest : public CtlTest {
 protected:
  void SetUp() override {
    // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe)
    if (std::system("unshare --mount --propagation private mount -t tmpfs none /mnt 2>&-") != 0) {
      GTEST_SKIP() << "nothing can be mounted here";
    }
    isSetUp = true;
    CtlTest::SetUp();
    database.insertTask(quietTask(1));
    ASSERT_TRUE(daemon.startAndWait());
    writePlugin(
        daemon.directory / "systemctl",
        "case $* in *MainPID*) echo " + std::to_string(daemon.pid()) +
            " ;; show*) echo ProtectSystem=full; echo PrivateTmp=no ;; kill*) echo \"$*\" >" +
            told() + " ;; esac");
    setSystemdRun(R"(echo "$*" >)" + told() +
                  R"(; while [ "${1#--}" != "$1" ]; do shift; done; exec "$@")");
  }
  void TearDown() override {
    if (isSetUp) {
      CtlTest::TearDown();
    }
  }

  void setSystemdRun(const std::string& body) const {
    writePlugin(daemon.directory / "systemd-run", body);
  }
  std::string told() const { return daemon.directory / "told"; }
  std::string script(const std::string& arguments) const {
    std::string path = daemon.directory / "script";
    writeFile(path,
              "set -e\nmount -t tmpfs none /run\nmkdir -p /run/systemd/system\nmount --bind " +
                  (daemon.directory / "systemctl") + " /usr/bin/systemctl\nmount --bind " +
                  (daemon.directory / "systemd-run") + " /usr/bin/systemd-run\nexec " + program() +
                  " -f " + daemon.mainConfig() + " " + arguments + " >" + outPath() + " 2>" +
                  errPath() + " </dev/null\n");
    return path;
  }
  CtlResult runInSystem(const std::string& arguments) const {
    const std::string command =
        "unshare --mount --propagation private /bin/sh " + script(arguments);
    const int status = std::system(command.c_str());  // NOLINT(cert-env33-c,concurrency-mt-unsafe)
    return {exitStatusOf(status), readFile(outPath()), readFile(errPath())};
  }

 private:
  bool isSetUp = false;
};

TEST_F(SandboxTest, RunsThePluginInAUnitLikeTheDaemons) {
  const CtlResult result = runInSystem("test 1");
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, AllOf(StartsWith("fine\n--- return code 0 (OK), "),
                                HasSubstr("\n--- in the sandbox of koducron.service\n")));
  EXPECT_THAT(readFile(told()),
              AllOf(HasSubstr("--property=ProtectSystem=full "), Not(HasSubstr("PrivateTmp")),
                    HasSubstr(program() + " test-inside\n")));
}

TEST_F(SandboxTest, EndsWithTheReturnCodeOfThePlugin) {
  writePlugin(quietTask(1).path, "echo bad; echo to err >&2; exit 2");
  const CtlResult result = runInSystem("test 1 --json");
  EXPECT_EQ(result.exitCode, 2);
  const Json::Value json = parsed(result.out);
  EXPECT_EQ(json["sandbox"].asString(), "koducron.service");
  EXPECT_EQ(json["output"].asString(), "bad\n");
  EXPECT_EQ(result.err, "to err\n");
}

TEST_F(SandboxTest, SaysThatTheSandboxCannotBeMade) {
  setSystemdRun("echo 'Failed to start' >&2; exit 1");
  const CtlResult result = runInSystem("test 1");
  EXPECT_EQ(result.exitCode, 77);
  EXPECT_EQ(result.err,
            "Failed to start\nkoductl: cannot run the plugin in the sandbox of koducron.service: "
            "systemd-run ended with status 1\n");
}

TEST_F(SandboxTest, EndsTheUnitWithIt) {
  setSystemdRun("echo started >" + told() + "; exec /bin/sleep 60");
  const pid_t pid = fork();
  if (pid == 0) {
    setpgid(0, 0);
    execl("/usr/bin/unshare", "unshare", "--mount", "--propagation", "private", "/bin/sh",
          script("test 1").c_str(), nullptr);
    _exit(127);
  }
  ASSERT_TRUE(waitUntil([&] { return readFile(told()) == "started\n"; }));
  kill(-pid, SIGINT);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_EQ(exitStatusOf(status), 130);
  EXPECT_THAT(readFile(told()), StartsWith("kill --signal=KILL koducron-test-"));
}

TEST_F(SandboxTest, TakesNoTaskThatIsNone) {
  writeFile(daemon.directory / "in", "x");
  const std::string command =
      program() + " test-inside <" + (daemon.directory / "in") + " 2>&1 >" + outPath();
  const int status = std::system(command.c_str());  // NOLINT(cert-env33-c,concurrency-mt-unsafe)
  EXPECT_EQ(exitStatusOf(status), 64);
}

}  // namespace
