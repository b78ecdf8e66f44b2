#include <fmt/format.h>

#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/declared/declaration.h"
#include "ctl/declared/document.h"
#include "ctl/declared/sources.h"
#include "ctl/declared/yamlText.h"
#include "ctl/failure.h"

namespace {

/// Random texts and files: what is written is read back, and no file ends the reader.
class RandomTextTest : public testing::Test {
 protected:
  int below(int count) { return std::uniform_int_distribution<int>(0, count - 1)(engine); }

  const std::string& oneOf(const std::vector<std::string>& choices) {
    return choices[static_cast<std::size_t>(below(static_cast<int>(choices.size())))];
  }

  /// A character of UTF-8 as a database stores it, so not zero.
  std::string character() {
    static const std::vector<char32_t> ends = {0x80,   0x100,   0x800,   0x3000,
                                               0xd800, 0x10000, 0x110000};
    char32_t code = 0;
    do {
      code = static_cast<char32_t>(below(
          static_cast<int>(ends[static_cast<std::size_t>(below(static_cast<int>(ends.size())))])));
    } while (code == 0 || (code >= 0xd800 && code < 0xe000));
    return utf8Of(code);
  }
  static std::string utf8Of(char32_t code) {
    const auto byte = [code](unsigned lead, unsigned shift) {
      return static_cast<char>(lead | ((code >> shift) & (lead == 0x80 ? 0x3fU : 0xffU)));
    };
    if (code < 0x80) {
      return {static_cast<char>(code)};
    }
    if (code < 0x800) {
      return {byte(0xc0, 6), byte(0x80, 0)};
    }
    if (code < 0x10000) {
      return {byte(0xe0, 12), byte(0x80, 6), byte(0x80, 0)};
    }
    return {byte(0xf0, 18), byte(0x80, 12), byte(0x80, 6), byte(0x80, 0)};
  }
  std::string text() {
    static const std::vector<std::string> special = {
        ": ", " #",  "- ",  "? ", "'",    "\"",   "\\",  "\n", "\t", "\r",  "[",
        "]",  "{",   "}",   ",",  "&",    "*",    "!",   "|",  ">",  "%",   "@",
        "`",  "---", "...", "<<", "null", "true", "0x1", " ",  "  ", "\x04"};
    std::string result;
    for (int i = below(12); i > 0; --i) {
      result += below(2) == 0 ? oneOf(special) : character();
    }
    return result;
  }

  static Value documentOf(const std::string& content) {
    Mistakes mistakes;
    auto document = readDocument("f", content, mistakes);
    try {
      mistakes.throwIfAny();
    } catch (const Failure& e) {
      ADD_FAILURE() << e.what() << " in " << testing::PrintToString(content);
    }
    return document.value_or(Value{});
  }

  std::mt19937 engine{1};
};

TEST_F(RandomTextTest, ReadsEachTextBackAsItWasWritten) {
  for (int i = 0; i < 5000; ++i) {
    const std::string one = text();
    const std::string other = text();
    const auto quoted = quotedText(one);
    ASSERT_TRUE(quoted) << testing::PrintToString(one);
    const Value document =
        documentOf(fmt::format("a: {}\nb:\n  c: [{}, {}]\n  d: {}\n", *quoted, *quoted,
                               quotedText(other).value_or(""), plainOrQuoted(other)));
    ASSERT_EQ(document.entries.size(), 2U) << testing::PrintToString(one);
    EXPECT_EQ(document.entries[0].value.text, one);
    const Value& map = document.entries[1].value;
    ASSERT_EQ(map.entries.size(), 2U);
    EXPECT_EQ(map.entries[0].value.items[0].text, one);
    EXPECT_EQ(map.entries[0].value.items[1].text, other);
    EXPECT_EQ(map.entries[1].value.text, other);
  }
}

TEST_F(RandomTextTest, ReadsTheSameTextsFromJson) {
  for (int i = 0; i < 2000; ++i) {
    const std::string one = text();
    const Value document = documentOf(
        fmt::format("{{\n  \"a\": {{\n    \"b\": {}\n  }}\n}}\n", quotedText(one).value_or("")));
    ASSERT_EQ(document.entries.size(), 1U) << testing::PrintToString(one);
    EXPECT_EQ(document.entries[0].value.entries[0].value.text, one);
  }
}

TEST_F(RandomTextTest, WritesOnlyWhatATerminalMayShow) {
  for (int i = 0; i < 5000; ++i) {
    const std::string quoted = quotedText(text()).value_or("");
    for (const char c : quoted) {
      const auto byte = static_cast<unsigned char>(c);
      ASSERT_TRUE(byte >= 0x20 && byte != 0x7f) << testing::PrintToString(quoted);
    }
    EXPECT_EQ(quoted.find("\xc2\x9b"), std::string::npos);
    EXPECT_EQ(quoted.find("\xe2\x80\xae"), std::string::npos);
  }
}

TEST_F(RandomTextTest, EndsInADeclarationOrInMistakesForAnyFile) {
  const std::string sample =
      "# tasks\nset: web\ntasks:\n  a:\n    plugin: /bin/true\n    every: 5m\n"
      "    arguments: [-w, \"5\", 'x y']\n  b: {plugin: /p, every: 1d, retries: 0}\n"
      "  c:\n    plugin: >\n      folded\n    every: |\n      5m\n";
  static const std::vector<std::string> parts = {"\n",
                                                 "\t",
                                                 " ",
                                                 "  ",
                                                 ":",
                                                 ": ",
                                                 "-",
                                                 "- ",
                                                 "?",
                                                 "? ",
                                                 "[",
                                                 "]",
                                                 "{",
                                                 "}",
                                                 ",",
                                                 "#",
                                                 "&a",
                                                 "*a",
                                                 "!!x ",
                                                 "|",
                                                 ">",
                                                 "'",
                                                 "\"",
                                                 "%",
                                                 "@",
                                                 "`",
                                                 "---\n",
                                                 "...\n",
                                                 "<<: ",
                                                 "\\",
                                                 "\\u",
                                                 "\xff",
                                                 "\r",
                                                 "tasks:",
                                                 "set:",
                                                 "a:",
                                                 "~",
                                                 "\xef\xbb\xbf",
                                                 "\xe2\x80\xa8",
                                                 "!<tag:x> ",
                                                 "%YAML 1.1\n"};
  int good = 0;
  for (int i = 0; i < 5000; ++i) {
    std::string content = sample;
    for (int changes = 1 + below(4); changes > 0; --changes) {
      const auto place = static_cast<std::size_t>(below(static_cast<int>(content.size())));
      const auto length = static_cast<std::size_t>(below(4));
      content.replace(place, length, below(3) == 0 ? "" : oneOf(parts));
    }
    Mistakes mistakes;
    const Declaration declaration = readDeclaration({{"f", content}}, mistakes);
    good += mistakes.areThere() ? 0 : 1;
    for (const DeclaredTask& task : declaration.tasks) {
      EXPECT_FALSE(task.key.empty());
      EXPECT_EQ(task.definition.count("plugin"), 1U) << testing::PrintToString(content);
      EXPECT_EQ(task.definition.count("every"), 1U) << testing::PrintToString(content);
    }
  }
  EXPECT_GT(good, 50);  // or the changes are too many to test anything
}

TEST_F(RandomTextTest, NeverTakesATruncatedFileForAWholeOneInsideATask) {
  const std::string sample =
      "tasks:\n  a:\n    plugin: \"/bin/a b\"\n    every: \"5m\"\n    arguments: [\"x\", \"y "
      "z\"]\n";
  for (std::size_t length = sample.find("plugin"); length < sample.size() - 1; ++length) {
    Mistakes mistakes;
    const Declaration declaration = readDeclaration({{"f", sample.substr(0, length)}}, mistakes);
    // Only where a line, or the whole value, ends is the beginning of the file itself a file.
    const bool isComplete =
        sample[length] == '\n' || sample[length - 1] == '\n' || sample[length - 1] == ' ';
    EXPECT_TRUE(mistakes.areThere() || isComplete) << sample.substr(0, length);
  }
}

}  // namespace
