#include <sys/stat.h>

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/DaemonTest.h"

namespace {

using testing::HasSubstr;
using testing::Not;

namespace fs = std::filesystem;

/// What a plugin, a writer of rows and another user of the machine can access.
class SecurityTest : public DaemonTest {
 protected:
  /// The password must not appear anywhere that other users may read.
  void expectNoPassword() {
    EXPECT_THAT(readFile(daemon.logPath()), Not(HasSubstr(database.password())));
    EXPECT_THAT(daemon.console(), Not(HasSubstr(database.password())));
  }

  /// Runs a failing task once, so that the daemon has created every kind of file.
  void runWithUmask(mode_t mask) {
    TaskRow row = makeTask(1, "echo down; exit 2");
    database.insertTask(row);
    const mode_t previous = umask(mask);
    daemon.start();
    umask(previous);
    ASSERT_TRUE(waitForStatus(1, "FAILED"));
    ASSERT_TRUE(waitUntil([&] { return database.failures(1) == 1; }, kPatience));
  }

  static int modeOf(const std::string& path) {
    struct stat state {};
    EXPECT_EQ(stat(path.c_str(), &state), 0) << path;
    return static_cast<int>(state.st_mode & 0777);
  }

  std::string archiveFile() const {
    const std::string directory = daemon.outputDirectory() + "/archive/1";
    const fs::directory_iterator entry(directory);
    return entry == fs::directory_iterator() ? "" : entry->path().string();
  }
};

TEST_F(SecurityTest, KeepsThePasswordOutOfTheLogAndTheProcessList) {
  TaskRow row = makeTask(1, "/bin/cat /proc/$PPID/cmdline; echo fine");
  database.insertTask(row);
  daemon.start({"-D"});
  ASSERT_TRUE(waitForStatus(1, "OK"));

  const std::string process = "/proc/" + std::to_string(daemon.pid());
  EXPECT_THAT(readFile(process + "/cmdline"), Not(HasSubstr(database.password())));
  EXPECT_THAT(readFile(process + "/environ"), Not(HasSubstr(database.password())));
  EXPECT_THAT(daemon.output("out_1_last.txt"), Not(HasSubstr(database.password())));
  expectNoPassword();
}

TEST_F(SecurityTest, KeepsThePasswordOutOfAConnectionError) {
  database.query("ALTER DATABASE " + database.name() + " CONNECTION LIMIT 0");
  daemon.start({"-D"});

  ASSERT_TRUE(daemon.waitForEnd());

  EXPECT_THAT(daemon.console(), HasSubstr("too many connections for database"));
  expectNoPassword();
}

TEST_F(SecurityTest, KeepsThePasswordOutOfALostSessionsError) {
  database.insertTask(makeTask(1, "echo fine"));
  ASSERT_TRUE(daemon.startAndWait({"-D"}));
  database.query(
      "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE usename = 'kodu' "
      "AND datname = current_database()");

  ASSERT_TRUE(daemon.waitForEnd(kPatience));

  EXPECT_THAT(daemon.console(), HasSubstr("terminate called"));
  expectNoPassword();
}

TEST_F(SecurityTest, CreatesItsFilesWithTheModeOfTheUmask) {
  runWithUmask(077);

  EXPECT_EQ(modeOf(daemon.logPath()), 0600);
  EXPECT_EQ(modeOf(daemon.outputDirectory()), 0700);
  EXPECT_EQ(modeOf(daemon.outputDirectory() + "/out_1_last.txt"), 0600);
  EXPECT_EQ(modeOf(archiveFile()), 0600);
}

TEST_F(SecurityTest, LetsOthersReadButNotWriteItsOutputFiles) {
  runWithUmask(0);

  EXPECT_EQ(modeOf(daemon.outputDirectory() + "/out_1_last.txt"), 0644);
  EXPECT_EQ(modeOf(archiveFile()), 0644);
}

TEST_F(SecurityTest, PassesNoParameterToAShell) {
  TaskRow row = makeTask(1, R"(printf '%s|' "$@")");
  const std::string trap = daemon.directory / "trap";
  row.parameter = "$(touch " + trap + ") `touch " + trap + "` ;touch${IFS}" + trap + " >" + trap +
                  " * ~ $HOME && false";
  database.insertTask(row);
  daemon.start();

  ASSERT_TRUE(waitForStatus(1, "OK"));

  EXPECT_FALSE(fs::exists(trap));
  EXPECT_EQ(daemon.output("out_1_last.txt"), "$(touch|" + trap + ")|`touch|" + trap +
                                                 "`|;touch${IFS}" + trap + "|>" + trap +
                                                 "|*|~|$HOME|&&|false|");
}

TEST_F(SecurityTest, PassesNoDescriptorAndNoEnvironmentToAPlugin) {
  // The three standard files and the shell's own, but no file or pipe of the eight workers.
  daemon.threadNumber = "8";
  daemon.writeConfig();
  for (int id = 1; id <= 8; ++id) {
    database.insertTask(
        makeTask(id,
                 "/bin/sleep 0.3; /usr/bin/env -i /bin/ls /proc/self/fd | /usr/bin/tr '\\n' ' '\n"
                 "/usr/bin/env | /bin/grep -v -e ^PWD= -e ^SHLVL= -e ^_= -e ^OLDPWD="));
  }
  daemon.start();

  for (int id = 1; id <= 8; ++id) {
    ASSERT_TRUE(waitUntil([&] { return !database.task(id, "cron_last_exec").empty(); }, kPatience));
    // The fourth is the folder that ls lists.
    EXPECT_EQ(daemon.output("out_" + std::to_string(id) + "_last.txt"), "0 1 2 3 ");
  }
}

}  // namespace
