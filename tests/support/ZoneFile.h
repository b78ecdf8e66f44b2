#pragma once

#include <array>
#include <chrono>
#include <filesystem>
#include <string>
#include <utility>

#include "tests/support/Files.h"

/// A time zone file with one offset, which a test can bind over the machine's /etc/localtime.
class ZoneFile {
 public:
  ZoneFile(std::string file, int hoursEast) : path(std::move(file)) { set(hoursEast); }

  /// The zone from now on.
  void set(int hoursEast) {
    using std::string_literals::operator""s;
    // Version 1: no transitions, one type, whose name has four bytes.
    std::string content = "TZif"s + std::string(16, '\0') + counts({0, 0, 0, 0, 1, 4});
    content += bigEndian(hoursEast * 3600) + "\0\0TST\0"s;
    writeFile(path, content);
    // Readers compare modification times in seconds, and the last change may be less than a second
    // ago.
    changes += std::chrono::seconds(2);
    std::filesystem::last_write_time(path, std::filesystem::file_time_type::clock::now() + changes);
  }

  const std::string& name() const { return path; }

 private:
  static std::string bigEndian(int value) {
    std::string bytes;
    for (const int shift : {24, 16, 8, 0}) {
      bytes += static_cast<char>(static_cast<unsigned>(value) >> shift & 0xFFU);
    }
    return bytes;
  }
  static std::string counts(const std::array<int, 6>& values) {
    std::string bytes;
    for (const int value : values) {
      bytes += bigEndian(value);
    }
    return bytes;
  }

  std::string path;
  std::chrono::seconds changes{0};
};
