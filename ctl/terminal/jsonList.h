#pragma once

#include <string>
#include <string_view>
#include <utility>

#include <json/json.h>

/// Writes a JSON object of many, in the form of printJson() and many times faster than by way of a
/// Json::Value. The caller begins and ends objects in pairs, and writes a name before each value.
class JsonText {
 public:
  /// `levels` of lists and objects are around the object.
  explicit JsonText(int levels) : depth(levels) {}

  void begin();
  void name(const char* member);
  void value(std::string_view content);
  void value(const char* content) { value(std::string_view(content)); }  // else it is a bool
  void value(long number);
  void value(bool isTrue);
  void null() { text += "null"; }
  void end();

  /// What has been written. The writer is empty then.
  std::string take() { return std::move(text); }

 private:
  void beginLine();

  std::string text;
  int depth;
  bool isFirst = true;  // of the members
};

/// Prints a JSON array of any length, an element at a time, in the form of printJson(). Throws as
/// print(). Owned by one thread.
class JsonList {
 public:
  /// `element` is the text of a value, its further lines indented by one level.
  void add(const std::string& element);
  void addValue(const Json::Value& element);
  /// Closes the array.
  void end();

 private:
  bool isBegun = false;
};
