#include "ctl/daemon/serviceManager.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <sstream>
#include <string>
#include <system_error>

#include "ctl/daemon/childProcess.h"

namespace {

constexpr const char* kSystemctl = "/usr/bin/systemctl";
constexpr const char* kJournalctl = "/usr/bin/journalctl";

/// The journal's name of the message that a unit is restarted automatically.
constexpr const char* kRestartScheduled = "5eb03494b6584870a536b337290809b3";

}  // namespace

bool hasServiceManager() {
  std::error_code error;
  return std::filesystem::is_directory("/run/systemd/system", error);
}

std::optional<pid_t> daemonOfServiceManager() {
  if (!hasServiceManager()) {
    return std::nullopt;
  }
  const ChildResult shown =
      runProgram({kSystemctl, "show", "--property=MainPID", "--value", kServiceUnit});
  pid_t process = 0;
  if (shown.isDone()) {
    std::from_chars(shown.output.data(), shown.output.data() + shown.output.size(), process);
  }
  return process > 0 ? std::optional(process) : std::nullopt;
}

std::string unitProperties(const std::vector<std::string>& names) {
  if (!hasServiceManager()) {
    return "";
  }
  const ChildResult shown = runProgram(
      {kSystemctl, "show", fmt::format("--property={}", fmt::join(names, ",")), kServiceUnit});
  return shown.isDone() ? shown.output : "";
}

std::optional<std::vector<long>> restartsSince(long time) {
  if (!hasServiceManager()) {
    return std::nullopt;
  }
  // One line a restart, which begins with the seconds since the epoch.
  const ChildResult said =
      runProgram({kJournalctl, "--quiet", "--no-pager", "--output=short-unix",
                  fmt::format("--since=@{}", time), fmt::format("MESSAGE_ID={}", kRestartScheduled),
                  fmt::format("UNIT={}", kServiceUnit)});
  if (!said.isDone()) {
    return std::nullopt;
  }
  std::vector<long> times;
  std::istringstream lines(said.output);
  for (std::string line; std::getline(lines, line);) {
    long at = 0;
    if (std::from_chars(line.data(), line.data() + line.size(), at).ec == std::errc()) {
      times.push_back(at);
    }
  }
  std::sort(times.begin(), times.end());
  return times;
}
