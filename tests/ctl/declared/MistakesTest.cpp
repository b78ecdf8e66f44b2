#include "ctl/declared/mistakes.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/failure.h"

namespace {

/// What is thrown; "" when nothing is.
std::string textOf(const Mistakes& mistakes) {
  try {
    mistakes.throwIfAny();
    return "";
  } catch (const Failure& e) {
    EXPECT_EQ(e.exitCode, kRefused);
    return e.what();
  }
}

TEST(MistakesTest, ThrowNothingWhenThereAreNone) {
  const Mistakes mistakes;
  EXPECT_FALSE(mistakes.areThere());
  EXPECT_EQ(textOf(mistakes), "");
}

TEST(MistakesTest, NameTheirPlaceAndTheirKey) {
  Mistakes mistakes;
  mistakes.add({"web.yaml", 3}, "load", "every: is missing");
  mistakes.add({"web.yaml", 9}, "", "a key must be a text");
  mistakes.add({"db.yaml", 0}, "", "the file is empty");
  mistakes.add({"db.yaml", 0}, "disk", "is refused");
  EXPECT_TRUE(mistakes.areThere());
  EXPECT_EQ(textOf(mistakes),
            "web.yaml:3: load: every: is missing\n"
            "web.yaml:9: a key must be a text\n"
            "db.yaml: the file is empty\n"
            "db.yaml: disk: is refused\n"
            "nothing was changed");
}

TEST(MistakesTest, AreOneLineEachWhateverTheTextsAre) {
  Mistakes mistakes;
  mistakes.add({"a\nb", 1}, "k\x1b[2J", "first\nsecond: line\t\x07");
  EXPECT_EQ(textOf(mistakes), "a b:1: k?[2J: first second: line ?\nnothing was changed");
}

TEST(MistakesTest, AreCountedBeyondTheTwentieth) {
  Mistakes mistakes;
  for (int line = 1; line <= 20; ++line) {
    mistakes.add({"f", line}, "", "wrong");
  }
  const std::string twenty = textOf(mistakes);
  EXPECT_THAT(twenty, testing::EndsWith("f:20: wrong\nnothing was changed"));
  mistakes.add({"f", 21}, "", "wrong");
  mistakes.add({"f", 22}, "", "wrong");
  EXPECT_THAT(textOf(mistakes), testing::EndsWith("f:20: wrong\nand 2 more\nnothing was changed"));
}

TEST(MistakesTest, CanBeThrownAgain) {
  Mistakes mistakes;
  mistakes.add({"f", 1}, "", "wrong");
  EXPECT_EQ(textOf(mistakes), textOf(mistakes));
}

}  // namespace
