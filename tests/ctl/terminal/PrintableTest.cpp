#include "ctl/terminal/printable.h"

#include <algorithm>
#include <clocale>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace std::string_view_literals;

struct Text {
  const char* name;
  std::string_view text;
  std::string_view shown;
};

TEST(PrintableTest, KeepsNewlinesAndTabsOnly) {
  for (const Text& test :
       {Text{"plain text", "plain text", "plain text"}, Text{"an empty text", "", ""},
        Text{"newline and tab", "a\n\tb", "a\n\tb"}, Text{"carriage return", "a\r\nb", "a?\nb"},
        Text{"vertical tab and form feed", "a\v\fb", "a??b"}, Text{"a zero byte", "a\0b"sv, "a?b"},
        Text{"colours", "\x1b[1;31mred\x1b[0m", "?[1;31mred?[0m"},
        Text{"a title", "\x1b]0;title\x07", "?]0;title?"},
        Text{"C1 as two bytes", "\u009b2J", "?2J"},
        Text{"C1 as one byte",
             "\x9b"
             "2J",
             "?2J"},
        Text{"overrides of the direction", "\u202etxt.exe\u202c", "?txt.exe?"},
        Text{"a cut character", "caf\xc3", "caf?"}, Text{"Latin-1", "caf\xe9 au", "caf? au"},
        Text{"wide characters", "日本", "日本"}, Text{"an emoji", "\U0001f600", "\U0001f600"}}) {
    EXPECT_EQ(printable(test.text), test.shown) << test.name;
  }
}

TEST(PrintableTest, ReplacesEachMarkOfTheDirection) {
  EXPECT_EQ(printable("\u061c\u200e\u200f\u2028\u2029\u202a\u202e\u2066\u2069"), "?????????");
  EXPECT_EQ(printable("\u00a0 \u200d"), "\u00a0 \u200d") << "harmless characters";
}

TEST(PrintableTest, ReplacesEachByteOfInvalidUtf8) {
  for (const char* wrong :
       {"\x80", "\xc2", "\xc1\xbf", "\xe0\x9f\xbf", "\xed\xa0\x80", "\xf0\x8f\xbf\xbf",
        "\xf4\x90\x80\x80", "\xf8\x88\x80\x80\x80", "\xe2\x80"}) {
    const std::string text = std::string(wrong) + "a";
    EXPECT_EQ(printable(text), std::string(text.size() - 1, '?') + "a");
  }
}

TEST(OneLineTest, ReplacesLineBreaksAndTabsBySpaces) {
  for (const Text& test :
       {Text{"newline", "a\nb", "a b"}, Text{"tab", "a\tb", "a b"}, Text{"both", "a\r\nb", "a  b"},
        Text{"vertical tab and form feed", "a\v\fb", "a  b"},
        Text{"a newline at the end", "a\n", "a "}, Text{"a bell", "a\x07", "a?"},
        Text{"a line separator", "a\u2028b", "a?b"},
        Text{"an escape sequence", "a\x1b[31m\nb\tc\x7f", "a?[31m b c?"},
        Text{"C1 and a non-breaking space", "\u009b31mé\u00a0\u0080\u009f", "?31mé\u00a0??"},
        Text{"a cut character", "cut off \xc2", "cut off ?"}, Text{"an empty text", "", ""}}) {
    EXPECT_EQ(oneLine(test.text), test.shown) << test.name;
  }
}

/// Sets the locale as koductl's main does: the width of a character depends on it.
class WidthTest : public testing::Test {
 protected:
  WidthTest() { std::setlocale(LC_CTYPE, "C.UTF-8"); }
  ~WidthTest() override { std::setlocale(LC_CTYPE, "C"); }
};

TEST_F(WidthTest, CountsTheColumnsOfATerminal) {
  const std::vector<std::tuple<const char*, std::string_view, int>> cases = {
      {"an empty text", "", 0},
      {"ASCII", "task 7", 6},
      {"Latin", "été", 3},
      {"a combining accent", "e\u0301t\u0301", 2},
      {"Greek and Cyrillic", "αЖ", 2},
      {"Chinese and Japanese", "日本", 4},
      {"Hangul", "한글", 4},
      {"full width", "Ａ１", 4},
      {"half width", "ｱｲ", 2},
      {"an ideographic space", "\u3000", 2},
      {"an emoji", "\U0001f600", 2},
      {"characters beyond the basic plane", "\U00020000", 2},
      {"a zero-width space", "a\u200bb", 2},
      {"bytes of invalid UTF-8", "a\xff\xc3", 3},
      {"control characters", "a\x07\nb", 2},
  };
  for (const auto& [name, text, width] : cases) {
    EXPECT_EQ(widthOf(text), width) << name;
  }
}

TEST_F(WidthTest, CutsBetweenCharacters) {
  const std::vector<std::tuple<const char*, std::string_view, int, std::string_view>> cases = {
      {"shorter than the limit", "ab", 5, "ab"},
      {"exactly the limit", "ab", 2, "ab"},
      {"longer than the limit", "abc", 2, "ab"},
      {"no column", "abc", 0, ""},
      {"no column, but a combining character first", "\u0301a", 0, "\u0301"},
      {"two bytes a character", "été", 2, "ét"},
      {"a wide character that does not fit", "日本", 3, "日"},
      {"a wide character that does not fit at all", "日本", 1, ""},
      {"the accent of the last character", "e\u0301t", 1, "e\u0301"},
      {"bytes of invalid UTF-8", "\xff\xff\xff", 2, "\xff\xff"},
      {"an empty text", "", 3, ""},
  };
  for (const auto& [name, text, columns, cut] : cases) {
    EXPECT_EQ(cutTo(text, columns), cut) << name;
  }
}

TEST_F(WidthTest, NeverExceedsTheLimitByACut) {
  const std::string text = "a日e\u0301\xff\U0001f600ｱb";
  for (int columns = 0; columns <= widthOf(text) + 1; ++columns) {
    const std::string cut = cutTo(text, columns);
    EXPECT_LE(widthOf(cut), columns);
    EXPECT_TRUE(text.starts_with(cut));
    EXPECT_GE(widthOf(cut), std::min(columns, widthOf(text)) - 1) << "a wide character at most";
  }
}

}  // namespace
