#include "ctl/terminal/text.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/outputOf.h"

namespace {

constexpr long kNoon = 1714564800;  // 2024-05-01 12:00:00
constexpr long kDay = 86400;

TEST(TimeTextTest, ShowsTimesInUtc) {
  EXPECT_EQ(timeText(kNoon + 3729), "2024-05-01 13:02:09");
  EXPECT_EQ(timeText(0), "1970-01-01 00:00:00");
  EXPECT_EQ(timeText(-1), "1969-12-31 23:59:59");
  EXPECT_EQ(timeText(1709164800), "2024-02-29 00:00:00");
  EXPECT_EQ(timeText(2147483648), "2038-01-19 03:14:08");
  EXPECT_EQ(timeText(253402300799), "9999-12-31 23:59:59");
}

TEST(ShortTimeTest, LeavesTheDateOutOnTheSameDay) {
  EXPECT_EQ(shortTime(kNoon + 61, kNoon), "12:01:01");
  EXPECT_EQ(shortTime(kNoon + kDay, kNoon), "2024-05-02 12:00:00");
  EXPECT_EQ(shortTime(std::nullopt, kNoon), "-");
}

TEST(ShortTimeTest, ChangesAtMidnightUtc) {
  const long midnight = kNoon - kDay / 2;
  EXPECT_EQ(shortTime(midnight, kNoon), "00:00:00");
  EXPECT_EQ(shortTime(midnight + kDay - 1, kNoon), "23:59:59");
  EXPECT_EQ(shortTime(midnight - 1, kNoon), "2024-04-30 23:59:59");
  EXPECT_EQ(shortTime(midnight + kDay, kNoon), "2024-05-02 00:00:00");
  EXPECT_EQ(shortTime(midnight, midnight + kDay - 1), "00:00:00");
  EXPECT_EQ(shortTime(midnight - 1, midnight), "2024-04-30 23:59:59");
}

TEST(DurationTextTest, ShowsTheTwoLargestUnits) {
  const std::vector<std::pair<long, std::string>> cases = {
      {0, "0s"},
      {1, "1s"},
      {59, "59s"},
      {60, "1m"},
      {61, "1m 1s"},
      {3599, "59m 59s"},
      {3600, "1h"},
      {3601, "1h"},  // minutes are the second unit
      {3660, "1h 1m"},
      {kDay - 1, "23h 59m"},
      {kDay, "1d"},
      {kDay + 59, "1d"},
      {kDay + 3600, "1d 1h"},
      {90061, "1d 1h"},
      {365 * kDay + 23L * 3600, "365d 23h"},
      {-5, "0s"},
  };
  for (const auto& [seconds, text] : cases) {
    EXPECT_EQ(durationText(seconds), text) << seconds;
  }
}

TEST(CountedTest, HasAPluralForAllNumbersButOne) {
  EXPECT_EQ(counted(0, "run"), "0 runs");
  EXPECT_EQ(counted(1, "run"), "1 run");
  EXPECT_EQ(counted(2, "run"), "2 runs");
  EXPECT_EQ(counted(1000000, "history row"), "1,000,000 history rows");
}

TEST(JsonTimeTest, HasTheFormOfIso8601) {
  EXPECT_EQ(jsonTime(kNoon).asString(), "2024-05-01T12:00:00Z");
  EXPECT_EQ(jsonTime(0).asString(), "1970-01-01T00:00:00Z");
  EXPECT_TRUE(jsonTime(std::nullopt).isNull());
}

TEST(JsonMomentTest, ConvertsATimeOfTheDatabase) {
  EXPECT_EQ(jsonMoment("2024-05-01 13:02:09").asString(), "2024-05-01T13:02:09Z");
  EXPECT_EQ(jsonMoment("2024-05-01 13:02:09.25").asString(), "2024-05-01T13:02:09.25Z");
  EXPECT_TRUE(jsonMoment("").isNull());
}

TEST(JsonNumberTest, KeepsEveryBit) {
  EXPECT_EQ(jsonNumber(0).asInt64(), 0);
  EXPECT_EQ(jsonNumber(9223372036854775807).asInt64(), 9223372036854775807);
  EXPECT_EQ(jsonNumber(-1).asInt64(), -1);
  EXPECT_TRUE(jsonNumber(std::nullopt).isNull());
}

TEST(JsonTextTest, TellsAnEmptyTextFromNone) {
  EXPECT_EQ(jsonText("OK").asString(), "OK");
  EXPECT_TRUE(jsonText("").isString());
  EXPECT_TRUE(jsonText(std::nullopt).isNull());
}

std::string printed(const Json::Value& value) {
  return outputOf([&] { printJson(value); });
}

TEST(PrintJsonTest, IndentsAndEndsTheLine) {
  Json::Value value;
  value["b"] = 1;
  value["a"] = Json::Value(Json::arrayValue);
  EXPECT_EQ(printed(value), "{\n  \"a\" : [],\n  \"b\" : 1\n}\n");
  EXPECT_EQ(printed(Json::Value()), "null\n");
}

TEST(PrintJsonTest, KeepsUtf8) {
  EXPECT_EQ(printed("é 日本 \U0001f600"), "\"é 日本 \U0001f600\"\n");
}

TEST(PrintJsonTest, EscapesUnsafeCharacters) {
  EXPECT_EQ(printed("a\x1b[31m"), "\"a\\u001b[31m\"\n");
  EXPECT_EQ(printed("a\nb\tc"), "\"a\\nb\\tc\"\n");
  EXPECT_EQ(printed("\x7f \u009b \u202e \u2066"), "\"\\u007f \\u009b \\u202e \\u2066\"\n");
}

TEST(PrintJsonTest, ReplacesInvalidUtf8BySpaces) {
  EXPECT_EQ(printed("a\xff"
                    "b"),
            "\"a b\"\n");
  EXPECT_EQ(printed("caf\xc3"), "\"caf \"\n");
}

TEST(PrintJsonTest, CanBeReadAgain) {
  const std::string text = "\"quoted\" \\ \x1b \u009b \u202e é\n\t/";
  Json::Value value;
  value["key \u202e"] = text;
  std::string errors;
  Json::Value read;
  const std::string output = printed(value);
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  ASSERT_TRUE(reader->parse(output.data(), output.data() + output.size(), &read, &errors))
      << errors;
  EXPECT_EQ(read["key \u202e"].asString(), text);
}

}  // namespace
