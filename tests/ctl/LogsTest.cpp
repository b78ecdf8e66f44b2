#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <tuple>
#include <vector>

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

TEST_F(LogsTest, ListsOutputsAsJson) {
  const Json::Value outputs = parsed(run({"logs", "1", "--json"}).out);
  ASSERT_EQ(outputs.size(), 3U);
  for (const auto& [place, text, isFailed] : std::vector<std::tuple<int, std::string, bool>>{
           {0, "older\n", true}, {1, "newer\n", true}, {2, "the last\n", false}}) {
    EXPECT_EQ(outputs[place]["output"].asString(), text);
    EXPECT_EQ(outputs[place]["failed"].asBool(), isFailed) << text;
    EXPECT_EQ(outputs[place]["id"].asInt(), 1);
    EXPECT_EQ(outputs[place]["name"].asString(), "task1");
    EXPECT_THAT(outputs[place]["time"].asString(), testing::MatchesRegex("....-..-..T..:..:..Z"));
  }
  EXPECT_EQ(parsed(run({"logs", "1", "-n", "1", "--json"}).out).size(), 1U) << "a list as well";
  EXPECT_THAT(
      run({"logs", "1", "-n", "2", "--json"}).out,
      testing::MatchesRegex("\\[\n  \\{\n    \"(.|\n)*\n  \\},\n  \\{\n(.|\n)*\n  \\}\n\\]\n"));
}

TEST_F(LogsTest, RefusesMoreOutputsThanItReadsAtOnce) {
  EXPECT_EQ(run({"logs", "1", "-n", "10000"}).exitCode, 0);
  EXPECT_EQ(run({"logs", "1", "-n", "10001"}).exitCode, 64);
}

TEST_F(LogsTest, RepairsInvalidTextForJson) {
  writeOutput("out_1_last.txt",
              "a\xff\x1b"
              "b");
  const std::string text = run({"logs", "1", "-n", "1", "--json"}).out;
  EXPECT_EQ(parsed(text)[0]["output"].asString(),
            "a \x1b"
            "b");
  EXPECT_THAT(text, Not(HasSubstr("\x1b")));
}

TEST_F(LogsTest, FollowsTheFailedRunsOfOneTask) {
  database.insertTask(quietTask(2));
  int count = 0;
  const std::string text = follow({"logs", "2", "--follow", "--failed"}, [&] {
    const std::string name = "new" + std::to_string(++count) + ".txt";
    addFailure(1, 0, name, "of another\n");
    addFailure(2, 0, name, "broken\n");
    return readFile(outPath()).find("broken") != std::string::npos;
  });
  EXPECT_THAT(text, AllOf(HasSubstr(" UTC, failed <==\nbroken\n"), Not(HasSubstr("of another"))));
}

TEST_F(LogsTest, FollowsAllTasksAsJson) {
  database.insertTask(quietTask(2));
  const std::string text = follow({"logs", "-f", "--json"}, [&] {
    writeOutput("out_2_last.txt", "fresh\n");
    const std::string shown = readFile(outPath());
    return shown.find("}\n", shown.find("fresh")) != std::string::npos;
  });
  const auto begin = text.rfind("{\n", text.find("fresh"));  // it may have been read half written
  const Json::Value output = parsed(text.substr(begin, text.find("}\n", begin) + 2 - begin));
  EXPECT_EQ(output["id"].asInt(), 2);
  EXPECT_EQ(output["output"].asString(), "fresh\n");
  EXPECT_FALSE(output["failed"].asBool());
}

TEST_F(LogsTest, NamesATaskThatIsGone) {
  addFailure(1, 1, "gone.txt", "broken\n");
  database.query("DELETE FROM kodu_cron_plugin WHERE cron_id = 1");
  const CtlResult result = run({"logs", "1"});
  EXPECT_EQ(result.exitCode, 66);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, HasSubstr("there is no task 1; koductl status lists them"));
}

TEST_F(LogsTest, EndsBySigtermWithoutAnError) {
  const pid_t pid = start({"-f", daemon.mainConfig(), "logs", "1", "-f"});
  ASSERT_TRUE(waitUntil([&] { return readFile(outPath()).find("the last") != std::string::npos; }));
  kill(pid, SIGTERM);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_EQ(exitStatusOf(status), 0);
  EXPECT_EQ(readFile(errPath()), "");
}

TEST_F(LogsTest, SaysThatTheWatchedDirectoryIsGone) {
  const pid_t pid = start({"-f", daemon.mainConfig(), "logs", "1", "-f"});
  ASSERT_TRUE(waitUntil([&] { return readFile(outPath()).find("the last") != std::string::npos; }));
  std::filesystem::remove_all(daemon.outputDirectory());
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_EQ(exitStatusOf(status), 66);
  EXPECT_THAT(readFile(errPath()),
              HasSubstr("cannot watch the directory " + daemon.outputDirectory() +
                        ": No such file or directory\n"));
}

TEST_F(LogsTest, ReadsNothingThatTheDaemonMayNotRead) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root has more rights than the daemon";
  }
  const std::string secret = daemon.directory / "secret";
  writeFile(secret, "secret\n");
  ASSERT_EQ(chmod(secret.c_str(), 0600), 0);
  std::filesystem::remove(daemon.outputDirectory() + "/out_1_last.txt");
  std::filesystem::create_symlink(secret, daemon.outputDirectory() + "/out_1_last.txt");
  chmod(daemon.directory.path().c_str(), 0755);
  writeFile(daemon.logPath(), "");
  const passwd* user = getpwnam("postgres");  // who stands for the daemon's user
  ASSERT_EQ(chown(daemon.logPath().c_str(), user->pw_uid, user->pw_gid), 0);
  const CtlResult result = run({"logs", "1", "-n", "1"});
  EXPECT_EQ(result.exitCode, 77) << result.out;
  EXPECT_THAT(result.err, HasSubstr("out_1_last.txt: Permission denied"));
  EXPECT_THAT(result.out, Not(HasSubstr("secret")));
}

}  // namespace
