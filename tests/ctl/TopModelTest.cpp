#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "ctl/terminal/printable.h"
#include "ctl/top/model.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

TopRow rowOf(int id, const std::string& name) {
  TopRow row;
  row.id = id;
  row.name = name;
  row.status = "OK";
  return row;
}

/// A table of three tasks.
class TopModelTest : public testing::Test {
 protected:
  TopModelTest() { model.setRows({rowOf(1, "one"), rowOf(2, "two"), rowOf(3, "three")}, 1000); }

  std::string screen(int width = 100, int height = 10) const {
    std::string text;
    for (const TopLine& line : model.lines(width, height)) {
      text += (line.isSelected ? ">" : "") + line.text + "\n";
    }
    return text;
  }
  void type(const std::string& keys) {
    for (const char key : keys) {
      model.press(static_cast<unsigned char>(key));
    }
  }

  TopModel model;
};

TEST_F(TopModelTest, FillsTheScreen) {
  EXPECT_EQ(model.lines(100, 10).size(), 10U);
  EXPECT_EQ(model.lines(100, 2).size(), 2U);
  model.setHeight(24);
  EXPECT_EQ(model.query().limit, 20);
  model.setHeight(1);
  EXPECT_EQ(model.query().limit, 1);
}

TEST_F(TopModelTest, MovesTheSelectionWithinTheTable) {
  EXPECT_EQ(model.selected()->id, 1);
  model.press(kKeyUp);
  EXPECT_EQ(model.selected()->id, 1);
  type("jjjj");
  EXPECT_EQ(model.selected()->id, 3);
  type("k");
  model.press(kKeyDown);
  EXPECT_THAT(screen(), HasSubstr("> 3  three"));
}

TEST_F(TopModelTest, KeepsTheSelectionWithItsTask) {
  type("j");
  model.setRows({rowOf(2, "two"), rowOf(1, "one")}, 1001);
  EXPECT_EQ(model.selected()->id, 2);
  model.setRows({rowOf(1, "one")}, 1002);
  EXPECT_EQ(model.selected()->id, 1);
  model.setRows({}, 1003);
  EXPECT_FALSE(model.selected());
  EXPECT_EQ(model.press(kKeyEnter), TopAction::kNone);
}

TEST_F(TopModelTest, ChangesWhatIsShown) {
  for (const auto& [key, view] : {std::pair('l', TopView::kLate),
                                  {'r', TopView::kRunning},
                                  {'f', TopView::kFailing},
                                  {'t', TopView::kLatest},
                                  {'a', TopView::kAll}}) {
    EXPECT_EQ(model.press(key), TopAction::kRefresh);
    EXPECT_EQ(model.query().view, view) << key;
  }
}

TEST_F(TopModelTest, ChangesTheOrder) {
  type("s");
  EXPECT_EQ(model.query().sort, TopSort::kId);
  type("ssss");
  EXPECT_EQ(model.query().sort, TopSort::kUrgency);
  type("S");
  EXPECT_TRUE(model.query().isReversed);
  EXPECT_THAT(screen(), HasSubstr("all, by urgency reversed"));
  type("t");
  EXPECT_EQ(model.query().sort, TopSort::kLast);
  EXPECT_FALSE(model.query().isReversed);
}

TEST_F(TopModelTest, TakesAFilter) {
  type("/qé");
  EXPECT_THAT(screen(), HasSubstr("filter: qé_\n"));
  model.press(kKeyBackspace);
  EXPECT_EQ(model.query().filter, "q");
  EXPECT_EQ(model.press(kKeyEnter), TopAction::kRefresh);
  EXPECT_THAT(screen(), HasSubstr("all, by urgency, with q"));
  EXPECT_EQ(model.press(kKeyEscape), TopAction::kRefresh);
  EXPECT_EQ(model.query().filter, "");
}

TEST_F(TopModelTest, AsksBeforeItChangesATask) {
  EXPECT_EQ(model.press('p'), TopAction::kNone);
  EXPECT_THAT(screen(), HasSubstr("pause task 1 (one)? y/n\n"));
  EXPECT_EQ(model.press('y'), TopAction::kPause);
  model.press('x');
  EXPECT_EQ(model.press('n'), TopAction::kNone);
  EXPECT_THAT(screen(), HasSubstr("nothing was changed\n"));
  model.press('u');
  EXPECT_EQ(model.press('y'), TopAction::kResume);
}

TEST_F(TopModelTest, ShowsTextUntilAKeyIsPressed) {
  EXPECT_EQ(model.press(kKeyEnter), TopAction::kExplain);
  model.showText({"a sentence of several words", "another\x1b[31m"});
  const std::string text = screen(12);
  EXPECT_THAT(text, HasSubstr("a sentence \nof several \nwords\nanother?[31m\n"));
  EXPECT_THAT(text, Not(HasSubstr("three")));
  EXPECT_EQ(model.press('q'), TopAction::kNone);
  EXPECT_THAT(screen(), HasSubstr("three"));
}

TEST_F(TopModelTest, SaysWhatEachTaskDoes) {
  TopRow late = rowOf(1, "a\x1b[31m");
  late.isLate = true;
  late.dueSeconds = 90;
  TopRow retry = rowOf(2, "b");
  retry.isRunning = retry.awaitsRetry = true;
  TopRow failing = rowOf(3, "c");
  failing.isFailing = true;
  failing.failingSince = 400;
  TopRow paused = rowOf(4, "d");
  paused.isPaused = true;
  model.setRows({late, retry, failing, paused}, 1000);
  const std::string text = screen();
  EXPECT_THAT(text, HasSubstr("> 1  a?[31m  late     1m 30s"));
  EXPECT_THAT(text, HasSubstr(" 2  b       retry"));
  EXPECT_THAT(text, HasSubstr(" 3  c       failing     10m"));
  EXPECT_THAT(text, HasSubstr(" 4  d       paused        -"));
  EXPECT_EQ(model.lines(100, 10)[3].colour, Colour::kYellow);
  EXPECT_EQ(model.lines(100, 10)[5].colour, Colour::kRed);
}

TEST_F(TopModelTest, CutsToTheWidth) {
  for (const TopLine& line : model.lines(20, 10)) {
    EXPECT_LE(widthOf(line.text), 20) << line.text;
  }
}

TEST_F(TopModelTest, CountsTheTasks) {
  model.setCounts({100000, 3, 2, 1});
  EXPECT_THAT(screen(), StartsWith("100,000 tasks: 3 late, 2 running, 1 failed  |  "));
}

TEST_F(TopModelTest, ExplainsByTwoKeys) {
  EXPECT_EQ(model.press('e'), TopAction::kExplain);
  EXPECT_EQ(model.press(kKeyEnter), TopAction::kExplain);
  EXPECT_EQ(model.press('q'), TopAction::kQuit);
}

TEST_F(TopModelTest, IgnoresOtherKeys) {
  const std::string before = screen();
  for (const int key : std::vector<int>{0, ' ', 'y', 'Q', '\t', 0x80, 255, kKeyBackspace}) {
    EXPECT_EQ(model.press(key), TopAction::kNone) << key;
    EXPECT_EQ(screen(), before) << key;
  }
}

TEST_F(TopModelTest, AsksNothingWithoutATask) {
  model.setRows({}, 1000);
  const std::string before = screen();
  for (const char key : {'p', 'u', 'x'}) {
    EXPECT_EQ(model.press(key), TopAction::kNone);
    EXPECT_EQ(screen(), before);
    EXPECT_EQ(model.press('y'), TopAction::kNone);
  }
  type("jjkk");
  EXPECT_FALSE(model.selected());
}

TEST_F(TopModelTest, TakesAnyKeyButYForNo) {
  for (const int key : std::vector<int>{'n', 'Y', 'q', 'p', kKeyEnter}) {
    model.press('x');
    EXPECT_THAT(screen(), HasSubstr("run task 1 (one)? y/n"));
    EXPECT_EQ(model.press(key), TopAction::kNone) << key;
    EXPECT_THAT(screen(), HasSubstr("nothing was changed"));
  }
  EXPECT_EQ(model.press('y'), TopAction::kNone) << "the question is over";
}

TEST_F(TopModelTest, ShowsAMessageUntilTheNextKey) {
  model.setMessage("the server\nis \x1b[2Jgone");
  EXPECT_THAT(screen(), testing::EndsWith("the server is ?[2Jgone\n"));
  model.setRows({rowOf(1, "one")}, 1001);
  EXPECT_THAT(screen(), HasSubstr("the server is"));
  model.press('j');
  EXPECT_THAT(screen(), Not(HasSubstr("the server is")));
}

TEST_F(TopModelTest, TakesEveryKeyAsAPartOfAFilter) {
  type("/qs/x S");
  EXPECT_EQ(model.query().filter, "qs/x S");
  EXPECT_EQ(model.query().sort, TopSort::kUrgency);
  model.press('\t');
  model.press('\x01');
  EXPECT_EQ(model.query().filter, "qs/x S") << "no control character";
  model.press(kKeyEnter);
  type("/2");
  EXPECT_EQ(model.query().filter, "qs/x S2") << "it is edited further";
  model.press(kKeyEscape);
  EXPECT_EQ(model.query().filter, "");
  EXPECT_EQ(model.press('q'), TopAction::kQuit) << "the filter is closed";
}

TEST_F(TopModelTest, RemovesWholeCharactersOfAFilter) {
  type("/aé€😀");
  for (const std::string rest : {"aé€", "aé", "a", "", ""}) {
    model.press(kKeyBackspace);
    EXPECT_EQ(model.query().filter, rest);
  }
}

TEST_F(TopModelTest, BeginsAnotherViewAtItsTop) {
  type("jjsS");
  EXPECT_EQ(model.selected()->id, 3);
  model.press('f');
  EXPECT_EQ(model.selected()->id, 1);
  EXPECT_EQ(model.query().sort, TopSort::kUrgency);
  EXPECT_FALSE(model.query().isReversed);
}

TEST_F(TopModelTest, KeepsTheFilterInAnotherView) {
  type("/two");
  model.press(kKeyEnter);
  type("l");
  EXPECT_EQ(model.query().filter, "two");
  EXPECT_THAT(screen(), HasSubstr("late, by urgency, with two"));
}

TEST_F(TopModelTest, SaysForHowLongATaskHasBeenInItsState) {
  TopRow running = rowOf(1, "a");
  running.isRunning = true;
  running.dueSeconds = 3723;
  TopRow failing = rowOf(2, "b");
  failing.isFailing = true;
  failing.failingSince = 2000;  // by another clock than this machine's
  TopRow unknown = rowOf(3, "c");
  unknown.isFailing = true;
  model.setRows({running, failing, unknown}, 1000);
  const std::string text = screen();
  EXPECT_THAT(text, HasSubstr("> 1  a     running  1h 2m  "));
  EXPECT_THAT(text, HasSubstr(" 2  b     failing     0s  "));
  EXPECT_THAT(text, HasSubstr(" 3  c     failing      -  "));
}

TEST_F(TopModelTest, BreaksSentencesOnTheNarrowestScreen) {
  model.showText({"ab cd", "é€"});
  for (const int width : {1, 2, 3, 80}) {
    for (const TopLine& line : model.lines(width, 30)) {
      EXPECT_LE(widthOf(line.text), width) << width;
    }
  }
  EXPECT_EQ(model.lines(0, 5).size(), 5U) << "not even one character fits";
  EXPECT_THAT(screen(3, 12), HasSubstr("\nab \ncd\né€\n"));
}

TEST_F(TopModelTest, CutsATextThatIsLongerThanTheScreen) {
  model.showText(std::vector<std::string>(50, "sentence"));
  EXPECT_EQ(model.lines(80, 10).size(), 10U);
  EXPECT_EQ(model.lines(80, 10).back().text, "any key: back to the table");
}

/// The word for what a task does: what takes effect first comes first.
TEST(StateWordTest, SaysWhatTakesEffectFirst) {
  TopRow row = rowOf(1, "a");
  EXPECT_EQ(stateWord(row), "OK");
  row.isFailing = true;
  EXPECT_EQ(stateWord(row), "failing");
  row.isLate = true;
  EXPECT_EQ(stateWord(row), "late");
  row.isPaused = true;
  EXPECT_EQ(stateWord(row), "paused");
  row.isRunning = true;
  EXPECT_EQ(stateWord(row), "running");
  row.awaitsRetry = true;
  EXPECT_EQ(stateWord(row), "retry");
}

TEST(TopJsonTest, HasNullForUnknownTimes) {
  TopRow row = rowOf(7, "a\x1b");
  row.due = 1714564800;
  row.dueSeconds = -5;
  const Json::Value json = toJson(TopCounts{4, 3, 2, 1}, {row});
  EXPECT_EQ(json["tasks"].asInt(), 4);
  EXPECT_EQ(json["late"].asInt(), 3);
  EXPECT_EQ(json["running"].asInt(), 2);
  EXPECT_EQ(json["failed"].asInt(), 1);
  const Json::Value& entry = json["rows"][0];
  EXPECT_EQ(entry["id"].asInt(), 7);
  EXPECT_EQ(entry["due"].asString(), "2024-05-01T12:00:00Z");
  EXPECT_EQ(entry["due_seconds"].asInt(), -5);
  EXPECT_TRUE(entry["last_due"].isNull());
  EXPECT_TRUE(entry["failing_since"].isNull());
  EXPECT_TRUE(toJson(TopCounts{}, {})["rows"].isArray());
}

}  // namespace
