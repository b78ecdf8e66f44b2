#include "core/localTime.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>

namespace {

/// One look at the zone. One word, so that no lock is needed to keep the two together: an offset
/// that belongs to another second would be an hour off when daylight saving time begins or ends.
struct alignas(8) Look {
  std::uint32_t second;  // the lowest bits: only compared
  std::int32_t offset;
};
static_assert(std::atomic<Look>::is_always_lock_free);

std::atomic<Look> lastLook = Look{0, 0};

std::time_t present() {
  return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
}

// Held over a look. The C library has a lock of its own, which no checker of races knows.
// HandlerQuit takes neither.
std::mutex looking;

Look lookAtZone(std::time_t now) {
  const std::lock_guard lock(looking);
  std::tm local{};
  tzset();  // localtime_r alone reads /etc/localtime once
  localtime_r(&now, &local);
  const Look look{static_cast<std::uint32_t>(now), static_cast<std::int32_t>(local.tm_gmtoff)};
  lastLook = look;
  return look;
}

}  // namespace

long utcOffset(std::time_t now) {
  const Look look = lastLook;
  return (look.second == static_cast<std::uint32_t>(now) ? look : lookAtZone(now)).offset;
}

void followZone() {
  utcOffset(present());
}

long lastUtcOffset() {
  return lastLook.load().offset;
}

void readZone() {
  lookAtZone(present());
}

std::tm calendarTime(std::time_t seconds) {
  const std::chrono::sys_seconds time{std::chrono::seconds(seconds)};
  const auto day = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss clock(time - day);
  std::tm parts{};
  parts.tm_year = static_cast<int>(date.year()) - 1900;
  parts.tm_mon = static_cast<int>(static_cast<unsigned>(date.month())) - 1;
  parts.tm_mday = static_cast<int>(static_cast<unsigned>(date.day()));
  parts.tm_wday = static_cast<int>(std::chrono::weekday(day).c_encoding());
  parts.tm_hour = static_cast<int>(clock.hours().count());
  parts.tm_min = static_cast<int>(clock.minutes().count());
  parts.tm_sec = static_cast<int>(clock.seconds().count());
  return parts;
}
