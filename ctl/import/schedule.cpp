#include "ctl/import/schedule.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <bitset>
#include <charconv>
#include <optional>
#include <stdexcept>
#include <string_view>

#include "ctl/import/names.h"

namespace {

struct Refusal : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Field {
  const char* name;
  int lowest, highest, longestStep;
  std::string_view names;  // of three letters each, the first one for `lowest`
};

constexpr std::array<Field, 5> kFields = {{
    {"a minute", 0, 59, 60, ""},
    {"an hour", 0, 23, 24, ""},
    {"a day of the month", 1, 31, 31, ""},
    {"a month", 1, 12, 12, "janfebmaraprmayjunjulaugsepoctnovdec"},
    {"a weekday", 0, 7, 7, "sunmontuewedthufrisat"},
}};

using Bits = std::bitset<64>;

[[noreturn]] void refuse(std::string_view word, const std::string& problem) {
  throw Refusal(fmt::format("\"{}\" {}", excerpt(word), problem));
}

std::optional<int> numberIn(std::string_view word) {
  int number = 0;
  const auto parsed = std::from_chars(word.data(), word.data() + word.size(), number);
  const bool isDecimal =
      parsed.ec == std::errc() && parsed.ptr == word.data() + word.size() && word.front() != '-';
  return isDecimal ? std::optional(number) : std::nullopt;
}

std::optional<int> namedIn(std::string_view word, const Field& field) {
  constexpr std::size_t kLetters = 3;
  std::string lower(word);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c; });
  for (std::size_t at = 0; lower.size() == kLetters && at < field.names.size(); at += kLetters) {
    if (field.names.substr(at, kLetters) == lower) {
      return field.lowest + static_cast<int>(at / kLetters);
    }
  }
  return std::nullopt;
}

int valueOf(std::string_view word, const Field& field) {
  const auto value = word.empty() ? std::nullopt : numberIn(word);
  const int found = value.value_or(namedIn(word, field).value_or(-1));
  if (found < field.lowest || found > field.highest) {
    refuse(word, fmt::format("is not {}", field.name));
  }
  return found;
}

int stepOf(std::string_view item, std::size_t slash, const Field& field) {
  if (slash == std::string_view::npos) {
    return 1;
  }
  const std::string_view word = item.substr(slash + 1);
  const int step = word.empty() ? 0 : numberIn(word).value_or(0);
  if (step < 1 || step > field.longestStep) {
    refuse(item, "has a step that is not a number, or longer than the field");
  }
  return step;
}

/// The values of "*", "5", "5-9", "*/2" or "5-9/2".
Bits valuesOf(std::string_view item, const Field& field) {
  const std::size_t slash = item.find('/');
  const std::string_view range = item.substr(0, slash);
  const std::size_t dash = range.find('-');
  const int step = stepOf(item, slash, field);
  int lowest = field.lowest;
  int highest = field.highest;
  if (range != "*") {
    lowest = valueOf(range.substr(0, dash), field);
    highest = dash == std::string_view::npos ? lowest : valueOf(range.substr(dash + 1), field);
    if (slash != std::string_view::npos && dash == std::string_view::npos) {
      refuse(item, fmt::format("means different times in different programs; write {}-{}/{}",
                               lowest, field.highest, step));
    }
  }
  if (highest < lowest) {
    refuse(item, "ends before it begins");
  }
  Bits values;
  for (int value = lowest; value <= highest; value += step) {
    values.set(static_cast<std::size_t>(value));
  }
  return values;
}

Bits valuesOfList(std::string_view list, const Field& field) {
  Bits values;
  while (true) {
    const std::size_t comma = list.find(',');
    values |= valuesOf(list.substr(0, comma), field);
    if (comma == std::string_view::npos) {
      return values;
    }
    list.remove_prefix(comma + 1);
  }
}

/// A calendar of 30 February would never be due.
void requireADate(const std::vector<std::string>& fields, const std::array<Bits, 5>& values) {
  constexpr std::array<int, 13> kDays = {0, 31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (!fields[4].starts_with('*')) {
    return;
  }
  for (std::size_t month = 1; month < kDays.size(); ++month) {
    for (std::size_t day = 1; day <= static_cast<std::size_t>(kDays[month]); ++day) {
      if (values[3].test(month) && values[2].test(day)) {
        return;
      }
    }
  }
  throw Refusal("there is no such date in any year");
}

}  // namespace

Schedule scheduleOf(const std::vector<std::string>& fields) try {
  constexpr std::size_t kLongest = 1000;  // of a calendar
  if (fields.size() != kFields.size()) {
    throw Refusal("a schedule has five fields: minute, hour, day, month, weekday");
  }
  std::array<Bits, 5> values;
  for (std::size_t i = 0; i < kFields.size(); ++i) {
    values.at(i) = valuesOfList(fields[i], kFields.at(i));
  }
  requireADate(fields, values);
  const std::string calendar = fmt::format("{}", fmt::join(fields, " "));
  if (calendar.size() > kLongest) {
    throw Refusal("the schedule is longer than the 1000 characters of a calendar");
  }
  return {calendar, ""};
} catch (const Refusal& e) {
  return {"", e.what()};
}

Schedule scheduleOf(const std::string& word) {
  constexpr std::array<std::string_view, 7> kWords = {"@hourly",  "@daily",  "@midnight", "@weekly",
                                                      "@monthly", "@yearly", "@annually"};
  if (std::find(kWords.begin(), kWords.end(), word) != kWords.end()) {
    return {word, ""};
  }
  if (word == "@reboot") {
    return {"", "@reboot is not a time; a systemd unit can run a command at the start"};
  }
  return {"", fmt::format("the schedule \"{}\" is unknown", excerpt(word))};
}
