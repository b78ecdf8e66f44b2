#include "core/helpers.h"

#include <limits>
#include <type_traits>

#include <gtest/gtest.h>

namespace {

TEST(StringToIntTest, ReadsTheLeadingNumber) {
  EXPECT_EQ(stringToInt(" 42abc"), 42);
  EXPECT_EQ(stringToInt("-7"), -7);
}

TEST(StringToIntTest, ReturnsZeroWithoutANumber) {
  EXPECT_EQ(stringToInt("abc"), 0);
  EXPECT_EQ(stringToInt(""), 0);
  EXPECT_EQ(stringToInt("   "), 0);
}

TEST(StringToIntTest, ReturnsTheNearestBoundForANumberOutOfRange) {
  EXPECT_EQ(stringToInt("2147483648"), std::numeric_limits<int>::max());
  EXPECT_EQ(stringToInt("-2147483649"), std::numeric_limits<int>::min());
  EXPECT_EQ(stringToUnsignedInt("4294967296"), std::numeric_limits<unsigned int>::max());
}

TEST(StringToUnsignedIntTest, ReadsTheUpperHalfOfTheRange) {
  EXPECT_EQ(stringToUnsignedInt("4294967295"), 4294967295U);
  EXPECT_EQ(stringToUnsignedInt(""), 0U);
}

TEST(StringToLongTest, ReadsBothBounds) {
  EXPECT_EQ(stringToLong("9223372036854775807"), std::numeric_limits<long>::max());
  EXPECT_EQ(stringToLong("-9223372036854775808"), std::numeric_limits<long>::min());
  EXPECT_EQ(stringToLong("x"), 0);
  EXPECT_EQ(stringToLong(""), 0);
}

TEST(StringToLongIntTest, ReadsUnsignedNumbers) {
  EXPECT_EQ(stringToLongInt("18446744073709551615"), std::numeric_limits<unsigned long>::max());
  EXPECT_EQ(stringToLongInt(""), 0U);
}

TEST(StringToLongLongIntTest, ReadsUnsignedNumbers) {
  EXPECT_EQ(stringToLongLongInt("18446744073709551615"),
            std::numeric_limits<unsigned long long>::max());
  EXPECT_EQ(stringToLongLongInt("abc"), 0U);
  EXPECT_EQ(stringToLongLongInt(""), 0U);
}

TEST(StringToDoubleTest, StopsAtWhatCannotContinueTheNumber) {
  EXPECT_DOUBLE_EQ(stringToDouble(" 2.5e3kg"), 2500.0);
  EXPECT_DOUBLE_EQ(stringToDouble("kg"), 0.0);
  EXPECT_DOUBLE_EQ(stringToDouble(""), 0.0);
}

TEST(NumberToTextTest, WritesWholeNumbersInDecimal) {
  EXPECT_EQ(intToString(-42), "-42");
  EXPECT_EQ(longToString(std::numeric_limits<long>::min()), "-9223372036854775808");
  EXPECT_EQ(longIntToString(-1), "-1");
  EXPECT_EQ(unsignedLongIntToString(std::numeric_limits<unsigned long>::max()),
            "18446744073709551615");
  EXPECT_EQ(unsignedLongLongIntToString(std::numeric_limits<unsigned long long>::max()),
            "18446744073709551615");
}

TEST(DoubleToStringTest, WritesSixSignificantDigitsInTheShorterNotation) {
  EXPECT_EQ(doubleToString(0.5), "0.5");
  EXPECT_EQ(doubleToString(3.14159265), "3.14159");
  EXPECT_EQ(doubleToString(123456.0), "123456");
  EXPECT_EQ(doubleToString(1234567.0), "1.23457e+06");
}

TEST(IPTest, RendersFirstOctetsBelow128AsDottedText) {
  EXPECT_EQ(IP().IPdecToIP(167772161), "10.0.0.1");
  EXPECT_EQ(IP().IPdecToIP(2130706433), "127.0.0.1");
  EXPECT_EQ(IP().IPdecToIP(0), "0.0.0.0");
  EXPECT_EQ(IP().IPdecToIP(2147483647), "127.255.255.255");
  EXPECT_TRUE(std::has_virtual_destructor_v<IP>);
}

TEST(IPTest, CarriesTheSignOfAFirstOctetFrom128On) {
  EXPECT_EQ(IP().IPdecToIP(3232235777), "192.65704.16777217.1");
  EXPECT_EQ(IP().IPdecToIP(2147483648), "128.65536.16777216.0");
  EXPECT_EQ(IP().IPdecToIP(4294967295), "255.65791.16777471.255");
}

}  // namespace
