#pragma once

#include <functional>
#include <string>
#include <vector>

/// The name of the source that is standard input.
constexpr const char* kStandardInput = "standard input";

/// A file that has been read.
struct Source {
  std::string name, content;
};

/// Which files of a directory are read.
struct FileChoice {
  std::string description;                             // for a message: "files *.yaml or *.yml"
  std::function<bool(const std::string& name)> takes;  // by the name of the file
  bool isRecursive = false;                            // with the files of subdirectories
};

/// *.yaml and *.yml files, without those whose name begins with a dot.
const FileChoice& declarationFiles();

/// Reads a file; the chosen files of a directory, by name; or for "-" standard input. Links to
/// files are followed. Throws Failure for what cannot be read, is no regular file, or is larger
/// than 16 MB in all, and for a directory without such files.
std::vector<Source> readSources(const std::string& path,
                                const FileChoice& choice = declarationFiles());
