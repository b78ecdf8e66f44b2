#include "ctl/import/nagiosPeriod.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <set>
#include <string_view>

#include "ctl/import/import.h"
#include "ctl/import/nagiosObjects.h"
#include "ctl/import/names.h"

namespace {

constexpr int kDay = 1440;  // minutes

constexpr std::array<std::string_view, 7> kWeekdays = {"sunday",   "monday", "tuesday", "wednesday",
                                                       "thursday", "friday", "saturday"};

/// "09:30" as minutes; -1 for another text.
int minutesOf(std::string_view time) {
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  const std::size_t colon = time.find(':');
  const bool isTime = (colon == 1 || colon == 2) && time.size() == colon + 3 &&
                      std::all_of(time.begin(), time.begin() + static_cast<long>(colon), isDigit) &&
                      isDigit(time[colon + 1]) && isDigit(time[colon + 2]);
  if (!isTime) {
    return -1;
  }
  const int hour = std::atoi(std::string(time.substr(0, colon)).c_str());  // NOLINT(cert-err34-c)
  const int minute = (time[colon + 1] - '0') * 10 + time[colon + 2] - '0';
  return minute < 60 && hour * 60 + minute <= kDay ? hour * 60 + minute : -1;
}

/// "09:00-12:00,13:00-17:00"; nothing for another text.
std::optional<std::vector<std::pair<int, int>>> rangesIn(const std::string& text) {
  std::vector<std::pair<int, int>> ranges;
  for (const std::string& range : listIn(text)) {
    const std::size_t dash = range.find('-');
    const int begin = minutesOf(std::string_view(range).substr(0, dash));
    const int end =
        dash == std::string::npos ? -1 : minutesOf(std::string_view(range).substr(dash + 1));
    if (begin < 0 || end <= begin) {
      return std::nullopt;
    }
    ranges.emplace_back(begin, end);
  }
  return ranges;
}

/// The times of runs on one day: its hours by their minutes.
using Times = std::map<std::vector<int>, std::vector<int>>;

/// Nothing when a range has no run.
std::optional<Times> timesOf(const std::vector<std::pair<int, int>>& ranges, int first,
                             int interval) {
  std::map<int, std::set<int>> minutesByHour;
  for (const auto& [begin, end] : ranges) {
    bool hasRun = false;
    for (int time = first; time < end; time += interval) {
      if (time >= begin) {
        minutesByHour[time / 60].insert(time % 60);
        hasRun = true;
      }
    }
    if (!hasRun) {
      return std::nullopt;
    }
  }
  Times times;
  for (const auto& [hour, minutes] : minutesByHour) {
    times[{minutes.begin(), minutes.end()}].push_back(hour);
  }
  return times;
}

/// Numbers in ascending order, "9-17" for neighbours.
std::string listOf(const std::vector<int>& numbers) {
  std::vector<std::string> parts;
  for (std::size_t first = 0; first < numbers.size();) {
    std::size_t last = first;
    while (last + 1 < numbers.size() && numbers[last + 1] == numbers[last] + 1) {
      ++last;
    }
    parts.push_back(first == last ? fmt::format("{}", numbers[first])
                                  : fmt::format("{}-{}", numbers[first], numbers[last]));
    first = last + 1;
  }
  return fmt::format("{}", fmt::join(parts, ","));
}

/// "2-59/5" where the minutes are those of a step, else a list.
std::string minutesText(const std::vector<int>& minutes) {
  const int step = minutes.size() > 1 ? minutes[1] - minutes[0] : 0;
  for (std::size_t i = 1; i < minutes.size(); ++i) {
    if (minutes[i] - minutes[i - 1] != step) {
      return listOf(minutes);
    }
  }
  const bool reachesEnd = minutes.front() < step && minutes.back() + step > 59;
  return minutes.size() > 2 && reachesEnd ? fmt::format("{}-59/{}", minutes.front(), step)
                                          : listOf(minutes);
}

/// The expressions of a union, for days that have the same times together.
std::string calendarText(const std::map<Times, std::vector<int>>& days) {
  std::string text;
  for (const auto& [times, weekdays] : days) {
    for (const auto& [minutes, hours] : times) {
      text += fmt::format("{}{} {} * * {}", text.empty() ? "" : "; ", minutesText(minutes),
                          listOf(hours), weekdays.size() == 7 ? "*" : listOf(weekdays));
    }
  }
  return text;
}

}  // namespace

bool WeeklyPeriod::isAlways() const {
  return std::all_of(days.begin(), days.end(), [](const auto& ranges) {
    std::vector<std::pair<int, int>> sorted = ranges;
    std::sort(sorted.begin(), sorted.end());
    int covered = 0;
    for (const auto& [begin, end] : sorted) {
      covered = begin <= covered ? std::max(covered, end) : covered;
    }
    return covered == kDay;
  });
}

WeeklyPeriod weeklyPeriod(const NagiosObject& object, Import& import) {
  WeeklyPeriod period;
  for (const auto& [name, directive] : object.directives) {
    const auto* const day = std::find(kWeekdays.begin(), kWeekdays.end(), name);
    const auto ranges = rangesIn(directive.value);
    if (day != kWeekdays.end() && ranges) {
      period.days.at(static_cast<std::size_t>(day - kWeekdays.begin())) = *ranges;
    } else if (name != "timeperiod_name" && name != "alias") {
      import.leaveOut(directive.place,
                      fmt::format("a calendar cannot say \"{} {}\" in addition to weekdays",
                                  excerpt(name), excerpt(directive.value)));
    }
  }
  return period;
}

std::optional<std::string> calendarWithin(const WeeklyPeriod& period, int minutes, unsigned seed) {
  constexpr std::size_t kLongest = 1000;
  const auto firstDay = std::find_if(period.days.begin(), period.days.end(),
                                     [](const auto& ranges) { return !ranges.empty(); });
  if (minutes < 1 || minutes > kDay || kDay % minutes != 0 || firstDay == period.days.end()) {
    return std::nullopt;
  }
  // Within the first range, also when that is shorter than the interval.
  const auto [begin, end] = firstDay->front();
  const int first =
      (begin + static_cast<int>(seed % static_cast<unsigned>(std::min(minutes, end - begin)))) %
      minutes;
  std::map<Times, std::vector<int>> days;
  for (std::size_t day = 0; day < period.days.size(); ++day) {
    const auto times = timesOf(period.days.at(day), first, minutes);
    if (!times) {
      return std::nullopt;
    }
    days[*times].push_back(static_cast<int>(day));
  }
  const std::string text = calendarText(days);
  return text.size() <= kLongest ? std::optional(text) : std::nullopt;
}
