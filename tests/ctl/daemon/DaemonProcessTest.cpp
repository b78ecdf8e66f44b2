#include "ctl/daemon/daemonProcess.h"

#include <pwd.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// Which process koductl, run by root, recognises as the daemon. The output folder belongs to
/// another user; koductl acts with that user's rights when no daemon runs.
class DaemonProcessTest : public CtlTest {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "only root can become another user";
    }
    CtlTest::SetUp();
    chmod(daemon.directory.path().c_str(), 0755);
    std::filesystem::create_directories(daemon.outputDirectory());
    giveAway(daemon.outputDirectory());
    TaskRow row = quietTask(1);
    writePlugin(row.path, "/usr/bin/id -un; /usr/bin/id -G");
    chmod(row.path.c_str(), 0755);
    database.insertTask(row);
  }
  void TearDown() override {
    for (const pid_t process : started) {
      kill(process, SIGKILL);
      waitpid(process, nullptr, 0);
    }
    if (geteuid() == 0) {
      CtlTest::TearDown();
    }
  }

  static void giveAway(const std::string& path) {
    const passwd* user = getpwnam("postgres");
    ASSERT_EQ(chown(path.c_str(), user->pw_uid, user->pw_gid), 0);
  }

  /// Starts a program as "koducron -f INI" with these real and effective users, and with the log
  /// open for writing if requested. It is stopped before its first instruction.
  pid_t startStopped(const std::string& path, uid_t real, uid_t effective, bool isWritingLog) {
    const std::string config = daemon.mainConfig();
    const std::string log = daemon.logPath();
    const pid_t process = fork();
    if (process == 0) {
      ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
      if (isWritingLog) {
        open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
      }
      if (setresuid(real, effective, effective) == 0) {
        execl(path.c_str(), "koducron", "-f", config.c_str(), nullptr);
      }
      _exit(127);
    }
    started.push_back(process);
    int status = 0;
    waitpid(process, &status, 0);
    EXPECT_TRUE(WIFSTOPPED(status));
    return process;
  }
  static std::string daemonProgram() { return builtProgram("KODU_TEST_DAEMON"); }
  static uid_t nobody() { return getpwnam("nobody")->pw_uid; }

  /// Runs koductl in a mount namespace of its own, after the shell commands `mounts`.
  CtlResult runBehind(const std::string& mounts, const std::string& arguments) const {
    const std::string script = daemon.directory / "script";
    writeFile(script, "set -e\n" + mounts + "\nexec " + program() + " -f " + daemon.mainConfig() +
                          " " + arguments + " >" + outPath() + " 2>" + errPath() + " </dev/null\n");
    const std::string command = "unshare --mount --propagation private /bin/sh " + script;
    const int status = std::system(command.c_str());  // NOLINT(cert-env33-c,concurrency-mt-unsafe)
    return {exitStatusOf(status), readFile(outPath()), readFile(errPath())};
  }
  /// Simulates a service manager that reports this process as the daemon.
  std::string serviceOf(pid_t process) const {
    const std::string systemctl =
        writePlugin(daemon.directory / "systemctl",
                    "[ \"$*\" = 'show --property=MainPID --value koducron.service' ] && echo " +
                        std::to_string(process));
    return "mount -t tmpfs none /run\nmkdir -p /run/systemd/system\nmount --bind " + systemctl +
           " /usr/bin/systemctl";
  }
  static bool canMount() {
    // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe)
    return std::system("unshare --mount --propagation private mount -t tmpfs none /mnt 2>&-") == 0;
  }

  std::vector<pid_t> started;
};

TEST_F(DaemonProcessTest, IgnoresAProcessThatOnlyHasTheName) {
  startStopped("/usr/bin/tail", nobody(), 0, false);
  EXPECT_THAT(run({"test", "1"}).out, StartsWith("postgres\n"));
}

TEST_F(DaemonProcessTest, IgnoresADaemonThatDoesNotWriteTheLog) {
  startStopped(daemonProgram(), nobody(), nobody(), false);
  EXPECT_THAT(run({"test", "1"}).out, StartsWith("postgres\n"));
}

TEST_F(DaemonProcessTest, IgnoresAnotherProgramThatWritesTheLog) {
  startStopped("/usr/bin/tail", 0, 0, true);
  giveAway(daemon.logPath());
  EXPECT_THAT(run({"test", "1"}).out, StartsWith("postgres\n"));
}

TEST_F(DaemonProcessTest, FindsTheDaemonThatWritesTheLog) {
  ASSERT_TRUE(daemon.startAndWait());
  EXPECT_THAT(run({"test", "1"}).out, StartsWith("root\n"));
}

TEST_F(DaemonProcessTest, DoesNotTrustAWorldWritableLog) {
  startStopped(daemonProgram(), nobody(), nobody(), true);
  giveAway(daemon.logPath());
  EXPECT_THAT(run({"test", "1"}).out, StartsWith("nobody\n"));
  chmod(daemon.logPath().c_str(), 0666);
  EXPECT_THAT(run({"test", "1"}).out, StartsWith("postgres\n"));
}

TEST_F(DaemonProcessTest, RefusesToChooseBetweenTwo) {
  ASSERT_TRUE(daemon.startAndWait());
  Daemon second(database);
  second.startWith({"-f", daemon.mainConfig()});
  ASSERT_TRUE(waitForLog("NOTICE#Start Thread", 2));
  for (const char* command : {"test", "explain"}) {
    const CtlResult result = run({command, "1"});
    EXPECT_EQ(result.exitCode, 77) << result.out;
    EXPECT_THAT(result.err, HasSubstr("koductl: 2 processes write the log " + daemon.logPath() +
                                      ", and each could be the daemon"));
    EXPECT_EQ(result.out, "");
  }
  const CtlResult check = run({"check"});
  EXPECT_EQ(check.exitCode, 2);
  EXPECT_THAT(check.out, HasSubstr("ERROR    2 processes write the log"));
}

TEST_F(DaemonProcessTest, RefusesADaemonOfTwoUsers) {
  startStopped(daemonProgram(), nobody(), 0, true);
  const CtlResult result = run({"test", "1"});
  EXPECT_EQ(result.exitCode, 77);
  EXPECT_THAT(result.err, HasSubstr("runs with more than one user or group"));
}

TEST_F(DaemonProcessTest, RunsNothingAsRootOnAGuess) {
  ASSERT_EQ(chown(daemon.outputDirectory().c_str(), 0, 0), 0);
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"test", "1"}, {"prune", "--older-than", "1 day"}}) {
    const CtlResult result = runAsAdmin(command);
    EXPECT_EQ(result.exitCode, 77);
    EXPECT_THAT(result.err, HasSubstr("its files do not show its user: start it, or run koductl"));
  }
  // A log that only root can write identifies the daemon's user.
  writeFile(daemon.logPath(), "");
  EXPECT_THAT(run({"test", "1"}).out, StartsWith("root\n"));
}

TEST_F(DaemonProcessTest, IgnoresAFileOfRootBehindALink) {
  const std::string target = daemon.directory / "of_root";
  writeFile(target, "");
  ASSERT_EQ(symlink(target.c_str(), daemon.logPath().c_str()), 0);
  // A log on another disk, linked by root.
  EXPECT_THAT(run({"test", "1"}).out, StartsWith("root\n"));
  ASSERT_EQ(lchown(daemon.logPath().c_str(), nobody(), nobody()), 0);
  const CtlResult result = run({"test", "1"});
  EXPECT_EQ(result.exitCode, 77);
  EXPECT_THAT(result.err, HasSubstr("its files do not show its user"));
}

TEST_F(DaemonProcessTest, IgnoresAFileOfRootInAnotherUsersFolder) {
  writeFile(daemon.logPath(), "");
  const std::string folder = std::filesystem::path(daemon.logPath()).parent_path();
  ASSERT_EQ(chown(folder.c_str(), nobody(), nobody()), 0);
  EXPECT_EQ(run({"test", "1"}).exitCode, 77);
  ASSERT_EQ(chown(folder.c_str(), 0, 0), 0);
  chmod(folder.c_str(), 0777);
  EXPECT_EQ(run({"test", "1"}).exitCode, 77);
  chmod(folder.c_str(), 01777);
  EXPECT_THAT(run({"test", "1"}).out, StartsWith("root\n"));
}

TEST_F(DaemonProcessTest, RunsAPluginWithAllGroupsOfItsUser) {
  if (!canMount()) {
    GTEST_SKIP() << "nothing can be mounted here";
  }
  std::string groups = readFile("/etc/group");
  for (int i = 0; i < 300; ++i) {
    groups += "many" + std::to_string(i) + ":x:" + std::to_string(70000 + i) + ":postgres\n";
  }
  writeFile(daemon.directory / "group", groups);
  const CtlResult result =
      runBehind("mount --bind " + (daemon.directory / "group") + " /etc/group", "test 1");
  EXPECT_THAT(result.out, HasSubstr(" 70299\n"));
  EXPECT_THAT(result.out, Not(testing::ContainsRegex("\n([0-9]+ )*0[ \n]")));  // root's group
}

TEST_F(DaemonProcessTest, FindsTheProcessOfTheServiceManager) {
  if (!canMount()) {
    GTEST_SKIP() << "nothing can be mounted here";
  }
  ASSERT_TRUE(daemon.startAndWait());
  const pid_t other = startStopped(daemonProgram(), nobody(), nobody(), true);
  const std::string user = getpwuid(nobody())->pw_name;
  EXPECT_THAT(runBehind(serviceOf(other), "explain 1").out, HasSubstr("User " + user + " can"));
  EXPECT_THAT(runBehind(serviceOf(daemon.pid()), "explain 1").out, HasSubstr("User root can"));
  const CtlResult none = runBehind(serviceOf(0), "test 1");
  EXPECT_THAT(none.err, HasSubstr("koductl: 2 processes write the log"));
}

TEST_F(DaemonProcessTest, RefusesAServiceThatRunsAnotherProgram) {
  if (!canMount()) {
    GTEST_SKIP() << "nothing can be mounted here";
  }
  const CtlResult result =
      runBehind(serviceOf(startStopped("/usr/bin/tail", nobody(), nobody(), false)), "test 1");
  EXPECT_EQ(result.exitCode, 77);
  EXPECT_THAT(result.err, HasSubstr("the service koducron runs /usr/bin/tail"));
}

TEST_F(DaemonProcessTest, DoesNotShowAFileThatOnlyRootMayRead) {
  setStatus(1, "FAILED");
  addFailure(1, 10, "out_1_x.txt", "harmless");
  writeFile(daemon.directory / "secret", "the secret\n");
  chmod((daemon.directory / "secret").c_str(), 0600);
  std::filesystem::remove(archive(1) + "/out_1_x.txt");
  std::filesystem::create_symlink(daemon.directory / "secret", archive(1) + "/out_1_x.txt");
  std::filesystem::create_symlink(daemon.directory / "secret",
                                  daemon.outputDirectory() + "/out_1_last.txt");
  for (const std::vector<std::string>& command : {std::vector<std::string>{"explain", "1"},
                                                  {"history", "1"},
                                                  {"output", "1"},
                                                  {"output", "1", "1"},
                                                  {"status", "--output"},
                                                  {"test", "1"}}) {
    const CtlResult result = run(command);
    EXPECT_THAT(result.out + result.err, Not(HasSubstr("the secret"))) << command.front();
  }
}

}  // namespace
