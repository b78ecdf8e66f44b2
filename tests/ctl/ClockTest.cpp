#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;

/// koductl on a machine whose clock is days ahead of the server's, or behind it: everything about
/// tasks goes by the server's clock.
class ClockTest : public CtlTest {
 protected:
  void SetUp() override {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer must be the first library that is loaded";
#endif
    CtlTest::SetUp();
    ASSERT_NE(library(), "") << "libfaketime is not installed";
    for (const int id : {1, 2, 3}) {
      TaskRow row = quietTask(id);
      if (id != 1) {
        row.nextExec = "now() - interval '90 seconds'";
      }
      database.insertTask(row);
    }
    setStatus(2, "PROCESS");
    setStatus(1, "FAILED");
    addFailure(1, 1000, "out_1_x.txt", "bad\n");
    writeFile(daemon.logPath(), "");
  }
  void TearDown() override {
    if (!IsSkipped()) {
      CtlTest::TearDown();
    }
  }

  static std::string library() {
    for (const auto& folder : std::filesystem::directory_iterator("/usr/lib")) {
      const std::filesystem::path path = folder.path() / "faketime/libfaketime.so.1";
      if (std::filesystem::exists(path)) {
        return path;
      }
    }
    return "";
  }

  /// The environment with a clock that is so far from the system's; "" is the system's.
  static std::vector<std::string> environmentWith(const std::string& shift) {
    std::vector<std::string> variables = {"PATH=/usr/bin:/bin", "TERM=xterm", "NO_COLOR=1",
                                          "PGPASSWORD=secret"};
    if (!shift.empty()) {
      variables.insert(variables.end(), {"LD_PRELOAD=" + library(), "FAKETIME=" + shift,
                                         "NO_FAKE_STAT=1", "DONT_FAKE_MONOTONIC=1"});
    }
    return variables;
  }

  /// What a live table shows within three seconds.
  std::string topOnTerminal(const std::vector<std::string>& variables) const {
    winsize size{24, 120, 0, 0};
    int terminal = -1;
    const pid_t pid = forkpty(&terminal, nullptr, nullptr, &size);
    if (pid == 0) {
      for (const std::string& variable : variables) {
        putenv(const_cast<char*>(variable.c_str()));
      }
      execl("/usr/bin/timeout", "timeout", "--foreground", "3", program().c_str(), "-f",
            daemon.mainConfig().c_str(), "top", nullptr);
      _exit(127);
    }
    std::string output;
    std::array<char, 4096> chunk{};
    for (ssize_t length = 0; (length = read(terminal, chunk.data(), chunk.size())) > 0;) {
      output.append(chunk.data(), static_cast<std::size_t>(length));
    }
    close(terminal);
    waitpid(pid, nullptr, 0);
    return output;
  }

  static constexpr std::array<const char*, 2> kShifts = {"+3d", "-3d"};
};

TEST_F(ClockTest, TellsStatesByTheServersClock) {
  for (const char* shift : kShifts) {
    environment = environmentWith(shift);
    const std::string table = run({"status"}).out;
    EXPECT_THAT(cell(table, "3", 3), ContainsRegex("^(1m|2m)$")) << shift << table;
    EXPECT_EQ(cell(table, "2", 3), "-") << shift;
    EXPECT_THAT(run({"explain", "3"}).out, ContainsRegex("due at [^(]*\\((1m|2m) [0-9]+s ago\\)"))
        << shift;
    EXPECT_THAT(run({"explain", "1"}).out, ContainsRegex("\\(in (1h|59m [0-9]+s)\\)")) << shift;
    EXPECT_THAT(run({"explain", "1"}).out, ContainsRegex("failing since [^(]*\\(1[67]m")) << shift;
    EXPECT_THAT(run({"daemon"}).out, ContainsRegex("first due +task 3 [^(]*\\(task3\\), at .*"
                                                   "\\((1m|2m)[^)]* ago\\)"))
        << shift;
    EXPECT_EQ(run({"ids", "--late"}).out, "3\n") << shift;
    EXPECT_THAT(run({"check"}).out, HasSubstr("is overdue")) << shift;
  }
}

TEST_F(ClockTest, PausesByTheServersClock) {
  for (const char* shift : kShifts) {
    environment = environmentWith(shift);
    const CtlResult result = runAsAdmin({"pause", "1", "--until", "2h"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(database.value("SELECT resumes_at BETWEEN now() + interval '115 minutes'"
                             " AND now() + interval '2 hours' FROM kodu_cron_pause"),
              "t")
        << shift;
    EXPECT_THAT(run({"explain", "1"}).out, ContainsRegex("until [^(]*\\(in (2h|1h 59m)\\)"))
        << shift;
    EXPECT_EQ(runAsAdmin({"resume", "1"}).exitCode, 0) << shift;
  }
}

TEST_F(ClockTest, ShowsALiveTableByTheServersClock) {
  for (const char* shift : kShifts) {
    const std::string clock = database.value("SELECT to_char(now(), 'HH24:')");
    const std::string drawn = topOnTerminal(environmentWith(shift));
    EXPECT_THAT(drawn, ContainsRegex("failing +1[67]m")) << shift;
    EXPECT_THAT(drawn, ContainsRegex("late +(1m|2m)")) << shift;
    EXPECT_THAT(drawn, HasSubstr(clock)) << shift;
  }
}

TEST_F(ClockTest, DrawsTheLoadByTheServersClock) {
  const std::vector<std::string> command = {"--user", admin(), "stagger"};
  const std::string full = "█";
  ASSERT_THAT(runOnTerminal(command, environmentWith("")), HasSubstr(full));
  for (const char* shift : kShifts) {
    EXPECT_THAT(runOnTerminal(command, environmentWith(shift)), HasSubstr(full)) << shift;
  }
}

TEST_F(ClockTest, FollowsOutputsWhateverItsClock) {
  std::filesystem::create_directories(daemon.outputDirectory());
  int number = 0;
  for (const char* shift : kShifts) {
    environment = environmentWith(shift);
    for (const bool isFailed : {false, true}) {
      std::vector<std::string> command = {"-f", daemon.mainConfig(), "logs", "-f"};
      if (isFailed) {
        command.emplace_back("--failed");
      }
      const pid_t process = start(command);
      const std::string text = "output " + std::to_string(++number);
      // It may not yet look when the first one is written.
      EXPECT_TRUE(waitUntil([&] {
        writeOutput("out_1_last.txt", text + "\n");
        addFailure(1, 0, "out_1_" + std::to_string(number) + ".txt", text + "\n");
        return readFile(outPath()).find(text) != std::string::npos;
      })) << shift
          << readFile(errPath());
      kill(process, SIGINT);
      waitpid(process, nullptr, 0);
      EXPECT_EQ(readFile(errPath()), "") << shift;
    }
  }
}

}  // namespace
