#pragma once

#include <cstdlib>
#include <stdexcept>
#include <string>

/// The path of a built program, from an environment variable that ctest sets, such as
/// "KODU_TEST_DAEMON". Throws std::runtime_error without that variable.
inline std::string builtProgram(const std::string& variable) {
  const char* path = std::getenv(variable.c_str());
  if (path == nullptr) {
    throw std::runtime_error(variable + " is not set: run the tests by scripts/test");
  }
  return path;
}
