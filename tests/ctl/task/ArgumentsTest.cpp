#include "ctl/task/arguments.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/failure.h"
#include "task/serviceSafe.h"

namespace {

using Arguments = std::vector<std::string>;

/// The arguments that the daemon reads from the text.
Arguments split(const std::string& text) {
  serviceSafe record;
  record.Setparameter(text);
  return record.GetVectorParam();
}

std::string refusalOf(const Arguments& arguments) {
  try {
    return "taken as " + parameterString(arguments);
  } catch (const Failure& e) {
    EXPECT_EQ(e.exitCode, kRefused);
    return e.what();
  }
}

TEST(ParameterStringTest, JoinsPlainArgumentsWithSpaces) {
  EXPECT_EQ(parameterString({"-H", "10.0.0.1", "-w", "80"}), "-H 10.0.0.1 -w 80");
  EXPECT_EQ(parameterString({}), "");
}

TEST(ParameterStringTest, QuotesAnArgumentWithASpace) {
  EXPECT_EQ(parameterString({"-m", "two words"}), "-m \"two words\"");
}

TEST(ParameterStringTest, IsSplitByTheDaemonIntoTheSameArguments) {
  for (const Arguments& arguments :
       {Arguments{"a"}, Arguments{" "}, Arguments{"  a  b  ", "c"}, Arguments{"C:\\dir\\", "\\"},
        Arguments{"a\tb", "c\nx", "e,f", "$HOME", "*"}, Arguments{"\xc3\xa9t\xc3\xa9 1"}}) {
    EXPECT_EQ(split(parameterString(arguments)), arguments);
  }
}

TEST(ParameterStringTest, RefusesEitherKindOfQuoteAndSaysWhy) {
  EXPECT_THAT(refusalOf({"it's"}), testing::HasSubstr("the argument it's contains a quote"));
  EXPECT_THAT(refusalOf({"say \"x\""}), testing::HasSubstr("contains a quote"));
  EXPECT_THAT(refusalOf({"both ' and \""}), testing::HasSubstr("quotes only switch"));
}

TEST(ParameterStringTest, RefusesAnEmptyArgument) {
  EXPECT_THAT(refusalOf({"-m", ""}), testing::HasSubstr("cannot get an empty argument"));
}

}  // namespace
