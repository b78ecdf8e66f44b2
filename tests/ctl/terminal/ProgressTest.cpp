#include "ctl/terminal/progress.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/FakeTerminal.h"
#include "tests/support/outputOf.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

/// What a progress prints when standard error is a terminal.
std::string onTerminal(const std::function<void()>& work) {
  FakeTerminal terminal(24, 100);
  {
    const Redirected errors(STDERR_FILENO, STDOUT_FILENO);
    work();
  }
  return terminal.finish();
}

TEST(ProgressTest, DrawsALineAndErasesIt) {
  const std::string shown = onTerminal([] {
    Progress progress(2000, "rows");
    progress.advance(1000);
  });
  EXPECT_EQ(shown,
            "\r[                              ] 0% of 2,000 rows\x1b[K"
            "\r[###############               ] 50% of 2,000 rows\x1b[K"
            "\r\x1b[K");
}

TEST(ProgressTest, EndsAtAHundredPercent) {
  const std::string shown = onTerminal([] {
    Progress progress(3, "rows");
    progress.advance(2);
    progress.advance(2);  // more came meanwhile
  });
  EXPECT_THAT(shown, HasSubstr("] 66% of 3 rows"));
  EXPECT_THAT(shown, EndsWith("\r[##############################] 100% of 3 rows\x1b[K\r\x1b[K"));
}

TEST(ProgressTest, ShowsNothingOfNothing) {
  EXPECT_EQ(onTerminal([] { Progress(0, "rows").advance(0); }), "");
}

TEST(ProgressTest, ShowsNothingElsewhere) {
  EXPECT_EQ(outputOf(
                [] {
                  Progress progress(10, "rows");
                  progress.advance(10);
                },
                STDERR_FILENO),
            "");
}

TEST(ProgressTest, LeavesStandardOutputAlone) {
  const std::string out = outputOf([] {
    onTerminal([] { Progress(10, "rows").advance(5); });
    std::fputs("data\n", stdout);
  });
  EXPECT_EQ(out, "data\n");
}

TEST(ProgressTest, ShowsNoControlCharacterOfItsNoun) {
  EXPECT_THAT(onTerminal([] { Progress(1, "ro\x1b[31mws").advance(1); }),
              Not(HasSubstr("\x1b[31m")));
}

}  // namespace
