#include "tests/support/Files.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace fs = std::filesystem;

TempDir::TempDir() : root((fs::temp_directory_path() / "kodu-test-XXXXXX").string()) {
  if (mkdtemp(root.data()) == nullptr) {
    throw std::runtime_error("cannot make a directory like " + root);
  }
}

TempDir::~TempDir() {
  std::error_code ignored;
  fs::remove_all(root, ignored);
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

std::vector<std::string> readLines(const std::string& path) {
  std::ifstream file(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) {
    lines.push_back(line);
  }
  return lines;
}

std::vector<std::string> readLog(const std::string& path) {
  constexpr std::size_t kTimeLength = std::string_view("Sun Nov 15 12:16:44 2026#").size();
  std::vector<std::string> messages = readLines(path);
  for (std::string& message : messages) {
    message.erase(0, kTimeLength);
  }
  return messages;
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content << std::flush;
  if (!file) {
    throw std::runtime_error("cannot write " + path);
  }
}

std::string writePlugin(const std::string& path, const std::string& body) {
  writeFile(path, "#!/bin/sh\n" + body + "\n");
  fs::permissions(path, fs::perms::owner_all);
  return path;
}

std::string projectFile(const std::string& name) {
  const char* root = std::getenv("KODU_TEST_SOURCE");
  if (root == nullptr) {
    throw std::runtime_error("KODU_TEST_SOURCE is not set: run the tests by scripts/test");
  }
  return std::string(root) + "/" + name;
}

std::vector<std::string> filesIn(const std::string& directory) {
  std::vector<std::string> names;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(directory, ignored)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}
