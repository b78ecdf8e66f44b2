#include "ctl/terminal/terminal.h"

#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/FakeTerminal.h"
#include "tests/support/Variable.h"
#include "tests/support/outputOf.h"

namespace {

TEST(ColourOfTest, DistinguishesTheStatuses) {
  EXPECT_EQ(colourOf("OK"), Colour::kGreen);
  EXPECT_EQ(colourOf("FAILED"), Colour::kRed);
  EXPECT_EQ(colourOf("PROCESS"), Colour::kYellow);
  for (const char* other : {"", "ok", "OK ", "not run yet", "paused"}) {
    EXPECT_EQ(colourOf(other), Colour::kNone) << other;
  }
}

/// Colours in a file and on a terminal.
class ColouredTest : public testing::Test {
 protected:
  static std::string inFile(const std::string& text, Colour colour) {
    std::string result;
    outputOf([&] { result = coloured(text, colour).text; });
    return result;
  }
  static std::string onTerminal(const std::string& text, Colour colour) {
    const FakeTerminal terminal(24, 80);
    return coloured(text, colour).text;
  }

  const Variable term{"TERM", "xterm"};
  const Variable noColour{"NO_COLOR", nullptr};
};

TEST_F(ColouredTest, HasTheSequenceOfEachColour) {
  EXPECT_EQ(onTerminal("x", Colour::kGreen), "\x1b[32mx\x1b[0m");
  EXPECT_EQ(onTerminal("x", Colour::kRed), "\x1b[31mx\x1b[0m");
  EXPECT_EQ(onTerminal("x", Colour::kYellow), "\x1b[33mx\x1b[0m");
  EXPECT_EQ(onTerminal("x", Colour::kBold), "\x1b[1mx\x1b[0m");
  EXPECT_EQ(onTerminal("x", Colour::kNone), "x");
}

TEST_F(ColouredTest, HasNoSequenceInAFile) {
  EXPECT_EQ(inFile("x", Colour::kRed), "x");
}

TEST_F(ColouredTest, DependsOnTheEnvironment) {
  const std::vector<std::tuple<const char*, const char*, bool>> cases = {
      // TERM, NO_COLOR, whether colours are used
      {"xterm", nullptr, true}, {"xterm", "", true},      {"xterm", "1", false},
      {"xterm", "0", false},    {"dumb", nullptr, false}, {nullptr, nullptr, false},
      {"", nullptr, false}};
  for (const auto& [terminal, none, isUsed] : cases) {
    const Variable ofTerm("TERM", terminal);
    const Variable ofNone("NO_COLOR", none);
    EXPECT_EQ(onTerminal("x", Colour::kRed) != "x", isUsed)
        << (terminal == nullptr ? "unset" : terminal) << ", " << (none == nullptr ? "unset" : none);
  }
}

TEST_F(ColouredTest, ContainsPrintableTextOnly) {
  EXPECT_EQ(onTerminal("a\x1b[0mb", Colour::kGreen), "\x1b[32ma?[0mb\x1b[0m");
  EXPECT_EQ(inFile("a\x1b[0mb", Colour::kNone), "a?[0mb");
}

TEST(TerminalSizeTest, IsThatOfTheTerminal) {
  const FakeTerminal terminal(50, 132);
  EXPECT_TRUE(isTerminal());
  EXPECT_EQ(terminalSize().rows, 50);
  EXPECT_EQ(terminalSize().columns, 132);
}

TEST(TerminalSizeTest, HasADefaultWithoutATerminal) {
  TerminalSize size;
  bool wasTerminal = true;
  outputOf([&] {
    size = terminalSize();
    wasTerminal = isTerminal();
  });
  EXPECT_FALSE(wasTerminal);
  EXPECT_EQ(size.rows, 24);
  EXPECT_EQ(size.columns, 80);
}

TEST(TerminalSizeTest, HasADefaultForATerminalWithoutASize) {
  const FakeTerminal terminal(0, 0);
  EXPECT_EQ(terminalSize().rows, 24);
  EXPECT_EQ(terminalSize().columns, 80);
}

}  // namespace
