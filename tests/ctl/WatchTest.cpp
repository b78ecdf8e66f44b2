#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::HasSubstr;
using testing::Not;

/// koductl status --watch on a terminal of 12 lines.
class WatchTest : public CtlTest {
 protected:
  void TearDown() override {
    if (pid > 0) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
    if (terminal >= 0) {
      close(terminal);
    }
    CtlTest::TearDown();
  }

  void watch(const std::vector<std::string>& arguments, const char* type = "xterm") {
    winsize size{12, 100, 0, 0};
    pid = forkpty(&terminal, nullptr, nullptr, &size);
    if (pid == 0) {
      setenv("NO_COLOR", "1", 1);
      setenv("TERM", type, 1);
      std::vector<std::string> all = {program(), "-f", daemon.mainConfig(), "status", "--watch"};
      all.insert(all.end(), arguments.begin(), arguments.end());
      std::vector<char*> pointers;
      for (std::string& word : all) {
        pointers.push_back(word.data());
      }
      pointers.push_back(nullptr);
      execv(pointers[0], pointers.data());
      _exit(127);
    }
  }

  /// Whether the terminal shows that text after what it has shown before the call.
  bool shows(const std::string& text) {
    shown.clear();
    return waitUntil([&] {
      pollfd ready{terminal, POLLIN, 0};
      while (poll(&ready, 1, 0) > 0) {
        std::array<char, 4096> chunk{};
        const ssize_t length = read(terminal, chunk.data(), chunk.size());
        if (length <= 0) {
          break;
        }
        shown.append(chunk.data(), static_cast<std::size_t>(length));
      }
      return shown.find(text) != std::string::npos;
    });
  }

  void insertTasks(int count) const {
    for (int id = 1; id <= count; ++id) {
      database.insertTask(quietTask(id));
    }
  }

  pid_t pid = -1;
  int terminal = -1;
  std::string shown;
};

TEST_F(WatchTest, ShowsAScreenOfTasksAndCountsTheOthers) {
  insertTasks(20);
  watch({});
  ASSERT_TRUE(shows("… and 12 more")) << shown;
  EXPECT_THAT(shown, HasSubstr("20 tasks: 20 not run yet; 0 late. Times are UTC."));
  EXPECT_THAT(shown, HasSubstr("task8"));
  EXPECT_THAT(shown, Not(HasSubstr("task9")));
}

TEST_F(WatchTest, FollowsTheStateOfItsTasks) {
  insertTasks(2);
  watch({});
  ASSERT_TRUE(shows("2 tasks: 2 not run yet"));
  setStatus(2, "FAILED");
  EXPECT_TRUE(shows("2 tasks: 1 FAILED, 1 not run yet")) << shown;
  database.insertTask(quietTask(3));
  EXPECT_TRUE(shows("task3")) << shown;
}

TEST_F(WatchTest, FollowsWhichTasksMeetItsConditions) {
  insertTasks(3);
  setStatus(1, "FAILED");
  watch({"--failed"});
  ASSERT_TRUE(shows("1 task: 1 FAILED"));
  EXPECT_THAT(shown, Not(HasSubstr("task3")));
  setStatus(3, "FAILED");
  EXPECT_TRUE(shows("task3")) << shown;
  setStatus(1, "OK");
  setStatus(3, "OK");
  EXPECT_TRUE(shows("0 tasks; 0 late")) << shown;
}

TEST_F(WatchTest, EndsWithTheCursorWhenItIsInterrupted) {
  insertTasks(1);
  watch({});
  ASSERT_TRUE(shows("task1"));
  ASSERT_EQ(write(terminal, "\x03", 1), 1);
  EXPECT_TRUE(shows("\x1b[?25h")) << shown;
  int status = 0;
  waitpid(pid, &status, 0);
  pid = -1;
  EXPECT_EQ(exitStatusOf(status), 0);
}

TEST_F(WatchTest, SaysOnItsScreenThatTheSessionIsLostAndGoesOn) {
  insertTasks(1);
  watch({});
  ASSERT_TRUE(shows("task1"));
  database.query(
      "SELECT pg_terminate_backend(pid) FROM pg_stat_activity"
      " WHERE application_name = 'kodu_ctl' AND datname = current_database()");
  EXPECT_TRUE(shows("terminating connection")) << shown;
  EXPECT_TRUE(shows("task1")) << shown;
}

TEST_F(WatchTest, PrintsOneListAfterTheOtherOnATerminalWithoutSequences) {
  insertTasks(2);
  watch({}, "dumb");
  ASSERT_TRUE(shows("2 tasks"));
  std::string all = shown;
  setStatus(1, "FAILED");
  ASSERT_TRUE(shows("FAILED"));
  all += shown;
  EXPECT_THAT(all, Not(HasSubstr("\x1b")));
}

TEST_F(WatchTest, ShowsNoControlCharacterOfAName) {
  TaskRow row = quietTask(1);
  row.name = "a\x1b]0;title\x07z";
  database.insertTask(row);
  watch({});
  ASSERT_TRUE(shows("0;title?z")) << shown;
  EXPECT_THAT(shown, Not(HasSubstr("\x07")));
}

}  // namespace
