#pragma once

#include <string>
#include <vector>

/// A schedule of a crontab as a calendar of tasks, or the reason why there is none.
struct Schedule {
  std::string calendar;
  std::string reason;  // "": there is a calendar
};

/// Of the five fields of a crontab, by the rules of crontab(5). What other programs mean by further
/// forms differs, so they are refused: 7/15, ranges that end before they begin.
Schedule scheduleOf(const std::vector<std::string>& fields);

/// Of a word such as "@daily".
Schedule scheduleOf(const std::string& word);
