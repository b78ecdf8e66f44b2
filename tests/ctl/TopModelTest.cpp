#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

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
  EXPECT_THAT(screen(), StartsWith("100000 tasks: 3 late, 2 running, 1 failed  |  "));
}

}  // namespace
