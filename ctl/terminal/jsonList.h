#pragma once

#include <string>

#include <json/json.h>

/// Prints a JSON array of any length, an element at a time, in the form of printJson(). Throws as
/// print(). Owned by one thread.
class JsonList {
 public:
  void add(const Json::Value& element);
  /// Closes the array.
  void end();

 private:
  bool isBegun = false;
};
