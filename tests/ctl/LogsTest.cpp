#include <csignal>
#include <string>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

/// koductl logs.
class LogsTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    database.insertTask(quietTask(1));
    setStatus(1, "OK");
    addFailure(1, 200, "out_1_a.txt", "older\n");
    addFailure(1, 100, "out_1_b.txt", "newer\n");
    for (const char* name : {"/out_1_a.txt", "/out_1_b.txt"}) {  // copied before the last run
      using Time = std::filesystem::file_time_type;
      std::filesystem::last_write_time(archive(1) + name,
                                       Time::clock::now() - std::chrono::minutes(1));
    }
    writeOutput("out_1_last.txt", "the last\n");
  }

  /// Starts koductl, and ends it with SIGINT once `isSeen` holds; what it printed.
  template <typename Condition>
  std::string follow(std::vector<std::string> arguments, const Condition& isSeen) const {
    arguments.insert(arguments.begin(), {"-f", daemon.mainConfig()});
    const pid_t pid = start(arguments);
    EXPECT_TRUE(waitUntil(isSeen, kPatience)) << readFile(outPath()) << readFile(errPath());
    kill(pid, SIGINT);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_EQ(exitStatusOf(status), 0);
    return readFile(outPath());
  }
  /// The same, with a write of a task's output as soon as koductl can see it.
  std::string followWriting(const std::vector<std::string>& arguments, const std::string& name,
                            const std::string& content) const {
    return follow(arguments, [&] {
      writeOutput(name, content);
      return readFile(outPath()).find(content) != std::string::npos;
    });
  }
};

TEST_F(LogsTest, PrintsWhatIsKeptTheLatestLast) {
  const CtlResult result = run({"logs", "1"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, ContainsRegex("^==> 20[0-9: -]+ UTC, failed <==\nolder\n"
                                        "==> 20[0-9: -]+ UTC, failed <==\nnewer\n"
                                        "==> 20[0-9: -]+ UTC <==\nthe last\n$"));
}

TEST_F(LogsTest, PrintsTheTimeOfTheFailure) {
  const std::string time = database.value(
      "SELECT to_char(min(cron_date), 'YYYY-MM-DD HH24:MI:SS') FROM kodu_cron_error");
  EXPECT_THAT(run({"logs", "1"}).out, HasSubstr("==> " + time + " UTC, failed <==\nolder\n"));
}

TEST_F(LogsTest, ListsALatestRunThatFailedOnce) {
  setStatus(1, "FAILED");
  addFailure(1, 10, "out_1_c.txt", "the last\n");  // copied after it was written
  EXPECT_THAT(run({"logs", "1"}).out,
              ContainsRegex("newer\n==> 20[0-9: -]+ UTC, failed <==\nthe last\n$"));
  const Json::Value outputs = parsed(run({"logs", "1", "--json"}).out);
  ASSERT_EQ(outputs.size(), 3U);
  EXPECT_TRUE(outputs[2]["failed"].asBool());
}

TEST_F(LogsTest, PrintsAsManyAsAreAskedFor) {
  const std::string two = run({"logs", "1", "-n", "2"}).out;
  EXPECT_THAT(two, AllOf(HasSubstr("newer"), HasSubstr("the last"), Not(HasSubstr("older"))));
}

TEST_F(LogsTest, PrintsASingleOneAloneAndUnchanged) {
  writeOutput("out_1_last.txt", std::string("a\x1b[31m\0b", 8));
  EXPECT_EQ(run({"logs", "1", "-n", "1"}).out, std::string("a\x1b[31m\0b", 8));
  EXPECT_EQ(run({"logs", "1", "-n", "1", "--failed"}).out, "newer\n");
  EXPECT_THAT(runOnTerminal({"logs", "1", "-n", "1"}), HasSubstr("a?[31m?b\r\n"));
}

TEST_F(LogsTest, PrintsOnlyFailedRuns) {
  EXPECT_THAT(run({"logs", "1", "--failed"}).out,
              AllOf(HasSubstr("older\n"), HasSubstr("newer\n"), Not(HasSubstr("the last"))));
}

TEST_F(LogsTest, EndsEachOutputInALine) {
  writeFile(archive(1) + "/out_1_a.txt", "no line");
  EXPECT_THAT(run({"logs", "1"}).out, HasSubstr("no line\n==> "));
}

TEST_F(LogsTest, SaysWhichCopyIsGone) {
  std::filesystem::remove(archive(1) + "/out_1_b.txt");
  EXPECT_THAT(run({"logs", "1"}).out, HasSubstr("failed <==\n(cannot read " + archive(1) +
                                                "/out_1_b.txt: No such file or directory)\n"));
  EXPECT_TRUE(parsed(run({"logs", "1", "--json"}).out)[1]["output"].isNull());
}

TEST_F(LogsTest, SaysThatThereIsNothing) {
  database.insertTask(quietTask(2));
  const CtlResult result = run({"logs", "2"});
  EXPECT_EQ(result.exitCode, 66);
  EXPECT_THAT(result.err, HasSubstr("task 2 has not run yet; it is due at 20"));
  EXPECT_EQ(run({"logs", "2", "--failed"}).out, "No failed run of task 2 (task2) is recorded.\n");
  EXPECT_EQ(parsed(run({"logs", "2", "--json"}).out).size(), 0U);
  setStatus(2, "OK");
  EXPECT_EQ(run({"logs", "2"}).err,
            "koductl: task 2 has no output in " + daemon.outputDirectory() + "/out_2_last.txt\n");
}

TEST_F(LogsTest, WantsATaskUnlessItFollows) {
  const CtlResult result = run({"logs"});
  EXPECT_EQ(result.exitCode, 64);
  EXPECT_EQ(result.err, "koductl: name a task, or follow all tasks with --follow\n");
}

TEST_F(LogsTest, FollowsOneTaskAfterWhatIsKept) {
  database.insertTask(quietTask(2));
  const std::string text = follow({"logs", "1", "-f"}, [&] {
    if (readFile(outPath()).find("the last") == std::string::npos) {
      return false;  // it has not looked yet
    }
    writeOutput("out_2_last.txt", "of another\n");
    writeOutput("out_1_last.txt", "fresh\n");
    return readFile(outPath()).find("fresh") != std::string::npos;
  });
  EXPECT_THAT(text, ContainsRegex("newer\n==> 20[0-9: -]+ UTC <==\nthe last\n"));
  EXPECT_THAT(text, HasSubstr(" UTC <==\nfresh\n"));
  EXPECT_THAT(text, Not(HasSubstr("of another")));
}

TEST_F(LogsTest, FollowsAllTasksAndNamesThem) {
  database.insertTask(quietTask(2));
  const std::string text = followWriting({"logs", "-f"}, "out_2_last.txt", "fresh\n");
  EXPECT_THAT(text, HasSubstr(" UTC, task 2 (task2) <==\nfresh\n"));
  EXPECT_THAT(text, Not(HasSubstr("older")));
}

TEST_F(LogsTest, FollowsNoFileThatBelongsToNoTask) {
  const std::string text = follow({"logs", "-f"}, [&] {
    writeOutput("stray.txt", "stray\n");
    writeOutput("out_1_last.txt", "fresh\n");
    return readFile(outPath()).find("fresh") != std::string::npos;
  });
  EXPECT_THAT(text, Not(HasSubstr("stray")));
}

TEST_F(LogsTest, FollowsFailedRunsAlone) {
  int count = 0;
  const std::string text = follow({"logs", "--follow", "--failed"}, [&] {
    writeOutput("out_1_last.txt", "fine\n");
    addFailure(1, 0, "out_1_new" + std::to_string(++count) + ".txt", "broken\n");
    return readFile(outPath()).find("broken") != std::string::npos;
  });
  EXPECT_THAT(text, HasSubstr("task 1 (task1), failed <==\nbroken\n"));
  EXPECT_THAT(text, AllOf(Not(HasSubstr("fine")), Not(HasSubstr("newer"))));
}

TEST_F(LogsTest, FollowsAsJson) {
  const std::string text = follow({"logs", "1", "-n", "1", "-f", "--json"}, [&] {
    return readFile(outPath()).find("}\n") != std::string::npos;
  });
  EXPECT_EQ(parsed(text)["output"].asString(), "the last\n");
}

TEST_F(LogsTest, FollowsTheRunsOfADaemon) {
  TaskRow row = makeTask(3, "echo run $(/usr/bin/wc -l <" + (daemon.directory / "runs3") + ")");
  row.interval = "2 seconds";
  database.insertTask(row);
  ASSERT_TRUE(daemon.startAndWait());
  follow({"logs", "-f"},
         [&] { return readFile(outPath()).find("(task3) <==\nrun 2\n") != std::string::npos; });
}

TEST_F(LogsTest, OutlivesAnAbsenceOfTheDatabase) {
  const std::string text = follow({"logs", "-f"}, [&] {
    database.query(
        "SELECT pg_terminate_backend(pid) FROM pg_stat_activity"
        " WHERE application_name = 'kodu_ctl' AND datname = current_database()");
    writeOutput("out_1_last.txt", "fresh\n");
    return readFile(outPath()).find("fresh\n==>") != std::string::npos;
  });
  EXPECT_THAT(text, HasSubstr("fresh"));
}

TEST_F(LogsTest, SaysWhichDirectoryItCannotWatch) {
  std::filesystem::remove_all(daemon.outputDirectory());
  EXPECT_EQ(run({"logs", "-f"}).err, "koductl: cannot watch the directory " +
                                         daemon.outputDirectory() +
                                         ": No such file or directory\n");
}

}  // namespace
