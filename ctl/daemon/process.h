#pragma once

#include <sys/types.h>

#include <array>
#include <filesystem>
#include <string>
#include <vector>

// What the kernel tells of other processes. Whatever this user may not see is missing from it.

/// Users, groups and mode mask of a process; nothing of one that is gone.
struct ProcessStatus {
  pid_t parent = 0;
  std::array<uid_t, 4> uids{};  // real, effective, saved, of the file system
  std::array<gid_t, 4> gids{};
  std::vector<gid_t> groups;
  mode_t umask = 022;

  /// True when the process cannot get other rights than those that it has: all its users are one,
  /// and all its groups.
  bool isOneUser() const;
};

/// The numbers of all processes.
std::vector<pid_t> processes();

ProcessStatus statusOf(pid_t process);
std::vector<std::string> argumentsOf(pid_t process);
/// Its working directory, as it sees that itself; "/" when it cannot be read.
std::string directoryOf(pid_t process);

/// The path of its executable, with " (deleted)" behind it when another file or none has that path
/// now; "" when this user may not know.
std::string executableOf(pid_t process);
/// True when its executable is that file, or was until an upgrade replaced it.
bool isRunning(pid_t process, const std::filesystem::path& executable);

/// True when it has the file open for writing. A relative path counts from its working directory.
bool holdsForWriting(pid_t process, const std::filesystem::path& file);
