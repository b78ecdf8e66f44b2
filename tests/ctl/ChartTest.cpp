#include "ctl/terminal/chart.h"

#include <sstream>
#include <string>
#include <vector>

#include "ctl/terminal/printable.h"
#include "tests/ctl/CtlTest.h"
#include "tests/support/FakeTerminal.h"

namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

TEST(CompressedTest, KeepsTheLargestValueOfEachPart) {
  EXPECT_THAT(compressed({1, 5, 2, 9, 0, 3}, 3), ElementsAre(5, 9, 3));
  EXPECT_THAT(compressed({1, 2, 3, 4, 5}, 2), ElementsAre(3, 5));
  EXPECT_THAT(compressed({1, 2}, 5), ElementsAre(1, 2));
}

TEST(ChartLinesTest, FillsColumnsInEighthsOfALine) {
  EXPECT_THAT(chartLines({0, 4, 8, 12, 16}, 2, 16), ElementsAre("16    ▄█", " 0  ▄███"));
  EXPECT_THAT(chartLines({8}, 1, 8), ElementsAre("8 █"));
}

TEST(ChartLinesTest, ShowsTheSmallestValueThatIsNotNothing) {
  EXPECT_THAT(chartLines({0, 1, 100000}, 1, 100000), ElementsAre("100000  ▁█"));
}

TEST(ChartLinesTest, HasAnAxisWithoutAnyLoad) {
  EXPECT_THAT(chartLines({0, 0}, 3, 0), ElementsAre("0", "", "0"));
}

TEST(ChartScaleTest, StandsBelowTheColumns) {
  EXPECT_EQ(chartScale("now", "in 1h", 12, 10), "   now    in 1h");
  EXPECT_EQ(chartScale("now", "in 1h", 3, 10), "   now in 1h");
  EXPECT_EQ(chartScale("!!!", "", 3, 10), "   !!!") << "no wider than the columns";
}

/// The charts of forecast and stagger.
class ChartTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    for (const int id : {1, 2, 3, 4}) {
      TaskRow row = quietTask(id);
      row.interval = "60 seconds";
      row.nextExec = "date_trunc('minute', now()) + interval '1 minute'";
      database.insertTask(row);
    }
  }

  std::string onTerminal(std::vector<std::string> arguments,
                         const std::string& variable = "NO_COLOR=1") const {
    arguments.insert(arguments.begin(), {"--user", admin()});
    return runOnTerminal(arguments, {"TERM=xterm", "PGPASSWORD=secret", variable});
  }
};

TEST_F(ChartTest, ShowsTheForecastOnATerminal) {
  const std::string text = onTerminal({"forecast", "1"});
  EXPECT_THAT(text, HasSubstr("RUNS A MINUTE\r\n4 "));
  EXPECT_THAT(text, HasSubstr("██████████"));
  EXPECT_THAT(text, HasSubstr("!!!!!!!!!!"));
  EXPECT_THAT(text, HasSubstr("!: more workers are needed than there are\r\n"));
  EXPECT_THAT(text, Not(HasSubstr("\x1b[31m")));
  EXPECT_THAT(onTerminal({"forecast", "1"}, "NO_COLOR="), HasSubstr("\x1b[31m"));
}

TEST_F(ChartTest, MarksNothingWhereWorkersSuffice) {
  daemon.threadNumber = "4";
  daemon.writeConfig();
  EXPECT_THAT(onTerminal({"forecast", "1"}), Not(HasSubstr("!")));
}

TEST_F(ChartTest, ShowsTheLoadBeforeAndAfterAStagger) {
  const std::string text = onTerminal({"stagger"});
  EXPECT_THAT(text, AllOf(HasSubstr("BUSIEST SECOND OF EACH MINUTE, BEFORE\r\n4 "),
                          HasSubstr("BUSIEST SECOND OF EACH MINUTE, AFTER\r\n4\r\n"),
                          HasSubstr("0 ██████"), ContainsRegex("\n *now +in 1h\r\n")));
}

TEST_F(ChartTest, ShowsNoneElsewhere) {
  EXPECT_THAT(runAsAdmin({"forecast", "1"}).out, Not(HasSubstr("RUNS A MINUTE")));
  EXPECT_THAT(runAsAdmin({"stagger"}).out, Not(HasSubstr("BEFORE")));
  EXPECT_THAT(onTerminal({"forecast", "1", "--json"}), Not(HasSubstr("RUNS A MINUTE")));
}

TEST(ChartLinesTest, HasALabelOnlyAtTheEndsOfItsAxis) {
  const std::vector<std::string> lines = chartLines({1000}, 5, 1000);
  ASSERT_EQ(lines.size(), 5U);
  EXPECT_EQ(lines[0], "1000 █");
  EXPECT_EQ(lines[2], "     █");
  EXPECT_EQ(lines[4], "   0 █");
}

TEST(ChartLinesTest, CutsWhatIsHigherThanTheTop) {
  EXPECT_THAT(chartLines({20, 5}, 2, 10), ElementsAre("10 █", " 0 ██"));
}

TEST(ChartColumnsTest, FillTheTerminalBesideTheLabels) {
  FakeTerminal terminal(24, 80);
  EXPECT_EQ(chartColumns(9), 78U);
  EXPECT_EQ(chartColumns(1000), 75U);
}

TEST(ChartColumnsTest, AreNeverTooFewToSeeSomething) {
  const FakeTerminal terminal(24, 10);
  EXPECT_EQ(chartColumns(9), 20U);
  EXPECT_EQ(chartColumns(1000000000000), 20U);
}

TEST_F(ChartTest, CompressesAWeekToTheTerminal) {
  const std::string text = onTerminal({"forecast", "168"});
  const auto begin = text.find("RUNS A MINUTE\r\n");
  ASSERT_NE(begin, std::string::npos);
  std::istringstream lines(text.substr(begin));
  for (std::string line; std::getline(lines, line) && line != "\r";) {
    line.pop_back();
    EXPECT_LE(widthOf(line), 100) << line;
  }
  EXPECT_THAT(text, ContainsRegex("\n  20[0-9: -]+ +20[0-9: -]+\r\n")) << "from when to when";
}

TEST_F(ChartTest, ShowsNoLoadWithoutTasks) {
  database.query("DELETE FROM kodu_cron_plugin");
  EXPECT_THAT(onTerminal({"forecast", "1"}),
              AllOf(HasSubstr("0 runs in 1 h.\r\n"), HasSubstr("RUNS A MINUTE\r\n0\r\n"),
                    Not(HasSubstr("!"))));
  EXPECT_THAT(onTerminal({"stagger"}),
              AllOf(HasSubstr("0 of 0 tasks to be moved"), Not(HasSubstr("BUSIEST SECOND"))));
}

TEST_F(ChartTest, CountsTheTasksOfALongerIntervalOnlyWhereTheyRun) {
  database.query(
      "UPDATE kodu_cron_plugin SET cron_interval = '1 day',"
      " cron_next_exec = date_trunc('minute', now()) + interval '30 minutes'");
  const std::string text = onTerminal({"stagger", "--longest", "2 days"});
  EXPECT_THAT(text, HasSubstr("BUSIEST SECOND OF EACH MINUTE, BEFORE\r\n4 "));
  EXPECT_THAT(text, ContainsRegex("0 +█\r\n")) << "one minute of the hour";
  EXPECT_THAT(onTerminal({"stagger", "--longest", "1 hour"}), HasSubstr("0 of 0 tasks"));
}

}  // namespace
