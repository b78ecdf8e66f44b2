#include "ctl/terminal/text.h"

#include <clocale>
#include <string>

#include <gtest/gtest.h>

#include "ctl/terminal/table.h"
#include "ctl/terminal/terminal.h"

namespace {

using namespace std::string_literals;

TEST(DurationTextTest, ShowsTheTwoLargestUnits) {
  EXPECT_EQ(durationText(0), "0s");
  EXPECT_EQ(durationText(59), "59s");
  EXPECT_EQ(durationText(60), "1m");
  EXPECT_EQ(durationText(3599), "59m 59s");
  EXPECT_EQ(durationText(3601), "1h");
  EXPECT_EQ(durationText(90061), "1d 1h");
}

TEST(ShortTimeTest, LeavesTheDateOutOnTheSameDay) {
  constexpr long kNoon = 1714564800;  // 2024-05-01 12:00:00
  EXPECT_EQ(shortTime(kNoon + 61, kNoon), "12:01:01");
  EXPECT_EQ(shortTime(kNoon + 86400, kNoon), "2024-05-02 12:00:00");
  EXPECT_EQ(shortTime(std::nullopt, kNoon), "-");
}

TEST(OneLineTest, LeavesNoControlCharacter) {
  EXPECT_EQ(oneLine("a\x1b[31m\nb\tc\x7f"), "a?[31m b c?");
  EXPECT_EQ(oneLine("\u009b31mé\u00a0\u0080\u009f"), "?31mé\u00a0??");
  EXPECT_EQ(oneLine("cut off \xc2"), "cut off ?");
}

/// Sets the locale as koductl's main does: the width of a character depends on it.
class TableTest : public testing::Test {
 protected:
  TableTest() { std::setlocale(LC_CTYPE, "C.UTF-8"); }
  ~TableTest() override { std::setlocale(LC_CTYPE, "C"); }
};

TEST_F(TableTest, MakesColumnsAsWideAsTheirWidestCell) {
  Table table({{"ID", Table::Align::kRight}, {"NAME"}, {"LAST"}});
  table.add({"7"s, "\xc3\xa9t\xc3\xa9"s, "x"s});
  table.add({"100"s, "a"s, "line\nbreak"s});
  EXPECT_EQ(table.render(),
            (std::vector<std::string>{" ID  NAME  LAST", "  7  \xc3\xa9t\xc3\xa9   x",
                                      "100  a     line break"}));
}

TEST_F(TableTest, CutsLinesAtAWidth) {
  Table table({{"NAME"}, {"LAST"}});
  table.add({"\xc3\xa9t\xc3\xa9"s, "x"s});
  EXPECT_EQ(table.render(2).back(), "\xc3\xa9t");
}

TEST_F(TableTest, CountsCharactersNotBytes) {
  EXPECT_EQ(cutTo("\xc3\xa9t\xc3\xa9", 2), "\xc3\xa9t");
  EXPECT_EQ(cutTo("ab", 5), "ab");
  EXPECT_EQ(widthOf("\xc3\xa9t\xc3\xa9"), 3);
}

TEST_F(TableTest, CountsTheColumnsOfATerminal) {
  EXPECT_EQ(widthOf("日本"), 4);
  EXPECT_EQ(cutTo("日本", 3), "日");
  EXPECT_EQ(widthOf("e\u0301t"), 2);  // a combining accent
  EXPECT_EQ(cutTo("e\u0301t", 1), "e\u0301");
  EXPECT_EQ(widthOf("a\xff\xc3"), 3);  // invalid UTF-8
}

}  // namespace
