#include "ctl/files/fileCheck.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "ctl/files/regularFile.h"

namespace {

/// By the effective user, unlike access(2).
bool isAllowed(const std::string& path, int mode) {
  return faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0;
}

std::string lastError() {
  return std::strerror(errno);
}

/// Why the kernel would not execute the file's content; nothing when it cannot be read.
std::optional<std::string> whyNoProgram(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string begin;
  if (!file.is_open() || !std::getline(file, begin)) {
    return file.is_open() ? std::optional<std::string>("it is empty") : std::nullopt;
  }
  if (begin.starts_with("\x7f"
                        "ELF")) {
    return std::nullopt;
  }
  if (!begin.starts_with("#!")) {
    return "it is neither a program nor a script that begins with #!";
  }
  const auto first = begin.find_first_not_of(" \t", 2);
  const auto end = begin.find_first_of(" \t", first);
  const std::string interpreter =
      first == std::string::npos ? "" : begin.substr(first, end - first);
  if (isAllowed(interpreter, X_OK)) {
    return std::nullopt;
  }
  return fmt::format("its interpreter '{}': {}", interpreter, lastError());
}

}  // namespace

std::optional<std::string> whyNotExecutable(const std::string& path, const std::string& directory) {
  const std::string full = path.starts_with('/') ? path : directory + "/" + path;
  struct stat status {};
  if (stat(full.c_str(), &status) != 0) {
    return lastError();
  }
  if (!S_ISREG(status.st_mode)) {
    return "it is not a regular file";
  }
  return isAllowed(full, X_OK) ? whyNoProgram(full) : lastError();
}

std::optional<std::string> whyNotWritable(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    return whyNoFilesIn(std::filesystem::path(path).parent_path());
  }
  if (S_ISDIR(status.st_mode)) {
    return "it is a directory";
  }
  if (const auto kind = waitingKind(status.st_mode)) {
    return *kind + ", and its writer waits for a reader";
  }
  return isAllowed(path, W_OK) ? std::nullopt : std::optional(lastError());
}

std::optional<std::string> whyNoFilesIn(const std::string& directory) {
  struct stat status {};
  if (stat(directory.c_str(), &status) != 0) {
    return fmt::format("directory {}: {}", directory, lastError());
  }
  if (!S_ISDIR(status.st_mode)) {
    return fmt::format("{} is not a directory", directory);
  }
  if (isAllowed(directory, W_OK | X_OK)) {
    return std::nullopt;
  }
  return fmt::format("directory {}: {}", directory, lastError());
}
