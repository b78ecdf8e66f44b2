#include "ctl/declared/definition.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/declared/sqlText.h"
#include "ctl/declared/suggestion.h"
#include "ctl/declared/yamlText.h"

namespace {

constexpr const char* kGuard = "/usr/bin/koduguard";

StoredTexts storedTexts() {
  return {"/opt/check", "check", "", "$SERVICEID_$DATE.txt", "5m", "1", "2m"};
}

Definition guardedWith(const std::string& parameters) {
  StoredTexts texts = storedTexts();
  texts.path = kGuard;
  texts.parameters = parameters;
  return definitionOf(texts, kGuard);
}

TEST(DefinitionTest, WritesPeriodsInTheLargestUnitWithoutAFraction) {
  EXPECT_EQ(periodText("0"), "0s");
  EXPECT_EQ(periodText("1"), "1s");
  EXPECT_EQ(periodText("90"), "90s");
  EXPECT_EQ(periodText("300"), "5m");
  EXPECT_EQ(periodText("5400"), "90m");
  EXPECT_EQ(periodText("129600"), "36h");
  EXPECT_EQ(periodText("31622400"), "366d");
  EXPECT_EQ(periodText("2.5"), "2.5s");
  EXPECT_EQ(periodText("1 mon"), "1 mon");
  EXPECT_EQ(periodText(""), "");
}

TEST(DefinitionTest, ReadsPeriodsOfWholeSecondsBack) {
  for (const long seconds : {1L, 59L, 60L, 90L, 3600L, 5400L, 86400L, 31622400L}) {
    EXPECT_EQ(secondsIn(periodText(std::to_string(seconds))), seconds);
  }
  for (const char* other : {"", "0s", "2.5s", "1 mon", "-1s", "s", "5", "1d "}) {
    EXPECT_FALSE(secondsIn(other)) << other;
  }
}

TEST(DefinitionTest, ReadsTimesOfOneFormOnly) {
  EXPECT_EQ(secondsOf("1970-01-01 00:00"), 0);
  EXPECT_EQ(declaredTime(86400 + 3723), "1970-01-02 01:02:03");
  EXPECT_EQ(secondsOf("1970-01-02 01:02:03"), 86400 + 3723);
  EXPECT_EQ(secondsOf("2024-02-29 00:00"), 1709164800);
  for (const char* wrong :
       {"", "tomorrow", "2023-02-29 00:00", "2026-01-01 24:00", "2026-01-01 00:60",
        "2026-01-01 00:00:60", "2026-01-01", "2026-1-1 00:00", "2026-01-01 00:00 ",
        "2026-01-01T00:00", "-026-01-01 00:00"}) {
    EXPECT_FALSE(secondsOf(wrong)) << wrong;
  }
}

TEST(DefinitionTest, LeavesOutDefaults) {
  EXPECT_THAT(
      definitionOf(storedTexts(), kGuard),
      testing::ElementsAre(testing::Pair("every", "5m"), testing::Pair("plugin", "/opt/check")));
  const Definition other =
      definitionOf({"/opt/check", "mine", "-w 5", "x_$DATE", "1s", "0", "3m"}, kGuard);
  EXPECT_EQ(other.size(), 7U);
  EXPECT_EQ(other.at("name"), "mine");
  EXPECT_EQ(other.at("retry-after"), "3m");
  EXPECT_EQ(definitionOf({"/opt/check", "", "", "", "", "1", "2m"}, kGuard).at("name"), "");
}

TEST(DefinitionTest, ShowsAGuardedTaskAsItsPluginWithATimeout) {
  const Definition guarded = guardedWith("-t 90 -- /opt/check -w  5");
  EXPECT_EQ(guarded.at("plugin"), "/opt/check");
  EXPECT_EQ(guarded.at("timeout"), "90s");
  EXPECT_EQ(guarded.at("arguments"), "-w  5");
  EXPECT_EQ(guarded.count("name"), 0U);
  EXPECT_EQ(guardedWith("-t 60 -- \"/opt/my checks/c\" x").at("plugin"), "/opt/my checks/c");
  EXPECT_EQ(guardedWith("-t 60 -- /opt/check").count("arguments"), 0U);
}

TEST(DefinitionTest, KeepsWhatOnlyTheGuardUnderstands) {
  for (const char* parameters :
       {"", "-t", "-t 10", "-t 10 --", "-t 10 -- ", "-t 010 -- /c", "-t 0 -- /c", "-t 86401 -- /c",
        "-t 99999999999 -- /c", "-t 1x -- /c", "-t 10 -o 5 -- /c", "-t 10 -- c", "-t 10 -- \"/c\"",
        "-t 10 -- \"/c d", "-t 10 -- \"/c d\"e", "-t 10 -- /c\"d e\"", "-t 10 -- '/c d'",
        " -t 10 -- /c"}) {
    const Definition definition = guardedWith(parameters);
    EXPECT_EQ(definition.at("plugin"), kGuard) << parameters;
    EXPECT_EQ(settingOf(definition, "arguments"), parameters);
    EXPECT_EQ(definition.count("timeout"), 0U) << parameters;
  }
  StoredTexts another = storedTexts();
  another.path = "/opt/koduguard";
  another.parameters = "-t 10 -- /c";
  EXPECT_EQ(definitionOf(another, kGuard).at("plugin"), "/opt/koduguard");
}

TEST(YamlTextTest, QuotesWhatAnyReaderCouldMisread) {
  for (const char* plain :
       {"load", "/opt/checks/check_load", "$SERVICEID_$DATE.txt", "a-b", "_x"}) {
    EXPECT_EQ(plainOrQuoted(plain), plain);
  }
  for (const char* other : {"",    "no", "Yes", "NULL", "~",  "y",    "on",   "1",   "0755",
                            "1e3", "-x", ".5",  "a b",  "a:", "a: b", "a #b", "*a",  "&a",
                            "!a",  "[a", "{a",  "'a",   "@a", "%a",   "`a",   "a,b", "\xc3\xa9"}) {
    EXPECT_EQ(plainOrQuoted(other), '"' + std::string(other) + '"');
  }
}

TEST(YamlTextTest, EscapesWhatCouldCommandATerminal) {
  EXPECT_EQ(quotedText("a\"\\\n\t\r\x1b\x7f\xc2\x9b"),
            "\"a\\\"\\\\\\n\\t\\u000d\\u001b\\u007f\\u009b\"");
  EXPECT_EQ(quotedText("\xe2\x80\xa8\xe2\x80\xae\xef\xbb\xbf\xef\xbf\xbf"),
            "\"\\u2028\\u202e\\ufeff\\uffff\"");
  EXPECT_EQ(quotedText("\xf0\x9f\x98\x80\xc3\xa9"), "\"\xf0\x9f\x98\x80\xc3\xa9\"");
  EXPECT_FALSE(quotedText("a\xff"));
  EXPECT_FALSE(quotedText("\xed\xa0\x80"));
}

TEST(SqlTextTest, QuotesEachElement) {
  EXPECT_EQ(sqlArray({}), "{}");
  EXPECT_EQ(sqlArray({"1", "a\"b\\c", "NULL", ""}), R"({"1","a\"b\\c","NULL",""})");
}

TEST(SuggestionTest, NamesTheWordThatIsMeant) {
  EXPECT_EQ(suggestion("retry_after", {"every", "retry-after"}), "; did you mean retry-after?");
  EXPECT_EQ(suggestion("Every", {"every", "file"}), "; did you mean every?");
  EXPECT_EQ(suggestion("interval", {"every", "file"}), "; there are every, file");
  EXPECT_EQ(suggestion(std::string(1000000, 'x'), {"a", "b"}), "; there are a, b");
}

}  // namespace
