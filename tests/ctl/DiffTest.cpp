#include "ctl/terminal/diff.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(DiffLinesTest, IsEmptyForTheSameText) {
  EXPECT_THAT(diffLines("a\nb\n", "a\nb\n"), IsEmpty());
  EXPECT_THAT(diffLines("", ""), IsEmpty());
}

TEST(DiffLinesTest, ShowsAChangedLineAsRemovedAndAdded) {
  EXPECT_THAT(diffLines("a\nb\nc\n", "a\nB\nc\n"), ElementsAre("-b", "+B"));
}

TEST(DiffLinesTest, ShowsLinesAddedAtEitherEnd) {
  EXPECT_THAT(diffLines("b\n", "a\nb\nc\n"), ElementsAre("+a", "+c"));
}

TEST(DiffLinesTest, OmitsCommonLinesBetweenChanges) {
  EXPECT_THAT(diffLines("x\na\ny\nb\nz\n", "a\n1\nb\n"), ElementsAre("-x", "-y", "+1", "-z"));
}

TEST(DiffLinesTest, ShowsEveryLineAgainstAnEmptyText) {
  EXPECT_THAT(diffLines("", "a\nb"), ElementsAre("+a", "+b"));
}

TEST(DiffLinesTest, ReplacesTheWholeTextBeyondTheLimit) {
  std::string before;
  std::string after;
  for (int i = 0; i < 2100; ++i) {
    before += "old" + std::to_string(i) + "\n";
    after += "new" + std::to_string(i) + "\n";
  }
  const auto lines = diffLines(before, after);
  ASSERT_EQ(lines.size(), 4200U);
  EXPECT_EQ(lines.front(), "-old0");
  EXPECT_EQ(lines.back(), "+new2099");
}

}  // namespace
