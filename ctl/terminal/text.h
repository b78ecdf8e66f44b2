#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include <json/json.h>

// The formats of times and numbers in koductl's output. Times are seconds since the epoch. People
// see them in the zone of ctl/terminal/zone.h, JSON has UTC.

/// "2024-05-01 13:02:09".
std::string timeText(long time);
/// "2024-05-01 13:02:09 UTC": with the abbreviation of the zone.
std::string zonedTime(long time);
/// A time as the database prints it, "2024-05-01 13:02:09" in UTC; nothing for another text.
std::optional<long> utcTime(const std::string& text);
/// Such a time in the form of timeText();
/// another text as it is.
std::string localText(const std::string& utc);
/// The time alone on the day of `now`, else with its date; "-" without a value.
std::string shortTime(std::optional<long> time, long now);
/// "1d 2h", "5m", "90s": at most two units, the rest truncated.
std::string durationText(long seconds);
/// `count` and the noun, with an "s" for a plural: "1 run", "2 runs".
std::string counted(long count, const std::string& noun);

/// A count, which is not negative, with commas: "1,000,000".
std::string grouped(long count);

/// A time as the database prints it, "2024-05-01 13:02:09", as "2024-05-01T13:02:09Z"; null for "".
Json::Value jsonMoment(std::string time);
/// "2024-05-01T13:02:09Z", or nothing.
std::optional<std::string> jsonTimeText(std::optional<long> time);
/// The same or null.
Json::Value jsonTime(std::optional<long> time);
Json::Value jsonNumber(std::optional<long> number);
Json::Value jsonText(const std::optional<std::string>& text);
/// JSON text with the unsafe characters that a writer of JSON lets pass in the form "\u009b".
/// Outside of its strings JSON has none but the newlines that indent it.
std::string escapedJson(std::string_view json);
/// The text that printJson() prints.
std::string printedJson(const Json::Value& value);
/// Prints a value, indented, with a newline. Bytes that are not valid UTF-8 become spaces, as in
/// what the daemon stores; characters that common/plainText.h calls unsafe are escaped.
void printJson(const Json::Value& value);
