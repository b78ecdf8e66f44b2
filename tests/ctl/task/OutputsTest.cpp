#include "ctl/task/outputs.h"

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/task/task.h"
#include "tests/ctl/CtlTest.h"
#include "tests/support/FakeTerminal.h"
#include "tests/support/outputOf.h"

namespace {

using testing::ElementsAre;

/// The outputs of task 1, which has failed twice before its last run.
class OutputsTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    database.insertTask(quietTask(1));
    setStatus(1, "OK");
    addFailure(1, 300, "a.txt", "first");
    addFailure(1, 200, "b.txt", "second");
    age(archive(1) + "/a.txt", 300);
    age(archive(1) + "/b.txt", 200);
    writeOutput("out_1_last.txt", "last");
    Options options;
    options.configFile = daemon.mainConfig();
    session = std::make_unique<Session>(options);
  }
  static void age(const std::string& path, int seconds) {
    using Time = std::filesystem::file_time_type;
    std::filesystem::last_write_time(path, Time::clock::now() - std::chrono::seconds(seconds));
  }
  /// The names of the files, in their order.
  std::vector<std::string> names(int limit, bool onlyFailed = false) const {
    std::vector<std::string> found;
    for (const KeptOutput& output :
         readOutputs(*session, readTask(*session, 1), limit, onlyFailed)) {
      found.push_back(std::filesystem::path(output.path).filename().string());
    }
    return found;
  }

  std::unique_ptr<Session> session;
};

TEST_F(OutputsTest, AreThoseOfFailedRunsAndTheLatestOne) {
  EXPECT_THAT(names(10), ElementsAre("a.txt", "b.txt", "out_1_last.txt"));
  EXPECT_THAT(names(10, true), ElementsAre("a.txt", "b.txt"));
}

TEST_F(OutputsTest, AreTheLatestWithinTheLimit) {
  EXPECT_THAT(names(2), ElementsAre("b.txt", "out_1_last.txt"));
  EXPECT_THAT(names(1), ElementsAre("out_1_last.txt"));
  EXPECT_THAT(names(1, true), ElementsAre("b.txt"));
}

TEST_F(OutputsTest, HaveALatestRunThatFailedOnce) {
  age(daemon.outputDirectory() + "/out_1_last.txt", 250);  // the copy is younger
  EXPECT_THAT(names(10), ElementsAre("a.txt", "b.txt"));
}

TEST_F(OutputsTest, HaveTheLatestRunEvenIfTheCopyOfAFailedOneIsGone) {
  std::filesystem::remove(archive(1) + "/b.txt");
  EXPECT_THAT(names(10), ElementsAre("a.txt", "b.txt", "out_1_last.txt"));
}

TEST_F(OutputsTest, LeaveOutAFileFromBeforeTheFirstRun) {
  database.query("UPDATE kodu_cron_plugin SET cron_status = NULL");
  EXPECT_THAT(names(10), ElementsAre("a.txt", "b.txt"));
}

TEST_F(OutputsTest, SayWhetherTheRunFailed) {
  const auto outputs = readOutputs(*session, readTask(*session, 1), 2, false);
  ASSERT_EQ(outputs.size(), 2U);
  EXPECT_TRUE(outputs[0].isFailed);
  EXPECT_FALSE(outputs[1].isFailed);
  EXPECT_EQ(outputs[0].taskId, 1);
  EXPECT_EQ(outputs[0].taskName, "task1");
  EXPECT_LT(outputs[0].time, outputs[1].time);
}

/// How an output is printed.
class PrintKeptTest : public testing::Test {
 protected:
  std::string printed(const std::string& content, bool withTask = false) const {
    writeFile(output.path, content);
    return outputOf([&] { printKept(output, withTask, false); });
  }

  const TempDir directory;
  const KeptOutput output{7, "disk\x1b[2J", 1714564800, true, directory / "kept"};
};

TEST_F(PrintKeptTest, FollowsALineWithItsTime) {
  EXPECT_EQ(printed("text\n"), "==> 2024-05-01 12:00:00 UTC, failed <==\ntext\n");
  EXPECT_EQ(printed("text\n", true),
            "==> 2024-05-01 12:00:00 UTC, task 7 (disk?[2J), failed <==\ntext\n");
}

TEST_F(PrintKeptTest, EndsInALine) {
  EXPECT_EQ(printed("text"), "==> 2024-05-01 12:00:00 UTC, failed <==\ntext\n");
  EXPECT_EQ(printed(""), "==> 2024-05-01 12:00:00 UTC, failed <==\n");
}

TEST_F(PrintKeptTest, NamesAFileThatIsGone) {
  EXPECT_EQ(outputOf([&] { printKept(output, false, false); }),
            "==> 2024-05-01 12:00:00 UTC, failed <==\n(cannot read " + output.path +
                ": No such file or directory)\n");
  EXPECT_TRUE(toJson(output)["output"].isNull());
}

TEST_F(PrintKeptTest, SaysTheSameAsJson) {
  writeFile(output.path, "two\nlines");
  const Json::Value json = toJson(output);
  EXPECT_EQ(json["id"].asInt(), 7);
  EXPECT_EQ(json["name"].asString(), "disk\x1b[2J");
  EXPECT_EQ(json["time"].asString(), "2024-05-01T12:00:00Z");
  EXPECT_TRUE(json["failed"].asBool());
  EXPECT_EQ(json["path"].asString(), output.path);
  EXPECT_EQ(json["output"].asString(), "two\nlines");
}

TEST(PrintBytesTest, EndsTheLineOnATerminalOnly) {
  EXPECT_EQ(outputOf([] { printBytes("a\x1b[31m"); }), "a\x1b[31m");
  FakeTerminal terminal(24, 80);
  printBytes("a\x1b[31m");
  printBytes("");
  printBytes("b\n");
  EXPECT_EQ(terminal.finish(), "a?[31m\r\nb\r\n");
}

}  // namespace
