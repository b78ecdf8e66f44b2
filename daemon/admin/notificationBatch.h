#pragma once

#include <memory>
#include <string>
#include <vector>

#include <json/reader.h>

/// Collects the task ids that notifications name until the loader takes them. Owned by the listener
/// thread.
class NotificationBatch {
 public:
  /// Adds the id that `payload` names, if it names one. A payload that is not JSON, or nested
  /// deeper than the reader allows (1,000), is logged and dropped. Throws Json::LogicError when a
  /// value is of the wrong type, which is not caught.
  void add(const std::string& payload);

  /// Hands the ids to the loader, additions first, in the order in which they came, and forgets
  /// them. Throws what the loader throws.
  void load();

  /// The ids that wait for load().
  const std::vector<int>& additions() const { return added; }
  const std::vector<int>& updates() const { return updated; }

 private:
  /// False when `payload` is not JSON or nested too deep.
  bool parse(const std::string& payload, Json::Value& message);

  std::unique_ptr<Json::CharReader> reader{Json::CharReaderBuilder().newCharReader()};
  Json::String errors;  // reused by every parse
  std::vector<int> added;
  std::vector<int> updated;
};
