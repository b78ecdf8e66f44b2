#pragma once

#include <cstdlib>
#include <string>
#include <utility>

/// Sets a variable of this process's environment, or removes it, during its lifetime.
class Variable {
 public:
  Variable(std::string variableName, const char* value) : name(std::move(variableName)) {
    const char* present = std::getenv(name.c_str());
    hadValue = present != nullptr;
    before = hadValue ? present : "";
    set(value);
  }
  ~Variable() { set(hadValue ? before.c_str() : nullptr); }
  Variable(const Variable&) = delete;
  Variable& operator=(const Variable&) = delete;

 private:
  void set(const char* value) const {
    if (value == nullptr) {
      unsetenv(name.c_str());
    } else {
      setenv(name.c_str(), value, 1);
    }
  }

  std::string name, before;
  bool hadValue = false;
};
