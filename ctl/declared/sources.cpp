#include "ctl/declared/sources.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "ctl/failure.h"
#include "ctl/files/regularFile.h"

namespace {

namespace fs = std::filesystem;

// The parser needs up to 170 bytes of memory for each.
constexpr std::size_t kMostBytes = 16UL << 20;

[[noreturn]] void refuse(const std::string& path, const std::string& reason, ExitCode code) {
  throw Failure(code, fmt::format("cannot read {}: {}", path, reason));
}

[[noreturn]] void refuseLarge(const std::string& path) {
  refuse(path, fmt::format("more than {} MB in all; split it", kMostBytes >> 20), kRefused);
}

Source readStandardInput() {
  Source source = {kStandardInput, ""};
  std::array<char, 65536> chunk{};
  ssize_t length = 0;
  while ((length = read(STDIN_FILENO, chunk.data(), chunk.size())) != 0) {
    if (length < 0 && errno != EINTR) {
      refuse(source.name, std::strerror(errno), kNotFound);
    }
    source.content.append(chunk.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    if (source.content.size() > kMostBytes) {
      refuseLarge(source.name);
    }
  }
  return source;
}

template <typename Iterator>
std::vector<std::string> pathsIn(const std::string& directory, const FileChoice& choice) {
  std::vector<std::string> paths;
  for (const fs::directory_entry& entry : Iterator(directory)) {
    const bool isFolder = choice.isRecursive && entry.is_directory();  // with files of its own
    if (choice.takes(entry.path().filename()) && !isFolder) {
      paths.push_back(entry.path());
    }
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

/// Those of a directory; a file stands for itself.
std::vector<std::string> pathsOf(const std::string& path, const FileChoice& choice) {
  if (!fs::is_directory(path)) {
    return {path};
  }
  std::vector<std::string> paths = choice.isRecursive
                                       ? pathsIn<fs::recursive_directory_iterator>(path, choice)
                                       : pathsIn<fs::directory_iterator>(path, choice);
  if (paths.empty()) {
    refuse(path, "the directory has no " + choice.description, kNotFound);
  }
  return paths;
}

bool isDeclaration(const std::string& name) {
  const std::string ending = fs::path(name).extension();
  return (ending == ".yaml" || ending == ".yml") && !name.starts_with('.');
}

}  // namespace

const FileChoice& declarationFiles() {
  static const FileChoice choice = {"files *.yaml or *.yml", isDeclaration};
  return choice;
}

std::vector<Source> readSources(const std::string& path, const FileChoice& choice) try {
  if (path == "-") {
    return {readStandardInput()};
  }
  std::vector<Source> sources;
  std::size_t bytes = 0;
  for (const std::string& file : pathsOf(path, choice)) {
    sources.push_back({file, readRegularFile(file, kMostBytes + 1)});
    bytes += sources.back().content.size();
    if (bytes > kMostBytes) {
      refuseLarge(path);
    }
  }
  return sources;
} catch (const fs::filesystem_error& e) {
  const bool isForbidden = e.code() == std::errc::permission_denied;
  refuse(path, e.code().message(), isForbidden ? kNotPermitted : kNotFound);
}
