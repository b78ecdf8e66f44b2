#include "ctl/terminal/diff.h"

#include <algorithm>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

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

TEST(DiffLinesTest, ComparesLinesWithoutTheirEnds) {
  EXPECT_THAT(diffLines("a\nb", "a\nb\n"), IsEmpty()) << "a newline at the end of the text";
  EXPECT_THAT(diffLines("a\r\n", "a\n"), ElementsAre("-a\r", "+a"));
  EXPECT_THAT(diffLines("a \n", "a\n"), ElementsAre("-a ", "+a"));
}

TEST(DiffLinesTest, ShowsEmptyLines) {
  EXPECT_THAT(diffLines("a\n\nb\n", "a\nb\n"), ElementsAre("-"));
  EXPECT_THAT(diffLines("", "\n"), ElementsAre("+"));
}

TEST(DiffLinesTest, ShowsLinesThatRemainOfRepeatedOnes) {
  EXPECT_THAT(diffLines("x\nx\nx\n", "x\n"), ElementsAre("-x", "-x"));
  EXPECT_THAT(diffLines("x\n", "x\ny\nx\n"), ElementsAre("+y", "+x"));
}

TEST(DiffLinesTest, ShowsAMovedLineAsRemovedAndAdded) {
  EXPECT_THAT(diffLines("a\nb\nc\n", "b\nc\na\n"), ElementsAre("-a", "+a"));
}

TEST(DiffLinesTest, ShowsRemovedLinesBeforeAddedOnes) {
  EXPECT_THAT(diffLines("a\n1\n2\nz\n", "a\n3\n4\nz\n"), ElementsAre("-1", "-2", "+3", "+4"));
}

TEST(DiffLinesTest, ShowsLinesThatBeginWithASign) {
  EXPECT_THAT(diffLines("+a\n", "-a\n"), ElementsAre("-+a", "+-a"));
}

std::string randomText(std::mt19937& random) {
  std::string text;
  for (auto lines = random() % 7; lines > 0; --lines) {
    text += std::string(1, static_cast<char>('a' + random() % 3)) + "\n";
  }
  return text;
}

/// The lines of a text as a set with repetitions.
std::multiset<std::string> linesOf(const std::string& text) {
  std::multiset<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.insert(line);
  }
  return lines;
}

/// The length of the longest common subsequence, by trying both ways at each difference.
std::size_t commonLength(const std::string& before, const std::string& after) {
  if (before.empty() || after.empty()) {
    return 0;
  }
  if (before.front() == after.front()) {
    return 1 + commonLength(before.substr(2), after.substr(2));
  }
  return std::max(commonLength(before.substr(2), after), commonLength(before, after.substr(2)));
}

TEST(DiffLinesTest, TurnsRandomTextsIntoEachOtherByTheFewestLines) {
  std::mt19937 random(1);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same texts in each run
  for (int i = 0; i < 300; ++i) {
    const std::string before = randomText(random);
    const std::string after = randomText(random);
    const std::vector<std::string> changes = diffLines(before, after);
    std::multiset<std::string> lines = linesOf(before);
    for (const std::string& change : changes) {
      const std::string line = change.substr(1);
      if (change.front() == '-') {
        ASSERT_EQ(lines.count(line) > 0, true) << before << "to\n" << after;
        lines.erase(lines.find(line));
      } else {
        lines.insert(line);
      }
    }
    EXPECT_EQ(lines, linesOf(after)) << before << "to\n" << after;
    EXPECT_EQ(changes.size(), (before.size() + after.size()) / 2 - 2 * commonLength(before, after));
  }
}

}  // namespace
