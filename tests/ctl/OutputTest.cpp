#include <csignal>
#include <string>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::HasSubstr;

/// koductl history and output.
class OutputTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    database.insertTask(quietTask(1));
    setStatus(1, "FAILED");
    writeOutput("out_1_last.txt", "the last\n");
    addFailure(1, 200, "out_1_a.txt", "older\n");
    addFailure(1, 100, "out_1_b.txt", "newer\n");
  }
  static void setTime(const std::string& path) {
    using Time = std::filesystem::file_time_type;
    std::filesystem::last_write_time(path, Time::clock::now() - std::chrono::minutes(1));
  }
};

TEST_F(OutputTest, ListsFailedRunsTheLatestFirst) {
  const CtlResult result = run({"history", "1"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(cell(result.out, "1", 6), "out_1_b.txt");
  EXPECT_EQ(cell(result.out, "1", 7), "newer");
  EXPECT_EQ(cell(result.out, "2", 6), "out_1_a.txt");
}

TEST_F(OutputTest, ListsTheRequestedNumberOfRuns) {
  EXPECT_EQ(parsed(run({"history", "1", "-n", "1", "--json"}).out).size(), 1U);
}

TEST_F(OutputTest, ReportsMissingArchivedOutputs) {
  std::filesystem::remove(archive(1) + "/out_1_b.txt");
  const Json::Value runs = parsed(run({"history", "1", "--json"}).out);
  EXPECT_TRUE(runs[0]["bytes"].isNull());
  EXPECT_EQ(runs[1]["bytes"].asInt(), 6);
  EXPECT_THAT(run({"history", "1"}).out, HasSubstr("(gone)"));
}

TEST_F(OutputTest, SaysThatThereWasNoRun) {
  database.insertTask(quietTask(2));
  EXPECT_EQ(run({"history", "2"}).out, "No run of task 2 (task2) is recorded.\n");
}

TEST_F(OutputTest, PrintsTheLastOutputAsItIs) {
  writeOutput("out_1_last.txt", std::string("a\x1b[31m\0b\n", 9));
  EXPECT_EQ(run({"output", "1"}).out, std::string("a\x1b[31m\0b\n", 9));
}

TEST_F(OutputTest, RepairsInvalidTextForJson) {
  writeOutput("out_1_last.txt",
              "a\xff"
              "b");
  EXPECT_EQ(parsed(run({"output", "1", "--json"}).out)["output"].asString(), "a b");
}

TEST_F(OutputTest, PrintsAnArchivedOutputByNumberAndByName) {
  EXPECT_EQ(run({"output", "1", "1"}).out, "newer\n");
  EXPECT_EQ(run({"output", "1", "2"}).out, "older\n");
  EXPECT_EQ(run({"output", "1", "out_1_a.txt"}).out, "older\n");
}

TEST_F(OutputTest, RefusesPathsOutsideTheArchive) {
  EXPECT_EQ(run({"output", "1", "../../out_1_last.txt"}).exitCode, 64);
  EXPECT_EQ(run({"output", "1", "/etc/passwd"}).exitCode, 64);
}

TEST_F(OutputTest, ExitsWith66ForAMissingOutput) {
  const CtlResult result = run({"output", "1", "3"});
  EXPECT_EQ(result.exitCode, 66);
  EXPECT_EQ(result.err, "koductl: task 1 has only 2 failed runs; koductl history 1 lists them\n");
  EXPECT_EQ(run({"output", "1", "other.txt"}).exitCode, 66);
  database.insertTask(quietTask(2));
  EXPECT_THAT(run({"output", "2"}).err, HasSubstr("task 2 has not run yet"));
  EXPECT_EQ(run({"output", "2", "1"}).err, "koductl: task 2 has no failed runs\n");
}

TEST_F(OutputTest, FollowsWhatTheDaemonWrites) {
  TaskRow row = makeTask(3, "echo run $(/usr/bin/wc -l <" + (daemon.directory / "runs3") + ")");
  row.interval = "2 seconds";
  database.insertTask(row);
  ASSERT_TRUE(daemon.startAndWait());
  const pid_t pid = start({"-f", daemon.mainConfig(), "output", "3", "--follow"});
  const bool isSeen = waitUntil(
      [&] { return readFile(outPath()).find("run 3\n") != std::string::npos; }, kPatience);
  kill(pid, SIGINT);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(isSeen) << readFile(outPath());
  EXPECT_EQ(exitStatusOf(status), 0);
}

TEST_F(OutputTest, FollowsAsJson) {
  for (const char* name : {"/out_1_a.txt", "/out_1_b.txt"}) {  // copied before the last run
    setTime(archive(1) + name);
  }
  const pid_t pid = start({"-f", daemon.mainConfig(), "output", "1", "--follow", "--json"});
  const bool isSeen =
      waitUntil([&] { return readFile(outPath()).find("}\n") != std::string::npos; });
  kill(pid, SIGINT);
  waitpid(pid, nullptr, 0);
  ASSERT_TRUE(isSeen) << readFile(outPath());
  EXPECT_EQ(parsed(readFile(outPath()))["output"].asString(), "the last\n");
}

}  // namespace
