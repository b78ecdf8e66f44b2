#include "ctl/declared/sqlText.h"

#include <fmt/format.h>

std::string sqlArray(const std::vector<std::string>& texts) {
  std::string array = "{";
  for (const std::string& text : texts) {
    array += array.size() > 1 ? ",\"" : "\"";
    for (const char c : text) {
      array += c == '"' || c == '\\' ? "\\" : "";
      array += c;
    }
    array += '"';
  }
  return array + "}";
}

std::string sqlPeriod(const std::string& interval) {
  return fmt::format(
      "CASE WHEN EXTRACT(YEAR FROM {0}) <> 0 OR EXTRACT(MONTH FROM {0}) <> 0 THEN ({0})::text"
      " ELSE trim_scale(EXTRACT(EPOCH FROM {0}))::text END",
      interval);
}
