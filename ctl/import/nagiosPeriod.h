#pragma once

#include <array>
#include <optional>
#include <string>
#include <utility>
#include <vector>

class Import;
struct NagiosObject;

/// A time period: for each weekday, Sunday first, ranges of minutes since midnight, the end
/// excluded.
struct WeeklyPeriod {
  std::array<std::vector<std::pair<int, int>>, 7> days;

  /// True when it leaves nothing of the week out.
  bool isAlways() const;
};

/// Reads the weekdays of a time period. Exceptions by date, and other time periods that it
/// excludes, are reported and have no effect.
WeeklyPeriod weeklyPeriod(const NagiosObject& object, Import& import);

/// The calendar of runs every `minutes` within the period. `seed` chooses the minute, so that tasks
/// do not all begin at the same one. Nothing when no calendar can say it: the minutes do not divide
/// a day, a range of the period would have no run, or it would be longer than 1000 characters.
std::optional<std::string> calendarWithin(const WeeklyPeriod& period, int minutes, unsigned seed);
