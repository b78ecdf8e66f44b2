#pragma once

#include <string>
#include <vector>

/// A file with declarations.
struct Source {
  std::string name, content;
};

/// Reads a file; the *.yaml and *.yml files of a directory, by name, without those whose name
/// begins with a dot; or for "-" standard input. Links are followed. Throws Failure for what cannot
/// be read, is no regular file, or is larger than 16 MB in all, and for a directory without such
/// files.
std::vector<Source> readSources(const std::string& path);
