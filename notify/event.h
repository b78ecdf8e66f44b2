#pragma once

#include <string>

#include <json/json.h>

/// An event as the database gives it, see sql/events.sql.
struct Event {
  std::string position;  // for EventSource::finish()
  std::string text;      // JSON, one line
  Json::Value fields;    // the same

  /// A field as text: "" for null, "7" for a number.
  std::string field(const std::string& name) const {
    const Json::Value& value = fields[name];
    return value.isNull() ? "" : value.asString();
  }
};
