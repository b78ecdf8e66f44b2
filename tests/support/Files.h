#pragma once

#include <filesystem>
#include <string>
#include <vector>

/// A temporary directory; the destructor removes it with its content.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  /// The directory's path, without a trailing slash.
  const std::string& path() const { return root; }
  /// The path of `name` in it.
  std::string operator/(const std::string& name) const { return root + "/" + name; }

 private:
  std::string root;
};

/// The bytes of the file; "" when it cannot be read.
std::string readFile(const std::string& path);

/// The file's lines, without their newlines; none when it cannot be read.
std::vector<std::string> readLines(const std::string& path);

/// The messages of a daemon's log in order, each as "LEVEL#message", without the time.
std::vector<std::string> readLog(const std::string& path);

/// Replaces the file's content. Throws std::runtime_error when it cannot.
void writeFile(const std::string& path, const std::string& content);

/// Writes an executable shell script, "#!/bin/sh" and `body`, and returns its path. Plugins have
/// no environment: commands in `body` need their full paths, or `PATH=/usr/bin:/bin`.
std::string writePlugin(const std::string& path, const std::string& body);

/// The path of a file of the project, by its path from the root.
std::string projectFile(const std::string& name);

/// The files of a directory, by name, sorted; none when there is no such directory.
std::vector<std::string> filesIn(const std::string& directory);
