#include "ctl/daemon/starts.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <optional>
#include <sstream>
#include <string_view>

namespace {

constexpr off_t kMostBytes = 1 << 20;
constexpr long kQuarterHour = 900;
constexpr std::string_view kStart = "#NOTICE#KODUCRON start....";

/// "Sun Nov 15 12:16:44 2026" as if it were UTC; nothing for another text.
std::optional<long> timeIn(const std::string& line) {
  std::tm parts{};
  const char* end = strptime(line.c_str(), "%a %b %d %H:%M:%S %Y", &parts);
  return end != nullptr && *end == '#' ? std::optional(timegm(&parts)) : std::nullopt;
}

/// The end of a file, at most a megabyte of it, and when it was written.
std::string endOf(const std::string& path, long& writtenAt) {
  const int file = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  struct stat status {};
  std::string text;
  if (file >= 0 && fstat(file, &status) == 0 && S_ISREG(status.st_mode)) {
    const off_t begin = std::max<off_t>(0, status.st_size - kMostBytes);
    text.resize(static_cast<std::size_t>(status.st_size - begin));
    const ssize_t length = pread(file, text.data(), text.size(), begin);
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    writtenAt = status.st_mtim.tv_sec;
  }
  close(file);
  return text;
}

}  // namespace

std::vector<long> startsInLog(const std::string& path) {
  long writtenAt = 0;
  std::istringstream lines(endOf(path, writtenAt));
  std::vector<long> starts;
  std::optional<long> last;
  for (std::string line; std::getline(lines, line);) {
    const auto time = timeIn(line);
    last = time ? time : last;
    if (time && line.find(kStart) != std::string::npos) {
      starts.push_back(*time);
    }
  }
  // The log has the daemon's local time: its distance from UTC is that between the last line and
  // the time at which the file was written.
  const long distance = last.value_or(0) - writtenAt;
  const long offset =
      (distance + (distance < 0 ? -kQuarterHour : kQuarterHour) / 2) / kQuarterHour * kQuarterHour;
  std::ranges::for_each(starts, [&](long& time) { time -= offset; });
  return starts;
}

long restartPeriod(const std::vector<long>& starts, long now) {
  constexpr std::size_t kLatest = 3;
  constexpr long kMinute = 60;
  if (starts.size() < kLatest || now - starts.back() >= kMinute) {
    return 0;
  }
  const long span = starts.back() - starts[starts.size() - kLatest];
  return span < kMinute ? std::max(1L, span / static_cast<long>(kLatest - 1)) : 0;
}
