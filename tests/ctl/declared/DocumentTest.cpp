#include "ctl/declared/document.h"

#include <optional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/declared/mistakes.h"
#include "ctl/failure.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

/// The mistakes in one text; "" for none.
std::string textOf(const Mistakes& mistakes) {
  try {
    mistakes.throwIfAny();
    return "";
  } catch (const Failure& e) {
    EXPECT_EQ(e.exitCode, kRefused);
    return e.what();
  }
}

std::string mistakesIn(const std::string& content) {
  Mistakes mistakes;
  readDocument("f.yaml", content, mistakes);
  return textOf(mistakes);
}

/// The text of key "a" of a document.
std::string valueOfA(const std::string& content) {
  Mistakes mistakes;
  const std::optional<Value> document = readDocument("f.yaml", content, mistakes);
  EXPECT_EQ(textOf(mistakes), "") << content;
  return document && !document->entries.empty() ? document->entries.front().value.text : "none";
}

TEST(DocumentTest, TakesScalarsForTextsAsTheyAreWritten) {
  for (const char* text : {"no", "0755", "1e3", "1:30", "0x10", "2026-12-01 08:00", "true", ".5"}) {
    EXPECT_EQ(valueOfA(std::string("a: ") + text + "\n"), text);
  }
  EXPECT_EQ(valueOfA("a: \"x\\u0007\\\"\\n\\ty\\\\\"\n"), "x\a\"\n\ty\\");
  EXPECT_EQ(valueOfA("a: 'it''s'\n"), "it's");
  EXPECT_EQ(valueOfA("a: |\n  two\n  lines\n"), "two\nlines\n");
  EXPECT_EQ(valueOfA("{\"a\": \"of JSON\"}"), "of JSON");
  EXPECT_EQ(valueOfA("\xef\xbb\xbf"
                     "a: with a mark\r\n"),
            "with a mark");
}

TEST(DocumentTest, KnowsTheKindsOfValuesAndTheirLines) {
  Mistakes mistakes;
  const auto document = readDocument("f", "a:\nb: [x, y]\nc:\n\n  d: 1\ne: ~\n", mistakes);
  ASSERT_TRUE(document);
  ASSERT_EQ(document->entries.size(), 4U);
  EXPECT_EQ(document->entries[0].value.kind, Value::Kind::kNothing);
  EXPECT_EQ(document->entries[1].value.kind, Value::Kind::kList);
  EXPECT_EQ(document->entries[1].value.items[1].text, "y");
  EXPECT_EQ(document->entries[2].value.kind, Value::Kind::kMap);
  EXPECT_EQ(document->entries[2].value.line, 3);
  EXPECT_EQ(document->entries[2].value.entries[0].value.line, 5);
  EXPECT_EQ(document->entries[3].value.kind, Value::Kind::kNothing);
}

TEST(DocumentTest, RefusesAKeyThatStandsTwice) {
  EXPECT_EQ(mistakesIn("a: 1\nb: 2\na: 3\n"),
            "f.yaml:3: the key a stands in line 1 already\nnothing was changed");
  EXPECT_THAT(mistakesIn("x: {a: 1, \"a\": 2}\n"), HasSubstr("f.yaml:1: the key a stands"));
}

TEST(DocumentTest, RefusesWhatLetsASmallFileStandForAHugeOne) {
  EXPECT_THAT(mistakesIn("a: &x [1]\nb: [*x, *x]\n"),
              StartsWith("f.yaml:1: anchors (&NAME) are not supported"));
  EXPECT_THAT(mistakesIn("a: *x\n"), StartsWith("f.yaml:1: "));
  EXPECT_THAT(mistakesIn("a: !!binary aGk=\n"), HasSubstr("tags (tag:yaml.org,2002:binary) are"));
  EXPECT_THAT(mistakesIn("a: !mine {b: c}\n"), HasSubstr("are not supported"));
}

TEST(DocumentTest, RefusesDeepNestingOfAnySize) {
  for (const std::size_t depth : {9UL, 1000UL, 1000000UL}) {
    EXPECT_THAT(mistakesIn(std::string(depth, '[')), StartsWith("f.yaml:1: ")) << depth;
    EXPECT_THAT(mistakesIn(std::string(depth, '{')), StartsWith("f.yaml:1: ")) << depth;
  }
  EXPECT_THAT(mistakesIn("[[[[[[[[[1]]]]]]]]]"), HasSubstr("nested too deep"));
}

TEST(DocumentTest, RefusesBytesThatTheParserWouldMisread) {
  EXPECT_EQ(
      mistakesIn("a: x\nb: \x04\nc: y\n"),
      "f.yaml:2: a control character: write \"\\u0004\", in double quotes\nnothing was changed");
  EXPECT_THAT(mistakesIn(std::string("a: ") + '\0' + "b\n"), HasSubstr("control character"));
  EXPECT_THAT(mistakesIn("a: \xff\n"), HasSubstr("f.yaml:1: a byte is not valid UTF-8"));
  EXPECT_THAT(mistakesIn("a: \xed\xa0\x80\n"), HasSubstr("not valid UTF-8"));
  EXPECT_THAT(mistakesIn("\xff\xfe"), HasSubstr("not valid UTF-8"));
  EXPECT_THAT(mistakesIn("a: \"\\0\"\n"), HasSubstr("a text contains a zero byte"));
}

TEST(DocumentTest, SaysWhereTheSyntaxIsWrong) {
  EXPECT_THAT(mistakesIn("a:\n  b: 1\n\tc: 2\n"), StartsWith("f.yaml:3: this is not YAML: "));
  EXPECT_THAT(mistakesIn("a: [1\nb: 2\n"), StartsWith("f.yaml:"));
  for (const char* open : {"a: \"open", "a: \"open\n", "a: 'open\n\n  ", "a: \"1\nb: 2\n"}) {
    EXPECT_THAT(mistakesIn(open), HasSubstr("this is not YAML: illegal EOF in scalar")) << open;
  }
  EXPECT_THAT(mistakesIn("[a]: 1\n"), HasSubstr("a key must be a text"));
  EXPECT_THAT(mistakesIn("a: 1\n---\na: 2\n"), HasSubstr("f.yaml:2: a second document begins"));
}

TEST(DocumentTest, IsNothingWithoutContent) {
  Mistakes mistakes;
  EXPECT_FALSE(readDocument("f", "", mistakes));
  EXPECT_FALSE(readDocument("f", "# only a comment\n", mistakes));
  EXPECT_FALSE(mistakes.areThere());
}

TEST(DocumentTest, ReadsTenMegabytesInSeconds) {
  std::string list = "a: [";
  for (int i = 0; i < 1000000; ++i) {
    list += "\"" + std::to_string(i) + "\", ";
  }
  Mistakes mistakes;
  const auto document = readDocument("f", list + "1]\n", mistakes);
  ASSERT_TRUE(document);
  EXPECT_EQ(document->entries[0].value.items.size(), 1000001U);
  std::string longText;
  longText.resize(10000000, 'x');  // NOLINT(bugprone-*)
  EXPECT_EQ(valueOfA("a: \"" + longText + "\"\n").size(), 10000000U);
}

TEST(MistakesTest, ShowsTwentyAndCountsTheOthers) {
  Mistakes mistakes;
  for (int i = 1; i <= 25; ++i) {
    mistakes.add({"f", i}, "key", "wrong\n\x1b[31m");
  }
  const std::string text = textOf(mistakes);
  EXPECT_THAT(text, StartsWith("f:1: key: wrong ?[31m\nf:2: "));
  EXPECT_THAT(text, HasSubstr("f:20: key: wrong ?[31m\nand 5 more\nnothing was changed"));
}

}  // namespace
