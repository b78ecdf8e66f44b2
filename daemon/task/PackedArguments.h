#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// A plugin's arguments in one string, each ended by a NUL, as execve takes them. With a million
/// tasks, a vector of strings would take ten times the memory. Not locked.
class PackedArguments {
 public:
  void clear() { packed.clear(); }
  /// Reserves memory for that many bytes of arguments, NULs included.
  void reserve(std::size_t bytes) { packed.reserve(bytes); }
  /// Appends `argument` up to its first NUL, where execve would end it, unless nothing is left.
  void append(const std::string& argument) {
    const std::string_view word = argument.c_str();
    if (!word.empty()) {
      packed.append(word).push_back('\0');
    }
  }

  /// A copy of the arguments, in order.
  std::vector<std::string> toVector() const {
    std::vector<std::string> arguments;
    for (std::size_t at = 0; at < packed.size(); at += arguments.back().size() + 1) {
      arguments.emplace_back(packed.data() + at);
    }
    return arguments;
  }

  /// The arguments' characters. Belongs to the list; lives until it is changed.
  const std::string& characters() const { return packed; }

 private:
  std::string packed;
};
