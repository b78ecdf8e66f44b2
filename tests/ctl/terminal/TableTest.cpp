#include "ctl/terminal/table.h"

#include <clocale>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/FakeTerminal.h"
#include "tests/support/Variable.h"
#include "tests/support/outputOf.h"

namespace {

using namespace std::string_literals;
using testing::ElementsAre;

constexpr auto kRight = Table::Align::kRight;

/// Sets the locale as koductl's main does: the width of a character depends on it.
class TableTest : public testing::Test {
 protected:
  TableTest() { std::setlocale(LC_CTYPE, "C.UTF-8"); }
  ~TableTest() override { std::setlocale(LC_CTYPE, "C"); }
};

TEST_F(TableTest, MakesColumnsAsWideAsTheirWidestCell) {
  Table table({{"ID", kRight}, {"NAME"}, {"LAST"}});
  table.add({"7"s, "\xc3\xa9t\xc3\xa9"s, "x"s});
  table.add({"100"s, "a"s, "line\nbreak"s});
  EXPECT_THAT(table.render(), ElementsAre(" ID  NAME  LAST", "  7  \xc3\xa9t\xc3\xa9   x",
                                          "100  a     line break"));
}

TEST_F(TableTest, HasAHeadWithoutLines) {
  EXPECT_THAT(Table({{"ID", kRight}, {"NAME"}}).render(), ElementsAre("ID  NAME"));
  EXPECT_THAT(Table({{"ONE"}}).render(), ElementsAre("ONE"));
}

TEST_F(TableTest, HasNoTrailingSpaces) {
  Table table({{"A"}, {"B"}});
  table.add({"long cell"s, ""s});
  table.add({""s, ""s});
  EXPECT_THAT(table.render(), ElementsAre("A          B", "long cell", ""));
}

TEST_F(TableTest, AlignsALastColumnToTheRight) {
  Table table({{"NAME"}, {"RUNS", kRight}});
  table.add({"a"s, "7"s});
  table.add({"b"s, "12345"s});
  EXPECT_THAT(table.render(), ElementsAre("NAME   RUNS", "a         7", "b     12345"));
}

TEST_F(TableTest, AlignsWideCharactersByTheirColumns) {
  Table table({{"NAME"}, {"X"}});
  table.add({"日本"s, "1"s});
  table.add({"e\u0301"s, "2"s});
  table.add({"abcde"s, "3"s});
  EXPECT_THAT(table.render(), ElementsAre("NAME   X", "日本   1", "e\u0301      2", "abcde  3"));
}

TEST_F(TableTest, ReplacesControlCharactersInCells) {
  Table table({{"NAME"}, {"X"}});
  table.add({"a\x1b[2J"s, "b\tc\r\n7"s});
  EXPECT_THAT(table.render(), ElementsAre("NAME   X", "a?[2J  b c  7"));
}

TEST_F(TableTest, CutsLinesAtAWidth) {
  Table table({{"NAME"}, {"LAST"}});
  table.add({"\xc3\xa9t\xc3\xa9"s, "x"s});
  EXPECT_EQ(table.render(2).back(), "\xc3\xa9t");
  EXPECT_THAT(table.render(7), ElementsAre("NAME  L", "\xc3\xa9t\xc3\xa9   x"));
  EXPECT_THAT(table.render(6), ElementsAre("NAME", "\xc3\xa9t\xc3\xa9"));
  EXPECT_THAT(table.render(1), ElementsAre("N", "\xc3\xa9"));
}

TEST_F(TableTest, CutsBeforeAWideCharacterThatDoesNotFit) {
  Table table({{"N"}});
  table.add({"日本"s});
  EXPECT_EQ(table.render(3).back(), "日");
  EXPECT_EQ(table.render(1).back(), "");
}

TEST_F(TableTest, CutsAtTheWidthOfTheTerminal) {
  Table table({{"NAME"}, {"LAST"}});
  table.add({"abcdefgh"s, "ijkl"s});
  const Variable noColour("NO_COLOR", "1");
  FakeTerminal terminal(24, 11);
  table.print();
  EXPECT_EQ(terminal.finish(), "NAME      L\r\nabcdefgh  i\r\n");
}

TEST_F(TableTest, DoesNotCutInAFile) {
  Table table({{"NAME"}});
  table.add({std::string(500, 'x')});
  EXPECT_EQ(outputOf([&] { table.print(); }), "NAME\n" + std::string(500, 'x') + "\n");
}

TEST_F(TableTest, ColoursCellsOnATerminalWithoutCountingTheSequences) {
  const Variable term("TERM", "xterm");
  const Variable noColour("NO_COLOR", nullptr);
  Table table({{"STATUS"}, {"X"}});
  table.add({Table::Cell("OK", Colour::kGreen), "1"s});
  const FakeTerminal terminal(24, 80);
  EXPECT_EQ(table.render(9).back(), "\x1b[32mOK    \x1b[0m  1");
  EXPECT_THAT(table.render(1).back(), testing::StartsWith("\x1b[32mO\x1b[0m"));
}

}  // namespace
