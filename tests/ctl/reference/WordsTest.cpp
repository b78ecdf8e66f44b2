#include "ctl/reference/words.h"

#include <string>

#include <gtest/gtest.h>

namespace {

std::string marked(const std::string& text) {
  return rewriteWords(
      text, [](const std::string& word) { return "<" + word + ">"; },
      [](const std::string& word) { return word; });
}

TEST(WordsTest, MarksTheWordsThatAUserTypes) {
  EXPECT_EQ(marked("with --user, -n (or ~/.pgpass); $DATE."),
            "with <--user>, <-n> (or <~/.pgpass>); <$DATE>.");
  EXPECT_EQ(marked("set thread_number; -- alone"), "set <thread_number>; <--> alone");
}

TEST(WordsTest, LeavesProseAlone) {
  EXPECT_EQ(marked("a well-known task's 7=12.5 - or ..."), "a well-known task's 7=12.5 - or ...");
}

TEST(WordsTest, AppendsWordsWithOneSpace) {
  std::string words;
  for (const char* word : {"", "one", "", "two"}) {
    appendWord(words, word);
  }
  EXPECT_EQ(words, "one two");
  EXPECT_EQ(lastWord(words), "two");
  EXPECT_EQ(lastWord("one"), "one");
}

TEST(WordsTest, DoesNotReplaceItsOwnReplacements) {
  EXPECT_EQ(replaceEach("a|b|", "|", "\\|"), "a\\|b\\|");
}

}  // namespace
