#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

/// Called by libFuzzer for each input; returns 0.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

inline std::string_view textOf(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// The fields of an input, which are separated by newlines, at most `count` of them; missing ones
/// are "". The last holds the rest.
inline std::vector<std::string> fieldsOf(std::string_view text, std::size_t count) {
  std::vector<std::string> fields;
  while (fields.size() + 1 < count) {
    const auto end = text.find('\n');
    fields.emplace_back(text.substr(0, end));
    text = end == std::string_view::npos ? "" : text.substr(end + 1);
  }
  fields.emplace_back(text);
  return fields;
}

/// Ends the run with `claim` when it does not hold; libFuzzer keeps the input.
inline void check(bool holds, const char* claim) {
  if (!holds) {
    std::cerr << "does not hold: " << claim << std::endl;
    std::abort();
  }
}
