#include "guard/options.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/outputOf.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

using Words = std::vector<std::string>;

/// parseOptions with these arguments.
class OptionsTest : public testing::Test {
 protected:
  bool parse(Words given) {
    words = std::move(given);
    pointers.clear();
    for (std::string& word : words) {
      pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    options = {};
    bool isAccepted = false;
    output = outputOf([&] { isAccepted = parseOptions(pointers.data(), options); });
    return isAccepted;
  }
  /// The path and the arguments of the plugin.
  Words plugin() const {
    Words result;
    for (char** word = options.plugin; *word != nullptr; ++word) {
      result.emplace_back(*word);
    }
    return result;
  }
  std::string refusalOf(const Words& given) {
    EXPECT_FALSE(parse(given)) << testing::PrintToString(given);
    return output.substr(0, output.find('\n'));
  }

  Words words;
  std::vector<char*> pointers;
  Options options;
  std::string output;
};

TEST_F(OptionsTest, HasDefaults) {
  ASSERT_TRUE(parse({"--", "/bin/true"}));
  EXPECT_EQ(options.timeLimitSeconds, 30);
  EXPECT_EQ(options.graceSeconds, 5);
  EXPECT_EQ(options.outputLimit, 65536);
  EXPECT_FALSE(options.withStandardError);
  EXPECT_EQ(output, "");
}

TEST_F(OptionsTest, ReadsEachOption) {
  ASSERT_TRUE(parse({"-e", "-t", "7", "-k", "0", "-o", "100", "--", "/bin/true"}));
  EXPECT_EQ(options.timeLimitSeconds, 7);
  EXPECT_EQ(options.graceSeconds, 0);
  EXPECT_EQ(options.outputLimit, 100);
  EXPECT_TRUE(options.withStandardError);
}

TEST_F(OptionsTest, TakesTheLastOfTwoValues) {
  ASSERT_TRUE(parse({"-t", "7", "-t", "8", "/bin/true"}));
  EXPECT_EQ(options.timeLimitSeconds, 8);
}

TEST_F(OptionsTest, AcceptsTheLimitsOfEachNumber) {
  for (const Words& given : {Words{"-t", "1"},
                             {"-t", "86400"},
                             {"-k", "0"},
                             {"-k", "3600"},
                             {"-o", "1"},
                             {"-o", "1073741824"},
                             {"-t", "007"}}) {
    EXPECT_TRUE(parse({given[0], given[1], "/bin/true"})) << testing::PrintToString(given);
  }
}

TEST_F(OptionsTest, RefusesNumbersBeyondTheLimits) {
  for (const char* wrong : {"0", "86401", "-1", "9223372036854775807", "9223372036854775808"}) {
    EXPECT_EQ(refusalOf({"-t", wrong, "/bin/true"}),
              std::string("UNKNOWN - koduguard: -t takes whole seconds from 1 to 86400, not \"") +
                  wrong + "\"");
  }
  EXPECT_THAT(refusalOf({"-k", "3601", "/bin/true"}), HasSubstr("from 0 to 3600, not \"3601\""));
  EXPECT_THAT(refusalOf({"-o", "0", "/bin/true"}), HasSubstr("bytes from 1 to 1073741824"));
  EXPECT_THAT(refusalOf({"-o", "1073741825", "/bin/true"}), HasSubstr("not \"1073741825\""));
}

TEST_F(OptionsTest, RefusesTextsThatAreNotWholeNumbers) {
  for (const char* wrong : {"", " 1", "1 ", "+1", "1.0", "1s", "0x10", "1e3", "ten"}) {
    EXPECT_THAT(refusalOf({"-t", wrong, "/bin/true"}),
                testing::EndsWith(", not \"" + std::string(wrong) + "\""))
        << wrong;
  }
}

TEST_F(OptionsTest, RefusesAnOptionWithoutItsValue) {
  EXPECT_THAT(refusalOf({"-o"}), testing::EndsWith("not \"\""));
  // The separator and the plugin become the values.
  EXPECT_THAT(refusalOf({"-t", "--", "/bin/true"}), testing::EndsWith("not \"--\""));
  EXPECT_THAT(refusalOf({"-t", "/bin/true"}), testing::EndsWith("not \"/bin/true\""));
}

TEST_F(OptionsTest, RefusesUnknownOptions) {
  for (const char* wrong : {"-x", "-", "-t5", "-et", "---", "--timeout"}) {
    EXPECT_EQ(refusalOf({wrong, "--", "/bin/true"}),
              std::string("UNKNOWN - koduguard: unknown option ") + wrong);
  }
}

TEST_F(OptionsTest, PrintsTheUsageAfterEachRefusal) {
  for (const Words& given : {Words{}, {"-h"}, {"--help"}, {"-x"}, {"-t", "0"}, {"--"}}) {
    EXPECT_FALSE(parse(given));
    EXPECT_THAT(output, StartsWith("UNKNOWN - koduguard: "));
    EXPECT_THAT(output, HasSubstr("\nusage: koduguard [-t SECONDS] [-k SECONDS] [-o BYTES] [-e]"));
    for (const char* option : {"\n  -t  ", "\n  -k  ", "\n  -o  ", "\n  -e  "}) {
      EXPECT_THAT(output, HasSubstr(option));
    }
    EXPECT_EQ(output.back(), '\n');
  }
}

TEST_F(OptionsTest, EndsTheOptionsAtTheSeparatorOrAtThePlugin) {
  ASSERT_TRUE(parse({"-e", "/bin/echo", "-t", "0"}));
  EXPECT_THAT(plugin(), ElementsAre("/bin/echo", "-t", "0"));
  ASSERT_TRUE(parse({"--", "-x", "--", "-h"}));
  EXPECT_THAT(plugin(), ElementsAre("-x", "--", "-h"));
  ASSERT_TRUE(parse({"--", "--"}));
  EXPECT_THAT(plugin(), ElementsAre("--"));
}

TEST_F(OptionsTest, PassesTheArgumentsWithoutACopy) {
  ASSERT_TRUE(parse({"-t", "1", "--", "/bin/echo", "", "two words"}));
  EXPECT_EQ(options.plugin, pointers.data() + 3);
  EXPECT_THAT(plugin(), ElementsAre("/bin/echo", "", "two words"));
}

TEST_F(OptionsTest, AcceptsAnEmptyPathAsThePlugin) {
  ASSERT_TRUE(parse({""}));  // its execution fails, and is reported as by the daemon
  EXPECT_THAT(plugin(), ElementsAre(""));
}

}  // namespace
