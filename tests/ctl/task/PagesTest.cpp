#include "ctl/task/pages.h"

#include <cstdio>
#include <memory>
#include <string>

#include "ctl/options.h"
#include "ctl/session/session.h"
#include "tests/ctl/CtlTest.h"
#include "tests/support/FakeTerminal.h"

namespace {

using testing::Optional;

TEST(PageOfTest, IsEverythingOutsideOfATerminal) {
  const Options options;
  EXPECT_EQ(pageOf(options).limit, std::nullopt);
}

TEST(PageOfTest, FitsTheTerminal) {
  Options options;
  FakeTerminal terminal(24, 80);
  EXPECT_THAT(pageOf(options).limit, Optional(20));
  options.isAll = true;
  EXPECT_EQ(pageOf(options).limit, std::nullopt);
  options.isAll = false;
  options.selection.limit = 100;
  EXPECT_THAT(pageOf(options).limit, Optional(100)) << "what was asked for";
}

TEST(PageOfTest, HasATaskOnTheSmallestTerminal) {
  const FakeTerminal terminal(2, 80);
  EXPECT_THAT(pageOf(Options()).limit, Optional(1));
}

/// The line below a page.
class RestTextTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    Options options;
    options.configFile = daemon.mainConfig();
    session = std::make_unique<Session>(options);
    for (int id = 1; id <= 4; ++id) {
      TaskRow row = quietTask(id);
      row.name = id == 2 ? "it's; $(date) `x`" : "plain-" + std::to_string(id);
      database.insertTask(row);
    }
    selection.limit = 2;
  }
  std::string rest(long shown, int lastId) const {
    return restText(*session, selection, {shown, lastId}, readTotals(*session, selection));
  }
  /// What a shell makes of a line's words, one in each line.
  static std::string wordsOf(const std::string& line) {
    FILE* pipe = popen(("printf '%s\\n' " + line).c_str(), "r");
    std::string words;
    for (int c = 0; (c = std::fgetc(pipe)) != EOF;) {
      words += static_cast<char>(c);
    }
    pclose(pipe);
    return words;
  }

  std::unique_ptr<Session> session;
  Selection selection;
};

TEST_F(RestTextTest, CountsWhatThePageLeavesOut) {
  EXPECT_EQ(rest(2, 2), "… and 2 more: --all, or --after 2");
}

TEST_F(RestTextTest, IsEmptyWhenAllIsShown) {
  EXPECT_EQ(rest(1, 1), "") << "the page is not full";
  selection.limit = 4;
  EXPECT_EQ(rest(4, 4), "");
  selection.limit.reset();
  EXPECT_EQ(rest(4, 4), "");
}

TEST_F(RestTextTest, DoesNotCountAfterTheFirstPage) {
  selection.after = "1";
  EXPECT_EQ(rest(2, 3), "… and more: --after 3");
}

TEST_F(RestTextTest, CountsOnlyWhatTheConditionsSelect) {
  selection.name = "plain-*";
  EXPECT_EQ(rest(2, 3), "… and 1 more: --all, or --after 3");
}

TEST_F(RestTextTest, HasAKeyOfTheOrder) {
  selection.sort = "name";
  EXPECT_EQ(rest(2, 1), "… and 2 more: --all, or --after plain-1,1");
}

TEST_F(RestTextTest, QuotesAKeyForTheShell) {
  selection.sort = "name";
  const std::string text = rest(2, 2);
  EXPECT_EQ(text, "… and 2 more: --all, or --after 'it'\\''s; $(date) `x`,2'");
  EXPECT_EQ(wordsOf(text.substr(text.find("--after"))), "--after\nit's; $(date) `x`,2\n");
}

}  // namespace
