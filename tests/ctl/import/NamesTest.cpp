#include "ctl/import/names.h"

#include <string>

#include <gtest/gtest.h>

namespace {

TEST(KeyPartTest, KeepsWhatAKeyMayContain) {
  EXPECT_EQ(keyPart("web-1.example_x:80@a"), "web-1.example_x:80@a");
  EXPECT_EQ(keyPart("Disk /var  (root)"), "Disk-var-root");
  EXPECT_EQ(keyPart("--[."), "");
  EXPECT_EQ(keyPart("\xc3\xa9t\xc3\xa9"), "t");
  EXPECT_EQ(keyPart(std::string(100, 'x')), std::string(60, 'x'));
}

TEST(KeyPartTest, KeepsDifferentTextsApart) {
  EXPECT_EQ(distinctKeyPart("web"), "web");
  EXPECT_NE(distinctKeyPart("a b"), distinctKeyPart("a-b"));
  EXPECT_NE(distinctKeyPart("a b"), distinctKeyPart("a  b"));
  EXPECT_EQ(distinctKeyPart("[").size(), 8U);
}

// Keys that users have in their databases depend on it.
TEST(DigestTest, NeverChanges) {
  EXPECT_EQ(digest(""), "4fd0bfc1");
  EXPECT_EQ(digest("backup"), "726ccf22");
  EXPECT_EQ(digest("\xff"), "29669922");
}

TEST(ExcerptTest, IsOneShortLineOfUtf8) {
  EXPECT_EQ(excerpt("a\nb\tc\x1b"), "a b c?");
  EXPECT_EQ(excerpt("\xff"), "?");
  EXPECT_EQ(excerpt(std::string(500, 'x')), std::string(60, 'x'));
}

}  // namespace
