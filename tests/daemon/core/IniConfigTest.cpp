#include "core/iniConfig.h"

#include <gtest/gtest.h>

#include "core/FileException.h"
#include "tests/support/Files.h"

namespace {

using Values = std::map<std::string, std::string>;

class IniConfigTest : public testing::Test {
 protected:
  iniConfig configOf(const std::string& content) {
    writeFile(path, content);
    return iniConfig(path);
  }

  TempDir directory;
  std::string path = directory / "test.conf";
};

TEST_F(IniConfigTest, FindsAKeyInItsSectionOnly) {
  const auto config = configOf("[CRON]\nthread_number=4\n[LOG]\n");

  EXPECT_EQ(config.getKey("CRON", "thread_number"), "4");
  EXPECT_EQ(config.getKey("LOG", "thread_number"), "");
}

TEST_F(IniConfigTest, DropsLeadingSpacesThenTabs) {
  EXPECT_EQ(configOf("[LOG]\n \tlog_file=/x\n").getKey("LOG", "log_file"), "/x");
}

TEST_F(IniConfigTest, KeepsASpaceAfterALeadingTab) {
  auto config = configOf("[LOG]\n\t log_file=/x\n");

  EXPECT_EQ(config.getSection("LOG"), (Values{{"[LOG]", ""}, {" log_file", "/x"}}));
}

TEST_F(IniConfigTest, KeepsTheSpaceAfterTheEqualSign) {
  EXPECT_EQ(configOf("[LOG]\nlog_file = /x\n").getKey("LOG", "log_file"), " /x");
}

TEST_F(IniConfigTest, KeepsTheCarriageReturn) {
  EXPECT_EQ(configOf("[LOG]\nlog_file=/x\r\n").getKey("LOG", "log_file"), "/x\r");
}

TEST_F(IniConfigTest, SplitsAtTheFirstEqualSign) {
  EXPECT_EQ(configOf("[LOG]\nlog_file=a=b\n").getKey("LOG", "log_file"), "a=b");
}

TEST_F(IniConfigTest, TakesTheFirstLineThatContainsTheKey) {
  const auto config = configOf("[LOG]\nlog_file=/a\nlog=/b\n");

  EXPECT_EQ(config.getKey("LOG", "log"), "/a");
  EXPECT_EQ(config.getKey("LOG", "file=/a"), "/a");
}

TEST_F(IniConfigTest, CountsTheHeaderLineAsTheSectionsFirstLine) {
  const auto config = configOf("[LOG=1]\nLOG=2\n");

  EXPECT_EQ(config.getKey("LOG=1", "LOG"), "1]");
  EXPECT_EQ(config.getKey("LOG=1", ""), "1]");
}

TEST_F(IniConfigTest, ReturnsAnEmptyValueForALineWithoutAnEqualSign) {
  EXPECT_EQ(configOf("[LOG]\nlog_file\nlog_file=/x\n").getKey("LOG", "log_file"), "");
}

TEST_F(IniConfigTest, ReturnsAnEmptyValueWithoutTheSectionOrTheKey) {
  const auto config = configOf("before=1\n[LOG]\nlog_file=/x\n");

  EXPECT_EQ(config.getKey("CRON", "log_file"), "");
  EXPECT_EQ(config.getKey("LOG", "missing"), "");
  EXPECT_EQ(config.getKey("LOG", "before"), "");
}

TEST_F(IniConfigTest, SkipsCommentsByTheNumberSignOnly) {
  EXPECT_EQ(configOf("[LOG]\n# log_file=/x\n").getKey("LOG", "log_file"), "");
  EXPECT_EQ(configOf("[LOG]\n  # log_file=/x\n").getKey("LOG", "log_file"), "");
  EXPECT_EQ(configOf("[LOG]\n; log_file=/x\n").getKey("LOG", "log_file"), "/x");
}

TEST_F(IniConfigTest, FindsAnIndentedHeader) {
  const auto config = configOf(" \t[LOG]\nlog_file=/x\n  [CRON]\nthread_number=4\n");

  EXPECT_EQ(config.getKey("LOG", "log_file"), "/x");
  EXPECT_EQ(config.getKey("LOG", "thread_number"), "");
  EXPECT_EQ(config.getKey("CRON", "thread_number"), "4");
}

TEST_F(IniConfigTest, MatchesAHeaderExactly) {
  EXPECT_EQ(configOf("[CRON] \nthread_number=4\n").getKey("CRON", "thread_number"), "");
  EXPECT_EQ(configOf("[ CRON ]\nthread_number=4\n").getKey("CRON", "thread_number"), "");
  EXPECT_EQ(configOf("[cron]\nthread_number=4\n").getKey("CRON", "thread_number"), "");
  EXPECT_EQ(configOf("[CRON]\r\nthread_number=4\n").getKey("CRON", "thread_number"), "");
}

TEST_F(IniConfigTest, SearchesTheFirstOfTwoSectionsOnly) {
  const auto config = configOf("[CRON]\na=1\n[LOG]\n[CRON]\nthread_number=4\n");

  EXPECT_EQ(config.getKey("CRON", "thread_number"), "");
}

TEST_F(IniConfigTest, EndsTheSectionAtAnyLineThatBeginsWithABracket) {
  EXPECT_EQ(configOf("[CRON]\n[x\nthread_number=4\n").getKey("CRON", "thread_number"), "");
}

TEST_F(IniConfigTest, ReadsTheLastLineWithoutANewline) {
  EXPECT_EQ(configOf("[CRON]\nthread_number=4").getKey("CRON", "thread_number"), "4");
}

TEST_F(IniConfigTest, ReadsTheFileAgainAtEachLookup) {
  const auto config = configOf("[CRON]\nthread_number=4\n");
  ASSERT_EQ(config.getKey("CRON", "thread_number"), "4");

  writeFile(path, "[CRON]\nthread_number=5\n");

  EXPECT_EQ(config.getKey("CRON", "thread_number"), "5");
}

TEST_F(IniConfigTest, ConvertsTheLeadingNumberOfAValue) {
  const auto config = configOf("[A]\none= 12abc\ntwo=abc\nthree=\n");

  EXPECT_EQ(config.getKeyToInt("A", "one"), 12);
  EXPECT_EQ(config.getKeyToInt("A", "two"), 0);
  EXPECT_EQ(config.getKeyToInt("A", "three"), 0);
  EXPECT_EQ(config.getKeyToInt("A", "missing"), 0);
}

TEST_F(IniConfigTest, ParsesEveryLineOfASection) {
  auto config = configOf("[S]\na=1\n\nno sign\n# comment=1\n  a =2=3\na=4\n[T]\nb=1\n");

  EXPECT_EQ(config.getSection("S"),
            (Values{{"", ""}, {"[S]", ""}, {"a", "4"}, {"a ", "2=3"}, {"no sign", ""}}));
}

TEST_F(IniConfigTest, AddsTheValuesOfALaterSectionToTheSameMap) {
  auto config = configOf("[S]\na=1\nb=1\n[T]\nb=2\n");
  const Values& first = config.getSection("S");

  const Values& second = config.getSection("T");

  EXPECT_EQ(&first, &second);
  EXPECT_EQ(second, (Values{{"[S]", ""}, {"[T]", ""}, {"a", "1"}, {"b", "2"}}));
}

TEST_F(IniConfigTest, NamesAFileThatCannotBeOpened) {
  iniConfig config(directory / "missing");

  try {
    config.getKey("A", "b");
    FAIL() << "nothing was thrown";
  } catch (const FileException& e) {
    EXPECT_EQ(e.what(), "error can't open file: " + (directory / "missing"));
  }
  try {
    config.getSection("A");
    FAIL() << "nothing was thrown";
  } catch (const FileException& e) {
    EXPECT_EQ(e.what(), "error can't open file " + (directory / "missing"));
  }
}

TEST(TrimTest, DropsAllSixKindsOfWhitespace) {
  const std::string space = " \n\r\t\f\v";

  EXPECT_EQ(trim(space + "a b" + space), "a b");
  EXPECT_EQ(ltrim(space + "a b" + space), "a b" + space);
  EXPECT_EQ(rtrim(space + "a b" + space), space + "a b");
}

TEST(TrimTest, ReturnsAnEmptyTextForWhitespaceOnly) {
  for (const std::string text : {"", " \n\r\t\f\v"}) {
    EXPECT_EQ(trim(text), "");
    EXPECT_EQ(ltrim(text), "");
    EXPECT_EQ(rtrim(text), "");
  }
}

}  // namespace
