#pragma once

#include <sys/types.h>

#include <array>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

// Information from the kernel about other processes. What this user may not see is missing.

/// Users, groups and mode mask of a process; the defaults when it has ended.
struct ProcessStatus {
  pid_t parent = 0;
  std::array<uid_t, 4> uids{};  // real, effective, saved, of the file system
  std::array<gid_t, 4> gids{};
  std::vector<gid_t> groups;
  mode_t umask = 022;
  bool isThere = false;  // it has not ended

  /// True when the process cannot obtain other rights: all its user ids are equal, and all its
  /// group ids.
  bool isOneUser() const;
};

/// The numbers of all processes.
std::vector<pid_t> processes();

ProcessStatus statusOf(pid_t process);
std::vector<std::string> argumentsOf(pid_t process);
/// Its working directory, as it sees that itself; "/" when it cannot be read.
std::string directoryOf(pid_t process);

/// When it was started, in seconds since the epoch; nothing when it has ended.
std::optional<long> startOf(pid_t process);

/// The path of its executable, followed by " (deleted)" when that file has been replaced or
/// removed; "" when this user may not read it.
std::string executableOf(pid_t process);
/// True when its executable is that file, or was until an upgrade replaced it.
bool isRunning(pid_t process, const std::filesystem::path& executable);

/// True when it has the file open for writing. A relative path counts from its working directory.
bool holdsForWriting(pid_t process, const std::filesystem::path& file);
