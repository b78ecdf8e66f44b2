#pragma once

#include <sys/types.h>
#include <sys/wait.h>

#include <filesystem>
#include <optional>
#include <string>
#include <tuple>

#include "tests/support/Files.h"

/// The exit status in a status of waitpid; -1 for a process that a signal ended or that still runs.
inline int exitStatusOf(const std::optional<int>& status) {
  return status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
}

/// The signal that ended a process, from a status of waitpid; -1 when it ended without one.
inline int signalOf(const std::optional<int>& status) {
  return status && WIFSIGNALED(*status) ? WTERMSIG(*status) : -1;
}

/// The number of threads of a process; 0 when it is gone.
inline int threadCount(pid_t pid) {
  int count = 0;
  std::error_code ignored;
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  for (const auto& thread : std::filesystem::directory_iterator(tasks, ignored)) {
    std::ignore = thread;
    ++count;
  }
  return count;
}

/// True when each thread of a process waits for something.
inline bool allThreadsWait(pid_t pid) {
  std::error_code ignored;
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  for (const auto& thread : std::filesystem::directory_iterator(tasks, ignored)) {
    const std::string stat = readFile(thread.path() / "stat");
    const auto nameEnd = stat.rfind(") ");
    if (nameEnd == std::string::npos || stat.at(nameEnd + 2) != 'S') {
      return false;
    }
  }
  return true;
}

/// The number of threads of a process in the system call `number` (SYS_futex and others).
inline int threadsIn(pid_t pid, long number) {
  int count = 0;
  std::error_code ignored;
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  for (const auto& thread : std::filesystem::directory_iterator(tasks, ignored)) {
    const std::string call = readFile(thread.path() / "syscall");
    count += call.starts_with(std::to_string(number) + " ") ? 1 : 0;
  }
  return count;
}
