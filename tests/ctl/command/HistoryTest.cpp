#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

using Words = std::vector<std::string>;

/// koductl history and output for the archive of task 7.
class HistoryTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    database.insertTask(quietTask(7));
  }
  void expectFailure(const Words& command, int exitCode, const std::string& text) const {
    const CtlResult result = run(command);
    EXPECT_EQ(result.exitCode, exitCode) << testing::PrintToString(command) << result.out;
    EXPECT_THAT(result.err, StartsWith("koductl: " + text)) << testing::PrintToString(command);
    EXPECT_EQ(result.out, "");
  }
};

TEST_F(HistoryTest, ShowsTheBeginningOfEachOutput) {
  addFailure(7, 10, "a.txt", "first line\nsecond\n");
  addFailure(7, 20, "b.txt", "");
  addFailure(7, 30, "c.txt", std::string(100, 'x'));
  addFailure(7, 40, "d.txt", "a\x1b[2J\tb\n");
  const std::string out = run({"history", "7"}).out;
  EXPECT_THAT(out,
              StartsWith("#  ENDED (UTC)          DUE  TOOK  OUTCOME  ARCHIVED AS  FIRST LINE\n"));
  EXPECT_THAT(out, HasSubstr("  -       -  failed   a.txt        first line\n"));
  EXPECT_THAT(out, HasSubstr("  -       -  failed   b.txt\n"));
  EXPECT_THAT(out, HasSubstr("  -       -  failed   c.txt        " + std::string(60, 'x') + "\n"));
  EXPECT_THAT(out, HasSubstr("d.txt        a?[2J b\n"));
}

TEST_F(HistoryTest, ShowsWideCharactersWithinSixtyColumns) {
  std::string line;
  for (int i = 0; i < 50; ++i) {
    line += "\u65e5";
  }
  addFailure(7, 10, "a.txt", line);
  EXPECT_THAT(run({"history", "7"}).out, HasSubstr("  " + line.substr(0, 90) + "\n"));
}

TEST_F(HistoryTest, ShowsCopiesThatAreGone) {
  addFailure(7, 10, "a.txt", "text");
  std::filesystem::remove(archive(7) + "/a.txt");
  EXPECT_THAT(run({"history", "7"}).out, HasSubstr("  failed   a.txt        (gone)\n"));
  const Json::Value json = parsed(run({"history", "7", "--json"}).out);
  EXPECT_TRUE(json[0]["bytes"].isNull());
  EXPECT_EQ(json[0]["path"].asString(), archive(7) + "/a.txt");
}

TEST_F(HistoryTest, ShowsCopiesThatAreNotReadable) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can take a right from the daemon's user";
  }
  addFailure(7, 10, "a.txt", "secret\n");
  writeFile(daemon.logPath(), "");
  ASSERT_EQ(chown(daemon.logPath().c_str(), 65534, 65534), 0);
  chmod((archive(7) + "/a.txt").c_str(), 0600);
  // The daemon's user must reach the archive.
  chmod(daemon.directory.path().c_str(), 0755);
  const std::string out = run({"history", "7"}).out;
  EXPECT_THAT(out, testing::Not(HasSubstr("secret")));
  EXPECT_THAT(out, testing::AnyOf(HasSubstr("(not readable)"), HasSubstr("a.txt\n")));
}

TEST_F(HistoryTest, HasAnEmptyListAsJson) {
  const CtlResult result = run({"history", "7", "--json"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "[]\n");
}

TEST_F(HistoryTest, ListsTheRequestedNumberOfRuns) {
  for (int i = 1; i <= 25; ++i) {
    addFailure(7, i, std::to_string(i), "");
  }
  EXPECT_EQ(parsed(run({"history", "7", "--json"}).out).size(), 20U) << "by default";
  for (const int count : {1, 24, 25, 10000}) {
    const auto shown =
        parsed(run({"history", "7", "-n", std::to_string(count), "--json"}).out).size();
    EXPECT_EQ(shown, static_cast<unsigned>(std::min(count, 25)));
  }
}

TEST_F(HistoryTest, RefusesAWrongCommandLine) {
  for (const Words& command : {Words{"history"},
                               {"history", "x"},
                               {"history", "7", "8"},
                               {"history", "7", "-n"},
                               {"history", "7", "-n", "0"},
                               {"history", "7", "-n", "-1"},
                               {"history", "7", "-n", "10001"},
                               {"history", "7", "-n", "all"},
                               {"output"},
                               {"output", "7", "1", "2"},
                               {"output", "7", "--follow=maybe"}}) {
    const CtlResult result = run(command);
    EXPECT_EQ(result.exitCode, 64) << testing::PrintToString(command);
    EXPECT_THAT(result.err, HasSubstr("; see koductl " + command[0] + " --help\n"));
  }
}

TEST_F(HistoryTest, ReportsOutputsThatDoNotExist) {
  const std::string archived = archive(7) + "/";
  expectFailure({"output", "7", "1"}, 66, "task 7 has no failed runs\n");
  addFailure(7, 10, "a.txt", "text");
  expectFailure({"output", "7", "2"}, 66,
                "task 7 has only 1 failed run; koductl history 7 lists them\n");
  expectFailure({"output", "7", "2147483647"}, 66, "task 7 has only 1 failed run");
  expectFailure({"output", "7", "b.txt"}, 66,
                "cannot read " + archived + "b.txt: No such file or directory\n");
  std::filesystem::remove(archived + "a.txt");
  expectFailure({"output", "7", "1"}, 66,
                "cannot read " + archived + "a.txt: No such file or directory\n");
}

TEST_F(HistoryTest, TreatsOtherTextsAsNames) {
  addFailure(7, 10, "a.txt", "text");
  for (const char* name : {"0", "-1", "1x", "01x", "2147483648", "A.TXT"}) {
    const CtlResult result = runWith({"-f", daemon.mainConfig(), "output", "7", "--", name});
    EXPECT_EQ(result.exitCode, 64) << "-- is not accepted";
  }
  for (const char* name : {"0", "1x", "2147483648", "A.TXT"}) {
    expectFailure({"output", "7", name}, 66, "cannot read " + archive(7) + "/" + name);
  }
}

TEST_F(HistoryTest, RefusesPathsOutsideTheArchive) {
  for (const char* name : {"/etc/passwd", "../7/a.txt", "..", "a/../../b"}) {
    expectFailure({"output", "7", name}, 64,
                  "give a number or a name from koductl history, not a path\n");
  }
}

TEST_F(HistoryTest, ReportsATaskThatHasNotRun) {
  database.query("UPDATE kodu_cron_plugin SET cron_next_exec = '2030-01-01'");
  expectFailure({"output", "7"}, 66,
                "task 7 has not run yet; it is due at 2030-01-01 00:00:00 UTC");
}

TEST_F(HistoryTest, PrintsArchivedOutputsAsJson) {
  addFailure(7, 10, "a.txt", "in\xffvalid\n");
  const Json::Value json = parsed(run({"output", "7", "1", "--json"}).out);
  EXPECT_EQ(json["id"].asInt(), 7);
  EXPECT_EQ(json["path"].asString(), archive(7) + "/a.txt");
  EXPECT_EQ(json["output"].asString(), "in valid\n");
  EXPECT_THAT(json["written_at"].asString(), MatchesRegex("....-..-..T..:..:..Z"));
}

TEST_F(HistoryTest, EndsTheLastLineOnATerminalOnly) {
  addFailure(7, 10, "a.txt", "text");
  EXPECT_EQ(run({"output", "7", "1"}).out, "text");
  EXPECT_EQ(runOnTerminal({"output", "7", "1"}), "text\r\n");
}

}  // namespace
