#include "sched/nextTime.h"

#include <cmath>
#include <ctime>
#include <limits>

#include "core/constants.h"
#include "core/globals.h"
#include "core/logFile.h"
#include "db/pgSafeThread.h"
#include "db/result.h"

namespace {

/// `value` cut to a whole number; the most negative one when it does not fit, as the processor has
/// it.
int cutToInt(float value) {
  constexpr float kBound = 2147483648.0F;  // 2^31
  const bool fits = value >= -kBound && value < kBound;
  return fits ? static_cast<int>(value) : std::numeric_limits<int>::min();
}

/// The whole number of intervals, rounded up, that `gapSeconds` makes.
int intervalsIn(double gapSeconds, unsigned int interval) {
  // Through single precision, whose 24 bits drop the last partial interval of a very long gap:
  // Tested by NextTimeTest.IsOneIntervalShortAfterAYear.
  return cutToInt(std::ceil(static_cast<float>(gapSeconds / static_cast<double>(interval))));
}

}  // namespace

long long getNextTimeToExec(std::string nextExecText, unsigned int interval, std::string taskId) {
  fileLog->write(kLogDebug, "cron task: getNextTimeToExec");
  const long long next = std::stoll(nextExecText);
  const long long now = std::time(nullptr);
  if (now <= next) {
    return next;
  }
  const auto gapSeconds = static_cast<double>(now - next);
  const int count = intervalsIn(gapSeconds, interval);
  fileLog->write(kLogDebug, [&] {
    return "calc time exec: calcule: " + std::to_string(gapSeconds) + " / " +
           std::to_string(interval) + " = " + std::to_string(count);
  });
  const ResultPtr result(
      pgSQL->executePrepareRequest("updateCronExecTask", {taskId, std::to_string(count)}));
  const std::string changed = cellText(result, 0, 0, "updateCronExecTask");
  const long long changedTime = std::stoll(changed);
  fileLog->write(kLogDebug, [&] { return "change time exec: " + changed; });
  return changedTime;
}
