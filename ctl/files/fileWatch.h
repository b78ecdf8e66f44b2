#pragma once

#include <array>
#include <string>

/// Tells which files of a directory have been written. Owned by one thread.
class FileWatch {
 public:
  /// Begins to watch. Throws Failure (kNotFound, kNotPermitted) when it cannot.
  explicit FileWatch(std::string directory);
  ~FileWatch();
  FileWatch(const FileWatch&) = delete;
  FileWatch& operator=(const FileWatch&) = delete;

  /// Waits for the next file that is closed after it was opened for writing, and returns its name
  /// without the directory. "" when more files were written than the kernel keeps: some are missed
  /// then. Throws Failure (kNotFound) when the directory is gone.
  std::string next();

 private:
  void refuse(const std::string& what, int error) const;

  const std::string path;
  int events;  // the descriptor of inotify
  // Some events, of which those before `at` have been returned.
  alignas(8) std::array<char, 65536> buffer{};
  std::size_t at = 0, end = 0;
};
