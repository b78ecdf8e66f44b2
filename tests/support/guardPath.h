#pragma once

#include <cstdlib>
#include <stdexcept>
#include <string>

/// The path of the built koduguard. Throws std::runtime_error outside of the tests' environment.
inline std::string guardPath() {
  const char* path = std::getenv("KODU_TEST_GUARD");
  if (path == nullptr) {
    throw std::runtime_error("KODU_TEST_GUARD is not set: run the tests by scripts/test");
  }
  return path;
}
