#include "ctl/terminal/chart.h"

#include <string>
#include <vector>

#include "tests/ctl/CtlTest.h"

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

}  // namespace
