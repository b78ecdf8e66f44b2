#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/top/feed.h"
#include "tests/ctl/CtlTest.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

/// koductl top in a pseudo terminal.
class TopTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    for (const int id : {1, 2, 3}) {
      TaskRow row = quietTask(id);
      if (id == 2) {
        row.nextExec = "now() - interval '90 seconds'";
      }
      database.insertTask(row);
    }
    setStatus(1, "OK");
    setStatus(3, "FAILED");
    addFailure(3, 30, "out_3_x.txt", "bad");
  }
  void TearDown() override {
    if (pid > 0) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
    close(terminal);
    CtlTest::TearDown();
  }

  void startTop(const std::vector<std::string>& options = {},
                const std::string& type = "TERM=xterm") {
    std::vector<std::string> words = {program(), "-f", daemon.mainConfig()};
    words.insert(words.end(), options.begin(), options.end());
    words.emplace_back("top");
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string& word : words) {
      pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    winsize size{24, 120, 0, 0};
    pid = forkpty(&terminal, nullptr, nullptr, &size);
    if (pid == 0) {
      putenv(const_cast<char*>(type.c_str()));
      putenv(const_cast<char*>("PGPASSWORD=secret"));
      execv(pointers[0], pointers.data());
      _exit(127);
    }
    fcntl(terminal, F_SETFL, O_NONBLOCK);
  }
  /// Reads what has been drawn since the last press(); true once the text is in it.
  bool sees(const std::string& text) {
    return waitUntil([&] {
      std::array<char, 4096> part{};
      for (ssize_t length = 0; (length = read(terminal, part.data(), part.size())) > 0;) {
        drawn.append(part.data(), static_cast<std::size_t>(length));
      }
      return drawn.find(text) != std::string::npos;
    });
  }
  void press(const std::string& keys) {
    drawn.clear();
    ASSERT_EQ(write(terminal, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }
  int exitStatus() {
    int status = -1;
    EXPECT_TRUE(waitUntil([&] {
      sees("");  // so that it does not wait for its reader
      return waitpid(pid, &status, WNOHANG) == pid;
    }));
    pid = -1;
    return exitStatusOf(status);
  }

  std::string drawn;
  pid_t pid = -1;
  int terminal = -1;
};

TEST_F(TopTest, ShowsWhatIsLateAndFailingFirst) {
  startTop();
  ASSERT_TRUE(sees("task1")) << drawn;
  EXPECT_THAT(drawn, HasSubstr("3 tasks: 1 late, 0 running, 1 failed"));
  EXPECT_LT(drawn.find("task2"), drawn.find("task3"));
  EXPECT_LT(drawn.find("task3"), drawn.find("task1"));
  press("q");
  EXPECT_EQ(exitStatus(), 0);
}

TEST_F(TopTest, ShowsOnlyWhatIsAskedFor) {
  startTop();
  ASSERT_TRUE(sees("task1"));
  press("f");
  ASSERT_TRUE(sees("failing, by")) << drawn;
  press("/");
  ASSERT_TRUE(sees("filter: _")) << drawn;
}

/// What the live table asks the database.
class TopFeedTest : public TopTest {
 protected:
  void SetUp() override {
    TopTest::SetUp();
    Options options;
    options.configFile = daemon.mainConfig();
    session.emplace(options);
  }

  std::vector<int> ids(TopView view, TopSort sort = TopSort::kUrgency, bool isReversed = false) {
    TopQuery query;
    query.view = view;
    query.sort = sort;
    query.isReversed = isReversed;
    return ids(query);
  }
  /// The ids in their order.
  std::vector<int> ids(const TopQuery& query) {
    std::vector<int> found;
    for (const TopRow& row : readTop(*session, query)) {
      found.push_back(row.id);
    }
    return found;
  }

  std::optional<Session> session;
};

TEST_F(TopFeedTest, ChoosesTheTasksOfAView) {
  TaskRow row = quietTask(4);
  row.nextExec = "now() - interval '5 seconds'";
  database.insertTask(row);
  setStatus(4, "PROCESS");
  EXPECT_THAT(ids(TopView::kLate), ElementsAre(2));
  EXPECT_THAT(ids(TopView::kRunning), ElementsAre(4));
  EXPECT_THAT(ids(TopView::kFailing), ElementsAre(3));
  EXPECT_THAT(ids(TopView::kAll), ElementsAre(2, 4, 3, 1));
  database.query(
      "UPDATE kodu_cron_plugin SET cron_last_exec = now() - cron_id * interval '1 min'"
      " WHERE cron_id IN (1, 3)");
  EXPECT_THAT(ids(TopView::kLatest, TopSort::kLast), ElementsAre(1, 3));
}

TEST_F(TopFeedTest, SortsBothWays) {
  EXPECT_THAT(ids(TopView::kAll, TopSort::kId), ElementsAre(1, 2, 3));
  EXPECT_THAT(ids(TopView::kAll, TopSort::kName, true), ElementsAre(3, 2, 1));
  EXPECT_THAT(ids(TopView::kAll, TopSort::kDue), ElementsAre(2, 1, 3));
  EXPECT_THAT(ids(TopView::kAll, TopSort::kUrgency, true), ElementsAre(1, 3, 2));
}

TEST_F(TopFeedTest, FiltersByAPartOfTheName) {
  database.query("UPDATE kodu_plugins SET plugin_name = 'Disk%_' WHERE plugin_id = 2");
  TopQuery query;
  query.filter = "sk%_";
  EXPECT_THAT(ids(query), ElementsAre(2));
  query.filter = "TASK";
  EXPECT_THAT(ids(query), ElementsAre(3, 1));
}

TEST_F(TopFeedTest, LimitsTheTasksAndCountsAll) {
  TopQuery query;
  query.limit = 1;
  EXPECT_THAT(ids(query), ElementsAre(2));
  const TopCounts counts = readTopCounts(*session);
  EXPECT_EQ(counts.tasks, 3);
  EXPECT_EQ(counts.late, 1);
  EXPECT_EQ(counts.failed, 1);
}

// Such a run is due in the future, but the functions know of it.
TEST_F(TopFeedTest, KnowsARunWhoseTimeWasMovedAsItBegan) {
  setStatus(1, "PROCESS");
  database.query("UPDATE kodu_cron_plugin SET cron_wanted = cron_next_exec WHERE cron_id = 1");
  EXPECT_EQ(database.value("SELECT running FROM kodu_task_state WHERE id = 1"), "t");
  EXPECT_THAT(ids(TopView::kRunning), ElementsAre(1));
  EXPECT_EQ(readTopCounts(*session).running, 1);
}

TEST_F(TopFeedTest, FindsTheFailingTasksBehindManyRuns) {
  for (const int id : {4, 5, 6}) {
    TaskRow row = quietTask(id);
    row.nextExec = "now() - interval '5 seconds'";
    database.insertTask(row);
    setStatus(id, "PROCESS");
  }
  addFailure(6, 3, "out_6_x.txt", "bad");
  TopQuery query;
  query.view = TopView::kFailing;
  query.limit = 2;
  EXPECT_THAT(ids(query), ElementsAre(6, 3));
}

TEST_F(TopFeedTest, LeavesOutWhatTheDaemonDoesNotRun) {
  TaskRow row = quietTask(4);
  row.nextExec = "now() - interval '1 hour'";
  database.insertTask(row);
  database.query("UPDATE kodu_plugins SET plugin_type = 'device' WHERE plugin_id = 4");
  TopQuery query;
  query.limit = 1;
  EXPECT_THAT(ids(query), ElementsAre(2));
  const TopCounts counts = readTopCounts(*session);
  EXPECT_EQ(counts.tasks, 3);
  EXPECT_EQ(counts.late, 1);
}

TEST_F(TopTest, ExplainsTheSelectedTask) {
  startTop();
  ASSERT_TRUE(sees("task1"));
  press("j\r");
  ASSERT_TRUE(sees("Task 3 (task3) runs")) << drawn;
  press(" ");
  ASSERT_TRUE(sees("quit")) << drawn;
}

TEST_F(TopTest, PausesTheSelectedTask) {
  startTop({"--user", admin()});
  ASSERT_TRUE(sees("task1"));
  press("py");
  ASSERT_TRUE(sees("task 2 paused")) << drawn;
  EXPECT_EQ(database.value("SELECT cron_id FROM kodu_cron_pause"), "2");
}

TEST_F(TopTest, RunsTheSelectedTask) {
  startTop({"--user", admin()});
  ASSERT_TRUE(sees("task1"));
  press("x");
  ASSERT_TRUE(sees("run task 2")) << drawn;
  press("y");
  ASSERT_TRUE(sees("will run in 3 seconds")) << drawn;
  EXPECT_GT(database.nextExec(2), std::time(nullptr) - 5);
}

TEST_F(TopTest, SaysWhoMayNotChangeTasks) {
  startTop();
  ASSERT_TRUE(sees("task1"));
  press("py");
  EXPECT_TRUE(sees("role kodu may not do this")) << drawn;
}

TEST_F(TopTest, FollowsTheTasks) {
  startTop();
  ASSERT_TRUE(sees("task1"));
  drawn.clear();
  setStatus(1, "FAILED");
  EXPECT_TRUE(sees("2 failed") || sees("failing")) << drawn;
}

TEST_F(TopTest, RestoresTheTerminalWhenItIsInterrupted) {
  startTop();
  ASSERT_TRUE(sees("task1"));
  press("\x03");
  EXPECT_EQ(exitStatus(), 0);
  EXPECT_THAT(drawn, HasSubstr("\x1b[?1049l"));
}

TEST_F(TopTest, EndsAtOnceWhileTheDatabaseDoesNotAnswer) {
  startTop({"--lock-timeout", "60"});
  ASSERT_TRUE(sees("task1"));
  database.query("BEGIN; LOCK TABLE kodu_cron_plugin");
  EXPECT_TRUE(waitUntil([&] { return database.waitingSessions() > 0; }));
  press("\x03");
  EXPECT_EQ(exitStatus(), 0);
  EXPECT_THAT(drawn, HasSubstr("\x1b[?1049l"));
  database.query("COMMIT");
}

TEST_F(TopTest, OutlivesAnAbsenceOfTheDatabase) {
  startTop();
  ASSERT_TRUE(sees("task1"));
  drawn.clear();
  database.query(
      "SELECT pg_terminate_backend(pid) FROM pg_stat_activity"
      " WHERE application_name = 'kodu_ctl' AND datname = current_database()");
  setStatus(1, "FAILED");
  EXPECT_TRUE(sees("failing")) << drawn;
}

TEST_F(TopTest, HasNoColoursWhereTheyAreNotWanted) {
  startTop();
  ASSERT_TRUE(sees("task1"));
  EXPECT_THAT(drawn, HasSubstr("\x1b[33m"));
  press("q");
  ASSERT_EQ(exitStatus(), 0);
  drawn.clear();
  setenv("NO_COLOR", "1", 1);  // NOLINT(concurrency-mt-unsafe)
  startTop();
  ASSERT_TRUE(sees("task1"));
  EXPECT_THAT(drawn, Not(HasSubstr("\x1b[33m")));
  unsetenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe)
}

TEST_F(TopTest, ShowsNoControlCharacterOfAName) {
  database.query("UPDATE kodu_plugins SET plugin_name = E'x\\x1b[31my' WHERE plugin_id = 1");
  startTop();
  EXPECT_TRUE(sees("x?[31my")) << drawn;
  database.query("UPDATE kodu_plugins SET plugin_name = 'Übung' WHERE plugin_id = 1");
  EXPECT_TRUE(sees("Übung")) << drawn;
}

TEST_F(TopTest, WantsATerminalThatItKnows) {
  EXPECT_EQ(run({"top"}).exitCode, 64);
  EXPECT_THAT(run({"top"}).err, HasSubstr("top needs a terminal: use status, or top --json\n"));
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "ncurses keeps memory after a terminal that it does not know";
#endif
  startTop({}, "TERM=none-such");
  EXPECT_EQ(exitStatus(), 64);
}

TEST_F(TopTest, PrintsThePresentStateAsJson) {
  const Json::Value json = parsed(run({"top", "--json"}).out);
  EXPECT_EQ(json["tasks"].asInt(), 3);
  EXPECT_EQ(json["late"].asInt(), 1);
  ASSERT_EQ(json["rows"].size(), 3U);
  EXPECT_EQ(json["rows"][0]["state"].asString(), "late");
  EXPECT_EQ(json["rows"][1]["state"].asString(), "failing");
}

TEST_F(TopTest, FiltersTheTableByTheKeysThatAreTyped) {
  startTop();
  ASSERT_TRUE(sees("task1"));
  press("/sk3\r");
  ASSERT_TRUE(sees("quit")) << drawn;
  press("j\r");
  ASSERT_TRUE(sees("Task 3 (task3) runs")) << "the only one: " << drawn;
  press(" ");
  ASSERT_TRUE(sees("quit"));
  press("\x1b");
  EXPECT_TRUE(sees("task1")) << drawn;
}

TEST_F(TopTest, MovesTheSelectionByTheArrows) {
  startTop();
  ASSERT_TRUE(sees("task1"));
  press("\x1bOB\x1bOB");
  press("\r");
  ASSERT_TRUE(sees("Task 1 (task1) runs")) << drawn;
  press(" ");
  ASSERT_TRUE(sees("quit"));
  press("\x1bOA\r");
  EXPECT_TRUE(sees("Task 3 (task3) runs")) << drawn;
}

TEST_F(TopTest, ResumesTheSelectedTask) {
  database.query("SELECT kodu_task_pause(2)");
  startTop({"--user", admin()});
  ASSERT_TRUE(sees("paused")) << drawn;
  press("/task2\r");
  ASSERT_TRUE(sees("quit")) << drawn;
  press("u");
  ASSERT_TRUE(sees("resume task 2 (task2)? y/n")) << drawn;
  press("y");
  ASSERT_TRUE(sees("task 2 resumed")) << drawn;
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_pause"), "0");
}

TEST_F(TopTest, ChangesNothingWithoutAYes) {
  startTop({"--user", admin()});
  ASSERT_TRUE(sees("task1"));
  press("pn");
  ASSERT_TRUE(sees("nothing was changed")) << drawn;
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_pause"), "0");
}

TEST_F(TopTest, ShowsWhatTheServerSaysToAChange) {
  startTop({"--user", admin()});
  ASSERT_TRUE(sees("task1"));
  press("uy");
  EXPECT_TRUE(sees("task 2 is not paused")) << drawn;
}

TEST_F(TopTest, EndsBySigtermToo) {
  startTop();
  ASSERT_TRUE(sees("task1"));
  drawn.clear();
  kill(pid, SIGTERM);
  EXPECT_EQ(exitStatus(), 0);
  EXPECT_THAT(drawn, HasSubstr("\x1b[?1049l")) << "the terminal is restored";
}

TEST_F(TopFeedTest, HasNoTaskThatTheDaemonDoesNotRun) {
  TaskRow row = quietTask(4);
  row.pluginType = "device";
  database.insertTask(row);
  EXPECT_THAT(ids(TopView::kAll, TopSort::kId), ElementsAre(1, 2, 3));
}

TEST_F(TopFeedTest, CountsAPausedTaskNeitherAsLateNorAsRunning) {
  database.query("SELECT kodu_task_pause(2)");
  EXPECT_THAT(ids(TopView::kLate), testing::IsEmpty());
  EXPECT_EQ(readTopCounts(*session).late, 0);
  const std::vector<TopRow> rows = readTop(*session, {});
  ASSERT_EQ(rows.size(), 3U);
  for (const TopRow& row : rows) {
    EXPECT_EQ(row.isPaused, row.id == 2);
  }
}

TEST_F(TopFeedTest, PutsNoTextOfAFilterIntoTheStatement) {
  TopQuery query;
  query.filter = "'; DROP TABLE kodu_cron_error; --";
  EXPECT_THAT(ids(query), testing::IsEmpty());
  EXPECT_EQ(database.failures(3), 1);
}

TEST_F(TopFeedTest, IsEmptyWithoutTasks) {
  database.query("DELETE FROM kodu_cron_plugin");
  for (const TopView view :
       {TopView::kAll, TopView::kLate, TopView::kRunning, TopView::kFailing, TopView::kLatest}) {
    EXPECT_THAT(ids(view), testing::IsEmpty());
  }
  const TopCounts counts = readTopCounts(*session);
  EXPECT_EQ(counts.tasks + counts.late + counts.running + counts.failed, 0);
}

}  // namespace
